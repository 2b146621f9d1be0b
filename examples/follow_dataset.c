/* Keeps the values of one data set current without polling: opens the
 * store's change feed, then reads the set's members and values (the
 * snapshot), then applies every change it is given and prints the members
 * that changed. A reset means values changed beyond the feed: it reads
 * everything again. Runs until it is stopped.
 * Build:
 *   cc follow_dataset.c $(pkg-config --cflags --libs qv) -o follow_dataset
 * Run:
 *   ./follow_dataset IED1 dsAnalog */
#include <stdio.h>
#include <string.h>

#include <qvfeed.h>
#include <qvrealapi.h>

#define MAX_MEMBERS 256
#define BATCH 256

static DataSetSub members[MAX_MEMBERS];
static unsigned int keys[MAX_MEMBERS];
static double values[MAX_MEMBERS];
static int qualities[MAX_MEMBERS];
static double times[MAX_MEMBERS];
static int memberCount;

static int fail(const char* what) {
    fprintf(stderr, "follow_dataset: %s (%d): %s\n", what, zq_lastErrorCode(),
            zq_lastErrorText());
    return -1;
}

/* The snapshot: the set's members, their row keys and their values. */
static int readDataSet(const char* ied, const char* set) {
    int values_read = 0;
    if (zq_getDataSetSubsByParamsN(ied, set, NULL, NULL, NULL, NULL, NULL, NULL, members,
                                   MAX_MEMBERS, &memberCount) < 0)
        return fail("members");
    for (int i = 0; i < memberCount; ++i)
        keys[i] = RSHash(members[i].fcdaName, (unsigned int)strlen(members[i].fcdaName));
    if (zq_getDAValuesByDataSetT(ied, set, values, qualities, times, MAX_MEMBERS,
                                 &values_read) < 0)
        return fail("values");
    printf("%s/%s: %d members read\n", ied, set, values_read);
    return 0;
}

/* A change to a member of the set; changes of other rows are not ours. */
static void apply(const QvChange* change) {
    for (int i = 0; i < memberCount; ++i) {
        if (keys[i] != change->hashID) continue;
        values[i] = change->value;
        qualities[i] = change->character;
        times[i] = change->timestamp;
        printf("%s = %g (quality %d, time %.3f)\n", members[i].fcdaName, values[i], qualities[i],
               times[i]);
    }
}

int main(int argc, char** argv) {
    const char* ied = argc > 1 ? argv[1] : "IED1";
    const char* set = argc > 2 ? argv[2] : "dsAnalog";
    /* The feed first, then the snapshot: nothing saved in between is missed. */
    QvFeed* feed = zq_openChangeFeed();
    if (feed == NULL) return fail("feed") != 0;
    if (zq_openRealDB() != 0 || readDataSet(ied, set) != 0) return 1;
    QvChange changes[BATCH];
    for (;;) {
        int count = 0;
        if (zq_waitChanges(feed, -1, changes, BATCH, &count) < 0) return fail("wait") != 0;
        for (int i = 0; i < count; ++i) {
            if (changes[i].kind == QV_CHANGE_RESET) {
                if (readDataSet(ied, set) != 0) return 1;
            } else {
                apply(&changes[i]);
            }
        }
        fflush(stdout);
    }
}
