// The fixed message texts that the stores, the loader and the messaging unit
// print: the
// library's long-standing texts, kept byte for byte (odd blanks and colons
// included), each written once here.
#ifndef QV_INTERNAL_QVTEXTS_H
#define QV_INTERNAL_QVTEXTS_H

namespace qvtext {

// ---- Both stores (fprintf to stderr; %s is SQLite's message) ------------------

// A failed prepare of a read; writers of the registry tables and the settings
// writer print the second form, with a colon and no blank.
inline constexpr char kPrepareFailed[] = "sqlite3_prepare_v2 err %s\n";
inline constexpr char kWriterPrepareFailed[] = "sqlite3_prepare_v2 err:%s\n";
inline constexpr char kStepFailed[] = "sqlite3_step err %s\n";
inline constexpr char kOpenFailed[] = "Can't open database: %s\n";
// On stdout (puts adds the newline) before each pause of an announced busy wait.
inline constexpr char kStepBusy[] = "sqlite3_step SQLITE_BUSY";

// ---- Value lists of the real-time store ----------------------------------------

// The member query of a data-set value operation failed.
inline constexpr char kDataSetMembersFailed[] = "err initDaValueDataSetInfo\n";
// A save list's begin (code, message) and commit failures; the commit of the
// list with qualities carries the message alone.
inline constexpr char kSaveListBeginFailed[] = "zq_saveDAValues sqlite3_exec err:%d,%s\n";
inline constexpr char kSaveList1BeginFailed[] = "zq_saveDAValues1 sqlite3_exec err:%d,%s\n";
inline constexpr char kSaveListCommitFailed[] = "zq_saveDAValues sqlite3_exec commit err:%d,%s\n";
inline constexpr char kSaveList1CommitFailed[] = "zq_saveDAValues1 sqlite3_exec commit err:%s\n";

// ---- The model loader (stderr) ------------------------------------------------

inline constexpr char kExecFailed[] = "sqlite3_exec err %s\n";
inline constexpr char kLoaderOpenFailed[] = "Cannot open db: %s\n";
inline constexpr char kXmlParseFailed[] = "Failed to parse xml file:%s\n";
inline constexpr char kRootEmpty[] = "Root is empty.\n";
inline constexpr char kRootNotScl[] = "The root is not SCL.\n";
// Follows every load that fails on its file.
inline constexpr char kModelUnusable[] = "cid 解析出错.\n";

// ---- Messaging (perror, which adds ": " and the system's text) ------------------

inline constexpr char kReadlinkFailed[] = "readlink  err\n";
inline constexpr char kNoDirectoryInPath[] = "in function get_executable_path strrchr err\n";
inline constexpr char kCmdlineReadFailed[] = "in function get_executable_path read err\n";
inline constexpr char kRouteTableAllocFailed[] = "malloc err\n";
inline constexpr char kQueueOpenFailed[] = "msgget failed\n";
// The blocking subscriber's form, with fprintf and the number of errno.
inline constexpr char kQueueOpenFailedWithCode[] = "msgget failed with error: %d\n";
inline constexpr char kThreadStartFailed[] = "Create pthread error!\n";
inline constexpr char kReceiveFailed[] = "msgrcv err\n";

}  // namespace qvtext

#endif  // QV_INTERNAL_QVTEXTS_H
