// qvtool listings of the configuration store: point mappings, scales and
// settings. The library reads mappings as lists but scales and settings only
// one at a time by number or key, so the tool reads which exist on a
// read-only connection of its own.
#include <sqlite3.h>

#include <climits>
#include <functional>

#include "qvconf.h"
#include "qvtool.h"

namespace qvtool {

namespace {

using Statement = std::function<void(sqlite3_stmt*)>;

// Runs one read of the configuration store: `bind` before the first step,
// `row` for each row. False after saying why; busy is waited out.
bool readConf(const char* sql, const Statement& bind, const Statement& row) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    waitingForStore("configuration store");
    bool ok = sqlite3_open_v2(QV_CONF_DB_PATH, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
              sqlite3_busy_timeout(db, INT_MAX) == SQLITE_OK &&
              sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK;
    int step = SQLITE_DONE;
    if (ok) bind(stmt);
    while (ok && (step = sqlite3_step(stmt)) == SQLITE_ROW) row(stmt);
    ok = ok && step == SQLITE_DONE;
    if (!ok)
        complain("cannot read the configuration store %s: %s", QV_CONF_DB_PATH,
                 sqlite3_errmsg(db));
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return ok;
}

Json textColumn(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    return text == nullptr ? Json() : Json(reinterpret_cast<const char*>(text));
}

int runMappings(const Args& args) {
    int type = 0;
    const bool byType = args.has("--type");
    if (byType && !parseInt(args.value("--type"), &type))
        return usageError("mappings: --type needs an integer data type");
    std::vector<DeviceModelAssociation> mappings;
    if (!openConfStore()) return kFailed;
    const bool read = byType ? fetchList(&mappings, zq_getDeviceModelAssociationsByTypeNum,
                                         zq_getDeviceModelAssociationsByTypeN, type)
                             : fetchList(&mappings, zq_getAllDeviceModelAssociationsNum,
                                         zq_getAllDeviceModelAssociationsN);
    if (!read) return kFailed;
    Json rows = Json::array();
    for (const DeviceModelAssociation& m : mappings)
        rows.push_back({{"associateName", m.associateName}, {"lineNo", m.lineNo},
                        {"dataType", m.dataType}, {"dataIndex", m.dataIndex}, {"type", m.type},
                        {"daName", m.daName}});
    return printRows(args, {{"NAME", "associateName"}, {"LINE", "lineNo"}, {"DATATYPE", "dataType"},
                            {"INDEX", "dataIndex"}, {"TYPE", "type"}, {"DA", "daName"}},
                     rows);
}

int runScales(const Args& args) {
    std::vector<int> numbers;
    if (!openConfStore() ||
        !readConf("select distinct no from ScaleConfig order by no", [](sqlite3_stmt*) {},
                  [&](sqlite3_stmt* stmt) { numbers.push_back(sqlite3_column_int(stmt, 0)); }))
        return kFailed;
    Json rows = Json::array();
    for (int no : numbers) {
        ScaleConfig scale{};
        if (zq_getScaleConfig(no, &scale) != 0) continue;  // removed since
        rows.push_back({{"no", no}, {"name", scale.name}, {"maxValue", scale.maxValue},
                        {"minValue", scale.minValue}, {"userMaxValue", scale.userMaxValue},
                        {"userMinValue", scale.userMinValue}});
    }
    return printRows(args, {{"NO", "no"}, {"NAME", "name"}, {"MAX", "maxValue"},
                            {"MIN", "minValue"}, {"USER MAX", "userMaxValue"},
                            {"USER MIN", "userMinValue"}},
                     rows);
}

}  // namespace

int listSettings(const Args& args) {
    const std::vector<std::string>& words = args.positional;
    if (words.size() > 2) return usageError("setting list: usage: qvtool setting list [PROCESS]");
    int number = 0;
    if (!openConfStore() || (words.size() == 2 && !knownProcess(words[1], &number))) return kFailed;
    Json rows = Json::array();
    const bool read = readConf(
        "select m.processNo, p.processName, m.key, m.value, m.descripe from ProcessMisc m "
        "left join ProcessConfig p on p.no = m.processNo where ?1 is null or m.processNo = ?1 "
        "order by m.processNo, m.rowid",
        [&](sqlite3_stmt* stmt) {
            if (words.size() == 2) sqlite3_bind_int(stmt, 1, number);
        },
        [&](sqlite3_stmt* stmt) {
            rows.push_back({{"processNo", sqlite3_column_int(stmt, 0)},
                            {"processName", textColumn(stmt, 1)}, {"key", textColumn(stmt, 2)},
                            {"value", textColumn(stmt, 3)}, {"describe", textColumn(stmt, 4)}});
        });
    if (!read) return kFailed;
    return printRows(args, {{"PROCESS", "processName"}, {"KEY", "key"}, {"VALUE", "value"},
                            {"DESCRIPTION", "describe"}},
                     rows);
}

const std::vector<Command>& confListingCommands() {
    static const std::vector<Command> commands = {
        {"mappings", "mappings [--type T] [--json]",
         "list the point mappings of the devices onto the model",
         "One row per point (DeviceModelAssociation): its name, line number, data type,\n"
         "index, type code and the data attribute that carries its value; --type keeps\n"
         "one data type. JSON fields: associateName, lineNo, dataType, dataIndex, type,\n"
         "daName.\n",
         {"--type"}, {"--json"}, 0, 0, runMappings},
        {"scales", "scales [--json]", "list the scales by number",
         "The raw range (maxValue, minValue) and the range the user sees (userMaxValue,\n"
         "userMinValue) of every scale. JSON fields: no, name, maxValue, minValue,\n"
         "userMaxValue, userMinValue.\n",
         {}, {"--json"}, 0, 0, runScales},
    };
    return commands;
}

}  // namespace qvtool
