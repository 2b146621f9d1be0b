// The model loader's records, the model of one load that every stage reads
// and fills, and the stages themselves. Only the loader's own files include
// this header; the rest of the library sees qvaddied.h and qvloader.h.
//
// A load owns its Model from the file to the store and passes it down by
// reference: nothing of one load lives at file or process scope, so loads in
// several threads of one process never meet.
#ifndef QV_LOADER_MODEL_H
#define QV_LOADER_MODEL_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "internal/qvsqlite.h"
#include "internal/qvreport.h"

namespace qvaddied {

// One text copy for the whole library: cut at a UTF-8 character boundary.
using qvsql::copyText;
using qvsql::cutLength;

// ---- Instance section ------------------------------------------------------

struct IED {
    char name[32];
};

// Without prefixes an LN name has the 19 characters it always had.
constexpr std::size_t kClassInstNameSize = 20;

struct LN {
    char name[64];  // [prefix] lnClass inst
    std::string prefix;  // as written, to report names that merge without it
    std::string type;  // lnType: id of an LNodeType, whole
};

struct LD {
    char name[33];  // LDevice inst
    int ied;        // index in giedVector
    std::vector<LN> lnVector;
};

struct DataSet {
    char name[33];
    char ldInst[33];
    char desc[256];
    int ied;
};

struct DataSetSub {
    char fcdaName[256];  // member reference, dots turned into '$'
    char dsName[33];
    char ldInst[33];
    char lnClass[5];
    char lnInst[8];
    char doName[33];  // as written, dots kept
    char daName[33];  // as written, dots kept; empty for a whole data object
    char fc[3];
    int ied;
};

// One instance value; daName is LD/LN$DOI$SDI...$DAI, no functional constraint.
// Texts are held at their field widths (255, 127, 127 characters).
struct DaValue {
    std::string daName;
    std::string daVal;
    std::string doDesc;
    int ied;
};

// ---- Data type templates ---------------------------------------------------

struct DO {
    char name[33];  // a data object name, or a '$'-joined path for a sub-data object
    std::string type;  // id of a DOType, whole
};

// Type ids and references to them are kept whole: ids that differ only
// beyond any field width still name different types.
struct LNodeType {
    std::string id;
    std::vector<DO> doVector;
};

struct DA {
    char name[256];  // an attribute name, or a '$'-joined path for a nested structure
    char bType[20];
    std::string type;  // id of a DAType ("Struct") or an EnumType ("Enum")
    char fc[5];
};

struct SDO {
    char name[50];
    std::string type;
};

struct DOType {
    std::string id;
    std::vector<DA> daVector;
    std::vector<SDO> sdoVector;
};

struct BDA {
    char name[128];
    std::string type;
    char bType[20];
};

struct DAType {
    std::string id;
    std::vector<BDA> bdaVector;
};

struct EnumVal {
    char ord[10];
    char value[128];
};

struct EnumType {
    std::string id;
    std::vector<EnumVal> enumVector;
};

// ---- Flattened model -------------------------------------------------------

// One data attribute row, built in turn for each attribute while it is
// written (the rows are never all held at once).
struct DATable {
    char daName[256];  // LD/LN$FC$DO path$attribute path
    char ldName[33];
    char lnName[33];
    char doName[33];  // data object path
    char fcName[3];
    char value[128];  // instance value, enumerations as their ord
    char valueType[15];
    std::string type;  // the attribute's type id, whole (not stored)
    char doDesc[128];
    char daName_nofc[256];  // LD/LN$DO path$attribute path
    int ied;
};

struct DAConfType {
    char daName[255];  // member reference without the IED name
    int type;          // a DA_CONF_TYPE
    int ied;
};

// Limits that refuse a model: beyond them a small file of nested types
// could keep a load going for minutes and take gigabytes.
constexpr long kMaxAttributes = 1000000;    // leaves of the types in use
constexpr long kMaxNestedEntries = 100000;  // sub-data objects and structures, as expanded
// Data attributes a whole model may expand to: this many for any file, and
// one per kFileBytesPerAttribute bytes of a larger file, so that a file of up
// to a megabyte loads or is refused in about a second while a large file
// still loads the large model it describes.
constexpr long kMinAttributeAllowance = 250000;
constexpr long kFileBytesPerAttribute = 4;

// Longest texts of the paths built while reading and expanding: the data
// object path of an instance value, an attribute path.
constexpr std::size_t kPathSize = 128;

// ---- What the expansion keeps between its passes ---------------------------

// The first type of a table with each id.
using TypeIndex = std::unordered_map<std::string, int>;

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

// Membership keys of the entries of a DO or DA list, kept up to date with
// the list, so that hasDo and hasDa do not scan it.
struct KeySet {
    std::unordered_set<std::string> keys;
    std::size_t indexed = 0;
};

struct Expansion {
    TypeIndex lnTypes, doTypes, daTypes, enumTypes;
    // Leaves of each logical node type, built the first time a node of that
    // type is met (the type tables gain the nested entries then).
    std::vector<std::vector<Leaf>> leaves;
    std::vector<bool> leavesBuilt;
    long leafCount = 0;
    long appendedEntries = 0;  // to the type tables, for nested objects and structures
    std::vector<KeySet> doKeys, daKeys;
    // The last instance value of each reference, until the first attribute
    // row with that reference takes it.
    std::unordered_map<std::string, int> valueIndex;
};

// ---- The model of one load --------------------------------------------------

// One rule of the value classes: data sets whose name matches `pattern`
// get value rows of `valueClass` (a DA_CONF_TYPE) or by functional constraint.
struct ValueRule {
    enum Kind { kClass, kNone, kByFc };
    std::string pattern;
    Kind kind;
    int valueClass;  // for kClass
};

struct Model {
    Model(const char* fileName, const char* onlyIed) : file(fileName), iedFilter(onlyIed) {}
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    const char* file;       // the SCL file, also named in messages
    const char* iedFilter;  // read only the IED of this name; null: every IED
    bool lnPrefix = false;  // logical nodes named prefix+lnClass+inst
    std::vector<ValueRule> valueRules;  // tried before the five agreed names
    std::vector<std::string> fileIeds;  // every IED name of the file, read or not
    long mergedNodes = 0, mergedNames = 0;  // logical nodes that share names, how many names
    // Each kind of name cut to a field, by its cut text: the text as written.
    std::unordered_map<std::string, std::string> cutNames;
    long attributeAllowance = kMinAttributeAllowance;  // set from the file's size

    std::vector<IED> giedVector;
    std::vector<LD> ldVector;
    std::vector<DataSet> gdsVector;
    std::vector<DataSetSub> gdsSubVector;
    std::vector<DaValue> gDaValueVector;

    std::vector<LNodeType> lnTypeVector;
    std::vector<DOType> doTypeVector;
    std::vector<DAType> daTypeVector;
    std::vector<EnumType> genumTypeVector;

    Expansion expansion;
    std::vector<DAConfType> g_daConfTypeVector;

    sqlite3* g_sqliteDB = nullptr;  // open only while addRealTimeDB writes
};

// ---- Stages, in the order of one load --------------------------------------
// Each returns 0, or -1 after one line on standard error naming the problem.

int readICD(Model& model);           // the file: instance section and type templates
int initDATable(Model& model);       // resolves the types; checks for cycles
int initDaValue(Model& model);       // indexes the instance values by reference
int read_daConfTypes(Model& model);  // classifies the members of the five data sets

// Reads comma-separated PATTERN=CLASS rules into `rules`; false after a
// message naming the first rule that does not parse.
bool parseValueRules(const char* text, std::vector<ValueRule>* rules);

// Calls `row` for every data attribute row in table order, with its instance
// value applied; stops at the first call that does not return 0 and returns
// that, or -1 after a message when a row cannot be formed.
int forEachAttribute(Model& model, const std::function<int(const DATable& record)>& row);

// Writes the model into the real-time store in one transaction and counts
// the attribute rows. 0; -1 the store could not be opened or written; -2 a
// row of the model could not be formed. The store is unchanged unless 0.
int addRealTimeDB(Model& model, long* attributes);

// ---- Helpers of every stage --------------------------------------------------

// A caller's text (a path, a name) as messages echo it: cut, marked so.
inline std::string shownText(const char* text) {
    constexpr std::size_t kShown = 200;
    const std::size_t length = std::strlen(text);
    const std::size_t kept = cutLength(text, length, kShown);
    return kept == length ? std::string(text) : std::string(text, kept) + "...";
}

// False after a message when `text`, cut to `width` as its field will hold
// it, becomes a name of its kind that another text of this load has: the
// two would be one name in the store.
inline bool distinctWhenCut(Model& model, const char* kind, const char* text, std::size_t width) {
    const std::size_t length = std::strlen(text);
    const std::string key = std::string(kind) + '\x1f' + std::string(text, cutLength(text, length, width));
    const auto at = model.cutNames.emplace(key, text);
    if (at.first->second == text) return true;
    qvreport::failure(QV_ERR_MODEL, "SCL error: %s \"%s\" and \"%s\" are one name in a field of %zu\n",
                      kind, shownText(at.first->second.c_str()).c_str(), shownText(text).c_str(), width);
    return false;
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
__attribute__((format(printf, 4, 5))) inline bool formatName(char* field, std::size_t size,
                                                             const char* what,
                                                             const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(field, size, format, args);
    va_end(args);
    if (length >= 0 && static_cast<std::size_t>(length) < size) return true;
    qvreport::failure(QV_ERR_MODEL, "SCL error: %s longer than %zu characters: %s...\n", what,
                      size - 1, field);
    return false;
}

// A reference within its IED as a key: the same text in two IEDs differs.
inline std::string referenceKey(int ied, const char* reference) {
    return std::to_string(ied) + '\x1f' + reference;
}

}  // namespace qvaddied

#endif  // QV_LOADER_MODEL_H
