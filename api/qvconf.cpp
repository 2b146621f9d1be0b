// The configuration store: one connection per process and its queries.
#include "qvconf.h"

#include "internal/qvbuildconfig.h"
#include "internal/qvsqlite.h"
