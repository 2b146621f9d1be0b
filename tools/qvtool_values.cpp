// qvtool commands on live values: get, set, dump and the model tree.
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "qvtool_model.h"

namespace qvtool {

namespace {

// ---- repeating --------------------------------------------------------------

// -r COUNT and -i SECONDS as redis-cli reads them: run COUNT times (a
// negative COUNT: until stopped), SECONDS apart (fractions allowed).
struct Repeat {
    int count = 1;
    double interval = 0;
};

// False, after saying why, for a count or interval that is no number.
bool readRepeat(const Args& args, Repeat* repeat) {
    if (args.has("-r") && !parseInt(args.options.at("-r"), &repeat->count)) return false;
    return !args.has("-i") ||
           (parseDouble(args.options.at("-i"), &repeat->interval) && repeat->interval >= 0);
}

// The exit code is the worst of the runs.
int repeated(const Repeat& repeat, const std::function<int()>& once) {
    int worst = kOk;
    for (int run = 0; repeat.count < 0 || run < repeat.count; ++run) {
        if (run > 0 && repeat.interval > 0)
            std::this_thread::sleep_for(std::chrono::duration<double>(repeat.interval));
        worst = std::max(worst, once());
        std::fflush(stdout);
    }
    return worst;
}

int badRepeat(const char* command) {
    return usageError("%s: -r needs a whole number, -i a number of seconds, 0 or more", command);
}

// ---- get, set -----------------------------------------------------------------

// Why a reference has no value row: unknown, a whole data object, or an
// attribute that no classified data set holds.
void explainMissingValue(const std::string& ref) {
    DA attribute;
    DataSetSub member;
    if (zq_getDAByName(ref.c_str(), &attribute) == 0) {
        complain("no value row for %s: only members of the classified data sets (dsAin, dsDin, "
                 "dsGgio, dsControl, dsEnergy) have live values",
                 ref.c_str());
    } else if (zq_getDataSetSubByName(ref.c_str(), &member) == 0) {
        complain("no value row for %s: it names a whole data object; its data attributes carry "
                 "the values (see qvtool tree)",
                 ref.c_str());
    } else {
        complain("no value row for %s: no such data attribute in the model", ref.c_str());
    }
}

// The rows of a value listing: the reference under refField, then the live
// value's fields.
Json valueRows(const std::vector<std::string>& refs, const std::vector<LiveValue>& live,
               const char* refField) {
    Json rows = Json::array();
    for (size_t i = 0; i < refs.size(); ++i) {
        Json row = {{refField, refs[i]}};
        row.update(liveJson(live[i]));
        rows.push_back(row);
    }
    return rows;
}

// --raw prints the values alone; CSV every field; the table shows the
// time in ISO 8601.
int printValueRows(const Args& args, const char* refField, Json rows) {
    if (args.has("--raw")) return printRows(args, {{"VALUE", "value"}}, rows);
    const bool table = !args.has("--csv") && !args.has("--json");
    for (Json& row : rows) {
        if (table && row["timestamp"].is_number()) row["timestamp"] = isoTime(row["timestamp"]);
    }
    return printRows(args, {{"REFERENCE", refField}, {"VALUE", "value"}, {"QUALITY", "quality"},
                            {"BITS", "qualityBits"}, {"TIME", "timestamp"}},
                     rows);
}

// One reference prints as one record, several as a listing.
int printValues(const Args& args, const std::vector<std::string>& refs) {
    std::vector<LiveValue> live;
    if (!readLiveValues(refs, &live)) return kFailed;
    int code = kOk;
    for (size_t i = 0; i < refs.size(); ++i) {
        if (live[i].found) continue;
        explainMissingValue(refs[i]);
        code = kFailed;
    }
    if (refs.size() > 1) return std::max(code, printValueRows(args, "daName", valueRows(refs, live, "daName")));
    if (code != kOk) return code;
    return printRecord(args, valueRows(refs, live, "daName")[0], liveText(live[0]));
}

// A reference in dots reads as one in '$': the attribute tables use '$'.
std::string dollarReference(std::string ref) {
    std::replace(ref.begin(), ref.end(), '.', '$');
    return ref;
}

int runGet(const Args& args) {
    std::vector<std::string> refs;
    for (const std::string& ref : args.positional) refs.push_back(dollarReference(ref));
    Repeat repeat;
    if (!readRepeat(args, &repeat)) return badRepeat("get");
    if (!openRealStore()) return kFailed;
    return repeated(repeat, [&] { return printValues(args, refs); });
}

int runSet(const Args& args) {
    const std::string ref = dollarReference(args.positional[0]);
    double value = 0;
    int quality = 0;
    const bool withQuality = args.positional.size() > 2;
    if (!parseDouble(args.positional[1], &value))
        return usageError("set: %s is not a number", args.positional[1].c_str());
    if (withQuality && !parseInt(args.positional[2], &quality))
        return usageError("set: quality %s is not an integer", args.positional[2].c_str());
    // A save of a missing row succeeds without writing; the read back says so.
    if (!openRealStore()) return kFailed;
    const int saved = withQuality ? zq_saveDoubDAValue1(ref.c_str(), value, quality)
                                  : zq_saveDoubDAValue(ref.c_str(), value);
    if (saved != 0) return kFailed;
    return printValues(args, {ref});
}

// ---- dump -------------------------------------------------------------------

int dumpOnce(const Args& args, const char* ied, const char* dataSet) {
    DataSet set;
    if (zq_getDataSetByName(ied, dataSet, &set) != 0) {
        complain("no data set %s of IED %s", dataSet, ied);
        return kFailed;
    }
    std::vector<DataSetSub> members;
    if (!fetchList(&members, zq_getDataSetSubsByParamsNum, zq_getDataSetSubsByParamsN, ied,
                   dataSet, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr))
        return kFailed;
    // A member without a value row (a whole data object, an unclassified
    // set) shows none.
    std::vector<std::string> refs;
    for (const DataSetSub& member : members) refs.push_back(member.fcdaName);
    std::vector<LiveValue> live;
    if (!readLiveValues(refs, &live)) return kFailed;
    return printValueRows(args, "fcdaName", valueRows(refs, live, "fcdaName"));
}

int runDump(const Args& args) {
    Repeat repeat;
    if (!readRepeat(args, &repeat)) return badRepeat("dump");
    if (!openRealStore()) return kFailed;
    return repeated(repeat, [&] {
        return dumpOnce(args, args.positional[0].c_str(), args.positional[1].c_str());
    });
}

// ---- tree -------------------------------------------------------------------

// One line per level that changes from the attribute before (IED, LD, LN,
// DO), then the attribute's line; --long adds types and descriptions.
void printTree(const Json& attributes, bool long_) {
    // A data object's description: the first that one of its attributes carries.
    std::map<std::string, std::string> descriptions;
    const auto doKey = [](const Json& da) {
        return da["iedName"].get<std::string>() + "/" + da["ldName"].get<std::string>() + "/" +
               da["lnName"].get<std::string>() + "/" + da["doName"].get<std::string>();
    };
    for (const Json& da : attributes) {
        std::string& desc = descriptions[doKey(da)];
        if (desc.empty()) desc = da["doDesc"];
    }
    std::vector<std::string> above;
    for (const Json& da : attributes) {
        std::string doPath = da["doName"];
        std::replace(doPath.begin(), doPath.end(), '$', '.');
        const std::vector<std::string> levels = {da["iedName"], da["ldName"], da["lnName"], doPath};
        size_t same = 0;
        while (same < above.size() && above[same] == levels[same]) ++same;
        for (size_t level = same; level < levels.size(); ++level) {
            std::string line = std::string(2 * level, ' ') + levels[level];
            const std::string& desc = descriptions[doKey(da)];
            if (long_ && level == 3 && !desc.empty()) line += "  \"" + desc + "\"";
            std::puts(line.c_str());
        }
        above = levels;
        std::string line = std::string(8, ' ') + attributePath(da) + " [" +
                           da["fcName"].get<std::string>() + "]";
        if (long_) line += " " + da["valueType"].get<std::string>();
        const Json& live = da["live"];
        if (!live.is_null())
            line += " = " + liveText({true, live["value"], live["quality"], live["timestamp"]})
                                .substr(std::strlen("value="));
        std::puts(line.c_str());
    }
}

// CSV and raw text list the attributes, their live values beside them.
int printFlatTree(const Args& args, const Json& attributes) {
    Json rows = Json::array();
    for (const Json& da : attributes) {
        Json row = {{"daName", da["daName"]}, {"fcName", da["fcName"]},
                    {"valueType", da["valueType"]}, {"doDesc", da["doDesc"]}};
        row.update(da["live"].is_null() ? liveJson(LiveValue{}) : da["live"]);
        rows.push_back(row);
    }
    return printRows(args, {{"REFERENCE", "daName"}, {"FC", "fcName"}, {"TYPE", "valueType"},
                            {"DESCRIPTION", "doDesc"}, {"VALUE", "value"}, {"QUALITY", "quality"},
                            {"BITS", "qualityBits"}, {"TIME", "timestamp"}},
                     rows);
}

int runTree(const Args& args) {
    std::vector<DA> attributes;
    if (!openRealStore() ||
        !fetchList(&attributes, zq_getDAsByParamsNum, zq_getDAsByParamsN, args.value("--ied"),
                   args.value("--ld"), args.value("--ln"), nullptr, nullptr))
        return kFailed;
    if (attributes.empty() && (args.has("--ied") || args.has("--ld") || args.has("--ln"))) {
        explainNoAttribute(args);
        return kFailed;
    }
    std::vector<std::string> refs;
    for (const DA& da : attributes) refs.push_back(da.daName);
    std::vector<LiveValue> live;
    if (!readLiveValues(refs, &live)) return kFailed;
    Json rows = Json::array();
    for (size_t i = 0; i < attributes.size(); ++i) {
        rows.push_back(toJson(attributes[i]));
        rows.back()["live"] = live[i].found ? liveJson(live[i]) : Json();
    }
    if (args.has("--json")) return printRows(args, {}, rows);
    if (args.has("--csv") || args.has("--raw")) return printFlatTree(args, rows);
    waitingForStore(nullptr);
    printTree(rows, args.has("--long"));
    return kOk;
}

}  // namespace

const std::vector<Command>& valueCommands() {
    static const std::vector<Command> commands = {
        {"get", "get REF... [-r COUNT] [-i SECONDS] [--json|--csv|--raw]",
         "print the live values and qualities of data attributes",
         "REF is the DA reference as loaded, e.g. 'QVFTU1MEAS/MMXU1$MX$TotW$mag$f', or\n"
         "the same in dots (QVFTU1MEAS/MMXU1.MX.TotW.mag.f). One REF prints\n"
         "\"value=V quality=Q (BITS) time=T\" (T, ISO 8601 UTC, when the value has a\n"
         "time), with --json {\"daName\", \"value\", \"quality\", \"qualityBits\",\n"
         "\"timestamp\" (seconds since 1970)}; several print a table (a JSON array).\n"
         "BITS are the IEC 61850 quality bits by name: the validity (good, invalid,\n"
         "reserved, questionable), then overflow, out of range, bad reference,\n"
         "oscillatory, failure, old data, inconsistent, inaccurate, source substituted,\n"
         "test, operator blocked.\n"
         "Only the members of the classified data sets (dsAin, dsDin, dsGgio, dsControl,\n"
         "dsEnergy) have live values; exit code 1 when a REF has none.\n\n"
         "  -r COUNT    run COUNT times (a negative COUNT: until interrupted)\n"
         "  -i SECONDS  wait SECONDS between runs (fractions allowed)\n"
         "  --raw       the values alone, one per line\n",
         {"-r", "-i"}, {"--json"}, 1, -1, runGet},
        {"set", "set REF VALUE [QUALITY] [--json]",
         "write the live value (and quality) of a data attribute",
         "Without QUALITY the stored quality is kept. QUALITY is an integer (0x.. for\n"
         "hexadecimal). Prints the value and quality read back. Exit code 1 when REF\n"
         "has no value row (nothing is written).\n",
         {}, {"--json"}, 2, 3, runSet},
        {"tree", "tree [--ied IED] [--ld LDINST] [--ln LN] [--long] [--json]",
         "show the model as a tree with live values",
         "One line per level: IED, logical device, logical node, data object, then each\n"
         "data attribute with its functional constraint in brackets and, where it has a\n"
         "value row, \"= VALUE quality=Q (BITS) time=T\". Paths are written with dots.\n"
         "  --long  data objects with their descriptions, attributes with their types\n"
         "With --json the attributes as attrs --json prints them, each with \"live\":\n"
         "{value, quality, qualityBits, timestamp}, or null without a value row. Filters\n"
         "that match nothing: exit code 1, with the near names the store has.\n",
         {"--ied", "--ld", "--ln"}, {"--json", "--long"}, 0, 0, runTree},
        {"dump", "dump IED DATASET [-r COUNT] [-i SECONDS] [--json|--csv|--raw]",
         "show a data set's live values and qualities",
         "One row per member in member order; a member without a value row (a whole\n"
         "data object) shows \"-\", in JSON null. Exit code 1 when the data set does not\n"
         "exist. JSON: [{\"fcdaName\", \"value\", \"quality\", \"qualityBits\",\n"
         "\"timestamp\"}, ...]; the table shows the time in ISO 8601 UTC.\n"
         "-r and -i repeat it as for get; --raw prints the values alone.\n",
         {"-r", "-i"}, {"--json"}, 2, 2, runDump},
    };
    return commands;
}

}  // namespace qvtool
