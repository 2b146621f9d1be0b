// The model loader's entry for the library's own tools and tests: one load
// with a summary of what it read, and a check that writes nothing. Internal
// to the library: the shared object does not export it and this header is
// not installed; the tool, the tests, the benchmark and the fuzz target link
// a static build. The loader's stages and records are in api/loader/.
#ifndef QV_INTERNAL_QVLOADER_H
#define QV_INTERNAL_QVLOADER_H

#include <string>
#include <vector>

namespace qvaddied {

// What one load read from its file (or would write, for a check).
struct LoadSummary {
    std::vector<std::string> ieds;
    long dataSets = 0;
    long members = 0;
    long attributes = 0;
    long valueRows = 0;
    long valueRowsOfClass[7] = {};  // by DA_CONF_TYPE
    long mergedNodes = 0;           // logical nodes whose names merge without prefixes
    long mergedNames = 0;           // ... into this many names
};

// The options of one load, read from a QvLoadOptions (see qvaddied.h).
struct LoadOptions {
    const char* iedName = nullptr;       // null: every IED
    bool lnPrefix = false;               // prefix+lnClass+inst names
    const char* valueClasses = nullptr;  // null: the five agreed data sets only
};

// The whole load of one file with options: results as zq_addIEDRealDBEx
// (-2 also for rules that do not parse, before the file is read).
int loadFile(const char* file, const LoadOptions& options, bool writeStore, LoadSummary* summary);

// The whole load of one file. iedName: only that IED (null: all of them).
// writeStore false: read and expand only, the store is not opened. Results
// as zq_addIEDRealDB: 0, -1 (store), -2 (file).
//
// Each load keeps its model to itself, so several threads may load at once.
// Loads that write take no store lock and do not wait when the store is
// busy: a write that meets another one may fail with -1, the store unchanged.
inline int loadFile(const char* file, const char* iedName, bool writeStore, LoadSummary* summary) {
    LoadOptions options;
    options.iedName = iedName;
    return loadFile(file, options, writeStore, summary);
}

}  // namespace qvaddied

#endif  // QV_INTERNAL_QVLOADER_H
