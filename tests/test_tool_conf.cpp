// qvtool's configuration listings and setting commands, run as a subprocess
// on the private stores: JSON compared with the stored rows, exit codes and
// what the store holds afterwards.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "qvtest.h"
#include "qvtool_run.h"

using namespace qvtest;
using testing::HasSubstr;
using Json = nlohmann::ordered_json;

namespace {

// A JSON array of the rows, in a fixed order.
Json sortedRows(const std::string& text) {
    Json rows = Json::parse(text, nullptr, false);
    if (rows.is_array())
        std::sort(rows.begin(), rows.end(), [](const Json& a, const Json& b) { return a.dump() < b.dump(); });
    return rows;
}

// The rows of a query whose one column is a JSON object, as the tool's array.
std::string rowsOf(const std::string& sql) {
    std::string array = "[";
    for (const auto& row : query(confDbPath(), sql)) array += (array.size() > 1 ? "," : "") + row[0];
    return array + "]";
}

const std::string kMapping =
    "select json_object('associateName',associateName,'lineNo',lineNo,'dataType',dataType,"
    "'dataIndex',dataIndex,'type',type,'daName',daName) from DeviceModelAssociation ";
const std::string kSetting =
    "select json_object('processNo',m.processNo,'processName',p.processName,'key',key,'value',"
    "value,'describe',descripe) from ProcessMisc m left join ProcessConfig p on p.no=m.processNo ";

class ToolConf : public testing::Test {
protected:
    void SetUp() override {
        removeStore(realDbPath());
        removeStore(confDbPath());
        ASSERT_EQ(tool({"init", "--conf-sample", sourcePath("samples/conf_sample.sql")}).code, 0);
        execSqlFile(confDbPath(), dataPath("conf_listings.sql"));
    }
};

}  // namespace

TEST_F(ToolConf, ListingsInJsonAreTheStoredRowsUnderTheRecordsFieldNames) {
    const struct { Words args; std::string sql; size_t rows; } cases[] = {
        {{"mappings"}, kMapping, 9},
        {{"mappings", "--type", "2"}, kMapping + "where dataType=2", 3},
        {{"mappings", "--type", "99"}, kMapping + "where dataType=99", 0},
        {{"scales"},
         "select json_object('no',no,'name',name,'maxValue',maxValue,'minValue',minValue,"
         "'userMaxValue',userMaxValue,'userMinValue',userMinValue) from ScaleConfig",
         4},
        {{"setting", "list"}, kSetting, 6},
        {{"setting", "list", "qv104 -p 2404"}, kSetting + "where m.processNo=2", 2},
        {{"setting", "list", "qvtool watch"}, kSetting + "where m.processNo=4", 0},
    };
    for (const auto& c : cases) {
        Words args = c.args;
        args.push_back("--json");
        const ToolRun run = tool(args);
        EXPECT_EQ(run.code, 0) << run.err;
        const Json shown = sortedRows(run.out);
        EXPECT_EQ(shown, sortedRows(rowsOf(c.sql))) << testing::PrintToString(args);
        EXPECT_EQ(shown.size(), c.rows) << testing::PrintToString(args);
        // The table: a header and one line per row.
        const std::string table = tool(c.args).out;
        EXPECT_EQ(static_cast<size_t>(std::count(table.begin(), table.end(), '\n')), c.rows + 1)
            << testing::PrintToString(c.args);
    }
}

TEST_F(ToolConf, SettingsAreAddedOnceAndSetOnlyWhenTheyExist) {
    const std::string big(1024, 'v');
    const struct { Words args; int code; std::string out, err; } steps[] = {
        {{"setting", "set", "qvacq", "retries", "3"}, 1, "",
         "process \"qvacq\" has no setting retries; set changes existing settings, add one with: "
         "qvtool setting add 'qvacq' retries VALUE [DESCRIPTION]"},
        {{"setting", "add", "qvacq", "retries", "3", "tries per poll", "--json"}, 0,
         "{\n  \"key\": \"retries\",\n  \"value\": \"3\",\n  \"describe\": \"tries per poll\"\n}\n", ""},
        {{"setting", "add", "qvacq", "retries", "4"}, 1, "", "has the setting retries already"},
        {{"setting", "set", "qvacq", "retries", "5"}, 0, "retries=5 (tries per poll)\n", ""},
        {{"setting", "add", "nobody", "retries", "1"}, 1, "", "no process named \"nobody\""},
        {{"setting", "list", "nobody"}, 1, "", "no process named \"nobody\""},
        {{"setting", "add", "qvctrl", "empty", ""}, 0, "empty= ()\n", ""},
        {{"setting", "add", "qvacq", "long", big}, 2, "", "the value is 1024 bytes long; at most 1023 fit"},
        {{"setting", "add", "qvacq", "short"}, 2, "", "usage: qvtool setting add"},
        {{"setting", "list", "qvacq", "extra"}, 2, "", "usage: qvtool setting list [PROCESS]"},
        {{"setting", "drop", "qvacq", "period"}, 2, "", "one of get, set, add, list"},
        {{"mappings", "--type", "x"}, 2, "", "--type needs an integer"},
        {{"mappings", "extra"}, 2, "", "wrong number of arguments"},
        {{"scales", "--type", "1"}, 2, "", "unknown option --type"},
    };
    for (const auto& step : steps) {
        const ToolRun run = tool(step.args);
        EXPECT_EQ(run.code, step.code) << testing::PrintToString(step.args) << run.err;
        EXPECT_EQ(run.out, step.out) << testing::PrintToString(step.args);
        EXPECT_THAT(run.err, HasSubstr(step.err)) << testing::PrintToString(step.args);
    }
    EXPECT_EQ(query(confDbPath(), "select processNo, key, value, descripe from ProcessMisc "
                                  "where key in ('retries', 'empty', 'long', 'short')"),
              (Rows{{"1", "retries", "5", "tries per poll"}, {"3", "empty", "", ""}}));
}
