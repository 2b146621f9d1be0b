/* Compiled as C: proves the public headers are plain C and reports the
 * record layouts that a C caller sees, for comparison with C++. */
#include <stddef.h>

#include "qvaddied.h"
#include "qvconf.h"
#include "qvmessage.h"
#include "qvrealapi.h"

#define FIELD(record, field) offsetof(record, field)

size_t qv_c_layout(const char* what);

size_t qv_c_layout(const char* what) {
    const struct {
        const char* name;
        size_t value;
    } table[] = {
        {"DataSet", sizeof(DataSet)},
        {"DataSet.desc", FIELD(DataSet, desc)},
        {"DataSetSub", sizeof(DataSetSub)},
        {"DataSetSub.fc", FIELD(DataSetSub, fc)},
        {"DA", sizeof(DA)},
        {"DA.doDesc", FIELD(DA, doDesc)},
        {"LTUAccess", sizeof(LTUAccess)},
        {"LTUAccess.accessmodel", FIELD(LTUAccess, accessmodel)},
        {"LTUAccess.version", FIELD(LTUAccess, version)},
        {"LTUInfor", sizeof(LTUInfor)},
        {"LTUInfor.failedcount", FIELD(LTUInfor, failedcount)},
        {"LTUInfor.desc", FIELD(LTUInfor, desc)},
        {"TopoInfor", sizeof(TopoInfor)},
        {"TopoInfor.power_flag", FIELD(TopoInfor, power_flag)},
        {"TopoInfor.substation", FIELD(TopoInfor, substation)},
        {"ProcessConfig", sizeof(struct ProcessConfig)},
        {"ScaleConfig", sizeof(struct ScaleConfig)},
        {"ScaleConfig.maxValue", FIELD(struct ScaleConfig, maxValue)},
        {"DeviceModelAssociation", sizeof(struct DeviceModelAssociation)},
        {"DeviceModelAssociation.daName", FIELD(struct DeviceModelAssociation, daName)},
        {"ProcessDataAssociation", sizeof(struct ProcessDataAssociation)},
        {"ProcessDataAssociation.scaleNo", FIELD(struct ProcessDataAssociation, scaleNo)},
        {"ProcessMisc", sizeof(struct ProcessMisc)},
        {"MSGINFO", sizeof(MSGINFO)},
        {"MSGINFO.msgInfo", FIELD(MSGINFO, msgInfo)},
        {"REGISTERINFO.version", FIELD(REGISTERINFO, version)},
    };
    size_t i;
    for (i = 0; i < sizeof table / sizeof table[0]; ++i) {
        const char* a = table[i].name;
        const char* b = what;
        while (*a && *a == *b) ++a, ++b;
        if (*a == *b) return table[i].value;
    }
    return (size_t)-1;
}
