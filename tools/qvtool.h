// qvtool: the pieces shared by the command families.
#ifndef QVTOOL_H
#define QVTOOL_H

#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <vector>

struct ProcessMsgAssociation;

namespace qvtool {

// JSON documents keep the fields in the order of the records.
using Json = nlohmann::ordered_json;

// Exit codes that scripts rely on.
constexpr int kOk = 0;
constexpr int kFailed = 1;  // the operation failed or found nothing
constexpr int kUsage = 2;   // the command line was wrong

// A command line after the command name, checked against the command's options.
struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::string> options;  // "--ied" -> "QVFTU1"; flags map to ""

    bool has(const std::string& option) const { return options.count(option) != 0; }
    // The option's value, or null when it was not given (a filter left out).
    const char* value(const std::string& option) const;
};

struct Command {
    const char* name;
    const char* synopsis;  // "get REF"
    const char* summary;   // one line for the command list
    const char* details;   // the rest of "qvtool CMD --help"; may be ""
    std::vector<std::string> valueOptions;  // options followed by a value
    std::vector<std::string> flags;         // options without a value
    int minArgs;
    int maxArgs;
    int (*run)(const Args& args);
};

// The command families, in the order of the help text.
const std::vector<Command>& storeCommands();     // init, load
const std::vector<Command>& valueCommands();     // get, set, tree, dump
const std::vector<Command>& queryCommands();     // the model's listings, find
const std::vector<Command>& monitorCommands();   // monitor
const std::vector<Command>& statusCommands();    // status
const std::vector<Command>& confCommands();      // processes, routes, settings
const std::vector<Command>& messageCommands();   // send, watch
const std::vector<Command>& registryCommands();  // terminals, access list, topology

// The hidden second half of "send": set when the tool was re-executed to
// send one record as the process named after its own file.
bool isSendChild(int argc);
int runSendChild();

// ---- Helpers of the families ------------------------------------------------

// The names of the message kinds whose bits are set in a route's mask.
std::string kindNames(int mask);

// The mask of the named kinds ("all" for every kind); false, after saying
// which, for a name that is no kind.
bool kindMask(const std::vector<std::string>& names, int* mask);

// The routes whose sender is the named process; false for an unknown name.
bool fetchRoutes(const std::string& sender, std::vector<ProcessMsgAssociation>* routes);

// One line on standard error, prefixed with "qvtool: ".
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

// ---- Access to what init makes (qvtool_access.cpp) ---------------------------

// False, after a line, when the store at `path` (or a journal beside it) is a
// symbolic link or belongs to another user.
bool storePathAllowed(const std::string& path);
// Creates an absent store file, empty, with the mode QV_IPC_MODE whatever the
// umask; an existing one is left alone. False after a line.
bool createStoreFile(const std::string& path);
// The mode of a directory that init makes: QV_IPC_MODE, searchable where readable.
unsigned directoryMode();
int usageError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The executable's file name, as the library names this process.
std::string toolFileName();

// Number parsing for arguments: the whole text must be the number.
bool parseInt(const std::string& text, int* out);
bool parseDouble(const std::string& text, double* out);

// The shortest text that reads back as the same double.
std::string formatDouble(double value);

// JSON as text; bytes that are not UTF-8 are replaced instead of refused.
std::string jsonText(const Json& value, int indent = -1);

// Opens a store through the library, after checking that its file exists
// (the library would create an empty one). Prints why on failure. While a
// command waits for the store, a watch prints a line after a second and
// gives up after --timeout (see waitingForStore).
bool openRealStore();
bool openConfStore();

// The store that the command may now be waiting for (null: none). The tool
// says so on standard error after a second and, with --timeout SECONDS, gives
// up with exit code 1. The printing functions below end the wait.
void waitingForStore(const char* store);

// One column of a table: its header and the JSON field that fills it.
struct Column {
    const char* header;
    const char* field;
};

// Prints rows (JSON objects) as a table of the given columns, or with
// --json as one JSON array of the whole objects. An empty list is a header
// alone or []. Returns kOk.
int printRows(const Args& args, const std::vector<Column>& columns, const Json& rows);

// One CSV record (RFC 4180 quoting), CRLF included.
std::string csvLine(const std::vector<std::string>& cells);

// Prints the one record that a lookup found: `plain` as it stands, or with
// --json the record as one JSON object. Returns kOk.
int printRecord(const Args& args, const Json& record, const std::string& plain);

// Spare records in a list's array for rows that another process adds
// between the count and the fetch.
constexpr int kListRoom = 64;

// Count-then-fetch into rows: count(filters..., &n), then the bounded
// fetch(filters..., array, capacity, &delivered). When more rows came than
// the array holds, it fetches again into a larger one. False when a call
// fails (the library has said why).
template <typename Record, typename CountFn, typename FetchFn, typename... Filters>
bool fetchList(std::vector<Record>* rows, CountFn count, FetchFn fetch, Filters... filters) {
    int wanted = 0;
    if (count(filters..., &wanted) != 0) return false;
    for (;;) {
        rows->assign(static_cast<size_t>(wanted) + kListRoom, Record{});
        int delivered = 0;
        const int fitted =
            fetch(filters..., rows->data(), static_cast<int>(rows->size()), &delivered);
        if (fitted < 0) return false;
        rows->resize(static_cast<size_t>(delivered));
        if (fitted == 0) return true;
        wanted = 2 * delivered;
    }
}

// ---- Configuration listings and the bus monitor ----------------------------

// The listings of point mappings and scales (qvtool_conf_lists.cpp), shown
// with the configuration commands.
const std::vector<Command>& confListingCommands();

// "setting list [PROCESS]": every setting, or those of one process.
int listSettings(const Args& args);

// After a configuration lookup that failed: true when it found no row;
// otherwise says that the store could not be read.
bool missingRow();

// The number of the named process; false after saying that there is none or
// that the store could not be read.
bool knownProcess(const std::string& name, int* number);

// The configured processes' names by number; false when the open
// configuration store cannot be read (the library has said why).
bool processNames(std::map<int, std::string>* names);

}  // namespace qvtool

#endif  // QVTOOL_H
