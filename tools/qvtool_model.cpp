// qvtool: the model's records as JSON, filters, live values and quality.
#include "qvtool_model.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <set>

namespace qvtool {

Json toJson(const DataSet& set) {
    return {{"iedName", set.iedName}, {"name", set.name}, {"ldInst", set.ldInst},
            {"desc", set.desc}};
}

Json toJson(const DataSetSub& m) {
    return {{"fcdaName", m.fcdaName}, {"iedName", m.iedName}, {"dsName", m.dsName},
            {"ldInst", m.ldInst},     {"lnClass", m.lnClass}, {"lnInst", m.lnInst},
            {"doName", m.doName},     {"daName", m.daName},   {"fc", m.fc}};
}

Json toJson(const DA& da) {
    return {{"daName", da.daName}, {"iedName", da.iedName}, {"ldName", da.ldName},
            {"lnName", da.lnName}, {"doName", da.doName},   {"fcName", da.fcName},
            {"value", da.value},   {"valueType", da.valueType}, {"doDesc", da.doDesc}};
}

const char* pathFilter(const Args& args, const char* option, char to, std::string* storage) {
    const char* given = args.value(option);
    if (given == nullptr) return nullptr;
    *storage = given;
    std::replace(storage->begin(), storage->end(), to == '.' ? '$' : '.', to);
    return storage->c_str();
}

bool splitLnName(const std::string& ln, std::string* lnClass, std::string* lnInst) {
    if (ln.size() < 4) return false;
    *lnClass = ln.substr(0, 4);
    *lnInst = ln.substr(4);
    return true;
}

std::string lnClassOf(const std::string& lnName) {
    size_t end = lnName.size();
    while (end > 0 && std::isdigit(static_cast<unsigned char>(lnName[end - 1]))) --end;
    // A class that ends in a digit has no instance: LLN0.
    if (end < 4) end = std::min<size_t>(lnName.size(), 4);
    return lnName.substr(end - std::min<size_t>(end, 4), std::min<size_t>(end, 4));
}

std::string attributePath(const Json& da) {
    const std::string prefix = da["iedName"].get<std::string>() + da["ldName"].get<std::string>() +
                               "/" + da["lnName"].get<std::string>() + "$" +
                               da["fcName"].get<std::string>() + "$" +
                               da["doName"].get<std::string>() + "$";
    std::string path = da["daName"];
    if (path.compare(0, prefix.size(), prefix) == 0) path.erase(0, prefix.size());
    std::replace(path.begin(), path.end(), '$', '.');
    return path;
}

// ---- quality ----------------------------------------------------------------

std::vector<std::string> qualityNames(int quality) {
    static const char* const validity[] = {"good", "invalid", "reserved", "questionable"};
    // Bits 2 to 12, in order.
    static const char* const details[] = {
        "overflow",    "out of range", "bad reference",      "oscillatory", "failure", "old data",
        "inconsistent", "inaccurate",  "source substituted", "test",        "operator blocked"};
    std::vector<std::string> names = {validity[quality & 3]};
    for (int bit = 2; bit <= 12; ++bit) {
        if ((quality >> bit) & 1) names.push_back(details[bit - 2]);
    }
    const unsigned rest = static_cast<unsigned>(quality) >> 13;
    if (rest != 0) {
        char text[32];
        std::snprintf(text, sizeof text, "other bits 0x%x", rest << 13);
        names.push_back(text);
    }
    return names;
}

std::string qualityText(int quality) {
    std::string text;
    for (const std::string& name : qualityNames(quality)) text += (text.empty() ? "" : ",") + name;
    return text;
}

std::string isoTime(double seconds) {
    if (!(seconds > 0)) return "-";
    long long millis = std::llround(seconds * 1000);
    const time_t whole = static_cast<time_t>(millis / 1000);
    struct tm utc;
    if (gmtime_r(&whole, &utc) == nullptr) return "-";
    char text[64];
    const size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + n, sizeof text - n, ".%03lldZ", millis % 1000);
    return text;
}

Json liveJson(const LiveValue& live) {
    if (!live.found)
        return {{"value", nullptr}, {"quality", nullptr}, {"qualityBits", nullptr},
                {"timestamp", nullptr}};
    return {{"value", live.value}, {"quality", live.quality},
            {"qualityBits", qualityNames(live.quality)}, {"timestamp", live.timestamp}};
}

std::string liveText(const LiveValue& live) {
    std::string text = "value=" + formatDouble(live.value) + " quality=" +
                       std::to_string(live.quality) + " (" + qualityText(live.quality) + ")";
    return live.timestamp > 0 ? text + " time=" + isoTime(live.timestamp) : text;
}

// A reference without a value row keeps its NaN: the list read leaves its
// element as it was, and no stored value is NaN (SQLite keeps NaN as null).
bool readLiveValues(const std::vector<std::string>& refs, std::vector<LiveValue>* live) {
    const int count = static_cast<int>(refs.size());
    std::vector<DaNameRow> names(refs.size());
    for (int i = 0; i < count; ++i) std::snprintf(names[i], sizeof names[i], "%s", refs[i].c_str());
    std::vector<double> values(refs.size(), std::nan(""));
    std::vector<int> qualities(refs.size(), 0);
    std::vector<double> times(refs.size(), 0);
    if (count > 0 &&
        zq_getDAValuesT(names.data(), count, values.data(), qualities.data(), times.data()) != 0) {
        complain("cannot read the live values");
        return false;
    }
    live->assign(refs.size(), LiveValue{});
    for (int i = 0; i < count; ++i) {
        (*live)[i].found = !std::isnan(values[i]);
        (*live)[i].value = values[i];
        (*live)[i].quality = qualities[i];
        (*live)[i].timestamp = times[i];
    }
    return true;
}

// ---- near names ---------------------------------------------------------------

namespace {

std::string lowered(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// The nearest names: those equal but for case, else those that start with
// the given text, else those at most two letters away; at most eight.
std::string nearNames(const std::string& given, const std::set<std::string>& known) {
    const std::string low = lowered(given);
    std::vector<std::string> tiers[3];
    for (const std::string& name : known) {
        const std::string other = lowered(name);
        if (other == low)
            tiers[0].push_back(name);
        else if (!low.empty() && other.compare(0, low.size(), low) == 0)
            tiers[1].push_back(name);
        else if (editDistance(low, other) <= 2)
            tiers[2].push_back(name);
    }
    for (const std::vector<std::string>& tier : tiers) {
        std::string text;
        for (size_t i = 0; i < tier.size() && i < 8; ++i) text += (i == 0 ? "" : ", ") + tier[i];
        if (tier.size() > 8) text += ", ...";
        if (!text.empty()) return text;
    }
    return "";
}

}  // namespace

void explainNoMatch(const char* what, const std::vector<FilterCheck>& filters) {
    bool named = false;
    for (const FilterCheck& filter : filters) {
        const std::set<std::string> known(filter.known.begin(), filter.known.end());
        if (known.count(filter.given) != 0) continue;
        named = true;
        const std::string near = nearNames(filter.given, known);
        if (near.empty())
            complain("no %s \"%s\"", filter.label, filter.given.c_str());
        else
            complain("no %s \"%s\"; did you mean %s?", filter.label, filter.given.c_str(),
                     near.c_str());
    }
    if (!named) complain("no %s matches these filters together", what);
}

}  // namespace qvtool
