// The model loader's tables and stages. Internal to the library: the shared
// object does not export them and this header is not installed; the tool,
// the tests, the benchmark and the fuzz target link a static build.
//
// The tables grow with the model. They live from mallocData to freeData
// within one load, one load at a time in a process.
#ifndef QV_INTERNAL_QVLOADER_H
#define QV_INTERNAL_QVLOADER_H

#include <cstddef>
#include <string>
#include <vector>

#include "qvaddied.h"

struct sqlite3;

namespace qvaddied {

// ---- Instance section ------------------------------------------------------

struct IED {
    char name[32];
};

struct LN {
    char name[20];  // lnClass followed by inst
    char type[50];  // lnType: id of an LNodeType
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
    char type[50];  // id of a DOType
};

struct LNodeType {
    char id[50];
    std::vector<DO> doVector;
};

struct DA {
    char name[256];  // an attribute name, or a '$'-joined path for a nested structure
    char bType[20];
    char type[50];  // id of a DAType ("Struct") or an EnumType ("Enum")
    char fc[5];
};

struct SDO {
    char name[50];
    char type[50];
};

struct DOType {
    char id[50];
    std::vector<DA> daVector;
    std::vector<SDO> sdoVector;
};

struct BDA {
    char name[128];
    char type[50];
    char bType[20];
};

struct DAType {
    char id[50];
    std::vector<BDA> bdaVector;
};

struct EnumVal {
    char ord[10];
    char value[128];
};

struct EnumType {
    char id[50];
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
    char type[50];
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

extern std::vector<IED> giedVector;
extern std::vector<DaValue> gDaValueVector;
extern std::vector<EnumType> genumTypeVector;
extern std::vector<DataSet> gdsVector;
extern std::vector<DataSetSub> gdsSubVector;
extern std::vector<LD> ldVector;
extern std::vector<LNodeType> lnTypeVector;
extern std::vector<DOType> doTypeVector;
extern std::vector<DAType> daTypeVector;
extern std::vector<DAConfType> g_daConfTypeVector;
extern char g_IEDname[32];
extern sqlite3* g_sqliteDB;

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
int loadFile(const char* file, const char* iedName, bool writeStore, LoadSummary* summary);

// Stages, in the order of one load. Each returns 0, or -1 after one line on
// standard error naming the problem.
int mallocData();  // empty tables
int freeData();
int readICD(const char* file_name, const char* iedName = nullptr);
int initDATable();  // resolves the types; checks for cycles
int initDaValue();  // indexes the instance values by reference
int read_daConfTypes();

// Calls `row` for every data attribute row in table order, with its instance
// value applied; stops at the first call that does not return 0.
int forEachAttribute(int (*row)(const DATable& record, void* context), void* context);

// Pieces of the stages.
int addDAValList(int ied, const char* ldName, const char* lnName, const char* doName,
                 const char* doDesc, const char* daName, const char* val);
int hasDo(int i, const char* doName, const char* doType);
int hasDa(int i, const char* daName, const char* daType, const char* fc);
// Copies p_source into p_result (resultSize bytes, always terminated) with
// every p_seach replaced by p_repstr; returns the number of replacements.
int str_replace(char* p_result, std::size_t resultSize, const char* p_source, const char* p_seach,
                const char* p_repstr);

}  // namespace qvaddied

#endif  // QV_INTERNAL_QVLOADER_H
