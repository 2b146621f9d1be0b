// The model loader: SCL file to real-time store.
#include "qvaddied.h"

#include "internal/qvbuildconfig.h"
