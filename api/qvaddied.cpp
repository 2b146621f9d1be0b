// The model loader: SCL file to real-time store.
//
// One load reads the file into tables that grow with the model, flattens
// every logical node through its types into one row per data attribute,
// classifies the members of five data sets and writes everything in one
// transaction. Every row carries the name of its own IED. Bad input fails
// the whole load with one line on standard error; nothing is ever written
// past a field.
#include "qvaddied.h"

#include <fcntl.h>
#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "internal/qvbuildconfig.h"
#include "internal/qvloader.h"
#include "internal/qvsqlite.h"
#include "qvrealapi.h"

namespace qvaddied {

std::vector<IED> giedVector;
std::vector<DaValue> gDaValueVector;
std::vector<EnumType> genumTypeVector;
std::vector<DataSet> gdsVector;
std::vector<DataSetSub> gdsSubVector;
std::vector<LD> ldVector;
std::vector<LNodeType> lnTypeVector;
std::vector<DOType> doTypeVector;
std::vector<DAType> daTypeVector;
std::vector<DAConfType> g_daConfTypeVector;
char g_IEDname[32];
sqlite3* g_sqliteDB = nullptr;

namespace {

// Longest texts of the names built while reading and expanding.
constexpr std::size_t kPathSize = 128;  // data object path of an instance value, attribute path
// An IED-prefixed reference: the IED name and a reference of up to 255 characters.
constexpr std::size_t kStoredRefSize = sizeof g_IEDname + 256;
// Texts read from the file are cut here: every field is shorter, and a text
// built from entities referenced many times stays cheap to read.
constexpr std::size_t kTextLimit = 1024;
constexpr int kEntityDepthLimit = 16;

// ---- Texts -----------------------------------------------------------------

// The library's one bounded text copy: cut at a UTF-8 character boundary.
using qvsql::copyText;
using qvsql::cutLength;

void assignCut(std::string& dst, const char* src, std::size_t width) {
    dst.assign(src, cutLength(src, std::strlen(src), width));
}

// The next record of a growing table.
template <typename Record>
Record& appendRecord(std::vector<Record>& table) {
    table.emplace_back();
    return table.back();
}

// Formats a name built from several parts into a field of `size` bytes. A
// name that does not fit fails the load instead of being cut, since a cut
// reference would name another attribute.
__attribute__((format(printf, 4, 5))) bool formatName(char* field, std::size_t size,
                                                      const char* what, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(field, size, format, args);
    va_end(args);
    if (length >= 0 && static_cast<std::size_t>(length) < size) return true;
    std::fprintf(stderr, "SCL error: %s longer than %zu characters: %s...\n", what, size - 1,
                 field);
    return false;
}

bool tooLarge(long count, long limit, const char* what) {
    if (count <= limit) return false;
    std::fprintf(stderr, "SCL model too large: more than %ld %s\n", limit, what);
    return true;
}

// ---- libxml2 access ------------------------------------------------------

void appendText(std::string& out, const xmlChar* text) {
    if (text == nullptr) return;
    const char* chars = reinterpret_cast<const char*>(text);
    out.append(chars, cutLength(chars, std::strlen(chars), kTextLimit - out.size()));
}

// The text and entity-reference nodes of a list, entities replaced, cut at
// kTextLimit. Only internal entities are followed: an external one (a file
// or a URL) is never read.
void appendNodeListText(xmlDocPtr doc, xmlNodePtr node, std::string& out, int depth) {
    for (; node != nullptr && out.size() < kTextLimit; node = node->next) {
        if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
            appendText(out, node->content);
        } else if (node->type == XML_ENTITY_REF_NODE && depth < kEntityDepthLimit) {
            xmlEntityPtr entity = xmlGetDocEntity(doc, node->name);
            if (entity == nullptr || (entity->etype != XML_INTERNAL_GENERAL_ENTITY &&
                                      entity->etype != XML_INTERNAL_PREDEFINED_ENTITY))
                continue;
            if (entity->children != nullptr)
                appendNodeListText(doc, entity->children, out, depth + 1);
            else
                appendText(out, entity->content);
        }
    }
}

std::string nodeListText(xmlDocPtr doc, xmlNodePtr list) {
    std::string text;
    appendNodeListText(doc, list, text, 0);
    return text;
}

// All text children of an element, entity references replaced.
std::string elementText(xmlNodePtr element) {
    return nodeListText(element->doc, element->children);
}

// One attribute of an element, read without libxml2's unbounded expansion.
class Attribute {
public:
    Attribute(xmlNodePtr element, const char* name) : element_(element), name_(name) {
        for (xmlAttrPtr attr = element->properties; attr != nullptr; attr = attr->next) {
            if (xmlStrcmp(attr->name, BAD_CAST name) == 0) {
                present_ = true;
                text_ = nodeListText(element->doc, attr->children);
                break;
            }
        }
    }

    bool present() const { return present_; }
    // The empty text when absent.
    const char* text() const { return text_.c_str(); }

    // True when present; otherwise names the element and attribute on stderr.
    bool required() const {
        if (present_) return true;
        std::fprintf(stderr, "SCL error: %s without attribute \"%s\"\n",
                     reinterpret_cast<const char*>(element_->name), name_);
        return false;
    }

private:
    xmlNodePtr element_;
    const char* name_;
    bool present_ = false;
    std::string text_;
};

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

// The file being parsed, for messages about text that came from an entity.
const char* s_parsedFile = "";

// How many data attributes the model of the file being loaded may have.
long s_attributeAllowance = kMinAttributeAllowance;

// libxml2's errors and warnings, one line each, naming file and line.
void reportXmlError(void*, xmlErrorPtr error) {
    if (error == nullptr || error->message == nullptr) return;
    std::string message = error->message;
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
        message.pop_back();
    std::fprintf(stderr, "SCL %s: %s:%d: %s\n",
                 error->level == XML_ERR_WARNING ? "warning" : "parse error",
                 error->file != nullptr ? error->file : s_parsedFile, error->line, message.c_str());
}

// False, after a line naming the file and the system's reason, when the
// file cannot be opened for reading as a file.
// Its size sets the model's attribute allowance.
bool isReadableFile(const char* file) {
    const int fd = open(file, O_RDONLY);
    struct stat info;
    int reason = errno;
    if (fd >= 0) {
        reason = fstat(fd, &info) == 0 && S_ISDIR(info.st_mode) ? EISDIR : 0;
        close(fd);
        if (reason == 0) {
            s_attributeAllowance = std::max<long>(kMinAttributeAllowance,
                                                  info.st_size / kFileBytesPerAttribute);
            return true;
        }
    }
    std::fprintf(stderr, "Cannot read %s: %s\n", file, std::strerror(reason));
    return false;
}

// Parses the file in the encoding it declares or marks (UTF-8 with or
// without a byte order mark, UTF-16, ISO-8859-x, ...); the tree holds UTF-8.
// No DTD is loaded, no entity is substituted and no network is used.
xmlDocPtr parseFile(const char* file) {
    xmlParserCtxtPtr context = xmlNewParserCtxt();
    if (context == nullptr) return nullptr;
    context->sax->serror = reportXmlError;
    s_parsedFile = file;
    // Errors raised outside the parser context (encoding conversion) too.
    xmlStructuredErrorFunc savedHandler = xmlStructuredError;
    void* savedContext = xmlStructuredErrorContext;
    xmlSetStructuredErrorFunc(nullptr, reportXmlError);
    xmlDocPtr doc = xmlCtxtReadFile(context, file, nullptr, XML_PARSE_NOBLANKS | XML_PARSE_NONET);
    xmlSetStructuredErrorFunc(savedContext, savedHandler);
    s_parsedFile = "";
    xmlFreeParserCtxt(context);
    return doc;
}

// ---- Instance section ----------------------------------------------------

// Where the walk is: the IED, LD inst and LN name of the elements below.
struct Place {
    int ied;
    const char* ld;
    const char* ln;
};

int readInstanceChildren(xmlNodePtr parent, const Place& at, const char* path, const char* doDesc);

// A "DAI": one instance value per "Val" child.
int readDai(xmlNodePtr dai, const Place& at, const char* path, const char* doDesc) {
    Attribute name(dai, "name");
    if (!name.required()) return -1;
    return forEachChild(dai, "Val", [&](xmlNodePtr val) {
        return addDAValList(at.ied, at.ld, at.ln, path, doDesc, name.text(),
                            elementText(val).c_str());
    });
}

int SDI_parse(xmlNodePtr curNode, const Place& at, const char* doStartName, const char* doDesc) {
    Attribute name(curNode, "name");
    if (!name.required()) return -1;
    char path[kPathSize];
    if (!formatName(path, sizeof path, "data object path", "%s$%s", doStartName, name.text()))
        return -1;
    return readInstanceChildren(curNode, at, path, doDesc);
}

// The "SDI" and "DAI" children of a "DOI" or "SDI" whose path is `path`.
int readInstanceChildren(xmlNodePtr parent, const Place& at, const char* path, const char* doDesc) {
    for (xmlNodePtr child = parent->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "SDI")) {
            result = SDI_parse(child, at, path, doDesc);
        } else if (isElement(child, "DAI")) {
            result = readDai(child, at, path, doDesc);
        }
        if (result != 0) return -1;
    }
    return 0;
}

int readDaVal(xmlNodePtr curNode, const Place& at, const char* doDesc) {
    Attribute name(curNode, "name");
    if (!name.required()) return -1;
    char path[kPathSize];
    if (!formatName(path, sizeof path, "data object path", "%s", name.text())) return -1;
    return readInstanceChildren(curNode, at, path, doDesc);
}

// One "FCDA" of the data set `dsName`.
int readFcda(xmlNodePtr fcda, const char* dsName, int ied) {
    Attribute ldInst(fcda, "ldInst"), lnClass(fcda, "lnClass"), lnInst(fcda, "lnInst"),
        doName(fcda, "doName"), daName(fcda, "daName"), fc(fcda, "fc");
    if (!ldInst.required() || !lnClass.required() || !doName.required() || !fc.required())
        return -1;
    DataSetSub& sub = appendRecord(gdsSubVector);
    sub.ied = ied;
    copyText(sub.dsName, dsName);
    copyText(sub.ldInst, ldInst.text());
    copyText(sub.lnClass, lnClass.text());
    copyText(sub.lnInst, lnInst.text());
    copyText(sub.doName, doName.text());
    copyText(sub.daName, daName.text());
    copyText(sub.fc, fc.text());
    char reference[kPathSize];
    const bool formed =
        sub.daName[0] != '\0'
            ? formatName(reference, sizeof reference, "member reference", "%s/%s%s$%s$%s$%s",
                         sub.ldInst, sub.lnClass, sub.lnInst, sub.fc, sub.doName, sub.daName)
            : formatName(reference, sizeof reference, "member reference", "%s/%s%s$%s$%s",
                         sub.ldInst, sub.lnClass, sub.lnInst, sub.fc, sub.doName);
    if (!formed) return -1;
    str_replace(sub.fcdaName, sizeof sub.fcdaName, reference, ".", "$");
    return 0;
}

int readDataSet(xmlNodePtr dataSet, const Place& at) {
    Attribute name(dataSet, "name"), desc(dataSet, "desc");
    if (!name.required()) return -1;
    DataSet& ds = appendRecord(gdsVector);
    ds.ied = at.ied;
    copyText(ds.name, name.text());
    copyText(ds.ldInst, at.ld);
    copyText(ds.desc, desc.text());
    const std::string dsName = ds.name;  // the table grows below
    return forEachChild(dataSet, "FCDA",
                        [&](xmlNodePtr fcda) { return readFcda(fcda, dsName.c_str(), at.ied); });
}

int readLnInfo(xmlNodePtr cur, const Place& at) {
    for (xmlNodePtr child = cur->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "DataSet")) {
            result = readDataSet(child, at);
        } else if (isElement(child, "DOI")) {
            Attribute desc(child, "desc");
            result = readDaVal(child, at, desc.text());
        }
        if (result != 0) return -1;
    }
    return 0;
}

// One "LN0" or "LN" of the logical device at index `ldIndex`.
int readLogicalNode(xmlNodePtr node, std::size_t ldIndex) {
    Attribute inst(node, "inst"), lnClass(node, "lnClass"), lnType(node, "lnType");
    // LN0 has no instance number; every other logical node has one.
    if ((!isElement(node, "LN0") && !inst.required()) || !lnClass.required() || !lnType.required())
        return -1;
    LN ln{};
    if (!formatName(ln.name, sizeof ln.name, "LN name", "%s%s", lnClass.text(), inst.text()))
        return -1;
    copyText(ln.type, lnType.text());
    LD& ld = ldVector[ldIndex];
    ld.lnVector.push_back(ln);
    const std::string ldName = ld.name;  // the table grows below
    return readLnInfo(node, Place{ld.ied, ldName.c_str(), ln.name});
}

int readLD(xmlNodePtr server, int ied) {
    return forEachChild(server, "LDevice", [&](xmlNodePtr lDevice) {
        Attribute inst(lDevice, "inst");
        if (!inst.required()) return -1;
        LD& ld = appendRecord(ldVector);
        ld.ied = ied;
        copyText(ld.name, inst.text());
        const std::size_t index = ldVector.size() - 1;
        for (xmlNodePtr child = lDevice->children; child != nullptr; child = child->next) {
            if ((isElement(child, "LN0") || isElement(child, "LN")) &&
                readLogicalNode(child, index) != 0)
                return -1;
        }
        return 0;
    });
}

int readIED(xmlNodePtr cur, int ied) {
    return forEachChild(cur, "AccessPoint", [&](xmlNodePtr accessPoint) {
        return forEachChild(accessPoint, "Server",
                            [&](xmlNodePtr server) { return readLD(server, ied); });
    });
}

// ---- Data type templates -------------------------------------------------

// Starts the next record of a type table with the element's "id".
template <typename Type>
Type* readTypeId(xmlNodePtr element, std::vector<Type>& table) {
    Attribute id(element, "id");
    if (!id.required()) return nullptr;
    Type& type = appendRecord(table);
    copyText(type.id, id.text());
    return &type;
}

// A "DO" or "SDO": a name and the id of a DOType, both required.
template <typename Record>
int readNamedDataObject(xmlNodePtr element, std::vector<Record>& table) {
    Attribute name(element, "name"), type(element, "type");
    if (!name.required() || !type.required()) return -1;
    Record& record = appendRecord(table);
    copyText(record.name, name.text());
    copyText(record.type, type.text());
    return 0;
}

int readLNodeType(xmlNodePtr element) {
    LNodeType* lnType = readTypeId(element, lnTypeVector);
    if (lnType == nullptr) return -1;
    return forEachChild(element, "DO", [&](xmlNodePtr child) {
        return readNamedDataObject(child, lnType->doVector);
    });
}

int readDataAttribute(xmlNodePtr element, DOType* doType) {
    Attribute name(element, "name"), bType(element, "bType"), type(element, "type"),
        fc(element, "fc");
    if (!name.required() || !bType.required() || !fc.required()) return -1;
    DA& da = appendRecord(doType->daVector);
    copyText(da.name, name.text());
    copyText(da.bType, bType.text());
    copyText(da.type, type.text());
    copyText(da.fc, fc.text());
    return 0;
}

int readDOType(xmlNodePtr element) {
    DOType* doType = readTypeId(element, doTypeVector);
    if (doType == nullptr) return -1;
    for (xmlNodePtr child = element->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "DA")) {
            result = readDataAttribute(child, doType);
        } else if (isElement(child, "SDO")) {
            result = readNamedDataObject(child, doType->sdoVector);
        }
        if (result != 0) return -1;
    }
    return 0;
}

int readDAType(xmlNodePtr element) {
    DAType* daType = readTypeId(element, daTypeVector);
    if (daType == nullptr) return -1;
    return forEachChild(element, "BDA", [&](xmlNodePtr child) {
        Attribute name(child, "name"), bType(child, "bType"), type(child, "type");
        if (!name.required() || !bType.required()) return -1;
        BDA& bda = appendRecord(daType->bdaVector);
        copyText(bda.name, name.text());
        copyText(bda.type, type.text());
        copyText(bda.bType, bType.text());
        return 0;
    });
}

int readEnumType(xmlNodePtr element) {
    EnumType* enumType = readTypeId(element, genumTypeVector);
    if (enumType == nullptr) return -1;
    return forEachChild(element, "EnumVal", [&](xmlNodePtr child) {
        EnumVal& enumVal = appendRecord(enumType->enumVector);
        Attribute ord(child, "ord");
        copyText(enumVal.ord, ord.text());
        copyText(enumVal.value, elementText(child).c_str());
        return 0;
    });
}

int readDataTypeTemplates(xmlNodePtr cur) {
    for (xmlNodePtr child = cur->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "LNodeType")) {
            result = readLNodeType(child);
        } else if (isElement(child, "DOType")) {
            result = readDOType(child);
        } else if (isElement(child, "DAType")) {
            result = readDAType(child);
        } else if (isElement(child, "EnumType")) {
            result = readEnumType(child);
        }
        if (result != 0) return -1;
    }
    return 0;
}

// The root's "IED" children (only the one named `iedName` when it is not
// null) and "DataTypeTemplates" children.
int readSclChildren(xmlNodePtr root, const char* iedName) {
    for (xmlNodePtr child = root->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "IED")) {
            Attribute name(child, "name");
            if (!name.required()) return -1;
            if (iedName != nullptr && std::strcmp(name.text(), iedName) != 0) continue;
            copyText(appendRecord(giedVector).name, name.text());
            copyText(g_IEDname, name.text());
            result = readIED(child, static_cast<int>(giedVector.size() - 1));
        } else if (isElement(child, "DataTypeTemplates")) {
            result = readDataTypeTemplates(child);
        }
        if (result != 0) return -1;
    }
    return 0;
}

// ---- Expansion -----------------------------------------------------------

// The first type of a table with each id.
using TypeIndex = std::unordered_map<std::string, int>;

template <typename Type>
TypeIndex indexTypes(const std::vector<Type>& table) {
    TypeIndex index;
    index.reserve(table.size());
    for (std::size_t i = 0; i < table.size(); ++i) index.emplace(table[i].id, static_cast<int>(i));
    return index;
}

TypeIndex s_lnTypeIndex, s_doTypeIndex, s_daTypeIndex, s_enumTypeIndex;

// The index of the first type with the given id, or -1.
int findType(const TypeIndex& index, const char* id) {
    const auto found = index.find(id);
    return found == index.end() ? -1 : found->second;
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
bool hasNoCycle(const std::vector<Type>& table, const char* kind, const Contained& contained) {
    std::vector<Visit> visits(table.size(), Visit::kNotYet);
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (visits[i] != Visit::kNotYet) continue;
        const int found = findCycleFrom(static_cast<int>(i), visits, contained);
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
        for (const SDO& sdo : doTypeVector[i].sdoVector) {
            const int type = findType(s_doTypeIndex, sdo.type);
            if (type >= 0) types.push_back(type);
        }
        return types;
    };
    auto memberTypes = [](int i) {
        std::vector<int> types;
        for (const BDA& bda : daTypeVector[i].bdaVector) {
            const int type = findType(s_daTypeIndex, bda.type);
            if (isStruct(bda.bType) && type >= 0) types.push_back(type);
        }
        return types;
    };
    return hasNoCycle(doTypeVector, "DOType", subDataObjectTypes) &&
           hasNoCycle(daTypeVector, "DAType", memberTypes);
}

// One basic attribute of a logical node type: every logical node of that
// type has one row per leaf, in leaf order. It names its parts by index in
// the type tables, which only grow, so that a leaf stays small.
struct Leaf {
    int doIndex;      // its data object (path) in the logical node type
    int doTypeIndex;  // the data object's type and the attribute in it (its fc)
    int daIndex;
    int daTypeIndex;  // the structure member that gives bType and type; -1: the attribute
    int bdaIndex;
    std::string attributePath;
};

// Leaves of each logical node type, built the first time a node of that
// type is met (the type tables gain the nested entries then).
std::vector<std::vector<Leaf>> s_leaves;
std::vector<bool> s_leavesBuilt;
long s_leafCount = 0;

// Entries appended to the type tables for nested objects and structures.
long s_appendedEntries = 0;

// Membership keys of the entries of a DO or DA list, kept up to date with
// the list, so that hasDo and hasDa do not scan it.
struct KeySet {
    std::unordered_set<std::string> keys;
    std::size_t indexed = 0;
};
std::vector<KeySet> s_doKeys, s_daKeys;

std::string entryKey(std::initializer_list<const char*> parts) {
    std::string key;
    for (const char* part : parts) (key += part) += '\x1f';
    return key;
}

bool countAppended() {
    return !tooLarge(++s_appendedEntries, kMaxNestedEntries,
                     "nested data objects and structures in the types");
}

int addLeaf(std::vector<Leaf>& leaves, Leaf leaf, const char* attributePath) {
    if (tooLarge(++s_leafCount, kMaxAttributes, "data attributes in the types in use")) return -1;
    leaf.attributePath = attributePath;
    leaves.push_back(std::move(leaf));
    return 0;
}

// Appends to the logical node type one DO per sub-data object of the DO at
// `doPath`; the node's DO loop expands them in their turn.
int appendSubDataObjects(int lnTypeIndex, const char* doPath, int doTypeIndex) {
    for (const SDO& sdo : doTypeVector[doTypeIndex].sdoVector) {
        DO added{};
        if (!formatName(added.name, sizeof added.name, "data object path", "%s$%s", doPath,
                        sdo.name))
            return -1;
        if (hasDo(lnTypeIndex, added.name, sdo.type)) continue;
        if (!countAppended()) return -1;
        copyText(added.type, sdo.type);
        lnTypeVector[lnTypeIndex].doVector.push_back(added);
    }
    return 0;
}

// The members of a "Struct" attribute (the DA `at` names): basic members
// become leaves at once, structured ones are appended to the DO type and
// expanded in their turn.
int expandStructure(std::vector<Leaf>& leaves, const Leaf& at, const char* attributePath,
                    const DA& da) {
    const int structIndex = findType(s_daTypeIndex, da.type);
    if (structIndex < 0) return 0;
    const std::vector<BDA>& members = daTypeVector[structIndex].bdaVector;
    for (std::size_t k = 0; k < members.size(); ++k) {
        const BDA& bda = members[k];
        char path[kPathSize];
        if (!formatName(path, sizeof path, "attribute path", "%s$%s", attributePath, bda.name))
            return -1;
        if (!isStruct(bda.bType)) {
            Leaf member = at;
            member.daTypeIndex = structIndex;
            member.bdaIndex = static_cast<int>(k);
            if (addLeaf(leaves, member, path) != 0) return -1;
            continue;
        }
        if (hasDa(at.doTypeIndex, path, bda.type, da.fc)) continue;
        if (!countAppended()) return -1;
        DA added{};
        copyText(added.name, path);
        copyText(added.bType, bda.bType);
        copyText(added.type, bda.type);
        copyText(added.fc, da.fc);
        doTypeVector[at.doTypeIndex].daVector.push_back(added);
    }
    return 0;
}

// The attributes of one data object, including the nested structures that
// expandStructure appends while the loop runs.
int expandDataObject(std::vector<Leaf>& leaves, int doIndex, int doTypeIndex) {
    for (std::size_t k = 0; k < doTypeVector[doTypeIndex].daVector.size(); ++k) {
        const DA da = doTypeVector[doTypeIndex].daVector[k];  // the list grows below
        char path[kPathSize];
        if (!formatName(path, sizeof path, "attribute path", "%s", da.name)) return -1;
        const Leaf at{doIndex, doTypeIndex, static_cast<int>(k), -1, -1, {}};
        const int result =
            isStruct(da.bType) ? expandStructure(leaves, at, path, da) : addLeaf(leaves, at, path);
        if (result != 0) return -1;
    }
    return 0;
}

int expandLogicalNodeType(int lnTypeIndex, std::vector<Leaf>& leaves) {
    for (std::size_t i = 0; i < lnTypeVector[lnTypeIndex].doVector.size(); ++i) {
        const DO dataObject = lnTypeVector[lnTypeIndex].doVector[i];  // the list grows below
        const int doTypeIndex = findType(s_doTypeIndex, dataObject.type);
        if (doTypeIndex < 0) continue;
        if (appendSubDataObjects(lnTypeIndex, dataObject.name, doTypeIndex) != 0 ||
            expandDataObject(leaves, static_cast<int>(i), doTypeIndex) != 0)
            return -1;
    }
    return 0;
}

// The leaves of a logical node type, or null after a message.
const std::vector<Leaf>* leavesOf(int lnTypeIndex) {
    if (!s_leavesBuilt[lnTypeIndex]) {
        if (expandLogicalNodeType(lnTypeIndex, s_leaves[lnTypeIndex]) != 0) return nullptr;
        s_leavesBuilt[lnTypeIndex] = true;
    }
    return &s_leaves[lnTypeIndex];
}

// The ord of the enumeration value named `text`, or null.
const char* enumOrd(const char* enumTypeId, const char* text) {
    const int index = findType(s_enumTypeIndex, enumTypeId);
    if (index < 0) return nullptr;
    for (const EnumVal& enumVal : genumTypeVector[index].enumVector) {
        if (std::strcmp(enumVal.value, text) == 0) return enumVal.ord;
    }
    return nullptr;
}

// The last instance value of each reference, until the first attribute row
// with that reference takes it.
std::unordered_map<std::string, int> s_valueIndex;

std::string valueKey(int ied, const char* daName_nofc) {
    return std::to_string(ied) + '\x1f' + daName_nofc;
}

void applyInstanceValue(DATable& record) {
    const auto found = s_valueIndex.find(valueKey(record.ied, record.daName_nofc));
    if (found == s_valueIndex.end()) return;
    const DaValue& value = gDaValueVector[found->second];
    s_valueIndex.erase(found);
    const char* text = value.daVal.c_str();
    if (std::strcmp(record.valueType, "Enum") == 0) {
        const char* ord = enumOrd(record.type, text);
        if (ord != nullptr) text = ord;
    }
    copyText(record.value, text);
    copyText(record.doDesc, value.doDesc.c_str());
}

// Fills the row of one leaf of a logical node of type lnTypeIndex.
bool fillRow(DATable& record, const LD& ld, const LN& ln, int lnTypeIndex, const Leaf& leaf) {
    const char* doPath = lnTypeVector[lnTypeIndex].doVector[leaf.doIndex].name;
    const DA& da = doTypeVector[leaf.doTypeIndex].daVector[leaf.daIndex];
    const char* bType = da.bType;
    const char* type = da.type;
    if (leaf.daTypeIndex >= 0) {
        const BDA& member = daTypeVector[leaf.daTypeIndex].bdaVector[leaf.bdaIndex];
        bType = member.bType;
        type = member.type;
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
    copyText(record.type, type);
    record.value[0] = record.doDesc[0] = '\0';
    applyInstanceValue(record);
    return true;
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

// ---- Store ---------------------------------------------------------------

const char* iedName(int ied) { return giedVector[static_cast<std::size_t>(ied)].name; }

// A reference as the store keeps it: the IED name immediately followed by it.
struct StoredReference {
    char text[kStoredRefSize];
    void set(int ied, const char* reference) {
        std::snprintf(text, sizeof text, "%s%s", iedName(ied), reference);
    }
};

void printPrepareError() {
    std::fprintf(stderr, "sqlite3_prepare_v2 err %s\n", sqlite3_errmsg(g_sqliteDB));
}

void printStepError() { std::fprintf(stderr, "sqlite3_step err %s\n", sqlite3_errmsg(g_sqliteDB)); }

bool execControl(const char* sql) {
    if (sqlite3_exec(g_sqliteDB, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    std::fprintf(stderr, "sqlite3_exec err %s\n", sqlite3_errmsg(g_sqliteDB));
    return false;
}

// One statement prepared once and stepped once per row.
class Inserter {
public:
    bool prepare(const char* sql) {
        if (stmt_.prepare(g_sqliteDB, sql) == SQLITE_OK) return true;
        printPrepareError();
        return false;
    }
    sqlite3_stmt* get() const { return stmt_.get(); }
    // Steps the bound row and resets the statement for the next one.
    bool step() {
        const bool done = sqlite3_step(stmt_.get()) == SQLITE_DONE;
        if (!done) printStepError();
        sqlite3_reset(stmt_.get());
        return done;
    }

private:
    qvsql::Statement stmt_;
};

// Prepares `sql` once and steps it once per record, after `bind(stmt, i)`.
template <typename Bind>
bool runForEach(const char* sql, std::size_t count, const Bind& bind) {
    Inserter inserter;
    if (!inserter.prepare(sql)) return false;
    for (std::size_t i = 0; i < count; ++i) {
        bind(inserter.get(), i);
        if (!inserter.step()) return false;
    }
    return true;
}

// Row keys of the value rows that an earlier load of the IED wrote.
bool selectOldValueKeys(const char* ied, std::vector<sqlite3_int64>* keys) {
    qvsql::Statement stmt;
    if (stmt.prepare(g_sqliteDB, "select fcdaName from DataSetSub where iedName=?") != SQLITE_OK) {
        printPrepareError();
        return false;
    }
    qvsql::bindText(stmt.get(), 1, ied);
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
        keys->push_back(qvsql::rowKey(text ? reinterpret_cast<const char*>(text) : ""));
    }
    if (rc == SQLITE_DONE) return true;
    printStepError();
    return false;
}

// A reload replaces the rows of each IED of the file instead of adding to them.
bool removeRowsOfIeds() {
    std::vector<sqlite3_int64> keys;
    for (const IED& ied : giedVector) {
        if (!selectOldValueKeys(ied.name, &keys)) return false;
    }
    if (!runForEach(
            "delete from DAValue where hashID=?", keys.size(),
            [&](sqlite3_stmt* stmt, std::size_t i) { sqlite3_bind_int64(stmt, 1, keys[i]); }))
        return false;
    for (const char* sql :
         {"delete from DataSet where iedName=?", "delete from DataSetSub where iedName=?",
          "delete from DA where iedName=?"}) {
        const bool removed =
            runForEach(sql, giedVector.size(), [](sqlite3_stmt* stmt, std::size_t i) {
                qvsql::bindText(stmt, 1, giedVector[i].name);
            });
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
                      gdsVector.size(), [](sqlite3_stmt* stmt, std::size_t i) {
                          const DataSet& ds = gdsVector[i];
                          bindTexts(stmt, {iedName(ds.ied), ds.name, ds.ldInst, ds.desc});
                      });
}

bool insertMembers() {
    StoredReference reference;  // bound in place, rewritten per row
    return runForEach(
        "insert into DataSetSub(fcdaName,iedName,dsName,ldInst,lnClass,lnInst,doName,daName,fc)"
        " values(?,?,?,?,?,?,?,?,?)",
        gdsSubVector.size(), [&](sqlite3_stmt* stmt, std::size_t i) {
            const DataSetSub& sub = gdsSubVector[i];
            reference.set(sub.ied, sub.fcdaName);
            bindTexts(stmt, {reference.text, iedName(sub.ied), sub.dsName, sub.ldInst, sub.lnClass,
                             sub.lnInst, sub.doName, sub.daName, sub.fc});
        });
}

// Where forEachAttribute sends the rows: the DA insert, or only a count.
struct AttributeSink {
    Inserter* inserter;  // null: count only
    StoredReference reference;
    long rows = 0;
};

int writeAttributeRow(const DATable& da, void* context) {
    AttributeSink& sink = *static_cast<AttributeSink*>(context);
    ++sink.rows;
    if (sink.inserter == nullptr) return 0;
    sink.reference.set(da.ied, da.daName);
    sqlite3_stmt* stmt = sink.inserter->get();
    bindTexts(stmt, {sink.reference.text, iedName(da.ied), da.ldName, da.lnName, da.doName,
                     da.fcName, da.value, da.valueType, da.doDesc});
    sqlite3_bind_int64(stmt, 10, qvsql::rowKey(sink.reference.text));
    return sink.inserter->step() ? 0 : 1;
}

// Runs every attribute row into the sink: 0, -1 for the model (after a
// message), 1 for the store.
int insertAttributes(AttributeSink& sink) {
    Inserter inserter;
    if (!inserter.prepare("insert into DA(daName,iedName,ldName,lnName,doName,fcName,value,"
                          "valueType,doDesc,hashID) values(?,?,?,?,?,?,?,?,?,?)"))
        return 1;
    sink.inserter = &inserter;
    const int result = forEachAttribute(writeAttributeRow, &sink);
    sink.inserter = nullptr;
    return result;
}

bool insertValueRows() {
    StoredReference reference;
    return runForEach("insert into DAValue(hashID,type,value,quality,timestamp ) values(?,?,?,?,?)",
                      g_daConfTypeVector.size(), [&](sqlite3_stmt* stmt, std::size_t i) {
                          const DAConfType& member = g_daConfTypeVector[i];
                          reference.set(member.ied, member.daName);
                          sqlite3_bind_int64(stmt, 1, qvsql::rowKey(reference.text));
                          sqlite3_bind_double(stmt, 2, static_cast<double>(member.type));
                          sqlite3_bind_double(stmt, 3, 0.0);
                          sqlite3_bind_double(stmt, 4, 0.0);
                          sqlite3_bind_double(stmt, 5, 0.0);
                      });
}

// All four tables in one transaction: a load lands whole or not at all.
// 0, -1 for the store, -2 for the model.
int writeModel(long* attributes) {
    if (!execControl("BEGIN TRANSACTION")) return -1;
    int result = -1;
    if (removeRowsOfIeds() && insertDataSets() && insertMembers()) {
        AttributeSink sink{nullptr, {}, 0};
        const int written = insertAttributes(sink);
        *attributes = sink.rows;
        result = written < 0 ? -2 : written > 0 ? -1 : 0;
    }
    if (result == 0 && insertValueRows() && execControl("COMMIT TRANSACTION")) return 0;
    sqlite3_exec(g_sqliteDB, "ROLLBACK", nullptr, nullptr, nullptr);
    return result == -2 ? -2 : -1;
}

int writeToStore(long* attributes) {
    if (sqlite3_open(QV_REALTIME_DB_PATH, &g_sqliteDB) != SQLITE_OK) {
        std::fprintf(stderr, "Cannot open db: %s\n", sqlite3_errmsg(g_sqliteDB));
        sqlite3_close(g_sqliteDB);
        g_sqliteDB = nullptr;
        return -1;
    }
    const int result = writeModel(attributes);
    sqlite3_close(g_sqliteDB);
    g_sqliteDB = nullptr;
    return result;
}

// Reads and expands the file; with writeStore, writes it. Tables exist.
int loadTables(const char* file, const char* iedName, bool writeStore, LoadSummary* summary) {
    if (readICD(file, iedName) != 0 || initDATable() != 0) return -2;
    initDaValue();
    read_daConfTypes();
    summary->ieds.clear();
    for (const IED& ied : giedVector) summary->ieds.emplace_back(ied.name);
    summary->dataSets = static_cast<long>(gdsVector.size());
    summary->members = static_cast<long>(gdsSubVector.size());
    summary->valueRows = static_cast<long>(g_daConfTypeVector.size());
    if (writeStore) return writeToStore(&summary->attributes);
    AttributeSink counter{nullptr, {}, 0};
    const int counted = forEachAttribute(writeAttributeRow, &counter);
    summary->attributes = counter.rows;
    return counted == 0 ? 0 : -2;
}

template <typename Table>
void release(Table& table) {
    Table().swap(table);
}

}  // namespace

// ---- Stages ----------------------------------------------------------------

int mallocData() {
    freeData();
    return 0;
}

int freeData() {
    release(giedVector);
    release(gDaValueVector);
    release(genumTypeVector);
    release(gdsVector);
    release(gdsSubVector);
    release(ldVector);
    release(lnTypeVector);
    release(doTypeVector);
    release(daTypeVector);
    release(g_daConfTypeVector);
    for (TypeIndex* index : {&s_lnTypeIndex, &s_doTypeIndex, &s_daTypeIndex, &s_enumTypeIndex})
        release(*index);
    release(s_leaves);
    release(s_leavesBuilt);
    release(s_doKeys);
    release(s_daKeys);
    release(s_valueIndex);
    s_appendedEntries = s_leafCount = 0;
    return 0;
}

int readICD(const char* file_name, const char* iedName) {
    if (file_name == nullptr) {
        std::fputs("SCL error: no file name given\n", stderr);
        return -1;
    }
    xmlDocPtr doc = isReadableFile(file_name) ? parseFile(file_name) : nullptr;
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
        result = readSclChildren(root, iedName);
        if (result == 0 && iedName != nullptr && giedVector.empty()) {
            std::fprintf(stderr, "SCL error: no IED named \"%s\" in %s\n", iedName, file_name);
            result = -1;
        }
    }
    xmlFreeDoc(doc);
    return result;
}

int addDAValList(int ied, const char* ldName, const char* lnName, const char* doName,
                 const char* doDesc, const char* daName, const char* val) {
    char reference[sizeof(DATable::daName_nofc)];
    if (!formatName(reference, sizeof reference, "instance value name", "%s/%s$%s$%s", ldName,
                    lnName, doName, daName))
        return -1;
    DaValue& value = appendRecord(gDaValueVector);
    value.ied = ied;
    value.daName = reference;
    assignCut(value.daVal, val, 127);
    assignCut(value.doDesc, doDesc != nullptr ? doDesc : "", 127);
    return 0;
}

int str_replace(char* p_result, std::size_t resultSize, const char* p_source, const char* p_seach,
                const char* p_repstr) {
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
    s_lnTypeIndex = indexTypes(lnTypeVector);
    s_doTypeIndex = indexTypes(doTypeVector);
    s_daTypeIndex = indexTypes(daTypeVector);
    s_enumTypeIndex = indexTypes(genumTypeVector);
    s_leaves.assign(lnTypeVector.size(), {});
    s_leavesBuilt.assign(lnTypeVector.size(), false);
    s_doKeys.assign(lnTypeVector.size(), {});
    s_daKeys.assign(doTypeVector.size(), {});
    if (!typesAreAcyclic()) return -1;
    // Every type in use is expanded now, so that a model that cannot be
    // expanded is refused before the store is opened.
    long attributes = 0;
    for (const LD& ld : ldVector) {
        for (const LN& ln : ld.lnVector) {
            const int lnTypeIndex = findType(s_lnTypeIndex, ln.type);
            if (lnTypeIndex < 0) continue;
            const std::vector<Leaf>* leaves = leavesOf(lnTypeIndex);
            if (leaves == nullptr) return -1;
            attributes += static_cast<long>(leaves->size());
            if (tooLarge(attributes, s_attributeAllowance, "data attributes in all")) return -1;
        }
    }
    return 0;
}

int forEachAttribute(int (*row)(const DATable& record, void* context), void* context) {
    DATable record{};
    for (const LD& ld : ldVector) {
        for (const LN& ln : ld.lnVector) {
            const int lnTypeIndex = findType(s_lnTypeIndex, ln.type);
            if (lnTypeIndex < 0) continue;  // a node of a missing type yields nothing
            const std::vector<Leaf>* leaves = leavesOf(lnTypeIndex);
            if (leaves == nullptr) return -1;
            for (const Leaf& leaf : *leaves) {
                if (!fillRow(record, ld, ln, lnTypeIndex, leaf)) return -1;
                const int result = row(record, context);
                if (result != 0) return result;
            }
        }
    }
    return 0;
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

int hasDo(int i, const char* doName, const char* doType) {
    return hasKey(s_doKeys[i], lnTypeVector[i].doVector, entryKey({doName, doType}),
                  [](const DO& entry) {
                      return entryKey({entry.name, entry.type});
                  });
}

int hasDa(int i, const char* daName, const char* daType, const char* fc) {
    return hasKey(s_daKeys[i], doTypeVector[i].daVector, entryKey({daName, daType, fc}),
                  [](const DA& entry) {
                      return entryKey({entry.name, entry.type, entry.fc});
                  });
}

int initDaValue() {
    s_valueIndex.clear();
    s_valueIndex.reserve(gDaValueVector.size());
    for (std::size_t v = 0; v < gDaValueVector.size(); ++v) {
        const DaValue& value = gDaValueVector[v];
        s_valueIndex[valueKey(value.ied, value.daName.c_str())] = static_cast<int>(v);
    }
    return 0;
}

int read_daConfTypes() {
    g_daConfTypeVector.clear();
    std::unordered_set<std::string> classified;
    for (const DataSetSub& member : gdsSubVector) {
        const DA_CONF_TYPE type = classify(member);
        // One value row per reference: the first data set that names it wins.
        if (type == OTHER_TYPE || !classified.insert(valueKey(member.ied, member.fcdaName)).second)
            continue;
        DAConfType& entry = appendRecord(g_daConfTypeVector);
        copyText(entry.daName, member.fcdaName);
        entry.type = type;
        entry.ied = member.ied;
    }
    return 0;
}

int loadFile(const char* file, const char* iedName, bool writeStore, LoadSummary* summary) {
    mallocData();
    LoadSummary ignored;
    const int result = loadTables(file, iedName, writeStore, summary ? summary : &ignored);
    freeData();
    if (result == -2) std::fputs("cid 解析出错.\n", stderr);
    return result;
}

}  // namespace qvaddied

int zq_addIEDRealDB(char* cid_file) { return qvaddied::loadFile(cid_file, nullptr, true, nullptr); }

int zq_addIEDRealDBByName(const char* file, const char* iedName) {
    if (iedName == nullptr) {
        std::fputs("SCL error: no IED name given\n", stderr);
        std::fputs("cid 解析出错.\n", stderr);
        return -2;
    }
    return qvaddied::loadFile(file, iedName, true, nullptr);
}
