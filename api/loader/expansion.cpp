// The expansion: types resolved by id, a model whose types contain
// themselves refused, every logical node flattened through its types into
// one row per basic data attribute, and the instance values of the file
// applied to those rows (enumerations as their ord).
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "model.h"
#include "internal/qvreport.h"

namespace qvaddied {

namespace {

bool tooLarge(long count, long limit, const char* what) {
    if (count <= limit) return false;
    qvreport::failure(QV_ERR_MODEL, "SCL model too large: more than %ld %s\n", limit, what);
    return true;
}

bool isStruct(const char* bType) { return std::strcmp(bType, "Struct") == 0; }

// ---- Type lookup -------------------------------------------------------------

template <typename Type>
TypeIndex indexTypes(const std::vector<Type>& table) {
    TypeIndex index;
    index.reserve(table.size());
    for (std::size_t i = 0; i < table.size(); ++i) index.emplace(table[i].id, static_cast<int>(i));
    return index;
}

// The index of the first type with the given id, or -1.
int findType(const TypeIndex& index, const std::string& id) {
    const auto found = index.find(id);
    return found == index.end() ? -1 : found->second;
}

// ---- Cycle check -------------------------------------------------------------

enum class Visit : char { kNotYet, kOnPath, kDone };

// Depth-first search from `node`; returns a type met again while still on
// the path (so it contains itself), or -1. `contained(i)` lists the types
// that type i contains.
template <typename Contained>
int findCycleFrom(int node, std::vector<Visit>& visits, const Contained& contained) {
    visits[node] = Visit::kOnPath;
    for (int child : contained(node)) {
        if (visits[child] == Visit::kOnPath) return child;
        if (visits[child] == Visit::kNotYet) {
            const int found = findCycleFrom(child, visits, contained);
            if (found >= 0) return found;
        }
    }
    visits[node] = Visit::kDone;
    return -1;
}

// Rejects a type table in which a type contains itself, directly or through
// others: its expansion would never end.
template <typename Type, typename Contained>
bool hasNoCycle(const std::vector<Type>& table, const char* kind, const Contained& contained) {
    std::vector<Visit> visits(table.size(), Visit::kNotYet);
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (visits[i] != Visit::kNotYet) continue;
        const int found = findCycleFrom(static_cast<int>(i), visits, contained);
        if (found >= 0) {
            qvreport::failure(QV_ERR_MODEL, "SCL error: %s \"%s\" contains itself\n", kind,
                              table[found].id.c_str());
            return false;
        }
    }
    return true;
}

bool typesAreAcyclic(const Model& model) {
    const Expansion& x = model.expansion;
    auto subDataObjectTypes = [&](int i) {
        std::vector<int> types;
        for (const SDO& sdo : model.doTypeVector[i].sdoVector) {
            const int type = findType(x.doTypes, sdo.type);
            if (type >= 0) types.push_back(type);
        }
        return types;
    };
    auto memberTypes = [&](int i) {
        std::vector<int> types;
        for (const BDA& bda : model.daTypeVector[i].bdaVector) {
            const int type = findType(x.daTypes, bda.type);
            if (isStruct(bda.bType) && type >= 0) types.push_back(type);
        }
        return types;
    };
    return hasNoCycle(model.doTypeVector, "DOType", subDataObjectTypes) &&
           hasNoCycle(model.daTypeVector, "DAType", memberTypes);
}

// ---- Entries appended for nested data objects and structures -----------------

std::string entryKey(std::initializer_list<const char*> parts) {
    std::string key;
    for (const char* part : parts) (key += part) += '\x1f';
    return key;
}

// Whether a list has an entry with `key`; first brings the list's key set
// up to date with the entries appended since the last call.
template <typename Entry, typename KeyOf>
bool hasKey(KeySet& set, const std::vector<Entry>& entries, const std::string& key,
            const KeyOf& keyOf) {
    for (; set.indexed < entries.size(); ++set.indexed)
        set.keys.insert(keyOf(entries[set.indexed]));
    return set.keys.count(key) != 0;
}

int hasDo(Model& model, int i, const char* doName, const char* doType) {
    return hasKey(model.expansion.doKeys[i], model.lnTypeVector[i].doVector,
                  entryKey({doName, doType}),
                  [](const DO& entry) { return entryKey({entry.name, entry.type.c_str()}); });
}

int hasDa(Model& model, int i, const char* daName, const char* daType, const char* fc) {
    return hasKey(model.expansion.daKeys[i], model.doTypeVector[i].daVector,
                  entryKey({daName, daType, fc}),
                  [](const DA& entry) { return entryKey({entry.name, entry.type.c_str(), entry.fc}); });
}

bool countAppended(Model& model) {
    return !tooLarge(++model.expansion.appendedEntries, kMaxNestedEntries,
                     "nested data objects and structures in the types");
}

// ---- Leaves of a logical node type -------------------------------------------

int addLeaf(Model& model, std::vector<Leaf>& leaves, Leaf leaf, const char* attributePath) {
    if (tooLarge(++model.expansion.leafCount, kMaxAttributes, "data attributes in the types in use"))
        return -1;
    leaf.attributePath = attributePath;
    leaves.push_back(std::move(leaf));
    return 0;
}

// Appends to the logical node type one DO per sub-data object of the DO at
// `doPath`; the node's DO loop expands them in their turn.
int appendSubDataObjects(Model& model, int lnTypeIndex, const char* doPath, int doTypeIndex) {
    for (const SDO& sdo : model.doTypeVector[doTypeIndex].sdoVector) {
        DO added{};
        if (!formatName(added.name, sizeof added.name, "data object path", "%s$%s", doPath,
                        sdo.name))
            return -1;
        if (hasDo(model, lnTypeIndex, added.name, sdo.type.c_str())) continue;
        if (!countAppended(model)) return -1;
        added.type = sdo.type;
        model.lnTypeVector[lnTypeIndex].doVector.push_back(added);
    }
    return 0;
}

// The members of a "Struct" attribute (the DA `at` names): basic members
// become leaves at once, structured ones are appended to the DO type and
// expanded in their turn.
int expandStructure(Model& model, std::vector<Leaf>& leaves, const Leaf& at,
                    const char* attributePath, const DA& da) {
    const int structIndex = findType(model.expansion.daTypes, da.type);
    if (structIndex < 0) return 0;
    const std::vector<BDA>& members = model.daTypeVector[structIndex].bdaVector;
    for (std::size_t k = 0; k < members.size(); ++k) {
        const BDA& bda = members[k];
        char path[kPathSize];
        if (!formatName(path, sizeof path, "attribute path", "%s$%s", attributePath, bda.name))
            return -1;
        if (!isStruct(bda.bType)) {
            Leaf member = at;
            member.daTypeIndex = structIndex;
            member.bdaIndex = static_cast<int>(k);
            if (addLeaf(model, leaves, member, path) != 0) return -1;
            continue;
        }
        if (hasDa(model, at.doTypeIndex, path, bda.type.c_str(), da.fc)) continue;
        if (!countAppended(model)) return -1;
        DA added{};
        copyText(added.name, path);
        copyText(added.bType, bda.bType);
        added.type = bda.type;
        copyText(added.fc, da.fc);
        model.doTypeVector[at.doTypeIndex].daVector.push_back(added);
    }
    return 0;
}

// The attributes of one data object, including the nested structures that
// expandStructure appends while the loop runs.
int expandDataObject(Model& model, std::vector<Leaf>& leaves, int doIndex, int doTypeIndex) {
    for (std::size_t k = 0; k < model.doTypeVector[doTypeIndex].daVector.size(); ++k) {
        const DA da = model.doTypeVector[doTypeIndex].daVector[k];  // the list grows below
        char path[kPathSize];
        if (!formatName(path, sizeof path, "attribute path", "%s", da.name)) return -1;
        const Leaf at{doIndex, doTypeIndex, static_cast<int>(k), -1, -1, {}};
        const int result = isStruct(da.bType) ? expandStructure(model, leaves, at, path, da)
                                              : addLeaf(model, leaves, at, path);
        if (result != 0) return -1;
    }
    return 0;
}

int expandLogicalNodeType(Model& model, int lnTypeIndex, std::vector<Leaf>& leaves) {
    for (std::size_t i = 0; i < model.lnTypeVector[lnTypeIndex].doVector.size(); ++i) {
        const DO dataObject = model.lnTypeVector[lnTypeIndex].doVector[i];  // the list grows below
        const int doTypeIndex = findType(model.expansion.doTypes, dataObject.type);
        if (doTypeIndex < 0) continue;
        if (appendSubDataObjects(model, lnTypeIndex, dataObject.name, doTypeIndex) != 0 ||
            expandDataObject(model, leaves, static_cast<int>(i), doTypeIndex) != 0)
            return -1;
    }
    return 0;
}

// The leaves of a logical node type, or null after a message.
const std::vector<Leaf>* leavesOf(Model& model, int lnTypeIndex) {
    Expansion& x = model.expansion;
    if (!x.leavesBuilt[lnTypeIndex]) {
        if (expandLogicalNodeType(model, lnTypeIndex, x.leaves[lnTypeIndex]) != 0) return nullptr;
        x.leavesBuilt[lnTypeIndex] = true;
    }
    return &x.leaves[lnTypeIndex];
}

// Calls `visit(ld, ln, lnTypeIndex, leaves)` for every logical node whose
// type exists (a node of a missing type yields nothing); stops at the first
// visit that does not return 0, or with -1 when leaves cannot be built.
template <typename OnNode>
int forEachLogicalNode(Model& model, const OnNode& visit) {
    for (const LD& ld : model.ldVector) {
        for (const LN& ln : ld.lnVector) {
            const int lnTypeIndex = findType(model.expansion.lnTypes, ln.type);
            if (lnTypeIndex < 0) continue;
            const std::vector<Leaf>* leaves = leavesOf(model, lnTypeIndex);
            if (leaves == nullptr) return -1;
            const int result = visit(ld, ln, lnTypeIndex, *leaves);
            if (result != 0) return result;
        }
    }
    return 0;
}

// ---- Rows and their instance values ------------------------------------------

// The ord of the enumeration value named `text`, or null.
const char* enumOrd(const Model& model, const std::string& enumTypeId, const char* text) {
    const int index = findType(model.expansion.enumTypes, enumTypeId);
    if (index < 0) return nullptr;
    for (const EnumVal& enumVal : model.genumTypeVector[index].enumVector) {
        if (std::strcmp(enumVal.value, text) == 0) return enumVal.ord;
    }
    return nullptr;
}

void applyInstanceValue(Model& model, DATable& record) {
    auto& valueIndex = model.expansion.valueIndex;
    const auto found = valueIndex.find(referenceKey(record.ied, record.daName_nofc));
    if (found == valueIndex.end()) return;
    const DaValue& value = model.gDaValueVector[found->second];
    valueIndex.erase(found);
    const char* text = value.daVal.c_str();
    if (std::strcmp(record.valueType, "Enum") == 0) {
        const char* ord = enumOrd(model, record.type, text);
        if (ord != nullptr) text = ord;
    }
    copyText(record.value, text);
    copyText(record.doDesc, value.doDesc.c_str());
}

// Fills the row of one leaf of a logical node of type lnTypeIndex.
bool fillRow(Model& model, DATable& record, const LD& ld, const LN& ln, int lnTypeIndex,
             const Leaf& leaf) {
    const char* doPath = model.lnTypeVector[lnTypeIndex].doVector[leaf.doIndex].name;
    const DA& da = model.doTypeVector[leaf.doTypeIndex].daVector[leaf.daIndex];
    const char* bType = da.bType;
    const std::string* type = &da.type;
    if (leaf.daTypeIndex >= 0) {
        const BDA& member = model.daTypeVector[leaf.daTypeIndex].bdaVector[leaf.bdaIndex];
        bType = member.bType;
        type = &member.type;
    }
    const char* attributePath = leaf.attributePath.c_str();
    if (!formatName(record.daName, sizeof record.daName, "attribute reference", "%s/%s$%s$%s$%s",
                    ld.name, ln.name, da.fc, doPath, attributePath) ||
        !formatName(record.daName_nofc, sizeof record.daName_nofc, "attribute reference",
                    "%s/%s$%s$%s", ld.name, ln.name, doPath, attributePath))
        return false;
    record.ied = ld.ied;
    copyText(record.ldName, ld.name);
    copyText(record.lnName, ln.name);
    copyText(record.doName, doPath);
    copyText(record.fcName, da.fc);
    copyText(record.valueType, bType);
    record.type = *type;
    record.value[0] = record.doDesc[0] = '\0';
    applyInstanceValue(model, record);
    return true;
}

}  // namespace

int initDATable(Model& model) {
    Expansion& x = model.expansion;
    x.lnTypes = indexTypes(model.lnTypeVector);
    x.doTypes = indexTypes(model.doTypeVector);
    x.daTypes = indexTypes(model.daTypeVector);
    x.enumTypes = indexTypes(model.genumTypeVector);
    x.leaves.assign(model.lnTypeVector.size(), {});
    x.leavesBuilt.assign(model.lnTypeVector.size(), false);
    x.doKeys.assign(model.lnTypeVector.size(), {});
    x.daKeys.assign(model.doTypeVector.size(), {});
    if (!typesAreAcyclic(model)) return -1;
    // Every type in use is expanded now, so that a model that cannot be
    // expanded is refused before the store is opened.
    long attributes = 0;
    return forEachLogicalNode(model, [&](const LD&, const LN&, int, const std::vector<Leaf>& leaves) {
        attributes += static_cast<long>(leaves.size());
        return tooLarge(attributes, model.attributeAllowance, "data attributes in all") ? -1 : 0;
    });
}

int initDaValue(Model& model) {
    auto& valueIndex = model.expansion.valueIndex;
    valueIndex.clear();
    valueIndex.reserve(model.gDaValueVector.size());
    for (std::size_t v = 0; v < model.gDaValueVector.size(); ++v) {
        const DaValue& value = model.gDaValueVector[v];
        valueIndex[referenceKey(value.ied, value.daName.c_str())] = static_cast<int>(v);
    }
    return 0;
}

int forEachAttribute(Model& model, const std::function<int(const DATable& record)>& row) {
    DATable record{};
    return forEachLogicalNode(
        model, [&](const LD& ld, const LN& ln, int lnTypeIndex, const std::vector<Leaf>& leaves) {
            for (const Leaf& leaf : leaves) {
                if (!fillRow(model, record, ld, ln, lnTypeIndex, leaf)) return -1;
                const int result = row(record);
                if (result != 0) return result;
            }
            return 0;
        });
}

}  // namespace qvaddied
