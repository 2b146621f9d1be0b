// The message bus: routes from the configuration store, System V queues.
#include "qvmessage.h"

#include "internal/qvbuildconfig.h"
