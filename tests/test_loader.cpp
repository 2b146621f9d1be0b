// Model loader: SCL file to real-time store rows. Reference texts, expansion
// order, classification, reloads, and bad files or stores that must leave the
// store exactly as it was.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <optional>
#include <thread>
#include <tuple>

#include "faults.h"
#include "internal/qvloader.h"
#include "process.h"
#include "qvaddied.h"
#include "qvrealapi.h"
#include "qvtest.h"
#include "qvtool_run.h"

using namespace qvtest;

namespace {

std::string writeFile(const std::string& name, const std::string& content) {
    std::ofstream(storeFile(name)) << content;
    return storeFile(name);
}

std::string sclText(const std::string& lDevices, const std::string& templates,
                    const std::string& ied = "IED1") {
    return "<?xml version=\"1.0\"?>\n<SCL><Header id=\"t\"/><IED name=\"" + ied +
           "\"><AccessPoint name=\"S1\"><Server>" + lDevices +
           "</Server></AccessPoint></IED><DataTypeTemplates>" + templates +
           "</DataTypeTemplates></SCL>\n";
}

// `text` with its first `from` replaced by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

int load(const std::string& path) { return zq_addIEDRealDB(const_cast<char*>(path.c_str())); }
int loadScl(const std::string& text) { return load(writeFile("model.scd", text)); }
const std::string kSample = sourcePath("samples/feeder_terminal.cid");

// Every row of the four model tables (of one IED when given), in insertion order.
Rows dumpModel(const std::string& ied = "") {
    const std::string of = ied.empty() ? "" : " where iedName='" + ied + "'";
    Rows all;
    for (const std::string table : {"DataSet", "DataSetSub", "DA"}) {
        const Rows rows = query(realDbPath(), "select * from " + table + of + " order by rowid");
        all.insert(all.end(), rows.begin(), rows.end());
    }
    const std::string ofValues = ied.empty() ? "" : " where hashID in (select hashID from DA" + of + ")";
    const Rows values = query(realDbPath(), "select * from DAValue" + ofValues + " order by rowid");
    all.insert(all.end(), values.begin(), values.end());
    return all;
}

const std::string kMeasurement = fileText(dataPath("measurement.scd"));
const std::string kValidModel = fileText(dataPath("valid_model.scd"));
const std::string kTwoIeds = dataPath("two_ieds.scd");

// Loads go on while the library has the store open, as in the gateway.
class Loader : public RealStoreTest {};

class LoaderOnSample : public Loader {
protected:
    void SetUp() override {
        Loader::SetUp();
        ASSERT_EQ(load(kSample), 0);
        before_ = dumpModel();
    }
    // Loads `path` (only the IED `ied` when given) expecting -2, exactly
    // `message` and then the loader's own line.
    void expectRejected(const char* path, const std::string& message, const char* ied = nullptr) {
        CaptureStderr();
        EXPECT_EQ(ied ? zq_addIEDRealDBByName(path, ied) : zq_addIEDRealDB(const_cast<char*>(path)), -2);
        EXPECT_EQ(GetCapturedStderr(), message + "cid 解析出错.\n");
        EXPECT_EQ(dumpModel(), before_);
    }
    Rows before_;
};

// The valid model of the sample's IED, broken in one place by replacing the
// first `from` with `to`: a reject must not remove the sample's rows either.
struct BadModel {
    const char* name;
    std::string from;
    std::string to;
    std::string message;
};

const std::string kDai = "<DAI name=\"stVal\"><Val>true</Val></DAI>";

std::string times(int n, const std::function<std::string(int)>& item) {
    std::string all;
    for (int i = 0; i < n; ++i) all += item(i);
    return all;
}

std::string repeated(const std::string& text, int n) { return times(n, [&](int) { return text; }); }

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
    {"NestedStructuresWithoutEnd", "<DAType id=\"T_Orig\"><BDA name=\"orCat\" bType=\"Enum\" type=\"T_Cat\"/>",
     "<DAType id=\"T_Orig\"><BDA name=\"x\" bType=\"Struct\" type=\"X0\"/>" +
         times(20, [](int i) {
             const std::string next = "\" bType=\"Struct\" type=\"X" + std::to_string(i + 1) + "\"/>";
             return "</DAType><DAType id=\"X" + std::to_string(i) + "\"><BDA name=\"a" + next + "<BDA name=\"b" + next;
         }),
     "SCL model too large: more than 100000 nested data objects and structures in the types\n"},
    {"SmallFileExpandingPastItsAllowance", "<DO name=\"Ind1\" type=\"T_SPS\"/></LNodeType>",
     "<DO name=\"Ind1\" type=\"T_SPS\"/>" +
         times(510, [](int i) { return "<DO name=\"B" + std::to_string(i) + "\" type=\"T_Big\"/>"; }) +
         "</LNodeType><DOType id=\"T_Big\">" +
         times(500, [](int i) { return "<DA name=\"a" + std::to_string(i) + "\" bType=\"INT32\" fc=\"ST\"/>"; }) +
         "</DOType>",
     "SCL model too large: more than 250000 data attributes in all\n"},
    {"SubDataObjectPath", "<DOType id=\"T_SPS\">",
     "<DOType id=\"T_Leaf\"/><DOType id=\"T_SPS\"><SDO name=\"" + std::string(30, 's') +
         "\" type=\"T_Leaf\"/>",
     "SCL error: data object path longer than 32 characters: Ind1$" + std::string(27, 's') + "...\n"},
    {"InstancePath", kDai,
     repeated("<SDI name=\"" + std::string(60, 'p') + "\">", 3) + kDai + repeated("</SDI>", 3),
     "SCL error: data object path longer than 127 characters: Ind1$" +
         repeated(std::string(60, 'p') + "$", 2) + "...\n"},
};

}  // namespace

TEST_F(Loader, ExpandsReferencesInOrderAndKeysTheValueRows) {
    ASSERT_EQ(loadScl(kMeasurement), 0);
    // Own basic attributes first, then the leaves of structures appended while
    // expanding; the LN whose type is missing yields nothing.
    EXPECT_EQ(query(realDbPath(), "select substr(daName,15),doName,fcName,value,valueType,doDesc "
                                  "from DA where ldName='LD0' and lnName='MMXU1' order by rowid"),
              (Rows{{"MX$A$phsA$q", "A$phsA", "MX", "", "Quality", ""},
                    {"CF$A$phsA$units$SIUnit", "A$phsA", "CF", "5", "Enum", "currents"},
                    {"MX$A$phsA$cVal$mag$f", "A$phsA", "MX", "", "FLOAT32", ""},
                    {"MX$A$phsA$cVal$ang$f", "A$phsA", "MX", "", "FLOAT32", ""},
                    {"CF$A$phsA$units$range$f", "A$phsA", "CF", "", "FLOAT32", ""}}));
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
    EXPECT_EQ(query(realDbPath(), "select d.daName from DAValue v join DA d using(hashID)"), (Rows{{leaf}}));
}

TEST_F(Loader, ClassifiesTheFiveDataSetsOnceEachInMemberOrder) {
    ASSERT_EQ(load(dataPath("classified_sets.scd")), 0);
    // Member order; GGIO2 Ind1, in dsDin and dsGgio, once.
    EXPECT_EQ(query(realDbPath(), "select type from DAValue order by rowid"),
              (Rows{{"1.0"}, {"3.0"}, {"2.0"}, {"2.0"}, {"4.0"}, {"5.0"}}));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DataSetSub"), 9);
}

TEST_F(Loader, ReloadReplacesTheRowsOfThatIedOnly) {
    ASSERT_EQ(loadScl(replaced(kMeasurement, "\"IED1\"", "\"" + std::string(40, 'O') + "\"")), 0);
    ASSERT_EQ(load(kSample), 0);
    const Rows first = dumpModel();
    // Enumerations as their ord; entity references replaced.
    EXPECT_EQ(query(realDbPath(), "select value from DA where daName in ('QVFTU1LD0/LLN0$DC$NamPlt$d',"
                                  "'QVFTU1MEAS/MMXU1$CF$TotW$units$SIUnit') order by daName"),
              (Rows{{"Feeder 7 & ring main unit 3"}, {"62"}}));
    ASSERT_EQ(zq_saveDoubDAValue("QVFTU1MEAS/MMXU1$MX$TotW$mag$f", 17.5), 0);
    ASSERT_EQ(queryInt(realDbPath(), "select count(*) from DAValue where value=17.5"), 1);
    ASSERT_EQ(load(kSample), 0);
    // The other IED's rows come first and stay; QVFTU1's come back once, values at 0.
    EXPECT_EQ(dumpModel(), first);
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DA where iedName='" + std::string(31, 'O') + "'"), 10);
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

TEST_F(LoaderOnSample, RejectsBrokenFilesSayingWhyAndIgnoresOneWithoutIed) {
    const size_t ied = kMeasurement.find("<IED"), end = kMeasurement.find("</IED>") + 6;
    ASSERT_EQ(loadScl(kMeasurement.substr(0, ied) + kMeasurement.substr(end)), 0);
    EXPECT_EQ(dumpModel(), before_);
    const std::string missing = std::string(QV_TEST_STORE_DIR) + "/no-such.cid";
    expectRejected(missing.c_str(), "Cannot read " + missing + ": No such file or directory\n");
    expectRejected(QV_TEST_STORE_DIR, "Cannot read " QV_TEST_STORE_DIR ": Is a directory\n");
    // libxml2's own complaint comes through the loader, on one line.
    const std::string notXml = writeFile("bad.cid", "SCL, but not XML <");
    expectRejected(notXml.c_str(), "SCL parse error: " + notXml + ":1: Start tag expected, '<' not found\n"
                                   "Failed to parse xml file:" + notXml + "\n");
    expectRejected(writeFile("bad.cid", "<Substation name=\"S\"/>").c_str(), "The root is not SCL.\n");
    expectRejected(nullptr, "SCL error: no file name given\n");
    const std::string valid = writeFile("model.scd", kValidModel);
    expectRejected(valid.c_str(), "SCL error: no IED named \"QVFTU2\" in " + valid + "; it has: QVFTU1\n", "QVFTU2");
    for (const BadModel& model : kBadModels) {
        SCOPED_TRACE(model.name);
        expectRejected(writeFile("model.scd", replaced(kValidModel, model.from, model.to)).c_str(),
                       model.message);
    }
}

// ---- What engineering tools write: encodings, several IEDs, any size --------

namespace {

// Latin-1 or UTF-16LE bytes of a UTF-8 text whose characters are all Latin-1.
std::string fromUtf8(const std::string& text, bool utf16) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0xC0) c = static_cast<unsigned char>(((c & 0x1F) << 6) | (text[++i] & 0x3F));
        out += static_cast<char>(c);
        if (utf16) out += '\0';
    }
    return out;
}

std::string withDeclaration(const std::string& model, const std::string& encoding) {
    const std::string plain = "<?xml version=\"1.0\"?>";
    return "<?xml version=\"1.0\" encoding=\"" + encoding + "\"?>" + model.substr(plain.size());
}

// The rows that IED `ied` of tests/data/two_ieds.scd owns.
Rows rowsOfIed(const std::string& ied, const std::string& value) {
    const std::string member = ied + "LD0/GGIO1$ST$Ind1$stVal";
    auto da = [&](const std::string& ln, const std::string& rest, const std::string& type,
                  const std::string& val, const std::string& desc) {
        const std::string ref = ied + "LD0/" + ln + "$ST$Ind1$" + rest;
        return std::vector<std::string>{ref,  ied, "LD0", ln,   "Ind1",
                                        "ST", val, type,  desc, std::to_string(rowKey(ref))};
    };
    return {{ied, "dsGgio", "LD0", ied},
            {member, ied, "dsGgio", "LD0", "GGIO", "1", "Ind1", "stVal", "ST"},
            da("LLN0", "stVal", "BOOLEAN", "", ""),
            da("LLN0", "origin$orCat", "Enum", "", ""),
            da("GGIO1", "stVal", "BOOLEAN", value, ied),
            da("GGIO1", "origin$orCat", "Enum", "", ""),
            {std::to_string(rowKey(member)), "2.0", "0.0", "0", "0.0"}};
}

std::string ldevice(const std::string& inst, const std::string& nodes) {
    return "<LDevice inst=\"" + inst + "\">" + nodes + "</LDevice>";
}

std::string node(const std::string& cls, int inst, const std::string& type) {
    return "<LN lnClass=\"" + cls + "\" inst=\"" + std::to_string(inst) + "\" lnType=\"" + type + "\"/>";
}

std::string s(int i) { return std::to_string(i); }

// One more of everything than the tables once held: 129 logical devices,
// 129 logical nodes in one, 51 data sets, 257 members, 1002 instance values,
// 129 LNodeTypes, DOTypes and EnumTypes, 65 DATypes, 501 DOs in one
// LNodeType, 201 DAs and SDOs in one DOType, 257 BDAs in one DAType, 257
// EnumVals in one EnumType, and 8016 attributes.
std::string modelOverTheOldCapacities() {
    std::string t = "<EnumType id=\"E0\">" +
                    times(257, [](int i) { return "<EnumVal ord=\"" + s(i) + "\">v" + s(i) + "</EnumVal>"; });
    t += "</EnumType>" + times(128, [](int i) {
        return "<EnumType id=\"E" + s(i + 1) + "\"><EnumVal ord=\"0\">v0</EnumVal></EnumType>";
    });
    t += "<DAType id=\"S0\">" +
         times(257, [](int i) { return "<BDA name=\"b" + s(i) + "\" bType=\"INT32\"/>"; }) + "</DAType>";
    const std::string floats =
        times(20, [](int k) { return "<BDA name=\"f" + s(k) + "\" bType=\"FLOAT32\"/>"; });
    t += times(64, [&](int i) { return "<DAType id=\"S" + s(i + 1) + "\">" + floats + "</DAType>"; });
    t += "<DOType id=\"D0\">" +
         times(201, [](int i) { return "<DA name=\"a" + s(i) + "\" bType=\"INT32\" fc=\"ST\"/>"; }) +
         times(201, [](int i) { return "<SDO name=\"s" + s(i) + "\" type=\"D1\"/>"; }) + "</DOType>";
    t += "<DOType id=\"D1\"><DA name=\"stVal\" bType=\"Enum\" type=\"E0\" fc=\"ST\"/>"
         "<DA name=\"q\" bType=\"Quality\" fc=\"ST\"/></DOType>";
    t += times(127, [](int k) {
        const int i = k + 2;
        return "<DOType id=\"D" + s(i) + "\"><DA name=\"stVal\" bType=\"Enum\" type=\"E" + s(i) +
               "\" fc=\"ST\"/><DA name=\"v\" bType=\"Struct\" type=\"S" +
               (i == 2 ? "0" : s(i % 64 + 1)) + "\" fc=\"MX\"/></DOType>";
    });
    t += "<LNodeType id=\"L0\">" +
         times(501, [](int i) { return "<DO name=\"o" + s(i) + "\" type=\"D1\"/>"; }) +
         "</LNodeType><LNodeType id=\"L1\"><DO name=\"big\" type=\"D0\"/></LNodeType>";
    t += times(127, [](int k) {
        return "<LNodeType id=\"L" + s(k + 2) + "\"><DO name=\"x\" type=\"D" + s(k + 2) + "\"/></LNodeType>";
    });

    // Each o-i's stVal has two values (setting groups): the last one, v(i mod 257), stays.
    const std::string values = times(501, [](int i) {
        return "<DOI name=\"o" + s(i) + "\"><DAI name=\"stVal\"><Val>v0</Val><Val>v" + s(i % 257) +
               "</Val></DAI></DOI>";
    });
    const std::string dataSets =
        times(50, [](int i) { return "<DataSet name=\"ds" + s(i) + "\"/>"; }) + "<DataSet name=\"dsAin\">" +
        times(257, [](int i) {
            return "<FCDA ldInst=\"LD0\" lnClass=\"LLN\" lnInst=\"0\" doName=\"o" + s(i) +
                   "\" daName=\"stVal\" fc=\"ST\"/>";
        }) + "</DataSet>";
    const std::string ld0 = "<LN0 lnClass=\"LLN0\" inst=\"\" lnType=\"L0\">" + dataSets + values + "</LN0>" +
                            times(128, [](int i) { return node("GGIO", i + 1, "L" + s(i + 1)); });
    return sclText(ldevice("LD0", ld0) + times(128, [](int i) {
                       return ldevice("LD" + s(i + 1), node("GGIO", 1, "L" + s(i + 1)));
                   }), t);
}

}  // namespace

TEST_F(Loader, LoadsEveryEncodingToTheSameUtf8Rows) {
    const std::string model = replaced(kValidModel, "\"dsGgio\"", "\"dsGgio\" desc=\"Zähler Größe\"");
    ASSERT_EQ(loadScl(model), 0);
    const Rows expected = dumpModel();
    ASSERT_EQ(query(realDbPath(), "select dsDesc from DataSet"), (Rows{{"Zähler Größe"}}));
    const std::pair<const char*, std::string> encoded[] = {
        {"UTF-8 with byte order mark", "\xEF\xBB\xBF" + withDeclaration(model, "UTF-8")},
        {"UTF-8 mark, no declaration", "\xEF\xBB\xBF" + model.substr(model.find("<SCL>"))},
        {"ISO-8859-1", fromUtf8(withDeclaration(model, "ISO-8859-1"), false)},
        {"UTF-16LE with byte order mark",
         "\xFF\xFE" + fromUtf8(withDeclaration(model, "UTF-16"), true)},
    };
    for (const auto& [name, bytes] : encoded) {
        freshRealStore();
        EXPECT_EQ(loadScl(bytes), 0) << name;
        EXPECT_EQ(dumpModel(), expected) << name;
    }
    // libxml2's warnings come through the loader, one line each.
    freshRealStore();
    CaptureStderr();
    EXPECT_EQ(loadScl(replaced(model, "<SCL>", "<SCL xmlns=\"scl\">")), 0);
    EXPECT_EQ(GetCapturedStderr(),
              "SCL warning: " QV_TEST_STORE_DIR "/model.scd:2: xmlns: URI scl is not absolute\n");
    EXPECT_EQ(dumpModel(), expected);
}

TEST_F(Loader, EveryIedKeepsItsOwnRowsAndOneCanBeLoadedAlone) {
    const std::string& path = kTwoIeds;
    ASSERT_EQ(load(path), 0);
    EXPECT_EQ(dumpModel("A"), rowsOfIed("A", "true"));
    EXPECT_EQ(dumpModel("B"), rowsOfIed("B", "false"));
    EXPECT_EQ(queryInt(realDbPath(), "select count(*) from DAValue"), 2);

    freshRealStore();
    ASSERT_EQ(zq_addIEDRealDBByName(path.c_str(), "B"), 0);
    EXPECT_EQ(dumpModel(), rowsOfIed("B", "false"));
    // Loading A alone adds A and leaves B as it was.
    ASSERT_EQ(zq_addIEDRealDBByName(path.c_str(), "A"), 0);
    EXPECT_EQ(dumpModel("B"), rowsOfIed("B", "false"));
    EXPECT_EQ(dumpModel("A"), rowsOfIed("A", "true"));
}

// Files written by engineering tools, beside the project when it is checked
// out with them: each loads whole, with one row per attribute and reference.
TEST_F(Loader, RealToolFilesLoadEveryIedUnderItsOwnName) {
    const struct {
        const char* name;
        std::vector<std::string> ieds;
        std::vector<long> counts;  // data sets, members, attributes
    } files[] = {
        {"beanit_iec61850bean_testModel2.icd", {"IEDBiogas"}, {2, 33, 3386}},  // byte order mark
        {"mz-automation_libiec61850_cid_example_deadband.cid", {"IED1"}, {1, 4, 64}},
        {"mz-automation_libiec61850_complexModel.cid", {"ied1"}, {1, 5, 177}},
        {"riseclipse_riseclipse-validator-scl2003-test_ICD_test.icd", {"TEMPLATE"}, {1, 16, 395}},
        {"openscd_open-scd_cleanup.scd", {"IED1", "IED2", "IED3"}, {8, 53, 1619}},
        {"robidev_iec61850_open_server_open_substation.scd",
         {"IED1_XCBR", "IED2_PTOC", "IED3_SMV", "IED4_SMV"}, {4, 19, 615}},
    };
    const std::string dir = QV_SOURCE_DIR "/../shared/scl-real/";
    struct stat info;
    if (stat(dir.c_str(), &info) != 0) GTEST_SKIP() << "no real SCL files beside the project";
    for (const auto& file : files) {
        SCOPED_TRACE(file.name);
        freshRealStore();
        qvaddied::LoadSummary summary;
        ASSERT_EQ(qvaddied::loadFile((dir + file.name).c_str(), nullptr, true, &summary), 0);
        EXPECT_EQ(summary.ieds, file.ieds);
        EXPECT_EQ((std::vector<long>{summary.dataSets, summary.members, summary.attributes}), file.counts);
        EXPECT_EQ(query(realDbPath(), "select (select count(*) from DataSet),(select count(*) from DataSetSub),"
                                      "count(*),count(distinct daName),count(distinct iedName) from DA"),
                  (Rows{{s(file.counts[0]), s(file.counts[1]), s(file.counts[2]), s(file.counts[2]),
                         s(file.ieds.size())}}));
    }
}

TEST_F(Loader, ModelOverEveryOldCapacityLoadsWhole) {
    ASSERT_EQ(loadScl(modelOverTheOldCapacities()), 0);
    const std::string db = realDbPath();
    // Attributes, logical devices, nodes of LD0, data sets, dsAin's members, attributes with a
    // value, and dsAin's value rows that meet their attributes.
    EXPECT_EQ(query(db, "select count(*),count(distinct ldName),"
                        "(select count(distinct lnName) from DA where ldName='LD0'),"
                        "(select count(*) from DataSet),(select count(*) from DataSetSub where dsName='dsAin'),"
                        "(select count(*) from DA where value<>''),"
                        "(select count(*) from DAValue v join DA d using(hashID) where v.type=1.0) from DA"),
              (Rows{{"8016", "129", "129", "51", "257", "501", "257"}}));
    // Rows in expansion order: LLN0's 501 DOs (1002 rows), then GGIO1's 201 own DAs before its
    // 201 sub-data objects (402 rows), GGIO2's enum and 257 BDAs; the last row.
    EXPECT_EQ(query(db, "select substr(daName,5) from DA where rowid in (1,1002,1002+201,1002+201+402,"
                        "1002+603+2+256,8016) order by rowid"),
              (Rows{{"LD0/LLN0$ST$o0$stVal"}, {"LD0/LLN0$ST$o500$q"}, {"LD0/GGIO1$ST$big$a200"},
                    {"LD0/GGIO1$ST$big$s200$q"}, {"LD0/GGIO2$MX$x$v$b256"}, {"LD128/GGIO1$MX$x$v$f19"}}));
    // The last value of each attribute, as the ord of the 257-value enumeration.
    EXPECT_EQ(query(db,
                    "select value from DA where daName in ('IED1LD0/LLN0$ST$o256$stVal',"
                    "'IED1LD0/LLN0$ST$o500$stVal') order by rowid"),
              (Rows{{"256"}, {"243"}}));
}

namespace {

// One IED of 10 devices x 100 nodes x 100 data objects: 100 000 attributes.
std::string hundredThousandAttributes(const std::string& ied) {
    const std::string types =
        "<LNodeType id=\"T\">" +
        times(100, [](int i) { return "<DO name=\"d" + s(i) + "\" type=\"D\"/>"; }) +
        "</LNodeType><DOType id=\"D\"><DA name=\"stVal\" bType=\"BOOLEAN\" fc=\"ST\"/></DOType>";
    const std::string devices = times(10, [](int d) {
        return ldevice("LD" + s(d), times(100, [](int n) { return node("GGIO", n + 1, "T"); }));
    });
    return sclText(devices, types, ied);
}

}  // namespace

// Two threads check their own files over and over: each load must read
// exactly what a load alone reads, so no load sees another one's model.
TEST_F(Loader, ConcurrentLoadsInOneProcessKeepTheirOwnModels) {
    auto summaryOf = [](const std::string& file) {
        qvaddied::LoadSummary summary;
        const int result = qvaddied::loadFile(file.c_str(), nullptr, false, &summary);
        return std::make_tuple(result, summary.ieds, summary.dataSets, summary.members,
                               summary.attributes, summary.valueRows);
    };
    const std::string files[] = {dataPath("loader_feeder_a.scd"),
                                 dataPath("loader_bays_b.scd")};
    using Summary = decltype(summaryOf(files[0]));
    const Summary alone[] = {summaryOf(files[0]), summaryOf(files[1])};
    ASSERT_EQ(alone[0], Summary(0, {"FEEDER_A"}, 3, 7, 60, 6));
    ASSERT_EQ(alone[1], Summary(0, {"BAY_B1", "BAY_B2"}, 4, 5, 26, 5));
    std::atomic<int> mismatches{0};
    auto checkRepeatedly = [&](int f) {
        for (int i = 0; i < 200; ++i) mismatches += summaryOf(files[f]) != alone[f];
    };
    std::thread other(checkRepeatedly, 1);
    checkRepeatedly(0);
    other.join();
    EXPECT_EQ(mismatches, 0);
}

// ---- Hostile files ----------------------------------------------------------

namespace {

// The valid model with an internal DTD subset, `at` replaced by `use`.
std::string withDoctype(const std::string& doctype, const std::string& at, const std::string& use) {
    const std::string model = replaced(kValidModel, at, use);
    return "<?xml version=\"1.0\"?>\n" + doctype + model.substr(model.find("<SCL>"));
}

std::string withEntities(const std::string& subset, const std::string& at, const std::string& use) {
    return withDoctype("<!DOCTYPE SCL [" + subset + "]>", at, use);
}

std::string valueOf(const std::string& text) {
    return "<DAI name=\"stVal\"><Val>" + text + "</Val></DAI>";
}

struct Bounds {
    int result = -99;  // of the load; -99: the process did not finish
    long peakGrowthKiB = -1;
};

long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::strlen(field)));
    }
    return -1;
}

// Loads in a child process that is killed after 20 s, reporting the load's
// result and how far it raised the peak resident size.
Bounds loadInChild(const std::string& path) {
    Bounds bounds;
    int channel[2];
    if (pipe(channel) != 0) return bounds;
    runInChild([&] {
        std::ofstream("/proc/self/clear_refs") << "5";  // peak := current
        const long before = statusKiB("VmRSS:");
        bounds.result = zq_addIEDRealDB(const_cast<char*>(path.c_str()));
        bounds.peakGrowthKiB = statusKiB("VmHWM:") - before;
        return write(channel[1], &bounds, sizeof bounds) == sizeof bounds ? 0 : 1;
    }, 20000);
    close(channel[1]);
    if (read(channel[0], &bounds, sizeof bounds) != sizeof bounds) bounds = {};
    close(channel[0]);
    return bounds;
}

// A local port that counts as contacted once a connection waits on it.
struct Listener {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    int port = 0;
    Listener() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 && listen(fd, 4) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
            port = ntohs(address.sin_port);
    }
    ~Listener() { close(fd); }
    bool contacted() const {
        const int peer = accept(fd, nullptr, nullptr);
        if (peer >= 0) close(peer);
        return peer >= 0;
    }
};

}  // namespace

TEST_F(Loader, HostileFilesAreBoundedAndNothingComesFromOutside) {
    const std::string secret = writeFile("secret.txt", "SECRET-TEXT");
    writeFile("secret.dtd", "<!ENTITY s \"SECRET-TEXT\">");
    const Listener listener;
    ASSERT_NE(listener.port, 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port) + "/x";
    // 50 KB used 5000 times: 250 MB once expanded.
    const std::string big = "<!ENTITY e \"" + std::string(50000, 'x') + "\">";
    std::string laughs = "<!ENTITY l0 \"lol\">";
    for (int i = 1; i < 10; ++i)
        laughs += "<!ENTITY l" + s(i) + " \"" + repeated("&l" + s(i - 1) + ";", 10) + "\">";
    const std::pair<const char*, std::string> files[] = {
        {"entity in many values", withEntities(big, kDai, repeated(valueOf("&e;"), 1000))},
        {"entity many times in one value", withEntities(big, kDai, valueOf(repeated("&e;", 5000)))},
        {"entity in an attribute",
         withEntities(big, "name=\"QVFTU1\"", "name=\"" + repeated("&e;", 5000) + "\"")},
        {"entity in an enumeration", withEntities(big, ">bay<", ">" + repeated("&e;", 5000) + "<")},
        {"nested entities", withEntities(laughs, kDai, valueOf("&l9;"))},
        {"external file entity",
         withEntities("<!ENTITY x SYSTEM \"file://" + secret + "\">", kDai, valueOf("&x;"))},
        {"external entity in an attribute",
         withEntities("<!ENTITY x SYSTEM \"" + secret + "\">", "name=\"QVFTU1\"", "name=\"&x;\"")},
        {"external DTD", withDoctype("<!DOCTYPE SCL SYSTEM \"secret.dtd\">", kDai, valueOf("&s;"))},
        {"external parameter entity",
         withEntities("<!ENTITY % p SYSTEM \"secret.dtd\">%p;", kDai, valueOf("&s;"))},
        {"network entity and DTD", withDoctype("<!DOCTYPE SCL SYSTEM \"" + url +
                                                   ".dtd\" [<!ENTITY n SYSTEM \"" + url + "\">]>",
                                               kDai, valueOf("&n;"))},
    };
    for (const auto& [name, text] : files) {
        freshRealStore();
        const Bounds bounds = loadInChild(writeFile("hostile.scd", text));
        EXPECT_TRUE(bounds.result == 0 || bounds.result == -2) << name << ": " << bounds.result;
        EXPECT_LT(bounds.peakGrowthKiB, 200 * 1024) << name;
        for (const auto& row : dumpModel()) {
            for (const std::string& column : row) {
                EXPECT_EQ(column.find("SECRET"), std::string::npos) << name;
                EXPECT_LE(column.size(), 255u) << name;
            }
        }
    }
    EXPECT_FALSE(listener.contacted());
}

// ---- qvtool load ---------------------------------------------------------------

TEST_F(Loader, ToolLoadReportsThisFileAndChecksWithoutWriting) {
    const std::string& two = kTwoIeds;
    const std::string none = writeFile("none.scd", "<SCL><DataTypeTemplates/></SCL>");
    ASSERT_EQ(load(kSample), 0);  // counts are the file's, not the store's
    const Rows sample = dumpModel();
    const struct {
        Words args;
        int code;
        std::string output;  // stdout, then stderr
        Rows rows;           // the store afterwards
        bool freshStore = false;
    } runs[] = {
        {{"load", two, "--check"}, 0,
         "checking " + two + " ...\nIEDs: A B\nwould load: 2 data sets, 2 members, 8 attributes\n"
         "names merged: 0 logical nodes into 0 names\nvalue rows: 2 (ain 0, din 2, double point 0, control 0, energy 0)\n",
         sample},
        {{"load", two, "--ied", "C", "--check"}, 1,
         "checking " + two + " ...\nSCL error: no IED named \"C\" in " + two +
             "; it has: A, B\ncid 解析出错.\nqvtool: " + two + " is not a usable SCL model; the store is unchanged\n",
         sample},
        {{"load", none}, 1, "loading " + none + " ...\nqvtool: " + none + " has no IED: nothing was loaded\n",
         sample},
        {{"load", two, "--ied", "B"}, 0,
         "loading " + two + " ...\nIEDs: B\nloaded: 1 data sets, 1 members, 4 attributes\n",
         rowsOfIed("B", "false"), true},
    };
    for (const auto& run : runs) {
        if (run.freshStore) freshRealStore();
        const ToolRun result = tool(run.args);
        EXPECT_EQ(result.code, run.code) << run.args[1];
        EXPECT_EQ(result.out + result.err, run.output) << run.args[1];
        EXPECT_EQ(dumpModel(), run.rows) << run.args[1];
    }
}

// ---- Faults part-way through a load -------------------------------------------

namespace {

// How far a load has written: the size of the write-ahead log.
long long logBytes() {
    struct stat wal {};
    return stat((realDbPath() + "-wal").c_str(), &wal) == 0 ? wal.st_size : 0;
}

}  // namespace

// The sample loaded and one of its values saved; then a reload of its IED is
// killed at three points while it writes (its log grows to about 10 MB), or
// outgrows a small file system: the sample's rows and value stay exactly as
// they were, and a later load of its 100 000 attributes goes through.
TEST(LoaderFaults, AKilledOrFullLoadLeavesTheStoreAsItWasAndALaterLoadWorks) {
    for (const bool full : {false, true}) {
        SCOPED_TRACE(full ? "full file system" : "killed");
        zq_closeRealDB();  // no connection crosses the fork
        std::optional<SmallStoreDir> dir;
        if (full && !dir.emplace("8m").mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
        freshRealStore();
        ASSERT_EQ(load(kSample), 0);
        ASSERT_EQ(zq_openRealDB(), 0);
        ASSERT_EQ(zq_saveDoubDAValue("QVFTU1MEAS/MMXU1$MX$TotW$mag$f", 17.5), 0);
        zq_closeRealDB();
        const Rows before = dumpModel();
        const std::string big = writeFile("fault_big.scd", hundredThousandAttributes("QVFTU1"));
        for (int stop = 0; !full && stop < 3; ++stop) {
            Child loader([&big] { return load(big); });
            ASSERT_TRUE(eventually([stop] { return logBytes() > stop * 3000000; }));
            EXPECT_TRUE(loader.running()) << "the load ended before it was killed";
            loader.signal(SIGKILL);
            EXPECT_EQ(dumpModel(), before);  // whose connections also clear the log
        }
        if (full) {
            CaptureStderr();
            EXPECT_EQ(load(big), -1);
            EXPECT_THAT(GetCapturedStderr(), testing::HasSubstr("database or disk is full"));
            EXPECT_EQ(dumpModel(), before);
            ASSERT_TRUE(dir->resize("512m"));
        }
        // Every attribute once, up to the last: the sample's own rows are replaced.
        EXPECT_EQ(load(big), 0);
        EXPECT_EQ(query(realDbPath(), "select count(*),count(distinct daName),max(daName) from DA"),
                  (Rows{{"100000", "100000", "QVFTU1LD9/GGIO99$ST$d99$stVal"}}));
    }
}
