// The classification: members of data sets become value rows of one class
// each (analog, single or double point, control, energy). The load's value
// rules decide first; a data set no rule matches keeps the class of the five
// agreed names, and members of other data sets get no value row.
#include <cstring>
#include <string>
#include <unordered_set>

#include "internal/qvwildcard.h"
#include "model.h"
#include "qvaddied.h"

namespace qvaddied {

namespace {

DA_CONF_TYPE statusClass(const DataSetSub& member) {
    return std::strcmp(member.doName, "Pos") == 0 ? SHUANG_DIAN_SHU_ZI_LIANG
                                                  : DIAN_DIAN_SHU_ZI_LIANG;
}

DA_CONF_TYPE agreedClass(const DataSetSub& member) {
    const char* ds = member.dsName;
    if (std::strcmp(ds, "dsAin") == 0) return MO_NI_LIANG;
    if (std::strcmp(ds, "dsDin") == 0) return statusClass(member);
    if (std::strcmp(ds, "dsGgio") == 0) return DIAN_DIAN_SHU_ZI_LIANG;
    if (std::strcmp(ds, "dsControl") == 0) return SBO_YAO_KONG_LIANG;
    if (std::strcmp(ds, "dsEnergy") == 0) return DIAN_DU_LEI_JIA_LIANG;
    return OTHER_TYPE;
}

DA_CONF_TYPE classByFc(const DataSetSub& member) {
    if (std::strcmp(member.fc, "MX") == 0) return MO_NI_LIANG;
    if (std::strcmp(member.fc, "ST") == 0) return statusClass(member);
    if (std::strcmp(member.fc, "CO") == 0) return SBO_YAO_KONG_LIANG;
    return OTHER_TYPE;
}

DA_CONF_TYPE classify(const Model& model, const DataSetSub& member) {
    for (const ValueRule& rule : model.valueRules) {
        if (!qvtext::wildcardMatch(rule.pattern.c_str(), member.dsName)) continue;
        if (rule.kind == ValueRule::kByFc) return classByFc(member);
        if (rule.kind == ValueRule::kNone) return OTHER_TYPE;
        return rule.valueClass == DIAN_DIAN_SHU_ZI_LIANG ? statusClass(member)
                                                         : static_cast<DA_CONF_TYPE>(rule.valueClass);
    }
    return agreedClass(member);
}

bool parseRule(const std::string& rule, ValueRule* parsed) {
    static const struct {
        const char* name;
        ValueRule::Kind kind;
        int valueClass;
    } kClasses[] = {{"ain", ValueRule::kClass, MO_NI_LIANG},
                    {"din", ValueRule::kClass, DIAN_DIAN_SHU_ZI_LIANG},
                    {"control", ValueRule::kClass, SBO_YAO_KONG_LIANG},
                    {"energy", ValueRule::kClass, DIAN_DU_LEI_JIA_LIANG},
                    {"none", ValueRule::kNone, OTHER_TYPE},
                    {"byfc", ValueRule::kByFc, OTHER_TYPE}};
    const std::size_t equals = rule.find('=');
    if (equals == std::string::npos || equals == 0) return false;
    const std::string className = rule.substr(equals + 1);
    for (const auto& known : kClasses) {
        if (className != known.name) continue;
        *parsed = ValueRule{rule.substr(0, equals), known.kind, known.valueClass};
        return true;
    }
    return false;
}

}  // namespace

bool parseValueRules(const char* text, std::vector<ValueRule>* rules) {
    const std::string all = text;
    for (std::size_t start = 0;;) {
        const std::size_t comma = all.find(',', start);
        const std::string rule = all.substr(start, comma == std::string::npos ? comma : comma - start);
        ValueRule parsed;
        if (!parseRule(rule, &parsed)) {
            qvreport::failure(QV_ERR_MODEL,
                              "load options: value class rule \"%.80s\" is not PATTERN=CLASS with "
                              "CLASS one of ain, din, control, energy, none, byfc\n",
                              rule.c_str());
            return false;
        }
        rules->push_back(std::move(parsed));
        if (comma == std::string::npos) return true;
        start = comma + 1;
    }
}

int read_daConfTypes(Model& model) {
    model.g_daConfTypeVector.clear();
    std::unordered_set<std::string> classified;
    for (const DataSetSub& member : model.gdsSubVector) {
        const DA_CONF_TYPE type = classify(model, member);
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
