// qvtool monitor: every change of the real-time store's values as it
// happens, from the change feed. Following the feed takes nothing from
// other followers.
#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <unordered_map>

#include "qvfeed.h"
#include "qvtool_model.h"

namespace qvtool {

namespace {

// The references of the value rows' keys, from the model's attribute and
// member rows; with --ied or --ds, only theirs.
class References {
public:
    explicit References(const Args& args) : ied_(args.value("--ied")), ds_(args.value("--ds")) {}

    bool filtered() const { return ied_ != nullptr || ds_ != nullptr; }

    // Reads the rows anew (after a reset: a load may have changed them).
    bool load() {
        byKey_.clear();
        if (ds_ == nullptr) {
            std::vector<DA> attributes;
            if (!fetchList(&attributes, zq_getDAsByParamsNum, zq_getDAsByParamsN, ied_, nullptr,
                           nullptr, nullptr, nullptr))
                return false;
            for (const DA& da : attributes) add(da.daName);
        }
        std::vector<DataSetSub> members;
        if (!fetchList(&members, zq_getDataSetSubsByParamsNum, zq_getDataSetSubsByParamsN, ied_,
                       ds_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr))
            return false;
        for (const DataSetSub& m : members) add(m.fcdaName);
        return true;
    }

    // The reference of a key, or null when no row has that key.
    const std::string* find(unsigned int key) const {
        const auto found = byKey_.find(key);
        return found == byKey_.end() ? nullptr : &found->second;
    }

private:
    void add(const char* ref) {
        byKey_.emplace(RSHash(ref, static_cast<unsigned int>(std::strlen(ref))), ref);
    }

    const char* ied_;
    const char* ds_;
    std::unordered_map<unsigned int, std::string> byKey_;
};

double now() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return tv.tv_sec + tv.tv_usec / 1e6;
}

std::string hexKey(unsigned int key) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", key);
    return text;
}

// The CSV columns: the JSON fields.
const std::vector<std::string> kCsvHeader = {"seq",    "kind",  "timestamp", "hashID",
                                             "daName", "value", "quality",   "qualityBits"};

// One line: time, reference, value, quality; or the reset.
void printChange(const Args& args, const QvChange& change, const std::string& ref) {
    const bool reset = change.kind == QV_CHANGE_RESET;
    const double time = change.timestamp > 0 ? change.timestamp : now();
    if (args.has("--json") || args.has("--csv")) {
        Json line = {{"seq", change.seq}, {"kind", reset ? "reset" : "value"}, {"timestamp", time}};
        if (!reset) {
            line.update({{"hashID", change.hashID}, {"daName", ref}});
            line.update(liveJson({true, change.value, change.character, time}));
            line["qualityBits"] = qualityText(change.character);
        }
        if (args.has("--json")) {
            if (!reset) line["qualityBits"] = qualityNames(change.character);
            std::puts(jsonText(line).c_str());
            return;
        }
        std::vector<std::string> cells;
        for (const std::string& field : kCsvHeader) {
            const Json& cell = line.contains(field) ? line[field] : Json("");
            cells.push_back(cell.is_string() ? cell.get<std::string>()
                            : cell.is_number_float() ? formatDouble(cell.get<double>())
                                                     : cell.dump());
        }
        std::fputs(csvLine(cells).c_str(), stdout);
    } else if (args.has("--raw")) {
        if (!reset) std::puts(formatDouble(change.value).c_str());
    } else if (reset) {
        std::printf("%s reset: values changed beyond the feed; re-read what you hold\n",
                    isoTime(time).c_str());
    } else {
        std::printf("%s %s %s quality=%d (%s)\n", isoTime(time).c_str(), ref.c_str(),
                    formatDouble(change.value).c_str(), change.character,
                    qualityText(change.character).c_str());
    }
}

int runMonitor(const Args& args) {
    int count = -1;
    if (args.has("--count") && (!parseInt(args.options.at("--count"), &count) || count <= 0))
        return usageError("monitor: --count needs a whole number above 0");
    // The feed first, then the references: a load in between comes as a reset.
    QvFeed* feed = zq_openChangeFeed();
    if (feed == nullptr) {
        complain("cannot open the change feed");
        return kFailed;
    }
    References refs(args);
    if (!openRealStore() || !refs.load()) {
        zq_closeChangeFeed(feed);
        return kFailed;
    }
    waitingForStore(nullptr);
    if (args.has("--csv")) std::fputs(csvLine(kCsvHeader).c_str(), stdout);
    std::fflush(stdout);
    // From here on no change is missed: said on standard error, so that a
    // script can start its writers.
    std::fputs("qvtool: following the change feed\n", stderr);
    std::vector<QvChange> changes(256);
    int code = kOk;
    while (count != 0) {
        int got = 0;
        if (zq_waitChanges(feed, -1, changes.data(), static_cast<int>(changes.size()), &got) < 0) {
            complain("cannot read the change feed");
            code = kFailed;
            break;
        }
        for (int i = 0; i < got && count != 0; ++i) {
            const QvChange& change = changes[i];
            const std::string* ref = nullptr;
            if (change.kind == QV_CHANGE_RESET) {
                if (!refs.load()) return kFailed;
            } else {
                ref = refs.find(change.hashID);
                if (ref == nullptr && refs.filtered()) continue;
            }
            printChange(args, change, ref != nullptr ? *ref : hexKey(change.hashID));
            if (count > 0) --count;
        }
        std::fflush(stdout);
    }
    zq_closeChangeFeed(feed);
    return code;
}

}  // namespace

const std::vector<Command>& monitorCommands() {
    static const std::vector<Command> commands = {
        {"monitor", "monitor [--ied IED] [--ds DATASET] [--count N] [--json]",
         "print every change of the live values as it happens",
         "Follows the store's change feed: one line per value saved, \"TIME REFERENCE\n"
         "VALUE quality=Q (BITS)\", TIME in ISO 8601 UTC with milliseconds (the save's\n"
         "time), REFERENCE the attribute or member of the value row's key (the key in\n"
         "hex where the model has none). A reset (a model load, a store made anew,\n"
         "changes lost) prints one line. Other followers lose nothing to it. Once it\n"
         "follows, it says so on standard error.\n\n"
         "  --ied IED       only the values of that IED\n"
         "  --ds DATASET    only the members of that data set (with --ied: of that IED)\n"
         "  --count N       stop after N lines\n"
         "  --json          one JSON object per line: seq, kind (value or reset),\n"
         "                  timestamp, hashID, daName, value, quality, qualityBits\n"
         "  --csv           the same fields as CSV, a header first; --raw: values alone\n",
         {"--ied", "--ds", "--count"}, {"--json"}, 0, 0, runMonitor},
    };
    return commands;
}

}  // namespace qvtool
