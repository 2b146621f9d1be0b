/**
 * @file qvfeed.h
 * @brief The change feed of the real-time store.
 *
 * Every save of this library that writes a value row (single, list or data
 * set, timed or not) appends one change per row written, in the order the
 * store lock serialised the saves; a model load and `qvtool init` append one
 * QV_CHANGE_RESET. Any number of subscribers in any number of processes read
 * the feed; none takes a change from another and none slows a writer down.
 * The changes of one list or data-set save become visible together. A
 * QvFeed is used by one thread at a time; each thread may open its own.
 *
 * The feed is a file beside the store, on the same memory-backed file
 * system and with the store's access rights. Writes that other programs make
 * straight into the SQLite file do not pass through this library and are not
 * in the feed.
 *
 * Snapshot then follow: open the feed first, then read the values you need,
 * then apply every change you are given. A change saved between the open and
 * the read comes twice, which does no harm; none is missed.
 * @code
 * QvFeed* feed = zq_openChangeFeed();
 * zq_getDAValuesByDataSetT("IED1", "dsA", values, qualities, times, 64, &n);
 * QvChange changes[256];
 * int count;
 * for (;;) {
 *     int r = zq_waitChanges(feed, -1, changes, 256, &count);
 *     if (r < 0) break;
 *     for (int i = 0; i < count; ++i) {
 *         if (changes[i].kind == QV_CHANGE_RESET)  // re-read what you hold
 *             zq_getDAValuesByDataSetT("IED1", "dsA", values, qualities, times, 64, &n);
 *         else
 *             apply(changes[i].hashID, changes[i].value, changes[i].character,
 *                   changes[i].timestamp);
 *     }
 * }
 * zq_closeChangeFeed(feed);
 * @endcode
 */
#ifndef QVFEED_H
#define QVFEED_H

#include "qverror.h"
#include "qvexport.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QvChange {
    unsigned long long seq;  /* the change's place in the store's feed: consecutive, from 1 */
    unsigned int hashID;     /* the value row's key (RSHash of its reference) */
    int kind;                /* QV_CHANGE_VALUE, or QV_CHANGE_RESET: values changed beyond this
                                feed (a model load, a store made anew, changes lost): re-read
                                whatever you hold; hashID, value and character are then 0 */
    double value;
    int character;           /* the quality saved */
    double timestamp;        /* the timed save's time, else the time of the save */
} QvChange;
#define QV_CHANGE_VALUE 0
#define QV_CHANGE_RESET 1
typedef struct QvFeed QvFeed;

/* Opens the feed of the real-time store (no zq_openRealDB needed). Delivers the changes saved
   after this call. NULL on failure, with a message. */
QV_API QvFeed* zq_openChangeFeed(void);
/* Up to capacity changes, in feed order, waiting at most timeoutMs for the first one (0: do not
   wait; < 0: wait until there is one). 0: *pCount changes (0 when the time ran out); 1: this
   subscriber fell behind further than the feed holds and changes were lost before the ones
   delivered (a QV_CHANGE_RESET comes first; re-read what you hold); -1 failure. */
QV_API int zq_waitChanges(QvFeed* feed, int timeoutMs, QvChange* pChanges, int capacity, int* pCount);
QV_API int zq_closeChangeFeed(QvFeed* feed);

#ifdef __cplusplus
}
#endif

#endif /* QVFEED_H */
