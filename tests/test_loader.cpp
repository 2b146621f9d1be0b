// Model loader: SCL file to real-time store rows. Reference texts, expansion
// order, classification, reloads, and bad files or stores that must leave the
// store exactly as it was.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtest.h"

using namespace qvtest;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

std::string writeFile(const std::string& name, const std::string& content) {
    mkdir(QV_TEST_STORE_DIR, 0755);
    const std::string path = std::string(QV_TEST_STORE_DIR) + "/" + name;
    std::ofstream(path) << content;
    return path;
}

std::string sclText(const std::string& lDevices, const std::string& templates,
                    const std::string& ied = "IED1") {
    return "<?xml version=\"1.0\"?>\n<SCL><Header id=\"t\"/><IED name=\"" + ied +
           "\"><AccessPoint name=\"S1\"><Server>" + lDevices +
           "</Server></AccessPoint></IED><DataTypeTemplates>" + templates +
           "</DataTypeTemplates></SCL>\n";
}

int load(const std::string& path) { return zq_addIEDRealDB(const_cast<char*>(path.c_str())); }
int loadScl(const std::string& text) { return load(writeFile("model.scd", text)); }
const std::string kSample = sourcePath("samples/feeder_terminal.cid");

// Every row of the four model tables, in insertion order.
Rows dumpModel() {
    Rows all;
    for (const char* table : {"DataSet", "DataSetSub", "DA", "DAValue"}) {
        const Rows rows = query(realDbPath(), std::string("select * from ") + table + " order by rowid");
        all.insert(all.end(), rows.begin(), rows.end());
    }
    return all;
}

// DO "A" has a sub-data object with nested structures, a structure mixing
// basic and structured members, and an enum.
const char* const kMeasurementTypes =
    "<LNodeType id=\"T_MMXU\"><DO name=\"A\" type=\"T_WYE\"/></LNodeType>"
    "<DOType id=\"T_WYE\"><SDO name=\"phsA\" type=\"T_CMV\"/></DOType>"
    "<DOType id=\"T_CMV\"><DA name=\"cVal\" bType=\"Struct\" type=\"T_Vector\" fc=\"MX\"/>"
    "<DA name=\"q\" bType=\"Quality\" fc=\"MX\"/>"
    "<DA name=\"units\" bType=\"Struct\" type=\"T_Unit\" fc=\"CF\"/></DOType>"
    "<DAType id=\"T_Vector\"><BDA name=\"mag\" bType=\"Struct\" type=\"T_AV\"/>"
    "<BDA name=\"ang\" bType=\"Struct\" type=\"T_AV\"/></DAType>"
    "<DAType id=\"T_AV\"><BDA name=\"f\" bType=\"FLOAT32\"/></DAType>"
    "<DAType id=\"T_Unit\"><BDA name=\"SIUnit\" bType=\"Enum\" type=\"T_SIUnit\"/>"
    "<BDA name=\"range\" bType=\"Struct\" type=\"T_AV\"/></DAType>"
    "<EnumType id=\"T_SIUnit\"><EnumVal ord=\"5\">A</EnumVal><EnumVal ord=\"29\">V</EnumVal></EnumType>";

std::string unitValue(const std::string& text) {
    return "<DOI name=\"A\" desc=\"currents\"><SDI name=\"phsA\"><SDI name=\"units\">"
           "<DAI name=\"SIUnit\"><Val>" + text + "</Val></DAI></SDI></SDI></DOI>";
}

// A leaf and a whole-DO member, a description longer than its field; MMXU2
// has an enum text naming no EnumVal.
const std::string kMeasurementDevice =
    "<LDevice inst=\"LD0\"><LN0 lnClass=\"LLN0\" lnType=\"T_MISSING\" inst=\"\">"
    "<DataSet name=\"dsAin\" desc=\"" + std::string(300, 'd') + "\">"
    "<FCDA ldInst=\"LD0\" prefix=\"PRO\" lnClass=\"MMXU\" lnInst=\"1\" doName=\"A.phsA\" "
    "daName=\"cVal.mag.f\" fc=\"MX\"/>"
    "<FCDA ldInst=\"LD0\" lnClass=\"MMXU\" lnInst=\"1\" doName=\"A\" fc=\"MX\"/>"
    "<Private>not a member</Private></DataSet></LN0>"
    "<LN prefix=\"PRO\" lnClass=\"MMXU\" inst=\"1\" lnType=\"T_MMXU\">" + unitValue("A") +
    "<DOI name=\"B\"><DAI name=\"stVal\"><Val>dropped</Val></DAI></DOI></LN>"
    "<LN lnClass=\"MMXU\" inst=\"2\" lnType=\"T_MMXU\">" + unitValue("furlong") + "</LN>"
    "</LDevice>";

class Loader : public testing::Test {
protected:
    void SetUp() override {
        zq_closeRealDB();
        freshRealStore();
    }
    void TearDown() override { zq_closeRealDB(); }
};

class SampleLoaded : public Loader {
protected:
    void SetUp() override {
        Loader::SetUp();
        ASSERT_EQ(load(kSample), 0);
        before_ = dumpModel();
    }
    // Loads `path` expecting -2, `message` and then the loader's own line.
    void expectRejected(const char* path, const std::string& message) {
        CaptureStderr();
        EXPECT_EQ(zq_addIEDRealDB(const_cast<char*>(path)), -2);
        const std::string err = GetCapturedStderr();
        EXPECT_THAT(err, testing::HasSubstr(message));
        EXPECT_THAT(err, testing::EndsWith("cid 解析出错.\n"));
        EXPECT_EQ(dumpModel(), before_);
    }
    Rows before_;
};

// A valid model of the sample's IED, broken in one place by replacing the
// first `from` with `to`: a reject must not remove the sample's rows either.
struct BadModel {
    const char* name;
    std::string from;
    std::string to;
    std::string message;
};

void PrintTo(const BadModel& model, std::ostream* out) { *out << model.name; }

const std::string kFcda = "<FCDA ldInst=\"LD0\" lnClass=\"GGIO\" lnInst=\"1\" doName=\"Ind1\" "
                          "daName=\"stVal\" fc=\"ST\"/>";
const std::string kDai = "<DAI name=\"stVal\"><Val>true</Val></DAI>";
const std::string kValidModel = sclText(
    "<LDevice inst=\"LD0\"><LN0 lnClass=\"LLN0\" lnType=\"T_LN\" inst=\"\">"
    "<DataSet name=\"dsGgio\">" + kFcda + "</DataSet></LN0>"
    "<LN lnClass=\"GGIO\" inst=\"1\" lnType=\"T_LN\"><DOI name=\"Ind1\">" + kDai + "</DOI></LN></LDevice>",
    "<LNodeType id=\"T_LN\"><DO name=\"Ind1\" type=\"T_SPS\"/></LNodeType>"
    "<DOType id=\"T_SPS\"><DA name=\"stVal\" bType=\"BOOLEAN\" fc=\"ST\"/>"
    "<DA name=\"origin\" bType=\"Struct\" type=\"T_Orig\" fc=\"ST\"/></DOType>"
    "<DAType id=\"T_Orig\"><BDA name=\"orCat\" bType=\"Enum\" type=\"T_Cat\"/></DAType>"
    "<EnumType id=\"T_Cat\"><EnumVal ord=\"1\">bay</EnumVal></EnumType>",
    "QVFTU1");

std::string repeated(const std::string& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

std::string missing(const char* element, const char* attribute) {
    return std::string("SCL error: ") + element + " without attribute \"" + attribute + "\"\n";
}

const std::vector<BadModel> kBadModels = {
    {"IedName", "<IED name=\"QVFTU1\">", "<IED>", missing("IED", "name")},
    {"FcdaFc", " fc=\"ST\"/>", "/>", missing("FCDA", "fc")},
    {"LDeviceInst", " inst=\"LD0\"", "", missing("LDevice", "inst")},
    {"LnType", " lnType=\"T_LN\">", ">", missing("LN", "lnType")},
    {"DoiName", " name=\"Ind1\"", "", missing("DOI", "name")},
    {"DaBType", " bType=\"BOOLEAN\"", "", missing("DA", "bType")},
    {"BdaName", " name=\"orCat\"", "", missing("BDA", "name")},
    {"EnumTypeId", " id=\"T_Cat\"", "", missing("EnumType", "id")},
    {"CyclicDOType", "<DOType id=\"T_SPS\">", "<DOType id=\"T_SPS\"><SDO name=\"s\" type=\"T_SPS\"/>",
     "SCL error: DOType \"T_SPS\" contains itself\n"},
    {"IndirectlyCyclicDAType", "type=\"T_Cat\"/></DAType>",
     "type=\"T_Cat\"/><BDA name=\"i\" bType=\"Struct\" type=\"T_In\"/></DAType>"
     "<DAType id=\"T_In\"><BDA name=\"o\" bType=\"Struct\" type=\"T_Orig\"/></DAType>",
     "SCL error: DAType \"T_Orig\" contains itself\n"},
    {"SubDataObjectPath", "<DOType id=\"T_SPS\">",
     "<DOType id=\"T_Leaf\"/><DOType id=\"T_SPS\"><SDO name=\"" + std::string(30, 's') +
         "\" type=\"T_Leaf\"/>",
     "SCL error: data object path longer than 32 characters: Ind1$sss"},
    {"InstancePath", kDai,
     repeated("<SDI name=\"" + std::string(60, 'p') + "\">", 3) + kDai + repeated("</SDI>", 3),
     "SCL error: data object path longer than 127 characters: Ind1$ppp"},
};

class LoaderRejectsModel : public SampleLoaded, public testing::WithParamInterface<BadModel> {};

}  // namespace

TEST_F(Loader, ExpandsReferencesInOrderAndKeysTheValueRows) {
    ASSERT_EQ(loadScl(sclText(kMeasurementDevice, kMeasurementTypes)), 0);
    // Own basic attributes first, then the leaves of structures appended while
    // expanding; the LN whose type is missing yields nothing.
    EXPECT_EQ(query(realDbPath(), "select substr(daName,15),doName,fcName,value,valueType,doDesc "
                                  "from DA where ldName='LD0' and lnName='MMXU1' order by rowid"),
              (Rows{{"MX$A$phsA$q", "A$phsA", "MX", "", "Quality", ""},
                    {"CF$A$phsA$units$SIUnit", "A$phsA", "CF", "5", "Enum", "currents"},
                    {"MX$A$phsA$cVal$mag$f", "A$phsA", "MX", "", "FLOAT32", ""},
                    {"MX$A$phsA$cVal$ang$f", "A$phsA", "MX", "", "FLOAT32", ""},
                    {"CF$A$phsA$units$range$f", "A$phsA", "CF", "", "FLOAT32", ""}}));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA where iedName='IED1'"), 10);
    EXPECT_EQ(query(realDbPath(), "select value from DA where daName like 'IED1LD0/MMXU2%SIUnit'"),
              (Rows{{"furlong"}}));

    EXPECT_EQ(query(realDbPath(), "select * from DataSet"),
              (Rows{{"IED1", "dsAin", "LD0", std::string(255, 'd')}}));
    const std::string leaf = "IED1LD0/MMXU1$MX$A$phsA$cVal$mag$f";
    EXPECT_EQ(query(realDbPath(), "select * from DataSetSub order by rowid"),
              (Rows{{leaf, "IED1", "dsAin", "LD0", "MMXU", "1", "A.phsA", "cVal.mag.f", "MX"},
                    {"IED1LD0/MMXU1$MX$A", "IED1", "dsAin", "LD0", "MMXU", "1", "A", "", "MX"}}));
    EXPECT_EQ(query(realDbPath(), "select hashID,type,value,quality,timestamp from DAValue"),
              (Rows{{std::to_string(rowKey(leaf)), "1.0", "0.0", "0", "0.0"},
                    {std::to_string(rowKey("IED1LD0/MMXU1$MX$A")), "1.0", "0.0", "0", "0.0"}}));
    // The leaf's value row meets its attribute row; the whole-DO one meets none.
    EXPECT_EQ(query(realDbPath(), "select d.daName from DAValue v join DA d using(hashID)"),
              (Rows{{leaf}}));
}

TEST_F(Loader, ClassifiesTheFiveDataSetsOnceEachInMemberOrder) {
    auto dataSet = [](const char* name, std::vector<std::pair<const char*, const char*>> members) {
        std::string text = std::string("<DataSet name=\"") + name + "\">";
        for (const auto& [ln, doName] : members)
            text += std::string("<FCDA ldInst=\"LD0\" lnClass=\"GGIO\" lnInst=\"") + ln +
                    "\" doName=\"" + doName + "\" daName=\"stVal\" fc=\"ST\"/>";
        return text + "</DataSet>";
    };
    ASSERT_EQ(loadScl(sclText("<LDevice inst=\"LD0\"><LN0 lnClass=\"LLN0\" lnType=\"T\">" +
                              dataSet("dsAin", {{"1", "AnIn1"}}) +
                              dataSet("dsDin", {{"2", "Pos"}, {"2", "Ind1"}}) +
                              dataSet("dsGgio", {{"3", "Ind1"}, {"2", "Ind1"}}) +
                              dataSet("dsControl", {{"4", "Pos"}}) + dataSet("dsEnergy", {{"5", "TotWh"}}) +
                              dataSet("dsOther", {{"6", "Ind1"}}) + dataSet("dsdin", {{"7", "Pos"}}) +
                              "</LN0></LDevice>", "")), 0);
    // Member order; GGIO2 Ind1, in dsDin and dsGgio, once.
    EXPECT_EQ(query(realDbPath(), "select type from DAValue order by rowid"),
              (Rows{{"1.0"}, {"3.0"}, {"2.0"}, {"2.0"}, {"4.0"}, {"5.0"}}));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DataSetSub"), 9);
}

TEST_F(Loader, ReloadReplacesTheRowsOfThatIedOnly) {
    ASSERT_EQ(loadScl(sclText(kMeasurementDevice, kMeasurementTypes, std::string(40, 'O'))), 0);
    ASSERT_EQ(load(kSample), 0);
    const Rows first = dumpModel();
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValue("QVFTU1MEAS/MMXU1$MX$TotW$mag$f", 17.5), 0);
    ASSERT_EQ(zq_closeRealDB(), 0);
    ASSERT_EQ(load(kSample), 0);
    // The other IED's rows come first and stay; QVFTU1's come back once, values at 0.
    EXPECT_EQ(dumpModel(), first);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA where iedName='" + std::string(31, 'O') + "'"), 10);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue"), 18 + 2);
}

TEST_F(Loader, StoreWithoutValueTableOrUnopenableFailsCleanly) {
    execSql(realDbPath(), "drop table DAValue; insert into DataSet values('X','ds','LD0','')");
    CaptureStderr();
    EXPECT_EQ(load(kSample), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_prepare_v2 err no such table: DAValue\n");
    EXPECT_EQ(query(realDbPath(), "select * from DataSet"), (Rows{{"X", "ds", "LD0", ""}}));
    EXPECT_EQ(queryInt(realDbPath(), "select (select count(*) from DA)+count(*) from DataSetSub"), 0);

    removeStore(realDbPath());
    ASSERT_EQ(mkdir(realDbPath().c_str(), 0755), 0);
    CaptureStderr();
    EXPECT_EQ(load(kSample), -1);
    EXPECT_EQ(GetCapturedStderr(), "Cannot open db: unable to open database file\n");
    rmdir(realDbPath().c_str());
}

// ---- The sample model, and files that must not change it ---------------------

TEST_F(SampleLoaded, SingleValueOperationsReachTheLoadedRows) {
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue"), 18);
    // Enumerations as their ord; entity references replaced.
    EXPECT_EQ(query(realDbPath(), "select value from DA where daName in ('QVFTU1LD0/LLN0$DC$NamPlt$d',"
                                  "'QVFTU1MEAS/MMXU1$CF$TotW$units$SIUnit') order by daName"),
              (Rows{{"Feeder 7 & ring main unit 3"}, {"62"}}));
    const std::string stVal = "QVFTU1CTRL/XCBR1$ST$Pos$stVal";
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValue1(stVal.c_str(), 2.0, 0x40), 0);
    EXPECT_EQ(query(realDbPath(), "select v.type,v.value,v.quality from DAValue v join DA d "
                                  "using(hashID) where daName='" + stVal + "'"),
              (Rows{{"3.0", "2.0", "64"}}));
    double value = 0;
    int quality = 0;
    ASSERT_EQ(zq_getDoubDAValue1(stVal.c_str(), &value, &quality), 0);
    EXPECT_EQ(value, 2.0);
    EXPECT_EQ(quality, 0x40);
}

TEST_F(SampleLoaded, FileWithoutIedChangesNothing) {
    ASSERT_EQ(loadScl(std::string("<SCL><DataTypeTemplates>") + kMeasurementTypes +
                      "</DataTypeTemplates></SCL>"), 0);
    EXPECT_EQ(dumpModel(), before_);
}

TEST_F(SampleLoaded, RejectsFilesThatAreNotScl) {
    const std::string missing = std::string(QV_TEST_STORE_DIR) + "/no-such.cid";
    expectRejected(missing.c_str(), "Failed to parse xml file:" + missing + "\n");
    const std::string notXml = writeFile("bad.cid", "SCL, but not XML <");
    expectRejected(notXml.c_str(), "Failed to parse xml file:" + notXml + "\n");
    expectRejected(writeFile("bad.cid", "<Substation name=\"S\"/>").c_str(), "The root is not SCL.\n");
    expectRejected(nullptr, "SCL error: no file name given\n");
}


TEST_P(LoaderRejectsModel, WithItsMessage) {
    std::string text = kValidModel;
    const auto at = text.find(GetParam().from);
    ASSERT_NE(at, std::string::npos);
    const std::string path = writeFile("model.scd", text.replace(at, GetParam().from.size(), GetParam().to));
    expectRejected(path.c_str(), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(Loader, LoaderRejectsModel, testing::ValuesIn(kBadModels),
                         [](const testing::TestParamInfo<BadModel>& info) { return info.param.name; });
