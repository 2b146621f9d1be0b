// The classification: the members of the five data sets of agreed names
// become value rows of one class each (analog, single or double point,
// control, energy); members of other data sets get no value row.
#include <cstring>
#include <string>
#include <unordered_set>

#include "model.h"
#include "qvaddied.h"

namespace qvaddied {

namespace {

DA_CONF_TYPE classify(const DataSetSub& member) {
    const char* ds = member.dsName;
    if (std::strcmp(ds, "dsAin") == 0) return MO_NI_LIANG;
    if (std::strcmp(ds, "dsDin") == 0) {
        return std::strcmp(member.doName, "Pos") == 0 ? SHUANG_DIAN_SHU_ZI_LIANG
                                                      : DIAN_DIAN_SHU_ZI_LIANG;
    }
    if (std::strcmp(ds, "dsGgio") == 0) return DIAN_DIAN_SHU_ZI_LIANG;
    if (std::strcmp(ds, "dsControl") == 0) return SBO_YAO_KONG_LIANG;
    if (std::strcmp(ds, "dsEnergy") == 0) return DIAN_DU_LEI_JIA_LIANG;
    return OTHER_TYPE;
}

}  // namespace

int read_daConfTypes(Model& model) {
    model.g_daConfTypeVector.clear();
    std::unordered_set<std::string> classified;
    for (const DataSetSub& member : model.gdsSubVector) {
        const DA_CONF_TYPE type = classify(member);
        // One value row per reference: the first data set that names it wins.
        if (type == OTHER_TYPE ||
            !classified.insert(referenceKey(member.ied, member.fcdaName)).second)
            continue;
        DAConfType& entry = appendRecord(model.g_daConfTypeVector);
        copyText(entry.daName, member.fcdaName);
        entry.type = type;
        entry.ied = member.ied;
    }
    return 0;
}

}  // namespace qvaddied
