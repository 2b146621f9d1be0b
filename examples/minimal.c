/* A process that writes a measured value with its quality into the
 * real-time store and reads it back. Build:
 *   cc minimal.c $(pkg-config --cflags --libs qv) -o minimal */
#include <stdio.h>

#include <qvrealapi.h>

int main(void) {
    const char* ref = "QVFTU1MEAS/MMXU1$MX$TotW$mag$f";
    double value = 0.0;
    int quality = 0;

    if (zq_openRealDB() != 0) return 1;
    if (zq_saveDoubDAValue1(ref, 231.5, 0) != 0 ||
        zq_getDoubDAValue1(ref, &value, &quality) != 0) {
        zq_closeRealDB();
        return 1;
    }
    printf("%s = %g (quality %d)\n", ref, value, quality);
    zq_closeRealDB();
    return 0;
}
