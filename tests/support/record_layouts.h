/* The sizes and offsets of the public records that callers rely on: each row
 * is an expression that the C probe and the C++ test both evaluate. */
#ifndef QVTEST_RECORD_LAYOUTS_H
#define QVTEST_RECORD_LAYOUTS_H

#include <stddef.h>

#include "qvconf.h"
#include "qvmessage.h"
#include "qvrealapi.h"

#define QV_RECORD_LAYOUTS(X)                                                  \
    X(sizeof(DataSet), 33 * 3 + 256)                                          \
    X(offsetof(DataSet, desc), 99)                                            \
    X(sizeof(DataSetSub), 256 + 33 * 3 + 5 + 8 + 33 * 2 + 3)                  \
    X(offsetof(DataSetSub, fc), 434)                                          \
    X(sizeof(DA), 256 + 33 * 2 + 12 + 33 + 3 + 256 + 16 + 256)                \
    X(offsetof(DA, doDesc), 642)                                              \
    X(offsetof(LTUAccess, accessmodel), 512)                                  \
    X(offsetof(LTUAccess, version), 836)                                      \
    X(sizeof(LTUAccess), 900)                                                 \
    X(offsetof(LTUInfor, failedcount), 104)                                   \
    X(offsetof(LTUInfor, desc), 112)                                          \
    X(sizeof(LTUInfor), 368)                                                  \
    X(offsetof(TopoInfor, power_flag), 276)                                   \
    X(offsetof(TopoInfor, substation), 312)                                   \
    X(sizeof(TopoInfor), 376)                                                 \
    X(sizeof(struct ProcessConfig), 256)                                      \
    X(offsetof(struct ScaleConfig, maxValue), 128)                            \
    X(sizeof(struct ScaleConfig), 160)                                        \
    X(offsetof(struct DeviceModelAssociation, daName), 144)                   \
    X(sizeof(struct DeviceModelAssociation), 400)                             \
    X(offsetof(struct ProcessDataAssociation, scaleNo), 392)                  \
    X(sizeof(struct ProcessDataAssociation), 396)                             \
    X(sizeof(struct ProcessMisc), 1280)                                       \
    X(sizeof(MSGINFO), 1192)                                                  \
    X(offsetof(MSGINFO, msgInfo), 4)                                          \
    X(offsetof(REGISTERINFO, version), 1124)

/* The values of the rows above as compiled in C, in the same order. */
#ifdef __cplusplus
extern "C"
#endif
    const size_t qv_c_layouts[];

#endif /* QVTEST_RECORD_LAYOUTS_H */
