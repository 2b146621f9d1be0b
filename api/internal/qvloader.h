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
};

// The whole load of one file. iedName: only that IED (null: all of them).
// writeStore false: read and expand only, the store is not opened. Results
// as zq_addIEDRealDB: 0, -1 (store), -2 (file).
//
// Each load keeps its model to itself, so several threads may load at once.
// Loads that write take no store lock and do not wait when the store is
// busy: a write that meets another one may fail with -1, the store unchanged.
int loadFile(const char* file, const char* iedName, bool writeStore, LoadSummary* summary);

}  // namespace qvaddied

#endif  // QV_INTERNAL_QVLOADER_H
