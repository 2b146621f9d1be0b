// qvtool: the pieces shared by the command families.
#ifndef QVTOOL_H
#define QVTOOL_H

#include <map>
#include <string>
#include <vector>

struct ProcessMsgAssociation;

namespace qvtool {

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
const std::vector<Command>& storeCommands();     // init, load, values, model
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

// The routes whose sender is the named process; false for an unknown name.
bool fetchRoutes(const std::string& sender, std::vector<ProcessMsgAssociation>* routes);

// One line on standard error, prefixed with "qvtool: ".
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
int usageError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The executable's file name, as the library names this process.
std::string toolFileName();

// Number parsing for arguments: the whole text must be the number.
bool parseInt(const std::string& text, int* out);
bool parseDouble(const std::string& text, double* out);

// The shortest text that reads back as the same double.
std::string formatDouble(double value);

// A text from a store or a message made safe for one terminal line:
// control bytes and quotes come out as escapes.
std::string printable(const char* text, size_t size);

// Opens a store through the library, after checking that its file exists
// (the library would create an empty one). Prints why on failure.
bool openRealStore();
bool openConfStore();

// Columns padded to their widest cell; the last column is not padded.
class Table {
public:
    explicit Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    size_t size() const { return rows_.size() - 1; }
    void print() const;

private:
    std::vector<std::vector<std::string>> rows_;
};

// Prints a list or says on standard error that it is empty; the exit code.
int printList(const Table& table, const char* whatIsEmpty);

// Count-then-fetch into rows. The library's list operations take no
// capacity, so the array gets `room` spare records for rows that another
// process adds between the two calls. False when either call fails (the
// library has said why).
template <typename Record, typename CountFn, typename FetchFn>
bool fetchList(std::vector<Record>* rows, CountFn count, FetchFn fetch, int room) {
    int counted = 0;
    if (count(&counted) != 0) return false;
    rows->assign(static_cast<size_t>(counted) + static_cast<size_t>(room), Record{});
    int delivered = 0;
    if (fetch(rows->data(), &delivered) != 0) return false;
    rows->resize(static_cast<size_t>(delivered));
    return true;
}

}  // namespace qvtool

#endif  // QVTOOL_H
