// The one argument parser of tarnview's subcommands: flags, options that take a value, and a bounded
// number of positional arguments, with the same one-line usage errors for every command.
#ifndef TARN_TOOLS_TARNVIEW_ARGUMENTS_H_
#define TARN_TOOLS_TARNVIEW_ARGUMENTS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/tarnview/commands.h"

namespace tarnview {

struct ArgumentSpec {
    const char* command;                // "info", for messages
    std::set<std::string> flags;        // "--json", ...
    std::set<std::string> valued;       // "--message", "-o", ...: each takes the next argument
    std::vector<const char*> required;  // names of the positional arguments that must be there
    std::vector<const char*> optional;  // names of those that may follow them
    bool repeat_last = false;           // the last positional argument may be given any number of times
};

struct ParsedArguments {
    std::vector<std::string> positional;
    std::set<std::string> flags;
    std::map<std::string, std::string> values;

    bool Has(const std::string& flag) const { return flags.count(flag) != 0; }
    std::optional<std::string> Value(const std::string& option) const {
        auto it = values.find(option);
        if (it == values.end()) return std::nullopt;
        return it->second;
    }
};

// The parsed arguments, or nothing after printing the reason on stderr.
std::optional<ParsedArguments> ParseArguments(const Args& args, const ArgumentSpec& spec);

// The value of a message-number option (default `fallback`), or nothing after printing the reason.
std::optional<int32_t> MessageNumber(const ParsedArguments& parsed, const char* command,
                                     int32_t fallback = 1);

// The value of --jobs, the number of threads that work, the calling thread included (1 to 64; `fallback`
// when absent), or nothing after printing the reason.
std::optional<unsigned> JobCount(const ParsedArguments& parsed, const char* command, unsigned fallback);

// The value of a numeric option from `least` to `most` (`fallback` when absent), or nothing after
// printing the reason.
std::optional<int32_t> BoundedNumber(const ParsedArguments& parsed, const char* command, const char* option,
                                     int32_t fallback, int32_t least, int32_t most);

}  // namespace tarnview

#endif  // TARN_TOOLS_TARNVIEW_ARGUMENTS_H_
