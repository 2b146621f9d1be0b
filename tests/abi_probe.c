/* Compiled as C: proves the public headers are plain C and gives the record
 * layouts that a C caller sees, for comparison with C++. */
#include "qvaddied.h"
#include "record_layouts.h"

#define C_VALUE(expression, expected) expression,
const size_t qv_c_layouts[] = {QV_RECORD_LAYOUTS(C_VALUE)};
