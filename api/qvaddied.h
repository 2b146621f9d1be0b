/*
 * qvaddied: the model loader. Reads an SCL (ICD or CID) file and writes its
 * device model and initial value rows into the real-time store.
 *
 * zq_addIEDRealDB results: 0 loaded; -2 the file could not be read as a
 * model (not found, not XML, not SCL, a required attribute missing, a table
 * full, a cyclic type or a name too long); -1 the store could not be opened
 * or written. On -1 and -2 the store is left exactly as it was.
 */
#ifndef QVADDIED_H
#define QVADDIED_H

#include "qvexport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Value class of a value row, stored in DAValue.type. */
typedef enum DA_CONF_TYPE {
    OTHER_TYPE = 0,
    MO_NI_LIANG = 1,              /* analog measurement */
    DIAN_DIAN_SHU_ZI_LIANG = 2,   /* single-point status */
    SHUANG_DIAN_SHU_ZI_LIANG = 3, /* double-point status */
    SBO_YAO_KONG_LIANG = 4,       /* select-before-operate control */
    DIAN_DU_LEI_JIA_LIANG = 5,    /* metered energy */
    SHU_ZI_SHU_CHU_LIANG = 6      /* digital output */
} DA_CONF_TYPE;

QV_API int zq_addIEDRealDB(char* cid_file);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <cstddef>

struct sqlite3;

/*
 * The loader's stages and model tables. They are internal to the library
 * (not exported from the shared object) and declared here for the loader's
 * own tests. The tables live from mallocData to freeData within one load.
 */
namespace qvaddied {

// ---- Instance section ------------------------------------------------------

struct LN {
    char name[20];  // lnClass followed by inst
    char type[50];  // lnType: id of an LNodeType
};

constexpr int kLnCapacity = 128;

struct LD {
    char name[33];  // LDevice inst
    LN lnVector[kLnCapacity];
    int lnCount;
};

struct DataSet {
    char name[33];
    char ldInst[33];
    char desc[256];
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
    char prefix[8];  // never filled
    char unit[10];   // never filled
};

struct DaValue {
    char daName[256];  // LD/LN$DOI$SDI...$DAI, no functional constraint
    char daVal[128];
    char doDesc[128];
};

// ---- Data type templates ---------------------------------------------------

struct DO {
    char name[33];  // a data object name, or a '$'-joined path for a sub-data object
    char type[50];  // id of a DOType
};

constexpr int kDoCapacity = 500;

struct LNodeType {
    char id[50];
    DO doVector[kDoCapacity];
    int doCount;
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

constexpr int kDaCapacity = 200;
constexpr int kSdoCapacity = 200;

struct DOType {
    char id[50];
    DA daVector[kDaCapacity];
    int daCount;
    SDO sdoVector[kSdoCapacity];
    int sdoCount;
};

struct BDA {
    char name[128];
    char type[50];
    char bType[20];
};

constexpr int kBdaCapacity = 256;

struct DAType {
    char id[50];
    BDA bdaVector[kBdaCapacity];
    int bdaCount;
};

struct EnumVal {
    char ord[10];
    char value[128];
};

constexpr int kEnumValCapacity = 256;

struct EnumType {
    char id[50];
    EnumVal enumVector[kEnumValCapacity];
    int enumCount;
};

// ---- Flattened model -------------------------------------------------------

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
};

struct DAConfType {
    char daName[255];  // member reference without the IED name
    int type;          // a DA_CONF_TYPE
};

constexpr int kDaValueCapacity = 1000;
constexpr int kEnumTypeCapacity = 128;
constexpr int kDataSetCapacity = 50;
constexpr int kDataSetSubCapacity = 256;
constexpr int kLdCapacity = 128;
constexpr int kLnTypeCapacity = 128;
constexpr int kDoTypeCapacity = 128;
constexpr int kDaTypeCapacity = 64;
constexpr int kDaTableCapacity = 5000;
constexpr int kDaConfTypeCapacity = 500;

extern DaValue* gDaValueVector;
extern int gDaValCount;
extern EnumType* genumTypeVector;
extern int genmuTypeCount;
extern DataSet* gdsVector;
extern int gDSCount;
extern DataSetSub* gdsSubVector;
extern int gDSSubCount;
extern LD* ldVector;
extern int gLDCount;
extern LNodeType* lnTypeVector;
extern int glnTypeCount;
extern DOType* doTypeVector;
extern int gdoTypeCount;
extern DAType* daTypeVector;
extern int gdaTypeCount;
extern DATable* daTableVector;
extern int gdaTableCount;
extern DAConfType g_daConfTypeVector[kDaConfTypeCapacity];
extern int g_daConfTypeCount;
extern char g_IEDname[32];
extern sqlite3* g_sqliteDB;

// Stages, in the order of one load. Each returns 0, or -1 after one line on
// standard error naming the problem.
int mallocData();  // also sets every table count to 0
int freeData();
int readICD(const char* file_name);
int initDATable();
int initDaValue();
int read_daConfTypes();
int addRealTimeDB();  // also 1: the store could not be opened

// Pieces of the stages.
int addDAValList(const char* ldName, const char* lnName, const char* doName,
                 const char* doDesc, const char* daName, const char* val);
int addDAList(const char* ldName, const char* lnName, const char* doName, const char* daName,
              const char* fc, const char* bType, const char* type);
int hasDo(int i, const char* doName, const char* doType);
int hasDa(int i, const char* daName, const char* daType, const char* fc);
// Copies p_source into p_result (resultSize bytes, always terminated) with
// every p_seach replaced by p_repstr; returns the number of replacements.
int str_replace(char* p_result, std::size_t resultSize, const char* p_source,
                const char* p_seach, const char* p_repstr);

}  // namespace qvaddied
#endif /* __cplusplus */

#endif /* QVADDIED_H */
