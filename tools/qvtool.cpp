// qvtool: the gateway engineer's command-line tool. One binary, one
// subcommand per job, built on the library's exported operations, with three
// exceptions where the library has no operation for the job:
// - init creates the stores from the schema files on a SQLite connection of
//   its own (the library creates no table);
// - process and route write the configuration store with their own SQL
//   (provisioning's writes: the library only reads processes and routes);
// - load goes through the loader's internal entry point (qvaddied::loadFile),
//   which also reports what the file holds, and with --check reads and
//   expands the model without opening the store; the tool links the
//   library's static build for it.
#include "qvtool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "qvconf.h"
#include "qvrealapi.h"
#include "qvversion.h"

namespace qvtool {

namespace {

std::vector<const std::vector<Command>*> families() {
    return {&storeCommands(), &valueCommands(), &queryCommands(), &monitorCommands(),
            &statusCommands(), &confCommands(), &messageCommands(), &registryCommands()};
}

const Command* findCommand(const std::string& name) {
    for (const std::vector<Command>* family : families()) {
        for (const Command& command : *family) {
            if (name == command.name) return &command;
        }
    }
    return nullptr;
}

void vcomplain(const char* format, va_list arguments) {
    std::fputs("qvtool: ", stderr);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
}

// Says on standard error when the command has waited a second for a store
// and ends the tool when it has waited longer than --timeout. It runs in a
// thread of its own: a signal would cut the library's wait for its lock short.
class StoreWatch {
public:
    // Never destroyed: its thread may still wait when the tool exits.
    static StoreWatch& instance() {
        static StoreWatch* const watch = new StoreWatch;
        return *watch;
    }

    void setTimeout(double seconds) {
        std::lock_guard<std::mutex> lock(mutex_);
        timeout_ = std::chrono::duration<double>(seconds);
    }

    void watch(const char* store) {
        std::lock_guard<std::mutex> lock(mutex_);
        store_ = store;
        since_ = Clock::now();
        announced_ = false;
        ++generation_;
        if (store != nullptr && !started_) {
            started_ = true;
            std::thread([this] { run(); }).detach();
        }
        changed_.notify_one();
    }

private:
    using Clock = std::chrono::steady_clock;

    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            const unsigned generation = generation_;
            if (store_ == nullptr) {
                changed_.wait(lock, [&] { return generation_ != generation; });
                continue;
            }
            const Clock::time_point notice = since_ + std::chrono::seconds(1);
            const Clock::time_point giveUp =
                since_ + std::chrono::duration_cast<Clock::duration>(timeout_);
            const bool timed = timeout_.count() > 0;
            Clock::time_point next = announced_ ? giveUp : notice;
            if (timed && giveUp < next) next = giveUp;
            if (announced_ && !timed) {
                changed_.wait(lock, [&] { return generation_ != generation; });
                continue;
            }
            if (changed_.wait_until(lock, next, [&] { return generation_ != generation; }))
                continue;
            if (timed && Clock::now() >= giveUp) {
                std::fprintf(stderr, "qvtool: gave up waiting for the %s after %g s\n", store_,
                             timeout_.count());
                std::_Exit(kFailed);
            }
            std::fprintf(stderr, "qvtool: waiting for the %s ...\n", store_);
            announced_ = true;
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    const char* store_ = nullptr;
    Clock::time_point since_;
    std::chrono::duration<double> timeout_{0};
    bool announced_ = false;
    bool started_ = false;
    unsigned generation_ = 0;
};

// A field as text; a list of names (quality bits) is comma-separated.
std::string cellText(const Json& cell, const char* null = "-") {
    if (cell.is_string()) return cell.get<std::string>();
    if (cell.is_number_float()) return formatDouble(cell.get<double>());
    if (cell.is_array() && std::all_of(cell.begin(), cell.end(),
                                       [](const Json& e) { return e.is_string(); })) {
        std::string text;
        for (const Json& name : cell) text += (text.empty() ? "" : ",") + name.get<std::string>();
        return text;
    }
    return cell.is_null() ? null : jsonText(cell);
}

// RFC 4180: a field holding a comma, a quote, CR or LF is quoted, with its
// quotes doubled; records end in CRLF.
std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

void printCsvLine(const std::vector<std::string>& cells) { std::fputs(csvLine(cells).c_str(), stdout); }

// --csv: a header of the record field names, then one line per row.
// --raw: the cells alone, tab-separated, one row per line.
void printRowsAs(bool csv, const std::vector<Column>& columns, const Json& rows) {
    std::vector<std::string> cells;
    for (const Column& column : columns) cells.push_back(column.field);
    if (csv) printCsvLine(cells);
    for (const Json& row : rows) {
        cells.clear();
        for (const Column& column : columns) cells.push_back(cellText(row[column.field], ""));
        if (csv) {
            printCsvLine(cells);
            continue;
        }
        std::string line;
        for (const std::string& cell : cells) line += (line.empty() ? "" : "\t") + cell;
        std::puts(line.c_str());
    }
}

// Columns padded to their widest cell; the last column is not padded.
void printTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths(rows[0].size(), 0);
    for (const auto& row : rows) {
        for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            line += row[c];
            if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);  // empty last cells leave no blanks
        std::puts(line.c_str());
    }
}

void printToolHelp(FILE* out) {
    std::fputs(
        "usage: qvtool COMMAND [ARGUMENTS]\n\n"
        "Inspects and drives the gateway's real-time store, configuration store and\n"
        "message bus through the qv library.\n\nCommands:\n",
        out);
    const int width = 34;
    for (const std::vector<Command>* family : families()) {
        for (const Command& command : *family) {
            // A long synopsis gets a line of its own.
            if (std::strlen(command.synopsis) > static_cast<size_t>(width))
                std::fprintf(out, "  %s\n  %-*s", command.synopsis, width, "");
            else
                std::fprintf(out, "  %-*s", width, command.synopsis);
            std::fprintf(out, " %s\n", command.summary);
        }
    }
    std::fprintf(out,
                 "\nRun \"qvtool help COMMAND\" (or \"qvtool COMMAND --help\") for the details\n"
                 "of one command. Every command also takes:\n"
                 "  --timeout SECONDS  give up (exit code 1) when a store stays busy that long;\n"
                 "                     after a second of waiting the tool says so on standard\n"
                 "                     error\n"
                 "  --help             the command's help\n\n"
                 "Listing and lookup commands take --json: one JSON document with the fields of\n"
                 "the library's records; --csv: RFC 4180 CSV, a header of the same field names\n"
                 "then one line per row; --raw: the values alone, tab-separated, one row per\n"
                 "line, no header. An empty listing is a header alone (or []) and exit code 0;\n"
                 "a lookup that finds nothing is exit code 1.\n\n"
                 "Exit codes: 0 success, 1 the operation failed, found nothing or its output\n"
                 "could not be written, 2 the command line was wrong. Results go to standard\n"
                 "output, errors to standard error.\n\n"
                 "Stores: real-time %s, configuration %s.\n",
                 QV_REALTIME_DB_PATH, QV_CONF_DB_PATH);
}

void printVersion() {
    std::printf("qvtool (quorvane) %s\n", QV_VERSION);
}

void printCommandHelp(const Command& command) {
    std::string summary = command.summary;
    summary[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(summary[0])));
    std::printf("usage: qvtool %s\n\n%s.\n", command.synopsis, summary.c_str());
    if (command.details[0] != '\0') std::printf("\n%s", command.details);
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Every command that prints JSON also prints CSV and bare values.
bool isFlag(const Command& command, const std::string& word) {
    if (contains(command.flags, word)) return true;
    return (word == "--csv" || word == "--raw") && contains(command.flags, "--json");
}

// A short option ("-r") is one that the command declares; any other word
// with one dash stays an argument (a negative number, say).
bool isOptionWord(const Command& command, const std::string& word) {
    if (word.size() >= 2 && word.compare(0, 2, "--") == 0) return true;
    return word.size() == 2 && word[0] == '-' &&
           (contains(command.valueOptions, word) || contains(command.flags, word));
}

// Splits the words after the command name into options and positional
// arguments. Returns kOk, kUsage, or -1 when help was asked for.
int parseArgs(const Command& command, int argc, char** argv, Args* args) {
    bool optionsEnded = false;
    for (int i = 0; i < argc; ++i) {
        std::string word = argv[i];
        if (optionsEnded || !isOptionWord(command, word)) {
            if (!optionsEnded && word == "-h") return -1;
            args->positional.push_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        if (word == "--help") return -1;
        std::string value;
        const size_t equals = word.find('=');
        const bool inlineValue = equals != std::string::npos;
        if (inlineValue) {
            value = word.substr(equals + 1);
            word.erase(equals);
        }
        if (isFlag(command, word) && !inlineValue) {
            args->options[word] = "";
        } else if (contains(command.valueOptions, word) || word == "--timeout") {
            if (!inlineValue) {
                if (i + 1 >= argc) return usageError("%s: option %s needs a value", command.name,
                                                     word.c_str());
                value = argv[++i];
            }
            args->options[word] = value;
        } else {
            return usageError("%s: unknown option %s (see qvtool %s --help)", command.name,
                              word.c_str(), command.name);
        }
    }
    if (args->has("--timeout")) {
        double timeout = 0;
        if (!parseDouble(args->options["--timeout"], &timeout) || timeout <= 0)
            return usageError("%s: --timeout needs a number of seconds above 0", command.name);
        StoreWatch::instance().setTimeout(timeout);
    }
    if (args->has("--json") + args->has("--csv") + args->has("--raw") > 1)
        return usageError("%s: --json, --csv and --raw exclude each other", command.name);
    const int count = static_cast<int>(args->positional.size());
    if (count < command.minArgs || (command.maxArgs >= 0 && count > command.maxArgs)) {
        return usageError("%s: wrong number of arguments; usage: qvtool %s", command.name,
                          command.synopsis);
    }
    return kOk;
}

bool storeFileExists(const char* path, const char* what) {
    struct stat info;
    if (stat(path, &info) == 0) return true;
    complain("the %s store %s does not exist (create it with qvtool init)", what, path);
    return false;
}

}  // namespace

const char* Args::value(const std::string& option) const {
    auto found = options.find(option);
    return found == options.end() ? nullptr : found->second.c_str();
}

void complain(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vcomplain(format, arguments);
    va_end(arguments);
}

int usageError(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vcomplain(format, arguments);
    va_end(arguments);
    return kUsage;
}

std::string toolFileName() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return "qvtool";
    path[n] = '\0';
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

bool parseInt(const std::string& text, int* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || number < INT_MIN || number > INT_MAX) return false;
    *out = static_cast<int>(number);
    return true;
}

bool parseDouble(const std::string& text, double* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double number = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(number)) return false;
    *out = number;
    return true;
}

std::string formatDouble(double value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

std::string jsonText(const Json& value, int indent) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

bool openRealStore() {
    if (!storeFileExists(QV_REALTIME_DB_PATH, "real-time")) return false;
    waitingForStore("real-time store");
    if (zq_openRealDB() == 0) return true;
    complain("cannot open the real-time store %s", QV_REALTIME_DB_PATH);
    return false;
}

bool openConfStore() {
    if (!storeFileExists(QV_CONF_DB_PATH, "configuration")) return false;
    waitingForStore("configuration store");
    if (zq_openConfDB() == 0) return true;
    complain("cannot open the configuration store %s", QV_CONF_DB_PATH);
    return false;
}

void waitingForStore(const char* store) { StoreWatch::instance().watch(store); }

std::string csvLine(const std::vector<std::string>& cells) {
    std::string line;
    for (const std::string& cell : cells) line += (line.empty() ? "" : ",") + csvField(cell);
    return line + "\r\n";
}

int printRows(const Args& args, const std::vector<Column>& columns, const Json& rows) {
    waitingForStore(nullptr);
    if (args.has("--json")) {
        std::puts(jsonText(rows, 2).c_str());
        return kOk;
    }
    if (args.has("--csv") || args.has("--raw")) {
        printRowsAs(args.has("--csv"), columns, rows);
        return kOk;
    }
    std::vector<std::vector<std::string>> table(1);
    for (const Column& column : columns) table[0].push_back(column.header);
    for (const Json& row : rows) {
        table.emplace_back();
        for (const Column& column : columns) table.back().push_back(cellText(row[column.field]));
    }
    printTable(table);
    return kOk;
}

int printRecord(const Args& args, const Json& record, const std::string& plain) {
    waitingForStore(nullptr);
    if (args.has("--csv") || args.has("--raw")) {
        // The record as a one-row listing of its fields; --raw of a value
        // record is its value alone.
        std::vector<Column> columns;
        for (const auto& field : record.items()) {
            if (args.has("--raw") && record.contains("value") && field.key() != "value") continue;
            columns.push_back({field.key().c_str(), field.key().c_str()});
        }
        printRowsAs(args.has("--csv"), columns, Json::array({record}));
        return kOk;
    }
    std::puts(args.has("--json") ? jsonText(record, 2).c_str() : plain.c_str());
    return kOk;
}

}  // namespace qvtool

namespace {

// Help, version or one command; the exit code.
int runTool(int argc, char** argv) {
    using namespace qvtool;
    if (isSendChild(argc)) return runSendChild();
    if (argc < 2) return usageError("no command given (see qvtool --help)");
    const std::string name = argv[1];
    if (name == "--version") {
        printVersion();
        return kOk;
    }
    if (name == "--help" || name == "-h" || (name == "help" && argc == 2)) {
        printToolHelp(stdout);
        return kOk;
    }
    const bool helpOfCommand = name == "help";
    if (helpOfCommand && argc > 3) return usageError("help: usage: qvtool help [COMMAND]");
    const std::string commandName = helpOfCommand ? argv[2] : name;
    const Command* command = findCommand(commandName);
    if (command == nullptr) {
        return usageError("unknown command \"%s\" (see qvtool --help)", commandName.c_str());
    }
    Args args;
    const int parsed = helpOfCommand ? -1 : parseArgs(*command, argc - 2, argv + 2, &args);
    if (parsed < 0) {
        printCommandHelp(*command);
        return kOk;
    }
    if (parsed != kOk) return parsed;
    const int code = command->run(args);
    waitingForStore(nullptr);
    return code;
}

// Output that could not be written (a full disk, a closed pipe while
// SIGPIPE is ignored) is a failure, whatever the command did.
int checkOutput(int code) {
    errno = 0;
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return code;
    qvtool::complain("cannot write the output: %s",
                     std::strerror(errno != 0 ? errno : EIO));
    return code != qvtool::kOk ? code : qvtool::kFailed;
}

}  // namespace

int main(int argc, char** argv) { return checkOutput(runTool(argc, argv)); }
