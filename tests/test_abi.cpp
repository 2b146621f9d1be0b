// The public records as C callers see them: field by field, with the sizes
// that the interface fixes, and identical in C and C++.
#include <cstddef>

#include "qvconf.h"
#include "qvmessage.h"
#include "qvrealapi.h"
#include "qvtest.h"

extern "C" size_t qv_c_layout(const char* what);

#define EXPECT_LAYOUT(key, cxxValue, expected)        \
    do {                                              \
        EXPECT_EQ(static_cast<size_t>(cxxValue), expected) << key; \
        EXPECT_EQ(qv_c_layout(key), expected) << key << " (C)";   \
    } while (0)

TEST(RecordLayout, RealTimeStoreRecords) {
    EXPECT_LAYOUT("DataSet", sizeof(DataSet), 33u * 3 + 256);
    EXPECT_LAYOUT("DataSet.desc", offsetof(DataSet, desc), 99u);
    EXPECT_LAYOUT("DataSetSub", sizeof(DataSetSub), 256u + 33 * 3 + 5 + 8 + 33 * 2 + 3);
    EXPECT_LAYOUT("DataSetSub.fc", offsetof(DataSetSub, fc), 434u);
    EXPECT_LAYOUT("DA", sizeof(DA), 256u + 33 * 2 + 12 + 33 + 3 + 256 + 16 + 256);
    EXPECT_LAYOUT("DA.doDesc", offsetof(DA, doDesc), 642u);
    EXPECT_LAYOUT("LTUAccess.accessmodel", offsetof(LTUAccess, accessmodel), 512u);
    EXPECT_LAYOUT("LTUAccess.version", offsetof(LTUAccess, version), 836u);
    EXPECT_LAYOUT("LTUAccess", sizeof(LTUAccess), 900u);
    EXPECT_LAYOUT("LTUInfor.failedcount", offsetof(LTUInfor, failedcount), 104u);
    EXPECT_LAYOUT("LTUInfor.desc", offsetof(LTUInfor, desc), 112u);
    EXPECT_LAYOUT("LTUInfor", sizeof(LTUInfor), 368u);
    EXPECT_LAYOUT("TopoInfor.power_flag", offsetof(TopoInfor, power_flag), 276u);
    EXPECT_LAYOUT("TopoInfor.substation", offsetof(TopoInfor, substation), 312u);
    EXPECT_LAYOUT("TopoInfor", sizeof(TopoInfor), 376u);
}

TEST(RecordLayout, ConfigurationRecords) {
    EXPECT_LAYOUT("ProcessConfig", sizeof(ProcessConfig), 256u);
    EXPECT_LAYOUT("ScaleConfig.maxValue", offsetof(ScaleConfig, maxValue), 128u);
    EXPECT_LAYOUT("ScaleConfig", sizeof(ScaleConfig), 160u);
    EXPECT_LAYOUT("DeviceModelAssociation.daName", offsetof(DeviceModelAssociation, daName), 144u);
    EXPECT_LAYOUT("DeviceModelAssociation", sizeof(DeviceModelAssociation), 400u);
    EXPECT_LAYOUT("ProcessDataAssociation.scaleNo", offsetof(ProcessDataAssociation, scaleNo), 392u);
    EXPECT_LAYOUT("ProcessDataAssociation", sizeof(ProcessDataAssociation), 396u);
    EXPECT_LAYOUT("ProcessMisc", sizeof(ProcessMisc), 1280u);
}

TEST(RecordLayout, MessageRecordIsTheSameInC) {
    EXPECT_LAYOUT("MSGINFO", sizeof(MSGINFO), 1192u);
    EXPECT_LAYOUT("MSGINFO.msgInfo", offsetof(MSGINFO, msgInfo), 4u);
    EXPECT_LAYOUT("REGISTERINFO.version", offsetof(REGISTERINFO, version), 1124u);
}
