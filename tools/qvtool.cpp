// qvtool: the gateway engineer's command-line tool. One binary, one
// subcommand per job, built on the library's exported operations only.
#include "qvtool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qvconf.h"
#include "qvrealapi.h"

namespace qvtool {

namespace {

std::vector<const std::vector<Command>*> families() {
    return {&storeCommands(), &confCommands(), &messageCommands(), &registryCommands()};
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
                 "\nRun \"qvtool COMMAND --help\" for the details of one command.\n"
                 "Exit codes: 0 success, 1 the operation failed or found nothing,\n"
                 "2 the command line was wrong. Results go to standard output, errors\n"
                 "to standard error.\n\n"
                 "Stores: real-time %s, configuration %s.\n",
                 QV_REALTIME_DB_PATH, QV_CONF_DB_PATH);
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

// Splits the words after the command name into options and positional
// arguments. Returns kOk, kUsage, or -1 when help was asked for.
int parseArgs(const Command& command, int argc, char** argv, Args* args) {
    bool optionsEnded = false;
    for (int i = 0; i < argc; ++i) {
        std::string word = argv[i];
        if (optionsEnded || word.size() < 2 || word.compare(0, 2, "--") != 0) {
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
        if (contains(command.flags, word) && !inlineValue) {
            args->options[word] = "";
        } else if (contains(command.valueOptions, word)) {
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

std::string printable(const char* text, size_t size) {
    std::string out;
    for (size_t i = 0; i < size && text[i] != '\0'; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02X", c);
            out += escape;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

bool openRealStore() {
    if (!storeFileExists(QV_REALTIME_DB_PATH, "real-time")) return false;
    if (zq_openRealDB() == 0) return true;
    complain("cannot open the real-time store %s", QV_REALTIME_DB_PATH);
    return false;
}

bool openConfStore() {
    if (!storeFileExists(QV_CONF_DB_PATH, "configuration")) return false;
    if (zq_openConfDB() == 0) return true;
    complain("cannot open the configuration store %s", QV_CONF_DB_PATH);
    return false;
}

void Table::print() const {
    std::vector<size_t> widths(rows_[0].size(), 0);
    for (const auto& row : rows_) {
        for (size_t c = 0; c < row.size() && c < widths.size(); ++c) {
            widths[c] = std::max(widths[c], row[c].size());
        }
    }
    for (const auto& row : rows_) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            line += row[c];
            if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);  // empty last cells leave no blanks
        std::puts(line.c_str());
    }
}

int printList(const Table& table, const char* whatIsEmpty) {
    if (table.size() == 0) {
        complain("no %s", whatIsEmpty);
        return kFailed;
    }
    table.print();
    return kOk;
}

}  // namespace qvtool

int main(int argc, char** argv) {
    using namespace qvtool;
    if (isSendChild(argc)) return runSendChild();
    if (argc < 2) return usageError("no command given (see qvtool --help)");
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        printToolHelp(stdout);
        return kOk;
    }
    const Command* command = findCommand(name);
    if (command == nullptr) {
        return usageError("unknown command \"%s\" (see qvtool --help)", name.c_str());
    }
    Args args;
    const int parsed = parseArgs(*command, argc - 2, argv + 2, &args);
    if (parsed < 0) {
        printCommandHelp(*command);
        return kOk;
    }
    if (parsed != kOk) return parsed;
    return command->run(args);
}
