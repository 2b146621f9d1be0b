// Vendor models: whole type ids, load options (prefixes kept, value classes
// by rule), and the lines a load prints about what it did.
#include <dirent.h>

#include <fstream>

#include "internal/qvloader.h"
#include "qvaddied.h"
#include "qvtest.h"

using namespace qvtest;

namespace {

class VendorModels : public RealStoreTest {};

std::string daNames() {
    std::string names;
    for (const auto& row : query(realDbPath(), "select daName from DA order by rowid")) names += row[0] + " ";
    return names;
}

const std::string kSets = dataPath("vendor_sets.scd");

int loadEx(const std::string& file, int lnPrefix, const char* rules, unsigned size = sizeof(QvLoadOptions),
           const char* ied = nullptr) {
    struct {
        QvLoadOptions options;
        char later[16];  // what a later version may append
    } larger{{size, ied, lnPrefix, rules}, {}};
    return zq_addIEDRealDBEx(file.c_str(), &larger.options);
}

// Value classes in member order, and DA rows and distinct references.
std::string loaded() {
    return query(realDbPath(), "select group_concat(cast(type as int)) from DAValue")[0][0] + " " +
           query(realDbPath(), "select count(*) || '/' || count(distinct daName) from DA")[0][0];
}

}  // namespace

TEST_F(VendorModels, ValueRulesAndPrefixesDecideRowsAndNames) {
    const struct {
        int lnPrefix;
        const char* rules;
        std::string rows;
    } cases[] = {
        {0, nullptr, "1 15/10"},  // A and B merge
        {1, nullptr, "1 15/15"},
        {0, "*=byfc", "1,2,3,2,4 15/10"},
        {1, "*=byfc", "1,1,2,3,2,4 15/15"},
        {1, "Meas*=ain,P?sSet=din", "1,1,1,3,2 15/15"},
        {1, "dsAin=none,*=control", "4,4,4,4,4,4 15/15"},
        {1, "*Set=energy,MeasSet=ain", "1,5,5,5,5,5,5 15/15"},  // the first match wins
        {1, "measset=ain,Meas=ain,?easSe=ain,*Se=ain", "1 15/15"},  // whole and case-sensitive
    };
    for (const auto& c : cases) {
        freshRealStore();
        EXPECT_EQ(loadEx(kSets, c.lnPrefix, c.rules), 0) << c.rules;
        EXPECT_EQ(loaded(), c.rows) << c.lnPrefix << " " << (c.rules ? c.rules : "null");
    }
}

TEST_F(VendorModels, BadRulesAndSizesLeaveTheStoreUntouched) {
    ASSERT_EQ(zq_addIEDRealDBEx(kSets.c_str(), nullptr), 0);
    const std::string before = loaded();
    const auto ruleLine = [](const std::string& rule) {
        return "load options: value class rule \"" + rule +
               "\" is not PATTERN=CLASS with CLASS one of ain, din, control, energy, none, byfc\n";
    };
    const std::string sizeLine = ", this version needs at least " + std::to_string(sizeof(QvLoadOptions)) + "\n";
    const struct {
        const char* rules;
        unsigned size;
        std::string message;
    } cases[] = {
        {"ain", sizeof(QvLoadOptions), ruleLine("ain")},
        {"*=ain,=din", sizeof(QvLoadOptions), ruleLine("=din")},
        {"*=analog", sizeof(QvLoadOptions), ruleLine("*=analog")},
        {"*=byfc,", sizeof(QvLoadOptions), ruleLine("")},
        {"*=byfc", 0, "load options: size 0" + sizeLine},
        {"*=byfc", sizeof(QvLoadOptions) - 1, "load options: size " + std::to_string(sizeof(QvLoadOptions) - 1) + sizeLine},
    };
    for (const auto& c : cases) {
        CaptureStderr();
        EXPECT_EQ(loadEx(kSets, 1, c.rules, c.size), -2) << c.rules;
        EXPECT_EQ(GetCapturedStderr(), c.message);
        EXPECT_EQ(zq_lastErrorCode(), QV_ERR_MODEL);
        EXPECT_EQ(loaded(), before);
    }
    EXPECT_EQ(loadEx(kSets, 1, "*=byfc", sizeof(QvLoadOptions) + 16), 0);  // a later caller's size
}

TEST_F(VendorModels, TypeIdsAreComparedWhole) {
    ASSERT_EQ(zq_addIEDRealDB(dataPath("long_type_ids.scd").c_str()), 0);
    EXPECT_EQ(daNames(), "IED1LD0/GGIO1$ST$Ind1$stVal IED1LD0/GGIO1$MX$Ind2$mag ");
}

TEST_F(VendorModels, LoadsSayWhatTheyDid) {
    const std::string warned = dataPath("namespace_warning.scd");
    const std::string longPath = storeFile(std::string(250, 'x'));
    const std::string legacy = "cid 解析出错.\n";
    const struct {
        std::string file;
        int lnPrefix;
        const char* ied;
        int result;
        std::string message;
    } cases[] = {
        {kSets, 0, nullptr, 0,
         "SCL notice: 2 logical nodes merge into 1 names (LD0/GGIO1 <- AGGIO1, BGGIO1); load with prefixes "
         "kept (lnPrefix 1, qvtool load --ln-prefix) to keep them apart\n"},
        {kSets, 1, nullptr, 0, "IED V1: its rows in the store are replaced\n"},
        {kSets, 1, "Z", -2, "SCL error: no IED named \"Z\" in " + kSets + "; it has: V1\n" + legacy},
        {warned, 0, nullptr, 0, "SCL warning: " + warned + ":4: Namespace prefix w on Private is not defined\n"},
        {dataPath("shared_row_key.scd"), 0, nullptr, 0,
         "SCL notice: 1 references share a row key with another (C1LD0/GGIO1$ST$D93570 and "
         "C1LD0/GGIO1$ST$D282200); one value row serves each pair\n"},
        {dataPath("cut_ied_names.scd"), 0, nullptr, -2,
         "SCL error: IED name \"IIIIIIIIIIIIIIIIIIIIIIIIIIIIIIIA\" and \"IIIIIIIIIIIIIIIIIIIIIIIIIIIIIIIB\" are one name in a field of 31\n" + legacy},
        {dataPath("cut_fc.scd"), 0, nullptr, -2, "SCL error: FC \"ST\" and \"STX\" are one name in a field of 2\n" + legacy},
        {longPath, 0, nullptr, -2, "Cannot read " + longPath.substr(0, 200) + "...: No such file or directory\n" + legacy},
    };
    for (const auto& c : cases) {
        CaptureStderr();
        EXPECT_EQ(loadEx(c.file, c.lnPrefix, nullptr, sizeof(QvLoadOptions), c.ied), c.result);
        EXPECT_EQ(GetCapturedStderr(), c.message);
    }
    EXPECT_EQ(query(realDbPath(), "select (select count(*) from DA where iedName='C1'), count(*) from DAValue "
                                  "where hashID=" + std::to_string(rowKey("C1LD0/GGIO1$ST$D282200"))),
              (Rows{{"2", "1"}}));  // both DA rows, one value row
}

TEST_F(VendorModels, RealToolFilesLoadToDistinctReferencesAndLiveValues) {
    const std::string dir = QV_SOURCE_DIR "/../shared/scl-real/";
    DIR* listing = opendir(dir.c_str());
    if (listing == nullptr) GTEST_SKIP() << "no real SCL files beside the project";
    std::vector<std::string> files;
    while (const dirent* entry = readdir(listing)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.find_last_of('.') == name.size() - 4 && name.substr(name.size() - 3) != ".md")
            files.push_back(name);
    }
    closedir(listing);
    for (const std::string& file : files) {
        freshRealStore();
        ASSERT_EQ(loadEx(dir + file, 1, "*=byfc"), 0) << file;
        const Rows counts = query(realDbPath(), "select count(*), count(distinct iedName || daName), "
                                                "(select count(*) > 0 from DAValue) from DA");
        EXPECT_EQ(counts[0][0], counts[0][1]) << file;
        EXPECT_EQ(counts[0][2], "1") << file;
    }
}
