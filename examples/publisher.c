/* A process that sends a change of a data attribute to the processes whose
 * routes carry SOE records, under the name the configuration knows it by,
 * with the library's message lines in its own log. Build:
 *   cc publisher.c $(pkg-config --cflags --libs qv) -o publisher */
#include <stdio.h>
#include <string.h>

#include <qvmessage.h>

static void logLine(int code, const char* text, void* context) {
    fprintf((FILE*)context, "publisher: libqv (%d): %s\n", code, text);
}

int main(void) {
    SOEINFO soe;

    zq_setMessageHandler(logLine, stdout);
    if (zq_setProcessName("acq") != 0 || zq_publisherMsg() != 0) {
        fprintf(stderr, "publisher: no routes (%d): %s\n", zq_lastErrorCode(), zq_lastErrorText());
        return 1;
    }
    memset(&soe, 0, sizeof soe);
    soe.type = 1;
    strncpy(soe.strDa, "QVFTU1MEAS/GGIO1$ST$Ind1$stVal", sizeof soe.strDa - 1);
    soe.value = 1;
    if (zq_sendSoeMsg(&soe) != 0) {
        fprintf(stderr, "publisher: record lost: %s\n", zq_lastErrorText());
        return 1;
    }
    return 0;
}
