#include "tools/tarnview/arguments.h"

#include <cstdio>
#include <cstdlib>

namespace tarnview {

std::optional<ParsedArguments> ParseArguments(const Args& args, const ArgumentSpec& spec) {
    ParsedArguments parsed;
    const size_t most = spec.required.size() + spec.optional.size();
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (spec.flags.count(a) != 0) {
            parsed.flags.insert(a);
        } else if (spec.valued.count(a) != 0) {
            if (i + 1 >= args.size()) {
                std::fprintf(stderr, "tarnview %s: %s needs a value\n", spec.command, a.c_str());
                return std::nullopt;
            }
            parsed.values[a] = args[++i];
        } else if (a.size() > 1 && a[0] == '-') {
            std::fprintf(stderr, "tarnview %s: unknown option '%s' (try --help)\n", spec.command, a.c_str());
            return std::nullopt;
        } else if (parsed.positional.size() < most || spec.repeat_last) {
            parsed.positional.push_back(a);
        } else {
            std::fprintf(stderr, "tarnview %s: unexpected argument '%s' (try --help)\n", spec.command,
                         a.c_str());
            return std::nullopt;
        }
    }
    if (parsed.positional.size() < spec.required.size()) {
        std::fprintf(stderr, "tarnview %s: %s is missing (try --help)\n", spec.command,
                     spec.required[parsed.positional.size()]);
        return std::nullopt;
    }
    return parsed;
}

std::optional<int32_t> MessageNumber(const ParsedArguments& parsed, const char* command, int32_t fallback) {
    const std::optional<std::string> text = parsed.Value("--message");
    if (!text) return fallback;
    char* end = nullptr;
    const long long value = std::strtoll(text->c_str(), &end, 10);
    if (end == text->c_str() || *end != '\0' || value < INT32_MIN || value > INT32_MAX) {
        std::fprintf(stderr, "tarnview %s: --message: '%s' is not a number\n", command, text->c_str());
        return std::nullopt;
    }
    return static_cast<int32_t>(value);
}

std::optional<unsigned> JobCount(const ParsedArguments& parsed, const char* command, unsigned fallback) {
    constexpr long kMaxJobs = 64;
    const std::optional<std::string> text = parsed.Value("--jobs");
    if (!text) return fallback;
    char* end = nullptr;
    const long value = std::strtol(text->c_str(), &end, 10);
    if (end == text->c_str() || *end != '\0' || value < 1 || value > kMaxJobs) {
        std::fprintf(stderr, "tarnview %s: --jobs: '%s' is not a number from 1 to %ld\n", command,
                     text->c_str(), kMaxJobs);
        return std::nullopt;
    }
    return static_cast<unsigned>(value);
}

std::optional<int32_t> BoundedNumber(const ParsedArguments& parsed, const char* command, const char* option,
                                     int32_t fallback, int32_t least, int32_t most) {
    const std::optional<std::string> text = parsed.Value(option);
    if (!text) return fallback;
    char* end = nullptr;
    const long long value = std::strtoll(text->c_str(), &end, 10);
    if (end == text->c_str() || *end != '\0' || value < least || value > most) {
        std::fprintf(stderr, "tarnview %s: %s: '%s' is not a number from %d to %d\n", command, option,
                     text->c_str(), least, most);
        return std::nullopt;
    }
    return static_cast<int32_t>(value);
}

}  // namespace tarnview
