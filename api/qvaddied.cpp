// The model loader: SCL file to real-time store.
//
// One load reads the file into fixed-capacity tables, flattens every logical
// node through its types into one record per data attribute, classifies the
// members of five data sets and writes everything in one transaction. Bad
// input fails the whole load with one line on standard error; nothing is
// ever written past a table or a field.
#include "qvaddied.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sqlite3.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "internal/qvbuildconfig.h"
#include "internal/qvsqlite.h"
#include "qvrealapi.h"

namespace qvaddied {

DaValue* gDaValueVector = nullptr;
int gDaValCount = 0;
EnumType* genumTypeVector = nullptr;
int genmuTypeCount = 0;
DataSet* gdsVector = nullptr;
int gDSCount = 0;
DataSetSub* gdsSubVector = nullptr;
int gDSSubCount = 0;
LD* ldVector = nullptr;
int gLDCount = 0;
LNodeType* lnTypeVector = nullptr;
int glnTypeCount = 0;
DOType* doTypeVector = nullptr;
int gdoTypeCount = 0;
DAType* daTypeVector = nullptr;
int gdaTypeCount = 0;
DATable* daTableVector = nullptr;
int gdaTableCount = 0;
DAConfType g_daConfTypeVector[kDaConfTypeCapacity];
int g_daConfTypeCount = 0;
char g_IEDname[32];
sqlite3* g_sqliteDB = nullptr;

namespace {

using qvsql::copyText;

// Longest texts of the names built while reading and expanding.
constexpr std::size_t kPathSize = 128;  // data object path of an instance value, attribute path
// An IED-prefixed reference: the IED name and a reference of up to 255 characters.
constexpr std::size_t kStoredRefSize = sizeof g_IEDname + 256;

// Whether the file being loaded had an "IED" element: only then are the rows
// of the IED named g_IEDname replaced.
bool s_iedRead = false;

// ---- Limits --------------------------------------------------------------

// The next free record of a table, or null after a message when it is full.
template <typename Record>
Record* nextRecord(Record* table, int count, int capacity, const char* what) {
    if (count < capacity) return &table[count];
    std::fprintf(stderr, "SCL model too large: more than %d %s\n", capacity, what);
    return nullptr;
}

// Formats a name built from several parts into a field of `size` bytes. A
// name that does not fit fails the load instead of being cut, since a cut
// reference would name another attribute.
__attribute__((format(printf, 4, 5))) bool formatName(char* field, std::size_t size,
                                                      const char* what, const char* format,
                                                      ...) {
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(field, size, format, args);
    va_end(args);
    if (length >= 0 && static_cast<std::size_t>(length) < size) return true;
    std::fprintf(stderr, "SCL error: %s longer than %zu characters: %s...\n", what, size - 1,
                 field);
    return false;
}

// ---- libxml2 access ------------------------------------------------------

// A text returned by libxml2, released when it goes out of scope.
class XmlText {
public:
    explicit XmlText(xmlChar* text) : text_(text) {}
    ~XmlText() { xmlFree(text_); }
    XmlText(const XmlText&) = delete;
    XmlText& operator=(const XmlText&) = delete;

    bool present() const { return text_ != nullptr; }
    // The empty text when absent.
    const char* text() const { return text_ ? reinterpret_cast<const char*>(text_) : ""; }

private:
    xmlChar* text_;
};

// One attribute of an element.
class Attribute : public XmlText {
public:
    Attribute(xmlNodePtr element, const char* name)
        : XmlText(xmlGetProp(element, BAD_CAST name)), element_(element), name_(name) {}

    // True when present; otherwise names the element and attribute on stderr.
    bool required() const {
        if (present()) return true;
        std::fprintf(stderr, "SCL error: %s without attribute \"%s\"\n",
                     reinterpret_cast<const char*>(element_->name), name_);
        return false;
    }

private:
    xmlNodePtr element_;
    const char* name_;
};

// All text children of an element, entity references replaced.
XmlText elementText(xmlDocPtr doc, xmlNodePtr element) {
    return XmlText(xmlNodeListGetString(doc, element->children, 1));
}

bool isElement(xmlNodePtr node, const char* name) {
    return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, BAD_CAST name) == 0;
}

// Visits the child elements named `name` in document order; stops at the
// first visit that fails.
template <typename Visit>
int forEachChild(xmlNodePtr parent, const char* name, Visit visit) {
    for (xmlNodePtr child = parent->children; child != nullptr; child = child->next) {
        if (isElement(child, name) && visit(child) != 0) return -1;
    }
    return 0;
}

// ---- Instance section ----------------------------------------------------

int readInstanceChildren(xmlDocPtr doc, xmlNodePtr parent, const char* ld, const char* ln,
                         const char* path, const char* doDesc);

// A "DAI": one instance value per "Val" child.
int readDai(xmlDocPtr doc, xmlNodePtr dai, const char* ld, const char* ln, const char* path,
            const char* doDesc) {
    Attribute name(dai, "name");
    if (!name.required()) return -1;
    return forEachChild(dai, "Val", [&](xmlNodePtr val) {
        XmlText text = elementText(doc, val);
        return addDAValList(ld, ln, path, doDesc, name.text(), text.text());
    });
}

int SDI_parse(xmlDocPtr doc, xmlNodePtr curNode, const char* ld, const char* ln,
              const char* doStartName, const char* doDesc) {
    Attribute name(curNode, "name");
    if (!name.required()) return -1;
    char path[kPathSize];
    if (!formatName(path, sizeof path, "data object path", "%s$%s", doStartName, name.text()))
        return -1;
    return readInstanceChildren(doc, curNode, ld, ln, path, doDesc);
}

// The "SDI" and "DAI" children of a "DOI" or "SDI" whose path is `path`.
int readInstanceChildren(xmlDocPtr doc, xmlNodePtr parent, const char* ld, const char* ln,
                         const char* path, const char* doDesc) {
    for (xmlNodePtr child = parent->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "SDI")) {
            result = SDI_parse(doc, child, ld, ln, path, doDesc);
        } else if (isElement(child, "DAI")) {
            result = readDai(doc, child, ld, ln, path, doDesc);
        }
        if (result != 0) return -1;
    }
    return 0;
}

int readDaVal(xmlDocPtr doc, xmlNodePtr curNode, const char* ld, const char* ln,
              const char* doDesc) {
    if (!isElement(curNode, "DOI")) return 0;
    Attribute name(curNode, "name");
    if (!name.required()) return -1;
    char path[kPathSize];
    if (!formatName(path, sizeof path, "data object path", "%s", name.text())) return -1;
    return readInstanceChildren(doc, curNode, ld, ln, path, doDesc);
}

// One "FCDA" of the data set `dsName`.
int readFcda(xmlNodePtr fcda, const char* dsName) {
    Attribute ldInst(fcda, "ldInst"), lnClass(fcda, "lnClass"), lnInst(fcda, "lnInst"),
        doName(fcda, "doName"), daName(fcda, "daName"), fc(fcda, "fc");
    if (!ldInst.required() || !lnClass.required() || !doName.required() || !fc.required())
        return -1;
    DataSetSub* sub = nextRecord(gdsSubVector, gDSSubCount, kDataSetSubCapacity,
                                 "data set members");
    if (sub == nullptr) return -1;
    copyText(sub->dsName, dsName);
    copyText(sub->ldInst, ldInst.text());
    copyText(sub->lnClass, lnClass.text());
    copyText(sub->lnInst, lnInst.text());
    copyText(sub->doName, doName.text());
    copyText(sub->daName, daName.text());
    copyText(sub->fc, fc.text());
    char reference[kPathSize];
    const bool formed =
        sub->daName[0] != '\0'
            ? formatName(reference, sizeof reference, "member reference", "%s/%s%s$%s$%s$%s",
                         sub->ldInst, sub->lnClass, sub->lnInst, sub->fc, sub->doName,
                         sub->daName)
            : formatName(reference, sizeof reference, "member reference", "%s/%s%s$%s$%s",
                         sub->ldInst, sub->lnClass, sub->lnInst, sub->fc, sub->doName);
    if (!formed) return -1;
    str_replace(sub->fcdaName, sizeof sub->fcdaName, reference, ".", "$");
    ++gDSSubCount;
    return 0;
}

int readDataSet(xmlNodePtr dataSet, const char* ld) {
    Attribute name(dataSet, "name"), desc(dataSet, "desc");
    if (!name.required()) return -1;
    DataSet* ds = nextRecord(gdsVector, gDSCount, kDataSetCapacity, "data sets");
    if (ds == nullptr) return -1;
    copyText(ds->name, name.text());
    copyText(ds->ldInst, ld);
    copyText(ds->desc, desc.text());
    ++gDSCount;
    return forEachChild(dataSet, "FCDA", [&](xmlNodePtr fcda) { return readFcda(fcda, ds->name); });
}

int readLnInfo(xmlDocPtr doc, xmlNodePtr cur, const char* LD, const char* LN) {
    for (xmlNodePtr child = cur->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "DataSet")) {
            result = readDataSet(child, LD);
        } else if (isElement(child, "DOI")) {
            Attribute desc(child, "desc");
            result = readDaVal(doc, child, LD, LN, desc.text());
        }
        if (result != 0) return -1;
    }
    return 0;
}

// One "LN0" or "LN" of the logical device `ld`.
int readLogicalNode(xmlDocPtr doc, xmlNodePtr node, LD* ld) {
    Attribute inst(node, "inst"), lnClass(node, "lnClass"), lnType(node, "lnType");
    // LN0 has no instance number; every other logical node has one.
    if ((!isElement(node, "LN0") && !inst.required()) || !lnClass.required() ||
        !lnType.required())
        return -1;
    LN* ln = nextRecord(ld->lnVector, ld->lnCount, kLnCapacity, "logical nodes in one LDevice");
    if (ln == nullptr) return -1;
    if (!formatName(ln->name, sizeof ln->name, "LN name", "%s%s", lnClass.text(), inst.text()))
        return -1;
    copyText(ln->type, lnType.text());
    ++ld->lnCount;
    return readLnInfo(doc, node, ld->name, ln->name);
}

int readLN(xmlDocPtr doc, xmlNodePtr cur, LD* ld) {
    for (xmlNodePtr child = cur->children; child != nullptr; child = child->next) {
        if ((isElement(child, "LN0") || isElement(child, "LN")) &&
            readLogicalNode(doc, child, ld) != 0)
            return -1;
    }
    return 0;
}

int readLD(xmlDocPtr doc, xmlNodePtr cur) {
    return forEachChild(cur, "LDevice", [&](xmlNodePtr lDevice) {
        Attribute inst(lDevice, "inst");
        if (!inst.required()) return -1;
        LD* ld = nextRecord(ldVector, gLDCount, kLdCapacity, "logical devices");
        if (ld == nullptr) return -1;
        copyText(ld->name, inst.text());
        ld->lnCount = 0;
        if (readLN(doc, lDevice, ld) != 0) return -1;
        ++gLDCount;  // counted once its logical nodes are read
        return 0;
    });
}

int readIED(xmlDocPtr doc, xmlNodePtr cur) {
    return forEachChild(cur, "AccessPoint", [&](xmlNodePtr accessPoint) {
        return forEachChild(accessPoint, "Server",
                            [&](xmlNodePtr server) { return readLD(doc, server); });
    });
}

// ---- Data type templates -------------------------------------------------

// Starts the next record of a type table with the element's "id".
template <typename Type>
Type* readTypeId(xmlNodePtr element, Type* table, int count, int capacity, const char* what) {
    Attribute id(element, "id");
    if (!id.required()) return nullptr;
    Type* type = nextRecord(table, count, capacity, what);
    if (type != nullptr) copyText(type->id, id.text());
    return type;
}

// A "DO" or "SDO": a name and the id of a DOType, both required.
template <typename Record>
int readNamedDataObject(xmlNodePtr element, Record* table, int* count, int capacity,
                        const char* what) {
    Attribute name(element, "name"), type(element, "type");
    if (!name.required() || !type.required()) return -1;
    Record* record = nextRecord(table, *count, capacity, what);
    if (record == nullptr) return -1;
    copyText(record->name, name.text());
    copyText(record->type, type.text());
    ++*count;
    return 0;
}

int readLNodeType(xmlNodePtr element) {
    LNodeType* lnType = readTypeId(element, lnTypeVector, glnTypeCount, kLnTypeCapacity,
                                   "LNodeTypes");
    if (lnType == nullptr) return -1;
    ++glnTypeCount;
    return forEachChild(element, "DO", [&](xmlNodePtr child) {
        return readNamedDataObject(child, lnType->doVector, &lnType->doCount, kDoCapacity,
                                   "DOs in one LNodeType");
    });
}

int readDataAttribute(xmlNodePtr element, DOType* doType) {
    Attribute name(element, "name"), bType(element, "bType"), type(element, "type"),
        fc(element, "fc");
    if (!name.required() || !bType.required() || !fc.required()) return -1;
    DA* da = nextRecord(doType->daVector, doType->daCount, kDaCapacity, "DAs in one DOType");
    if (da == nullptr) return -1;
    copyText(da->name, name.text());
    copyText(da->bType, bType.text());
    copyText(da->type, type.text());
    copyText(da->fc, fc.text());
    ++doType->daCount;
    return 0;
}

int readDOType(xmlNodePtr element) {
    DOType* doType =
        readTypeId(element, doTypeVector, gdoTypeCount, kDoTypeCapacity, "DOTypes");
    if (doType == nullptr) return -1;
    ++gdoTypeCount;
    for (xmlNodePtr child = element->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "DA")) {
            result = readDataAttribute(child, doType);
        } else if (isElement(child, "SDO")) {
            result = readNamedDataObject(child, doType->sdoVector, &doType->sdoCount,
                                         kSdoCapacity, "SDOs in one DOType");
        }
        if (result != 0) return -1;
    }
    return 0;
}

int readDAType(xmlNodePtr element) {
    DAType* daType =
        readTypeId(element, daTypeVector, gdaTypeCount, kDaTypeCapacity, "DATypes");
    if (daType == nullptr) return -1;
    ++gdaTypeCount;
    return forEachChild(element, "BDA", [&](xmlNodePtr child) {
        Attribute name(child, "name"), bType(child, "bType"), type(child, "type");
        if (!name.required() || !bType.required()) return -1;
        BDA* bda = nextRecord(daType->bdaVector, daType->bdaCount, kBdaCapacity,
                              "BDAs in one DAType");
        if (bda == nullptr) return -1;
        copyText(bda->name, name.text());
        copyText(bda->type, type.text());
        copyText(bda->bType, bType.text());
        ++daType->bdaCount;
        return 0;
    });
}

int readEnumType(xmlDocPtr doc, xmlNodePtr element) {
    EnumType* enumType = readTypeId(element, genumTypeVector, genmuTypeCount,
                                    kEnumTypeCapacity, "EnumTypes");
    if (enumType == nullptr) return -1;
    ++genmuTypeCount;
    return forEachChild(element, "EnumVal", [&](xmlNodePtr child) {
        EnumVal* enumVal = nextRecord(enumType->enumVector, enumType->enumCount,
                                      kEnumValCapacity, "EnumVals in one EnumType");
        if (enumVal == nullptr) return -1;
        Attribute ord(child, "ord");
        XmlText value = elementText(doc, child);
        copyText(enumVal->ord, ord.text());
        copyText(enumVal->value, value.text());
        ++enumType->enumCount;
        return 0;
    });
}

int readDataTypeTemplates(xmlDocPtr doc, xmlNodePtr cur) {
    for (xmlNodePtr child = cur->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "LNodeType")) {
            result = readLNodeType(child);
        } else if (isElement(child, "DOType")) {
            result = readDOType(child);
        } else if (isElement(child, "DAType")) {
            result = readDAType(child);
        } else if (isElement(child, "EnumType")) {
            result = readEnumType(doc, child);
        }
        if (result != 0) return -1;
    }
    return 0;
}

// The root's "IED" and "DataTypeTemplates" children.
int readSclChildren(xmlDocPtr doc, xmlNodePtr root) {
    for (xmlNodePtr child = root->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "IED")) {
            Attribute name(child, "name");
            if (!name.required()) return -1;
            copyText(g_IEDname, name.text());
            s_iedRead = true;
            result = readIED(doc, child);
        } else if (isElement(child, "DataTypeTemplates")) {
            result = readDataTypeTemplates(doc, child);
        }
        if (result != 0) return -1;
    }
    return 0;
}

// ---- Expansion -----------------------------------------------------------

// The index of the first type of a table with the given id, or -1.
template <typename Type>
int findType(const Type* table, int count, const char* id) {
    for (int i = 0; i < count; ++i) {
        if (std::strcmp(table[i].id, id) == 0) return i;
    }
    return -1;
}

bool isStruct(const char* bType) { return std::strcmp(bType, "Struct") == 0; }

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
bool hasNoCycle(const Type* table, int count, const char* kind, const Contained& contained) {
    std::vector<Visit> visits(static_cast<std::size_t>(count), Visit::kNotYet);
    for (int i = 0; i < count; ++i) {
        if (visits[i] != Visit::kNotYet) continue;
        const int found = findCycleFrom(i, visits, contained);
        if (found >= 0) {
            std::fprintf(stderr, "SCL error: %s \"%s\" contains itself\n", kind, table[found].id);
            return false;
        }
    }
    return true;
}

bool typesAreAcyclic() {
    auto subDataObjectTypes = [](int i) {
        std::vector<int> types;
        const DOType& doType = doTypeVector[i];
        for (int k = 0; k < doType.sdoCount; ++k) {
            const int type = findType(doTypeVector, gdoTypeCount, doType.sdoVector[k].type);
            if (type >= 0) types.push_back(type);
        }
        return types;
    };
    auto memberTypes = [](int i) {
        std::vector<int> types;
        const DAType& daType = daTypeVector[i];
        for (int k = 0; k < daType.bdaCount; ++k) {
            const BDA& bda = daType.bdaVector[k];
            const int type = findType(daTypeVector, gdaTypeCount, bda.type);
            if (isStruct(bda.bType) && type >= 0) types.push_back(type);
        }
        return types;
    };
    return hasNoCycle(doTypeVector, gdoTypeCount, "DOType", subDataObjectTypes) &&
           hasNoCycle(daTypeVector, gdaTypeCount, "DAType", memberTypes);
}

// Appends to the logical node type one DO per sub-data object of the DO at
// `doPath`; the node's DO loop expands them in their turn.
int appendSubDataObjects(int lnTypeIndex, const char* doPath, const DOType& doType) {
    LNodeType& lnType = lnTypeVector[lnTypeIndex];
    for (int k = 0; k < doType.sdoCount; ++k) {
        const SDO& sdo = doType.sdoVector[k];
        char path[sizeof(DO::name)];
        if (!formatName(path, sizeof path, "data object path", "%s$%s", doPath, sdo.name))
            return -1;
        if (hasDo(lnTypeIndex, path, sdo.type)) continue;
        DO* added = nextRecord(lnType.doVector, lnType.doCount, kDoCapacity,
                               "DOs in one LNodeType (sub-data objects included)");
        if (added == nullptr) return -1;
        copyText(added->name, path);
        copyText(added->type, sdo.type);
        ++lnType.doCount;
    }
    return 0;
}

// The members of a "Struct" attribute: basic members become records at once,
// structured ones are appended to the DO type and expanded in their turn.
int expandStructure(const char* ld, const char* ln, const char* doPath, int doTypeIndex,
                    const char* attributePath, const DA& da) {
    const int structIndex = findType(daTypeVector, gdaTypeCount, da.type);
    if (structIndex < 0) return 0;
    const DAType& structType = daTypeVector[structIndex];
    DOType& doType = doTypeVector[doTypeIndex];
    for (int k = 0; k < structType.bdaCount; ++k) {
        const BDA& bda = structType.bdaVector[k];
        char path[kPathSize];
        if (!formatName(path, sizeof path, "attribute path", "%s$%s", attributePath, bda.name))
            return -1;
        if (!isStruct(bda.bType)) {
            if (addDAList(ld, ln, doPath, path, da.fc, bda.bType, bda.type) != 0) return -1;
            continue;
        }
        if (hasDa(doTypeIndex, path, bda.type, da.fc)) continue;
        DA* added = nextRecord(doType.daVector, doType.daCount, kDaCapacity,
                               "DAs in one DOType (nested structures included)");
        if (added == nullptr) return -1;
        copyText(added->name, path);
        copyText(added->bType, bda.bType);
        copyText(added->type, bda.type);
        copyText(added->fc, da.fc);
        ++doType.daCount;
    }
    return 0;
}

// The attributes of one data object, including the nested structures that
// expandStructure appends while the loop runs.
int expandDataObject(const char* ld, const char* ln, const char* doPath, int doTypeIndex) {
    const DOType& doType = doTypeVector[doTypeIndex];
    for (int k = 0; k < doType.daCount; ++k) {
        const DA& da = doType.daVector[k];
        char path[kPathSize];
        if (!formatName(path, sizeof path, "attribute path", "%s", da.name)) return -1;
        const int result = isStruct(da.bType)
                               ? expandStructure(ld, ln, doPath, doTypeIndex, path, da)
                               : addDAList(ld, ln, doPath, path, da.fc, da.bType, da.type);
        if (result != 0) return -1;
    }
    return 0;
}

int expandLogicalNode(const char* ld, const char* ln, int lnTypeIndex) {
    const LNodeType& lnType = lnTypeVector[lnTypeIndex];
    for (int i = 0; i < lnType.doCount; ++i) {
        const DO& dataObject = lnType.doVector[i];
        const int doTypeIndex = findType(doTypeVector, gdoTypeCount, dataObject.type);
        if (doTypeIndex < 0) continue;
        if (appendSubDataObjects(lnTypeIndex, dataObject.name, doTypeVector[doTypeIndex]) != 0 ||
            expandDataObject(ld, ln, dataObject.name, doTypeIndex) != 0)
            return -1;
    }
    return 0;
}

// The ord of the enumeration value named `text`, or null.
const char* enumOrd(const char* enumTypeId, const char* text) {
    const int index = findType(genumTypeVector, genmuTypeCount, enumTypeId);
    if (index < 0) return nullptr;
    const EnumType& enumType = genumTypeVector[index];
    for (int k = 0; k < enumType.enumCount; ++k) {
        if (std::strcmp(enumType.enumVector[k].value, text) == 0) return enumType.enumVector[k].ord;
    }
    return nullptr;
}

DATable* findAttributeWithoutFc(const char* daName_nofc) {
    for (int i = 0; i < gdaTableCount; ++i) {
        if (std::strcmp(daTableVector[i].daName_nofc, daName_nofc) == 0) return &daTableVector[i];
    }
    return nullptr;
}

// ---- Classification ------------------------------------------------------

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

bool alreadyClassified(const char* fcdaName) {
    for (int i = 0; i < g_daConfTypeCount; ++i) {
        if (std::strcmp(g_daConfTypeVector[i].daName, fcdaName) == 0) return true;
    }
    return false;
}

// ---- Store ---------------------------------------------------------------

// A reference as the store keeps it: the IED name immediately followed by it.
struct StoredReference {
    char text[kStoredRefSize];
    explicit StoredReference(const char* reference = "") { set(reference); }
    void set(const char* reference) {
        std::snprintf(text, sizeof text, "%s%s", g_IEDname, reference);
    }
};

sqlite3_int64 rowKey(const char* storedReference) {
    return static_cast<sqlite3_int64>(
        RSHash(storedReference, static_cast<unsigned int>(std::strlen(storedReference))));
}

void printPrepareError() {
    std::fprintf(stderr, "sqlite3_prepare_v2 err %s\n", sqlite3_errmsg(g_sqliteDB));
}

void printStepError() {
    std::fprintf(stderr, "sqlite3_step err %s\n", sqlite3_errmsg(g_sqliteDB));
}

bool execControl(const char* sql) {
    if (sqlite3_exec(g_sqliteDB, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    std::fprintf(stderr, "sqlite3_exec err %s\n", sqlite3_errmsg(g_sqliteDB));
    return false;
}

// Prepares `sql` once and steps it once per record, after `bind(stmt, i)`.
template <typename Bind>
bool runForEach(const char* sql, int count, const Bind& bind) {
    qvsql::Statement stmt;
    if (stmt.prepare(g_sqliteDB, sql) != SQLITE_OK) {
        printPrepareError();
        return false;
    }
    for (int i = 0; i < count; ++i) {
        bind(stmt.get(), i);
        if (sqlite3_step(stmt.get()) != SQLITE_DONE) {
            printStepError();
            return false;
        }
        sqlite3_reset(stmt.get());
    }
    return true;
}

// Row keys of the value rows that an earlier load of this IED wrote.
bool selectOldValueKeys(std::vector<sqlite3_int64>* keys) {
    qvsql::Statement stmt;
    if (stmt.prepare(g_sqliteDB, "select fcdaName from DataSetSub where iedName=?") !=
        SQLITE_OK) {
        printPrepareError();
        return false;
    }
    qvsql::bindText(stmt.get(), 1, g_IEDname);
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
        keys->push_back(rowKey(text ? reinterpret_cast<const char*>(text) : ""));
    }
    if (rc == SQLITE_DONE) return true;
    printStepError();
    return false;
}

// A reload replaces the IED's rows instead of adding to them.
bool removeRowsOfIed() {
    if (!s_iedRead) return true;
    std::vector<sqlite3_int64> keys;
    if (!selectOldValueKeys(&keys)) return false;
    const bool valuesRemoved =
        runForEach("delete from DAValue where hashID=?", static_cast<int>(keys.size()),
                   [&](sqlite3_stmt* stmt, int i) { sqlite3_bind_int64(stmt, 1, keys[i]); });
    if (!valuesRemoved) return false;
    for (const char* sql : {"delete from DataSet where iedName=?",
                            "delete from DataSetSub where iedName=?",
                            "delete from DA where iedName=?"}) {
        const bool removed = runForEach(
            sql, 1, [](sqlite3_stmt* stmt, int) { qvsql::bindText(stmt, 1, g_IEDname); });
        if (!removed) return false;
    }
    return true;
}

// Binds texts to the parameters 1, 2, ... in order.
void bindTexts(sqlite3_stmt* stmt, std::initializer_list<const char*> texts) {
    int index = 1;
    for (const char* text : texts) qvsql::bindText(stmt, index++, text);
}

bool insertDataSets() {
    return runForEach("insert into DataSet(iedName,dsName,ldInst,dsDesc) values(?,?,?,?)",
                      gDSCount, [](sqlite3_stmt* stmt, int i) {
                          const DataSet& ds = gdsVector[i];
                          bindTexts(stmt, {g_IEDname, ds.name, ds.ldInst, ds.desc});
                      });
}

bool insertMembers() {
    StoredReference reference;  // bound in place, rewritten per row
    return runForEach(
        "insert into DataSetSub(fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc)"
        " values(?,?,?,?,?,?,?,?,?)",
        gDSSubCount, [&](sqlite3_stmt* stmt, int i) {
            const DataSetSub& sub = gdsSubVector[i];
            reference.set(sub.fcdaName);
            bindTexts(stmt, {reference.text, g_IEDname, sub.dsName, sub.ldInst, sub.lnClass,
                             sub.lnInst, sub.doName, sub.daName, sub.fc});
        });
}

bool insertAttributes() {
    StoredReference reference;  // bound in place, rewritten per row
    return runForEach(
        "insert into DA(daName,iedName,ldName,lnName,doName,fcName,value,valueType,doDesc,hashID)"
        " values(?,?,?,?,?,?,?,?,?,?)",
        gdaTableCount, [&](sqlite3_stmt* stmt, int i) {
            const DATable& da = daTableVector[i];
            reference.set(da.daName);
            bindTexts(stmt, {reference.text, g_IEDname, da.ldName, da.lnName, da.doName,
                             da.fcName, da.value, da.valueType, da.doDesc});
            sqlite3_bind_int64(stmt, 10, rowKey(reference.text));
        });
}

bool insertValueRows() {
    return runForEach(
        "insert into DAValue(hashID,type,value,quality,timestamp ) values(?,?,?,?,?)",
        g_daConfTypeCount, [](sqlite3_stmt* stmt, int i) {
            const DAConfType& member = g_daConfTypeVector[i];
            sqlite3_bind_int64(stmt, 1, rowKey(StoredReference(member.daName).text));
            sqlite3_bind_double(stmt, 2, static_cast<double>(member.type));
            sqlite3_bind_double(stmt, 3, 0.0);
            sqlite3_bind_double(stmt, 4, 0.0);
            sqlite3_bind_double(stmt, 5, 0.0);
        });
}

// All four tables in one transaction: a load lands whole or not at all.
int writeModel() {
    if (!execControl("BEGIN TRANSACTION")) return -1;
    if (removeRowsOfIed() && insertDataSets() && insertMembers() && insertAttributes() &&
        insertValueRows() && execControl("COMMIT TRANSACTION"))
        return 0;
    sqlite3_exec(g_sqliteDB, "ROLLBACK", nullptr, nullptr, nullptr);
    return -1;
}

// The stages after the tables exist; -2 for a file that is not a usable model.
int loadModel(const char* cid_file) {
    if (readICD(cid_file) != 0 || initDATable() != 0) {
        std::fputs("cid 解析出错.\n", stderr);
        return -2;
    }
    initDaValue();
    read_daConfTypes();
    return addRealTimeDB() == 0 ? 0 : -1;
}

template <typename Record>
bool allocateTable(Record** table, int capacity) {
    *table = static_cast<Record*>(std::calloc(static_cast<std::size_t>(capacity), sizeof(Record)));
    return *table != nullptr;
}

template <typename Record>
void releaseTable(Record** table) {
    std::free(*table);
    *table = nullptr;
}

}  // namespace

// ---- Stages ----------------------------------------------------------------

int mallocData() {
    // Every load starts from empty tables.
    gDSCount = gDSSubCount = gLDCount = glnTypeCount = gdoTypeCount = gdaTypeCount = 0;
    genmuTypeCount = gDaValCount = gdaTableCount = 0;
    const bool allocated = allocateTable(&gDaValueVector, kDaValueCapacity) &&
                           allocateTable(&genumTypeVector, kEnumTypeCapacity) &&
                           allocateTable(&gdsVector, kDataSetCapacity) &&
                           allocateTable(&gdsSubVector, kDataSetSubCapacity) &&
                           allocateTable(&ldVector, kLdCapacity) &&
                           allocateTable(&lnTypeVector, kLnTypeCapacity) &&
                           allocateTable(&doTypeVector, kDoTypeCapacity) &&
                           allocateTable(&daTypeVector, kDaTypeCapacity) &&
                           allocateTable(&daTableVector, kDaTableCapacity);
    if (allocated) return 0;
    std::fputs("Out of memory for the model tables\n", stderr);
    freeData();
    return -1;
}

int freeData() {
    releaseTable(&gDaValueVector);
    releaseTable(&genumTypeVector);
    releaseTable(&gdsVector);
    releaseTable(&gdsSubVector);
    releaseTable(&ldVector);
    releaseTable(&lnTypeVector);
    releaseTable(&doTypeVector);
    releaseTable(&daTypeVector);
    releaseTable(&daTableVector);
    return 0;
}

int readICD(const char* file_name) {
    if (file_name == nullptr) {
        std::fputs("SCL error: no file name given\n", stderr);
        return -1;
    }
    s_iedRead = false;
    xmlDocPtr doc = xmlReadFile(file_name, "UTF-8", XML_PARSE_NOBLANKS);
    if (doc == nullptr) {
        std::fprintf(stderr, "Failed to parse xml file:%s\n", file_name);
        return -1;
    }
    int result = -1;
    xmlNodePtr root = xmlDocGetRootElement(doc);
    if (root == nullptr) {
        std::fputs("Root is empty.\n", stderr);
    } else if (xmlStrcmp(root->name, BAD_CAST "SCL") != 0) {
        std::fputs("The root is not SCL.\n", stderr);
    } else {
        result = readSclChildren(doc, root);
    }
    xmlFreeDoc(doc);
    return result;
}

int addDAValList(const char* ldName, const char* lnName, const char* doName,
                 const char* doDesc, const char* daName, const char* val) {
    DaValue* value = nextRecord(gDaValueVector, gDaValCount, kDaValueCapacity, "instance values");
    if (value == nullptr) return -1;
    if (!formatName(value->daName, sizeof value->daName, "instance value name", "%s/%s$%s$%s",
                    ldName, lnName, doName, daName))
        return -1;
    copyText(value->daVal, val);
    copyText(value->doDesc, doDesc);
    ++gDaValCount;
    return 0;
}

int str_replace(char* p_result, std::size_t resultSize, const char* p_source,
                const char* p_seach, const char* p_repstr) {
    if (resultSize == 0) return 0;
    const std::size_t searchLength = std::strlen(p_seach);
    const std::size_t replacementLength = std::strlen(p_repstr);
    std::size_t used = 0;
    int replaced = 0;
    // Appends up to n bytes, leaving room for the terminator.
    auto append = [&](const char* text, std::size_t n) {
        const std::size_t room = resultSize - 1 - used;
        if (n > room) n = room;
        std::memcpy(p_result + used, text, n);
        used += n;
    };
    const char* rest = p_source;
    const char* found;
    while (searchLength > 0 && (found = std::strstr(rest, p_seach)) != nullptr) {
        append(rest, static_cast<std::size_t>(found - rest));
        append(p_repstr, replacementLength);
        rest = found + searchLength;
        ++replaced;
    }
    append(rest, std::strlen(rest));
    p_result[used] = '\0';
    return replaced;
}

int initDATable() {
    if (!typesAreAcyclic()) return -1;
    for (int l = 0; l < gLDCount; ++l) {
        const LD& ld = ldVector[l];
        for (int n = 0; n < ld.lnCount; ++n) {
            const LN& ln = ld.lnVector[n];
            const int lnTypeIndex = findType(lnTypeVector, glnTypeCount, ln.type);
            if (lnTypeIndex >= 0 && expandLogicalNode(ld.name, ln.name, lnTypeIndex) != 0)
                return -1;
        }
    }
    return 0;
}

int addDAList(const char* ldName, const char* lnName, const char* doName, const char* daName,
              const char* fc, const char* bType, const char* type) {
    DATable* record = nextRecord(daTableVector, gdaTableCount, kDaTableCapacity,
                                 "data attributes in all");
    if (record == nullptr) return -1;
    if (!formatName(record->daName, sizeof record->daName, "attribute reference",
                    "%s/%s$%s$%s$%s", ldName, lnName, fc, doName, daName) ||
        !formatName(record->daName_nofc, sizeof record->daName_nofc, "attribute reference",
                    "%s/%s$%s$%s", ldName, lnName, doName, daName))
        return -1;
    copyText(record->ldName, ldName);
    copyText(record->lnName, lnName);
    copyText(record->doName, doName);
    copyText(record->fcName, fc);
    copyText(record->valueType, bType);
    copyText(record->type, type);
    ++gdaTableCount;
    return 0;
}

int hasDo(int i, const char* doName, const char* doType) {
    const LNodeType& lnType = lnTypeVector[i];
    for (int k = 0; k < lnType.doCount; ++k) {
        const DO& dataObject = lnType.doVector[k];
        if (std::strcmp(dataObject.name, doName) == 0 && std::strcmp(dataObject.type, doType) == 0)
            return 1;
    }
    return 0;
}

int hasDa(int i, const char* daName, const char* daType, const char* fc) {
    const DOType& doType = doTypeVector[i];
    for (int k = 0; k < doType.daCount; ++k) {
        const DA& da = doType.daVector[k];
        if (std::strcmp(da.name, daName) == 0 && std::strcmp(da.type, daType) == 0 &&
            std::strcmp(da.fc, fc) == 0)
            return 1;
    }
    return 0;
}

int initDaValue() {
    for (int v = 0; v < gDaValCount; ++v) {
        const DaValue& value = gDaValueVector[v];
        DATable* record = findAttributeWithoutFc(value.daName);
        if (record == nullptr) continue;
        const char* text = value.daVal;
        if (std::strcmp(record->valueType, "Enum") == 0) {
            const char* ord = enumOrd(record->type, text);
            if (ord != nullptr) text = ord;
        }
        copyText(record->value, text);
        copyText(record->doDesc, value.doDesc);
    }
    return 0;
}

int read_daConfTypes() {
    g_daConfTypeCount = 0;
    for (int i = 0; i < gDSSubCount && g_daConfTypeCount < kDaConfTypeCapacity; ++i) {
        const DataSetSub& member = gdsSubVector[i];
        const DA_CONF_TYPE type = classify(member);
        // One value row per reference: the first data set that names it wins.
        if (type == OTHER_TYPE || alreadyClassified(member.fcdaName)) continue;
        DAConfType& entry = g_daConfTypeVector[g_daConfTypeCount++];
        copyText(entry.daName, member.fcdaName);
        entry.type = type;
    }
    return 0;
}

int addRealTimeDB() {
    if (sqlite3_open(QV_REALTIME_DB_PATH, &g_sqliteDB) != SQLITE_OK) {
        std::fprintf(stderr, "Cannot open db: %s\n", sqlite3_errmsg(g_sqliteDB));
        sqlite3_close(g_sqliteDB);
        g_sqliteDB = nullptr;
        return 1;
    }
    const int result = writeModel();
    sqlite3_close(g_sqliteDB);
    g_sqliteDB = nullptr;
    return result;
}

}  // namespace qvaddied

int zq_addIEDRealDB(char* cid_file) {
    if (qvaddied::mallocData() != 0) return -1;
    const int result = qvaddied::loadModel(cid_file);
    qvaddied::freeData();
    return result;
}
