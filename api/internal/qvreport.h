// The one way out for every message line of the library: it sets the calling
// thread's last error (code and text) and hands the line to the message
// handler, or writes it as it is to standard error (standard output for the
// busy notices). Codes of SQLite and system failures come from one mapping.
#ifndef QV_INTERNAL_QVREPORT_H
#define QV_INTERNAL_QVREPORT_H

#include <sqlite3.h>

#include "qverror.h"

namespace qvreport {

// The calling thread's last code; __thread so that the success path is one
// plain store, with no initialisation check, and initial-exec so that the
// store needs no call to find the thread's copy (4 bytes of static TLS).
extern __thread int t_lastCode __attribute__((tls_model("initial-exec")));

// Every exported operation starts by saying it has not failed (yet).
inline void succeeded() { t_lastCode = QV_OK; }

// A failure line in printf form (the format ends in "\n"), with its code.
void failure(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));

// A failed SQLite call on db: `format` has one %s for SQLite's message; the
// code comes from the connection's last result.
void sqliteFailure(sqlite3* db, const char* format);

// A failed system call in perror form (`text`, ": ", the system's text);
// the code comes from errno.
void systemFailure(const char* text);

// A failure that prints no line (a lookup without a row): only the last
// error is set, to `code` and the text of the printf form.
void silentFailure(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));

// A line that is no failure (a warning, a wait announced): it goes where the
// failure lines go (`toStdout` puts it on standard output when there is no
// handler) and leaves the last error alone.
void notice(int code, bool toStdout, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The code of an SQLite result and message; of an errno.
int codeOfSqlite(int result, const char* message);
int codeOfErrno(int error);

}  // namespace qvreport

#endif  // QV_INTERNAL_QVREPORT_H
