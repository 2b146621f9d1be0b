// The checks that the operations of both stores and of the messaging unit
// make before they start: every required argument given, the store's
// connection open. Each reports one line when it fails. Being the first
// thing every operation calls, they also clear the thread's last error.
#ifndef QV_INTERNAL_QVCHECK_H
#define QV_INTERNAL_QVCHECK_H

#include <sqlite3.h>

#include <cstdio>

#include "internal/qvreport.h"

namespace qvcheck {

// A pointer argument (a text, a record, an array or a callback) that the
// operation cannot do without.
template <typename Pointer>
bool argumentGiven(Pointer argument, const char* operation) {
    if (argument != nullptr) {
        qvreport::succeeded();
        return true;
    }
    qvreport::failure(QV_ERR_ARGUMENT, "%s: a required argument is null\n", operation);
    return false;
}

// An operation refuses to run on its store's closed connection. `why` says
// so in the store's words, with %s for the operation; `report` is the format
// (one %s) that the store prints it in.
inline bool storeIsOpen(const sqlite3* connection, const char* operation, const char* why,
                        const char* report = "%s") {
    if (connection != nullptr) {
        qvreport::succeeded();
        return true;
    }
    char text[256];
    std::snprintf(text, sizeof text, why, operation);
    qvreport::failure(QV_ERR_NOT_OPEN, report, text);
    return false;
}

}  // namespace qvcheck

#endif  // QV_INTERNAL_QVCHECK_H
