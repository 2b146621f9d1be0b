// SQLite helpers shared by the store units: busy retry, text binding and
// bounded copies of column texts into fixed record fields.
#ifndef QV_INTERNAL_QVSQLITE_H
#define QV_INTERNAL_QVSQLITE_H

#include <sqlite3.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "internal/qvreport.h"
#include "internal/qvrowkey.h"
#include "internal/qvtexts.h"

namespace qvsql {

// Fixed pause before a call that SQLite answered with SQLITE_BUSY is repeated.
constexpr useconds_t kBusyPauseMicros = 2000;

// Steps until the answer is something other than SQLITE_BUSY.
inline int stepWithBusyRetry(sqlite3_stmt* stmt) {
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_BUSY) usleep(kBusyPauseMicros);
    return rc;
}

// The same, announcing each wait with a line on stdout.
inline int stepAnnouncingBusy(sqlite3_stmt* stmt) {
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_BUSY) {
        qvreport::notice(QV_ERR_BUSY, true, "%s\n", qvtext::kStepBusy);
        usleep(kBusyPauseMicros);
    }
    return rc;
}

// Prepares, repeating the same prepare while the store is busy.
inline int prepareWithBusyRetry(sqlite3* db, const char* sql, sqlite3_stmt** stmt) {
    int rc;
    while ((rc = sqlite3_prepare_v2(db, sql, -1, stmt, nullptr)) == SQLITE_BUSY)
        usleep(kBusyPauseMicros);
    return rc;
}

// Binds the caller's text in place (no copy); it must outlive the step.
inline int bindText(sqlite3_stmt* stmt, int index, const char* text) {
    return sqlite3_bind_text(stmt, index, text, static_cast<int>(std::strlen(text)),
                             SQLITE_STATIC);
}

// Binds at most maxLength bytes of the caller's text in place, ending at its
// terminator when there is one: a record's field need not be terminated.
inline int bindText(sqlite3_stmt* stmt, int index, const char* text, std::size_t maxLength) {
    return sqlite3_bind_text(stmt, index, text, static_cast<int>(strnlen(text, maxLength)),
                             SQLITE_STATIC);
}

// A record's text field of N bytes holds at most N - 1 characters.
template <std::size_t N>
inline int bindField(sqlite3_stmt* stmt, int index, const char (&field)[N]) {
    return bindText(stmt, index, field, N - 1);
}

// The row key of a stored DA reference (IED name included): RSHash of its
// bytes, kept in the store as a non-negative 64-bit number. The loader that
// writes the keys and the operations that look them up share it.
inline sqlite3_int64 rowKey(std::string_view reference) {
    return static_cast<sqlite3_int64>(
        qvkey::rsHash(reference.data(), static_cast<unsigned int>(reference.size())));
}

// The length of a text of `length` bytes cut to at most `limit` bytes
// without splitting a UTF-8 character.
inline std::size_t cutLength(const char* src, std::size_t length, std::size_t limit) {
    if (length <= limit) return length;
    std::size_t n = limit;
    while (n > 0 && (static_cast<unsigned char>(src[n]) & 0xC0) == 0x80) --n;
    return n;
}

// Copies src into a field of `size` bytes, cutting it to at most size - 1
// bytes at a UTF-8 character boundary (a field never ends in half a
// character) and always terminating it. A null source becomes the empty text.
inline void copyText(char* dst, std::size_t size, const char* src) {
    if (size == 0) return;
    if (src == nullptr) src = "";
    const std::size_t n = cutLength(src, std::strlen(src), size - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

template <std::size_t N>
inline void copyText(char (&dst)[N], const char* src) {
    copyText(dst, N, src);
}

// Copies a text column into a fixed field; a NULL column becomes "".
template <std::size_t N>
inline void copyColumnText(sqlite3_stmt* stmt, int column, char (&dst)[N]) {
    copyText(dst, N, reinterpret_cast<const char*>(sqlite3_column_text(stmt, column)));
}

// Owns a statement prepared for one call: reset and finalised on every path.
class Statement {
public:
    Statement() = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() {
        if (stmt_ != nullptr) {
            sqlite3_reset(stmt_);
            sqlite3_finalize(stmt_);
        }
    }
    // One attempt, no busy retry.
    int prepare(sqlite3* db, const char* sql) {
        return sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr);
    }
    sqlite3_stmt* get() const { return stmt_; }
    sqlite3_stmt** out() { return &stmt_; }

private:
    sqlite3_stmt* stmt_ = nullptr;
};

// Result rows into a caller's array of `capacity` records, from index 0. A
// row that finds the array full is left out and marks the list as cut.
template <typename Record>
class BoundedList {
public:
    BoundedList(Record* records, int capacity) : records_(records), capacity_(capacity) {}

    // Reads the row into the next record; false, without reading, when the
    // array is full (the caller stops stepping there).
    template <typename Read>
    bool add(sqlite3_stmt* row, Read read) {
        if (filled_ >= capacity_) {
            cut_ = true;
            return false;
        }
        read(row, records_[filled_++]);
        return true;
    }

    // A query that failed passes its result on and leaves *pCount alone;
    // otherwise *pCount is the number filled and the result 0, or 1 when
    // rows were left out.
    int finish(int queryResult, int* pCount) const {
        if (queryResult != 0) return queryResult;
        *pCount = filled_;
        return cut_ ? 1 : 0;
    }

private:
    Record* records_;
    int capacity_;
    int filled_ = 0;
    bool cut_ = false;
};

}  // namespace qvsql

#endif  // QV_INTERNAL_QVSQLITE_H
