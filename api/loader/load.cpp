// One load of an SCL file: a model of its own, the stages run on it in
// order (read, expand, classify, write or only count), and the exported
// entry points zq_addIEDRealDB, zq_addIEDRealDBByName and zq_addIEDRealDBEx.
#include <algorithm>
#include <cstdio>
#include <unordered_map>

#include "internal/qvloader.h"
#include "internal/qvreport.h"
#include "internal/qvtexts.h"
#include "model.h"
#include "qvaddied.h"

namespace qvaddied {

namespace {

constexpr long kMergesShown = 3;

void summarize(const Model& model, LoadSummary* summary) {
    summary->ieds.clear();
    for (const IED& ied : model.giedVector) summary->ieds.emplace_back(ied.name);
    summary->dataSets = static_cast<long>(model.gdsVector.size());
    summary->members = static_cast<long>(model.gdsSubVector.size());
    summary->valueRows = static_cast<long>(model.g_daConfTypeVector.size());
    for (long& count : summary->valueRowsOfClass) count = 0;
    for (const DAConfType& row : model.g_daConfTypeVector) ++summary->valueRowsOfClass[row.type];
    summary->mergedNodes = model.mergedNodes;
    summary->mergedNames = model.mergedNames;
}

// Every attribute row formed, none written: 0, or -2 after a message.
int countAttributes(Model& model, long* attributes) {
    long rows = 0;
    const int counted = forEachAttribute(model, [&](const DATable&) {
        ++rows;
        return 0;
    });
    *attributes = rows;
    return counted == 0 ? 0 : -2;
}

// Without prefixes, nodes of one LD whose names differ only by prefix
// share one name: one line says how many and which.
void reportMergedNames(Model& model) {
    if (model.lnPrefix) return;
    std::vector<std::pair<std::string, std::vector<std::string>>> names;  // first-seen order
    std::unordered_map<std::string, std::size_t> index;
    for (const LD& ld : model.ldVector) {
        for (const LN& ln : ld.lnVector) {
            const std::string name = std::string(ld.name) + "/" + ln.name;
            const auto at = index.emplace(referenceKey(ld.ied, name.c_str()), names.size());
            if (at.second) names.push_back({name, {}});
            auto& prefixed = names[at.first->second].second;
            const std::string full = ln.prefix + ln.name;
            if (std::find(prefixed.begin(), prefixed.end(), full) == prefixed.end())
                prefixed.push_back(full);
        }
    }
    long merged = 0, into = 0;
    std::string shown;
    for (const auto& name : names) {
        if (name.second.size() < 2) continue;
        merged += static_cast<long>(name.second.size());
        if (++into > kMergesShown) continue;
        shown += (shown.empty() ? "" : "; ") + name.first + " <-";
        for (const std::string& full : name.second) shown += " " + full + ",";
        shown.pop_back();
    }
    model.mergedNodes = merged;
    model.mergedNames = into;
    if (merged == 0) return;
    qvreport::notice(QV_OK, false,
                     "SCL notice: %ld logical nodes merge into %ld names (%s%s); load with "
                     "prefixes kept (lnPrefix 1, qvtool load --ln-prefix) to keep them apart\n",
                     merged, into, shown.c_str(), into > kMergesShown ? "; ..." : "");
}

int runStages(Model& model, bool writeStore, LoadSummary* summary) {
    if (readICD(model) != 0 || initDATable(model) != 0) return -2;
    reportMergedNames(model);
    initDaValue(model);
    read_daConfTypes(model);
    summarize(model, summary);
    return writeStore ? addRealTimeDB(model, &summary->attributes)
                      : countAttributes(model, &summary->attributes);
}

}  // namespace

int loadFile(const char* file, const LoadOptions& options, bool writeStore, LoadSummary* summary) {
    LoadSummary ignored;
    const char* iedName = options.iedName != nullptr && options.iedName[0] != '\0' ? options.iedName
                                                                                   : nullptr;
    Model model(file, iedName);
    model.lnPrefix = options.lnPrefix;
    // Options are checked before the file is read: a bad one is no file error.
    if (options.valueClasses != nullptr && !parseValueRules(options.valueClasses, &model.valueRules))
        return -2;
    const int result = runStages(model, writeStore, summary ? summary : &ignored);
    if (result == -2) qvreport::failure(QV_ERR_MODEL, "%s", qvtext::kModelUnusable);
    return result;
}

}  // namespace qvaddied

int zq_addIEDRealDB(const char* cid_file) {
    qvreport::succeeded();
    return qvaddied::loadFile(cid_file, nullptr, true, nullptr);
}

int zq_addIEDRealDBByName(const char* file, const char* iedName) {
    qvreport::succeeded();
    if (iedName == nullptr) {
        qvreport::failure(QV_ERR_MODEL, "SCL error: no IED name given\n");
        qvreport::failure(QV_ERR_MODEL, "%s", qvtext::kModelUnusable);
        return -2;
    }
    return qvaddied::loadFile(file, iedName, true, nullptr);
}

int zq_addIEDRealDBEx(const char* file, const QvLoadOptions* options) {
    qvreport::succeeded();
    if (options == nullptr) return qvaddied::loadFile(file, nullptr, true, nullptr);
    // A caller of a later version may pass a larger struct: its own fields
    // are ignored. A smaller one lacks fields this version reads.
    if (options->size < sizeof(QvLoadOptions)) {
        qvreport::failure(QV_ERR_MODEL, "load options: size %u, this version needs at least %zu\n",
                          options->size, sizeof(QvLoadOptions));
        return -2;
    }
    qvaddied::LoadOptions internal;
    internal.iedName = options->iedName;
    internal.lnPrefix = options->lnPrefix != 0;
    internal.valueClasses = options->valueClasses;
    return qvaddied::loadFile(file, internal, true, nullptr);
}
