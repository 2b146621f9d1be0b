/* A process that prints every SOE record sent to it; it runs until it is
 * stopped. Build:
 *   cc subscriber.c $(pkg-config --cflags --libs qv) -o subscriber */
#include <stdio.h>

#include <qvmessage.h>
#include <qvversion.h>

static void onMessage(LPMSGINFO message) {
    if (message->msgType == SOEINFO_TYPE)
        printf("%s = %d\n", message->msgInfo.soeInfo.strDa, message->msgInfo.soeInfo.value);
    fflush(stdout);
}

int main(void) {
    printf("libqv %s\n", zq_version());
    if (zq_setProcessName("hmi") != 0 || zq_subscriberMsg_sync(onMessage) != 0) {
        fprintf(stderr, "subscriber (%d): %s\n", zq_lastErrorCode(), zq_lastErrorText());
        return 1;
    }
    return 0; /* zq_subscriberMsg_sync does not return once it runs */
}
