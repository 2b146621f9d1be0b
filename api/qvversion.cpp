// The version of the loaded library, for a process built against other headers.
#include "qvversion.h"

#include "internal/qvreport.h"

const char* zq_version(void) {
    qvreport::succeeded();
    return QV_VERSION;
}
