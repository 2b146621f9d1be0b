// Model loader: SCL file to real-time store rows. Reference texts, expansion
// order, instance values, classification, reloads, and bad files or stores
// that must leave the store exactly as it was.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtest.h"

using qvtest::execSql;
using qvtest::query;
using qvtest::queryInt;
using qvtest::realDbPath;
using qvtest::Rows;
using testing::EndsWith;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

const char* const kParseFailed = "cid 解析出错.\n";

std::string writeFile(const std::string& name, const std::string& content) {
    mkdir(QV_TEST_STORE_DIR, 0755);
    const std::string path = std::string(QV_TEST_STORE_DIR) + "/" + name;
    std::ofstream(path) << content;
    return path;
}

// An SCL file of IED `ied` with the given logical devices and type templates.
std::string sclFile(const std::string& lDevices, const std::string& templates,
                    const std::string& ied = "IED1") {
    return writeFile("model.scd", "<?xml version=\"1.0\"?>\n<SCL><Header id=\"t\"/><IED name=\"" +
                                      ied + "\"><AccessPoint name=\"S1\"><Server>" + lDevices +
                                      "</Server></AccessPoint></IED><DataTypeTemplates>" +
                                      templates + "</DataTypeTemplates></SCL>\n");
}

int load(const std::string& path) { return zq_addIEDRealDB(const_cast<char*>(path.c_str())); }

std::string sample(const char* name) { return qvtest::sourcePath(std::string("samples/") + name); }

using qvtest::rowKey;

// Every row of the four model tables, in insertion order.
Rows dumpModel() {
    Rows all;
    for (const char* table : {"DataSet", "DataSetSub", "DA", "DAValue"}) {
        for (auto& row : query(realDbPath(), std::string("select * from ") + table + " order by rowid")) {
            row.insert(row.begin(), table);
            all.push_back(row);
        }
    }
    return all;
}

// A measurement node whose DO "A" has a sub-data object with nested
// structures, a structure mixing basic and structured members, and an enum.
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

const std::string kMeasurementDevice =
    "<LDevice inst=\"LD0\"><LN0 lnClass=\"LLN0\" lnType=\"T_MISSING\" inst=\"\">"
    "<DataSet name=\"dsAin\" desc=\"analogues\">"
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
        qvtest::freshRealStore();
    }
    void TearDown() override { zq_closeRealDB(); }
};

}  // namespace

TEST_F(Loader, FlattensSubDataObjectsAndNestedStructuresInOrder) {
    ASSERT_EQ(load(sclFile(kMeasurementDevice, kMeasurementTypes)), 0);
    // Own basic attributes first, then the leaves of structures appended while
    // expanding; the LN whose type is missing yields nothing.
    const Rows expected = {
        {"IED1LD0/MMXU1$MX$A$phsA$q", "LD0", "MMXU1", "A$phsA", "MX", "", "Quality", ""},
        {"IED1LD0/MMXU1$CF$A$phsA$units$SIUnit", "LD0", "MMXU1", "A$phsA", "CF", "5", "Enum",
         "currents"},
        {"IED1LD0/MMXU1$MX$A$phsA$cVal$mag$f", "LD0", "MMXU1", "A$phsA", "MX", "", "FLOAT32", ""},
        {"IED1LD0/MMXU1$MX$A$phsA$cVal$ang$f", "LD0", "MMXU1", "A$phsA", "MX", "", "FLOAT32", ""},
        {"IED1LD0/MMXU1$CF$A$phsA$units$range$f", "LD0", "MMXU1", "A$phsA", "CF", "", "FLOAT32",
         ""},
    };
    const Rows rows = query(realDbPath(),
                            "select daName,ldName,lnName,doName,fcName,value,valueType,doDesc "
                            "from DA where lnName='MMXU1' order by rowid");
    EXPECT_EQ(rows, expected);
    // A second node of the same type: the same records; an enum text that
    // names no EnumVal stays as written.
    EXPECT_EQ(query(realDbPath(), "select substr(daName,15),value from DA where lnName='MMXU2'"),
              (Rows{{"MX$A$phsA$q", ""},
                    {"CF$A$phsA$units$SIUnit", "furlong"},
                    {"MX$A$phsA$cVal$mag$f", ""},
                    {"MX$A$phsA$cVal$ang$f", ""},
                    {"CF$A$phsA$units$range$f", ""}}));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA where hashID<0"), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA where iedName='IED1'"), 10);
}

TEST_F(Loader, MemberReferencesTurnDotsIntoDollarsAndKeyTheValueRows) {
    ASSERT_EQ(load(sclFile(kMeasurementDevice, kMeasurementTypes)), 0);
    EXPECT_EQ(query(realDbPath(), "select * from DataSet"),
              (Rows{{"IED1", "dsAin", "LD0", "analogues"}}));
    EXPECT_EQ(query(realDbPath(), "select * from DataSetSub order by rowid"),
              (Rows{{"IED1LD0/MMXU1$MX$A$phsA$cVal$mag$f", "IED1", "dsAin", "LD0", "MMXU", "1",
                     "A.phsA", "cVal.mag.f", "MX"},
                    {"IED1LD0/MMXU1$MX$A", "IED1", "dsAin", "LD0", "MMXU", "1", "A", "", "MX"}}));
    const std::string leaf = "IED1LD0/MMXU1$MX$A$phsA$cVal$mag$f";
    EXPECT_EQ(query(realDbPath(), "select hashID,type,value,quality,timestamp from DAValue"),
              (Rows{{std::to_string(rowKey(leaf)), "1.0", "0.0", "0", "0.0"},
                    {std::to_string(rowKey("IED1LD0/MMXU1$MX$A")), "1.0", "0.0", "0", "0.0"}}));
    // The leaf member's value row meets its attribute row; the whole-DO one meets none.
    EXPECT_EQ(query(realDbPath(), "select d.daName from DAValue v join DA d using(hashID)"),
              (Rows{{leaf}}));
}

TEST_F(Loader, ClassifiesTheFiveDataSetsOnceEachInMemberOrder) {
    auto member = [](const char* ln, const char* doName) {
        return std::string("<FCDA ldInst=\"LD0\" lnClass=\"GGIO\" lnInst=\"") + ln +
               "\" doName=\"" + doName + "\" daName=\"stVal\" fc=\"ST\"/>";
    };
    auto dataSet = [](const char* name, const std::string& members) {
        return std::string("<DataSet name=\"") + name + "\">" + members + "</DataSet>";
    };
    const std::string device =
        "<LDevice inst=\"LD0\"><LN0 lnClass=\"LLN0\" lnType=\"T\">" +
        dataSet("dsAin", member("1", "AnIn1")) +
        dataSet("dsDin", member("2", "Pos") + member("2", "Ind1")) +
        dataSet("dsGgio", member("3", "Ind1") + member("2", "Ind1")) +
        dataSet("dsControl", member("4", "Pos")) + dataSet("dsEnergy", member("5", "TotWh")) +
        dataSet("dsOther", member("6", "Ind1")) + dataSet("dsdin", member("7", "Pos")) +
        "</LN0></LDevice>";
    ASSERT_EQ(load(sclFile(device, "")), 0);
    auto row = [](const char* ln, const char* doName, const char* type) {
        const std::string ref = std::string("IED1LD0/GGIO") + ln + "$ST$" + doName + "$stVal";
        return std::vector<std::string>{std::to_string(rowKey(ref)), type};
    };
    // GGIO2 Ind1 is in dsDin and dsGgio: the first data set gives its class.
    EXPECT_EQ(query(realDbPath(), "select hashID,type from DAValue order by rowid"),
              (Rows{row("1", "AnIn1", "1.0"), row("2", "Pos", "3.0"), row("2", "Ind1", "2.0"),
                    row("3", "Ind1", "2.0"), row("4", "Pos", "4.0"), row("5", "TotWh", "5.0")}));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DataSetSub"), 9);
}

TEST_F(Loader, SampleModelGivesTheAgreedReferencesAndLiveValues) {
    ASSERT_EQ(load(sample("feeder_terminal.cid")), 0);
    const std::pair<const char*, const char*> agreed[] = {
        {"QVFTU1MEAS/MMXU1$MX$TotW$mag$f", "1.0"},
        {"QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f", "1.0"},
        {"QVFTU1CTRL/XCBR1$ST$Pos$stVal", "3.0"},
        {"QVFTU1LD0/GGIO1$ST$Ind1$stVal", "2.0"},
        {"QVFTU1CTRL/CSWI1$ST$Pos$stVal", "4.0"},
        {"QVFTU1MEAS/MMTR1$ST$TotWh$actVal", "5.0"},
    };
    for (const auto& [reference, type] : agreed) {
        const std::string hash = std::to_string(rowKey(reference));
        EXPECT_EQ(query(realDbPath(), "select daName from DA where hashID=" + hash),
                  (Rows{{reference}}));
        EXPECT_EQ(query(realDbPath(), "select type from DAValue where hashID=" + hash),
                  (Rows{{type}}));
    }
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue"), 18);
    EXPECT_EQ(query(realDbPath(), "select dsName from DataSet order by rowid"),
              (Rows{{"dsAin"}, {"dsDin"}, {"dsGgio"}, {"dsControl"}, {"dsEnergy"}, {"dsAlarm"},
                    {"dsGoosePos"}}));
    EXPECT_EQ(query(realDbPath(), "select fcdaName,daName from DataSetSub where doName='PhyHealth'"),
              (Rows{{"QVFTU1LD0/LPHD1$ST$PhyHealth", ""}}));
    // Instance values, enumerations as their ord; entity references replaced.
    EXPECT_EQ(query(realDbPath(),
                    "select daName,value,doDesc from DA where daName in "
                    "('QVFTU1CTRL/CSWI1$CF$Pos$ctlModel','QVFTU1MEAS/MMXU1$CF$TotW$units$SIUnit',"
                    "'QVFTU1LD0/LLN0$DC$NamPlt$d','QVFTU1LD0/LPHD1$ST$PhyHealth$stVal') order by daName"),
              (Rows{{"QVFTU1CTRL/CSWI1$CF$Pos$ctlModel", "4", "Breaker position"},
                    {"QVFTU1LD0/LLN0$DC$NamPlt$d", "Feeder 7 & ring main unit 3", "Name plate"},
                    {"QVFTU1LD0/LPHD1$ST$PhyHealth$stVal", "1", "Physical device health"},
                    {"QVFTU1MEAS/MMXU1$CF$TotW$units$SIUnit", "62", "Total active power"}}));

    ASSERT_EQ(zq_openRealDB(), 0);
    const char* const stVal = "QVFTU1CTRL/XCBR1$ST$Pos$stVal";
    ASSERT_EQ(zq_saveDoubDAValue1(stVal, 2.0, 0x40), 0);
    double value = 0;
    int quality = 0;
    ASSERT_EQ(zq_getDoubDAValue1(stVal, &value, &quality), 0);
    EXPECT_EQ(value, 2.0);
    EXPECT_EQ(quality, 0x40);
}

TEST_F(Loader, TheCapabilityFileHoldsTheSameModel) {
    ASSERT_EQ(load(sample("feeder_terminal.icd")), 0);
    const Rows icd = query(realDbPath(), "select daName,hashID from DA order by rowid");
    qvtest::freshRealStore();
    ASSERT_EQ(load(sample("feeder_terminal.cid")), 0);
    EXPECT_EQ(query(realDbPath(), "select daName,hashID from DA order by rowid"), icd);
    EXPECT_GT(icd.size(), 200u);
}

TEST_F(Loader, ReloadReplacesTheRowsOfThatIedOnly) {
    ASSERT_EQ(load(sclFile(kMeasurementDevice, kMeasurementTypes, "OTHER")), 0);
    ASSERT_EQ(load(sample("feeder_terminal.cid")), 0);
    const Rows first = dumpModel();
    ASSERT_EQ(zq_openRealDB(), 0);
    ASSERT_EQ(zq_saveDoubDAValue("QVFTU1MEAS/MMXU1$MX$TotW$mag$f", 17.5), 0);
    ASSERT_EQ(zq_closeRealDB(), 0);

    ASSERT_EQ(load(sample("feeder_terminal.cid")), 0);
    // OTHER's rows come first and stay; QVFTU1's come back once, values at 0.
    EXPECT_EQ(dumpModel(), first);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA where iedName='OTHER'"), 10);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue"), 18 + 2);
}

TEST_F(Loader, FileWithoutIedAddsAndRemovesNothing) {
    ASSERT_EQ(load(sample("feeder_terminal.cid")), 0);
    const Rows before = dumpModel();
    const std::string types = std::string("<SCL><DataTypeTemplates>") + kMeasurementTypes +
                              "</DataTypeTemplates></SCL>";
    ASSERT_EQ(load(writeFile("types.scd", types)), 0);
    EXPECT_EQ(dumpModel(), before);
}

TEST_F(Loader, TextsLongerThanTheirFieldsAreCut) {
    const std::string longDesc(300, 'd');
    const std::string device = "<LDevice inst=\"LD0\"><LN0 lnClass=\"LLN0\" lnType=\"T\">"
                               "<DataSet name=\"dsOther\" desc=\"" + longDesc +
                               "\"/></LN0></LDevice>";
    ASSERT_EQ(load(sclFile(device, "", std::string(40, 'I'))), 0);
    EXPECT_EQ(query(realDbPath(), "select iedName,dsDesc from DataSet"),
              (Rows{{std::string(31, 'I'), std::string(255, 'd')}}));
}

TEST(LoaderPieces, StrReplaceCountsAndNeverOverrunsTheResult) {
    char result[8];
    EXPECT_EQ(qvaddied::str_replace(result, sizeof result, "a.b.c", ".", "$"), 2);
    EXPECT_STREQ(result, "a$b$c");
    EXPECT_EQ(qvaddied::str_replace(result, sizeof result, "a.b.c.d.e", ".", "<>"), 4);
    EXPECT_STREQ(result, "a<>b<>c");
}

// ---- Files and stores that must not change anything ---------------------------

namespace {

// One valid IED; each bad case below breaks it in one place.
const std::string kValidDevice =
    "<LDevice inst=\"LD0\"><LN0 lnClass=\"LLN0\" lnType=\"T_LN\" inst=\"\">"
    "<DataSet name=\"dsGgio\" desc=\"inputs\"><FCDA ldInst=\"LD0\" lnClass=\"GGIO\" "
    "lnInst=\"1\" doName=\"Ind1\" daName=\"stVal\" fc=\"ST\"/></DataSet></LN0>"
    "<LN lnClass=\"GGIO\" inst=\"1\" lnType=\"T_LN\"><DOI name=\"Ind1\" desc=\"door\">"
    "<DAI name=\"stVal\"><Val>true</Val></DAI></DOI></LN></LDevice>";
const std::string kValidTypes =
    "<LNodeType id=\"T_LN\"><DO name=\"Ind1\" type=\"T_SPS\"/></LNodeType>"
    "<DOType id=\"T_SPS\"><DA name=\"stVal\" bType=\"BOOLEAN\" fc=\"ST\"/>"
    "<DA name=\"origin\" bType=\"Struct\" type=\"T_Orig\" fc=\"ST\"/></DOType>"
    "<DAType id=\"T_Orig\"><BDA name=\"orCat\" bType=\"Enum\" type=\"T_Cat\"/></DAType>"
    "<EnumType id=\"T_Cat\"><EnumVal ord=\"1\">bay</EnumVal></EnumType>";

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::string repeated(const std::string& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

struct BadModel {
    const char* name;
    std::string device;
    std::string types;
    std::string message;
};

void PrintTo(const BadModel& model, std::ostream* out) { *out << model.name; }

std::vector<BadModel> badModels() {
    const std::string ds = "<DataSet name=\"dsGgio\" desc=\"inputs\">";
    const std::string fcda = "<FCDA ldInst=\"LD0\" lnClass=\"GGIO\" lnInst=\"1\" doName=\"Ind1\" "
                             "daName=\"stVal\" fc=\"ST\"/>";
    const std::string dai = "<DAI name=\"stVal\"><Val>true</Val></DAI>";
    const std::string sps = "<DOType id=\"T_SPS\">";
    const std::string orig = "<DAType id=\"T_Orig\">";
    return {
        {"IedName", "", "", "SCL error: IED without attribute \"name\"\n"},
        {"FcdaFc", replaced(kValidDevice, " fc=\"ST\"/>", "/>"), kValidTypes,
         "SCL error: FCDA without attribute \"fc\"\n"},
        {"LDeviceInst", replaced(kValidDevice, " inst=\"LD0\"", ""), kValidTypes,
         "SCL error: LDevice without attribute \"inst\"\n"},
        {"LnType", replaced(kValidDevice, " lnType=\"T_LN\">", ">"), kValidTypes,
         "SCL error: LN without attribute \"lnType\"\n"},
        {"DoiName", replaced(kValidDevice, " name=\"Ind1\"", ""), kValidTypes,
         "SCL error: DOI without attribute \"name\"\n"},
        {"DaBType", kValidDevice, replaced(kValidTypes, " bType=\"BOOLEAN\"", ""),
         "SCL error: DA without attribute \"bType\"\n"},
        {"BdaName", kValidDevice, replaced(kValidTypes, " name=\"orCat\"", ""),
         "SCL error: BDA without attribute \"name\"\n"},
        {"EnumTypeId", kValidDevice, replaced(kValidTypes, " id=\"T_Cat\"", ""),
         "SCL error: EnumType without attribute \"id\"\n"},
        {"DataSets", replaced(kValidDevice, ds, repeated("<DataSet name=\"x\"/>", 50) + ds),
         kValidTypes, "SCL model too large: more than 50 data sets\n"},
        {"Members", replaced(kValidDevice, fcda, repeated(fcda, 257)), kValidTypes,
         "SCL model too large: more than 256 data set members\n"},
        {"InstanceValues", replaced(kValidDevice, dai, repeated(dai, 1001)), kValidTypes,
         "SCL model too large: more than 1000 instance values\n"},
        {"CyclicDOType", kValidDevice, replaced(kValidTypes, sps, sps + "<SDO name=\"s\" type=\"T_SPS\"/>"),
         "SCL error: DOType \"T_SPS\" contains itself\n"},
        {"IndirectlyCyclicDAType", kValidDevice,
         replaced(kValidTypes, orig, orig + "<BDA name=\"i\" bType=\"Struct\" type=\"T_In\"/>") +
             "<DAType id=\"T_In\"><BDA name=\"o\" bType=\"Struct\" type=\"T_Orig\"/></DAType>",
         "SCL error: DAType \"T_Orig\" contains itself\n"},
        {"SubDataObjectPath", kValidDevice,
         replaced(kValidTypes, sps, sps + "<SDO name=\"" + std::string(30, 's') + "\" type=\"T_Leaf\"/>") +
             "<DOType id=\"T_Leaf\"/>",
         "SCL error: data object path longer than 32 characters: Ind1$sss"},
        {"InstancePath", replaced(kValidDevice, dai, repeated("<SDI name=\"" + std::string(60, 'p') + "\">", 3) + dai + repeated("</SDI>", 3)),
         kValidTypes, "SCL error: data object path longer than 127 characters: Ind1$ppp"},
    };
}

// A store holding the sample model, which a rejected load must not change.
class LoaderRejects : public testing::Test {
protected:
    void SetUp() override {
        zq_closeRealDB();
        qvtest::freshRealStore();
        ASSERT_EQ(load(sample("feeder_terminal.cid")), 0);
        before_ = dumpModel();
    }
    // Loads `path` expecting -2, `message` and then the loader's own line.
    void expectRejected(const char* path, const std::string& message) {
        CaptureStderr();
        EXPECT_EQ(zq_addIEDRealDB(const_cast<char*>(path)), -2);
        const std::string err = GetCapturedStderr();
        EXPECT_THAT(err, HasSubstr(message));
        EXPECT_THAT(err, EndsWith(kParseFailed));
        EXPECT_EQ(dumpModel(), before_);
    }
    Rows before_;
};

class LoaderRejectsModel : public LoaderRejects, public testing::WithParamInterface<BadModel> {};

}  // namespace

TEST_P(LoaderRejectsModel, WithItsMessage) {
    const BadModel& bad = GetParam();
    const std::string path = bad.device.empty() && bad.types.empty()
                                 ? writeFile("model.scd", "<SCL><IED/></SCL>")
                                 : sclFile(bad.device, bad.types, "QVFTU1");
    expectRejected(path.c_str(), bad.message);
}

INSTANTIATE_TEST_SUITE_P(Loader, LoaderRejectsModel, testing::ValuesIn(badModels()),
                         [](const testing::TestParamInfo<BadModel>& info) { return info.param.name; });

TEST_F(LoaderRejects, FilesThatAreNotScl) {
    const std::string missing = std::string(QV_TEST_STORE_DIR) + "/no-such.cid";
    expectRejected(missing.c_str(), "Failed to parse xml file:" + missing + "\n");
    const std::string notXml = writeFile("bad.cid", "SCL, but not XML <");
    expectRejected(notXml.c_str(), "Failed to parse xml file:" + notXml + "\n");
    expectRejected(writeFile("bad.cid", "<Substation name=\"S\"/>").c_str(), "The root is not SCL.\n");
    expectRejected(nullptr, "SCL error: no file name given\n");
}

TEST_F(Loader, StoreWithoutValueTableIsLeftAsItWas) {
    execSql(realDbPath(), "drop table DAValue; insert into DataSet values('X','ds','LD0','')");
    CaptureStderr();
    EXPECT_EQ(load(sample("feeder_terminal.cid")), -1);
    EXPECT_EQ(GetCapturedStderr(), "sqlite3_prepare_v2 err no such table: DAValue\n");
    EXPECT_EQ(query(realDbPath(), "select * from DataSet"), (Rows{{"X", "ds", "LD0", ""}}));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA"), 0);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DataSetSub"), 0);
}

TEST_F(Loader, StoreThatCannotBeOpenedFails) {
    qvtest::removeStore(realDbPath());
    ASSERT_EQ(mkdir(realDbPath().c_str(), 0755), 0);
    CaptureStderr();
    EXPECT_EQ(load(sample("feeder_terminal.cid")), -1);
    EXPECT_EQ(GetCapturedStderr(), "Cannot open db: unable to open database file\n");
    rmdir(realDbPath().c_str());
}
