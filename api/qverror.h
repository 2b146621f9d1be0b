/**
 * @file qverror.h
 * @brief Failure codes of the calling thread and where message lines go.
 *
 * Every exported operation sets the calling thread's last error: QV_OK when
 * it succeeds, otherwise the code of its failure, with the message line it
 * printed as the text. Each public header has a table of the codes its
 * operations set.
 *
 * Threads: all three operations are safe from any thread; the last error is
 * kept per thread, the handler per process.
 *
 * Standard error shows a system call's failure on two lines (the library's
 * text, then ": " and the system's); the handler and zq_lastErrorText get it
 * as one line.
 */
#ifndef QVERROR_H
#define QVERROR_H

#include "qvexport.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Why the calling thread's last operation failed. */
typedef enum QvErrorCode {
    QV_OK = 0,
    QV_ERR_ARGUMENT = 1,    /* a required argument is null or out of range */
    QV_ERR_NOT_OPEN = 2,    /* the store is not open */
    QV_ERR_NO_ROW = 3,      /* no row for that key or name (lookups; also set by a save whose row
                               does not exist, which still returns 0) */
    QV_ERR_BUSY = 4,        /* the store stayed busy past the library's bounded retries */
    QV_ERR_FULL = 5,        /* the file system or a queue is full */
    QV_ERR_IO = 6,          /* a file or system call failed otherwise */
    QV_ERR_CORRUPT = 7,     /* a store is not a database or not of our schema */
    QV_ERR_MODEL = 8,       /* an SCL file or a load option could not be used */
    QV_ERR_NO_ROUTE = 9,    /* messaging: no routes loaded, or no such process */
    QV_ERR_PERMISSION = 10, /* the caller may not open or change it */
    QV_ERR_INTERNAL = 11
} QvErrorCode;

/** @name Last error
 * The last failure of the calling thread: set by every exported operation (QV_OK when it
 * succeeds, except as said for QV_ERR_NO_ROW above); the text is the message line without its
 * newline, or, for a failure that prints no line (a lookup that finds no row), a short text
 * saying what happened; valid until the thread's next call into the library. */
/** @{ */
QV_API int zq_lastErrorCode(void);
QV_API const char* zq_lastErrorText(void);
/** @} */

/** Receives one message line: its QvErrorCode, the text without its newline
 * and the context given to zq_setMessageHandler. */
typedef void (*QvMessageHandler)(int code, const char* text, void* context);

/** Where message lines go: NULL restores standard error (the default). The
 * handler gets each line without its newline; it may be called from any thread of the library,
 * the asynchronous subscriber's included, and must not call back into the library. */
QV_API void zq_setMessageHandler(QvMessageHandler handler, void* context);

#ifdef __cplusplus
}
#endif

#endif /* QVERROR_H */
