// The last error of each thread and the message handler: see
// internal/qvreport.h for how the library reports through them.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "internal/qvreport.h"
#include "qverror.h"

namespace qvreport {

__thread int t_lastCode __attribute__((tls_model("initial-exec"))) = QV_OK;

namespace {

constexpr std::size_t kLineSize = 1024;

// Written only on failure; read only when the code is not QV_OK.
__thread char t_lastText[kLineSize];

// One lock around the handler and its use: lines from several threads reach
// it one at a time, and never after zq_setMessageHandler has replaced it.
std::mutex s_handlerMutex;
QvMessageHandler s_handler = nullptr;
void* s_context = nullptr;

// The message as a line: its newlines dropped (perror's form puts the
// system's text on a line of its own).
void toLine(const char* message, char* line) {
    std::size_t n = 0;
    for (const char* c = message; *c != '\0' && n + 1 < kLineSize; ++c)
        if (*c != '\n') line[n++] = *c;
    line[n] = '\0';
}

// The message to the handler as a line, or as it is to the stream.
void deliver(int code, const char* message, std::FILE* stream) {
    std::lock_guard<std::mutex> lock(s_handlerMutex);
    if (s_handler == nullptr) {
        std::fputs(message, stream);
        if (stream == stdout) std::fflush(stdout);
        return;
    }
    char line[kLineSize];
    toLine(message, line);
    s_handler(code, line, s_context);
}

void setLast(int code, const char* message) {
    t_lastCode = code;
    toLine(message, t_lastText);
}

void report(int code, const char* message) {
    setLast(code, message);
    deliver(code, message, stderr);
}

// A failure in printf form: reported, or only set when it prints no line.
void recordFailure(int code, bool printed, const char* format, va_list args) {
    char message[kLineSize];
    std::vsnprintf(message, sizeof message, format, args);
    if (printed)
        report(code, message);
    else
        setLast(code, message);
}

}  // namespace

void failure(int code, const char* format, ...) {
    va_list args;
    va_start(args, format);
    recordFailure(code, true, format, args);
    va_end(args);
}

void sqliteFailure(sqlite3* db, const char* format) {
    const char* why = sqlite3_errmsg(db);
    char message[kLineSize];
    std::snprintf(message, sizeof message, format, why);
    report(codeOfSqlite(sqlite3_errcode(db), why), message);
}

void systemFailure(const char* text) {
    const int error = errno;
    char message[kLineSize];
    std::snprintf(message, sizeof message, "%s: %s\n", text, std::strerror(error));
    report(codeOfErrno(error), message);
    errno = error;
}

void silentFailure(int code, const char* format, ...) {
    va_list args;
    va_start(args, format);
    recordFailure(code, false, format, args);
    va_end(args);
}

void notice(int code, bool toStdout, const char* format, ...) {
    char message[kLineSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    deliver(code, message, toStdout ? stdout : stderr);
}

int codeOfSqlite(int result, const char* message) {
    switch (result & 0xff) {
        case SQLITE_OK: return QV_OK;
        case SQLITE_DONE: return QV_ERR_NO_ROW;  // a step that found no row
        case SQLITE_BUSY:
        case SQLITE_LOCKED: return QV_ERR_BUSY;
        case SQLITE_FULL: return QV_ERR_FULL;
        case SQLITE_NOTADB:
        case SQLITE_CORRUPT:
        case SQLITE_SCHEMA: return QV_ERR_CORRUPT;
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_AUTH: return QV_ERR_PERMISSION;
        case SQLITE_IOERR:
        case SQLITE_CANTOPEN:
        case SQLITE_PROTOCOL: return QV_ERR_IO;
        case SQLITE_CONSTRAINT:
        case SQLITE_MISMATCH:
        case SQLITE_TOOBIG:
        case SQLITE_RANGE: return QV_ERR_ARGUMENT;
        default: break;
    }
    // A store without our tables or columns is not of our schema.
    if (message != nullptr &&
        (std::strncmp(message, "no such table", 13) == 0 ||
         std::strncmp(message, "no such column", 14) == 0))
        return QV_ERR_CORRUPT;
    return QV_ERR_INTERNAL;
}

int codeOfErrno(int error) {
    switch (error) {
        case ENOSPC:
        case EAGAIN:
        case EDQUOT: return QV_ERR_FULL;
        case EACCES:
        case EPERM:
        case EROFS: return QV_ERR_PERMISSION;
        case ENOMEM: return QV_ERR_INTERNAL;
        default: return QV_ERR_IO;
    }
}

}  // namespace qvreport

int zq_lastErrorCode(void) { return qvreport::t_lastCode; }

const char* zq_lastErrorText(void) {
    return qvreport::t_lastCode == QV_OK ? "" : qvreport::t_lastText;
}

void zq_setMessageHandler(QvMessageHandler handler, void* context) {
    qvreport::succeeded();
    std::lock_guard<std::mutex> lock(qvreport::s_handlerMutex);
    qvreport::s_handler = handler;
    qvreport::s_context = context;
}
