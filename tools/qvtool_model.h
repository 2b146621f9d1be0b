// qvtool: the model's records as JSON, their filters, live values and
// quality, shared by the commands on the real-time store.
#ifndef QVTOOL_MODEL_H
#define QVTOOL_MODEL_H

#include <string>
#include <vector>

#include "qvrealapi.h"
#include "qvtool.h"

namespace qvtool {

Json toJson(const DataSet& set);
Json toJson(const DataSetSub& member);
Json toJson(const DA& attribute);

template <typename Record>
Json toJsonRows(const std::vector<Record>& records) {
    Json rows = Json::array();
    for (const Record& record : records) rows.push_back(toJson(record));
    return rows;
}

// A path option's value with every `from` written as `to` (PhV.phsA and
// PhV$phsA name the same data object); null when the option was not given.
const char* pathFilter(const Args& args, const char* option, char to, std::string* storage);

// "MMXU1" -> class "MMXU", instance "1"; false for a name too short.
bool splitLnName(const std::string& ln, std::string* lnClass, std::string* lnInst);

// The class of a node name: the four letters before its instance digits
// (a prefix, as --ln-prefix keeps it, stays out).
std::string lnClassOf(const std::string& lnName);

// An attribute's own path below its data object, in dots (mag.f).
std::string attributePath(const Json& attribute);

// The quality number's IEC 61850 bits by name: the validity first
// ("good", "invalid", "reserved", "questionable"), then each detail bit set.
std::vector<std::string> qualityNames(int quality);
// The same names comma-separated: "good", "questionable,old data".
std::string qualityText(int quality);

// A time in seconds since 1970 as ISO 8601 UTC with milliseconds
// (2026-11-25T17:03:32.123Z); "-" for 0, a value never given a time.
std::string isoTime(double seconds);

// The live value of a row as one record {value, quality, qualityBits,
// timestamp}, its fields null when the reference has no value row.
struct LiveValue {
    bool found = false;
    double value = 0;
    int quality = 0;
    double timestamp = 0;
};
Json liveJson(const LiveValue& live);
// "value=V quality=Q (BITS)", then " time=T" when the value has a time.
std::string liveText(const LiveValue& live);

// The live values of the references, read in one list read so that they
// show one moment. False when the read failed (said why).
bool readLiveValues(const std::vector<std::string>& refs, std::vector<LiveValue>* values);

// Says on standard error which filter values name nothing in the store and
// the near names it holds ("no LN "MMXU"; did you mean MMXU1?"). Each pair
// is a filter's label and the column's values.
struct FilterCheck {
    const char* label;  // "LN"
    std::string given;  // the option's value
    std::vector<std::string> known;
};
void explainNoMatch(const char* what, const std::vector<FilterCheck>& filters);

// explainNoMatch for the attribute filters of the command line.
void explainNoAttribute(const Args& args);

}  // namespace qvtool

#endif  // QVTOOL_MODEL_H
