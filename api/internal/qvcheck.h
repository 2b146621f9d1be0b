// The checks that the operations of both stores and of the messaging unit
// make before they start: every required argument given, the store's
// connection open. Each prints one line on stderr when it fails.
#ifndef QV_INTERNAL_QVCHECK_H
#define QV_INTERNAL_QVCHECK_H

#include <sqlite3.h>

#include <cstdio>

namespace qvcheck {

// A pointer argument (a text, a record, an array or a callback) that the
// operation cannot do without.
template <typename Pointer>
bool argumentGiven(Pointer argument, const char* operation) {
    if (argument != nullptr) return true;
    std::fprintf(stderr, "%s: a required argument is null\n", operation);
    return false;
}

// An operation refuses to run on its store's closed connection. `why` says
// so in the store's words, with %s for the operation; `report` is the format
// (one %s) that the store prints it in.
inline bool storeIsOpen(const sqlite3* connection, const char* operation, const char* why,
                        const char* report = "%s") {
    if (connection != nullptr) return true;
    char text[256];
    std::snprintf(text, sizeof text, why, operation);
    std::fprintf(stderr, report, text);
    return false;
}

}  // namespace qvcheck

#endif  // QV_INTERNAL_QVCHECK_H
