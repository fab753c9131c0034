#include "tools/tarnview/language.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "kernel/tarnkrn_control.h"

namespace tarnview {

namespace {

// The --lang option's LANGID; nothing when it is not given, false after printing the reason.
bool ParseLanguage(const ParsedArguments& parsed, const char* command, std::optional<uint16_t>* language) {
    const std::optional<std::string> text = parsed.Value("--lang");
    if (!text) return true;
    const char* digits = text->c_str();
    if (text->rfind("0x", 0) == 0 || text->rfind("0X", 0) == 0) digits += 2;
    char* end = nullptr;
    const unsigned long value = std::strtoul(digits, &end, 16);
    // strtoul would take a sign or leading spaces; a LANGID is hex digits only.
    const bool hex_only = *digits != '\0' && std::isxdigit(static_cast<unsigned char>(*digits));
    if (!hex_only || *end != '\0' || value > 0xFFFF) {
        std::fprintf(stderr, "tarnview %s: --lang: '%s' is not a hexadecimal LANGID such as 0x0407\n",
                     command, text->c_str());
        return false;
    }
    *language = static_cast<uint16_t>(value);
    return true;
}

}  // namespace

bool ApplyLanguage(const ParsedArguments& parsed, const char* command) {
    std::optional<uint16_t> language;
    if (!ParseLanguage(parsed, command, &language)) return false;
    if (language) krnctlSetLanguage(*language);
    return true;
}

bool SettingsFrom(const ParsedArguments& parsed, const char* command, tarnpst::Settings* settings) {
    std::optional<uint16_t> language;
    if (!ParseLanguage(parsed, command, &language)) return false;
    settings->language = language.value_or(0);
    settings->profile = parsed.Has("--compat") ? tarnpst::Profile::kCompat : tarnpst::Profile::kRepaired;
    return true;
}

void ApplyProfile(const ParsedArguments& parsed) { krnctlSetRepairs(parsed.Has("--compat") ? 0 : 1); }

std::string LanguageHelp() {
    // English names for the rows of the label table; a row without one here shows its LANGID alone.
    struct Name {
        uint16_t language;
        const char* name;
    };
    static constexpr Name kNames[] = {
        {0x0409, "English"},
        {0x0407, "German"},
        {0x0418, "Romanian"},
        {0x040C, "French"},
        {0x0411, "Japanese"},
        {0x0804, "Chinese (Simplified)"},
        {0x0404, "Chinese (Traditional)"},
        {0x0412, "Korean"},
        {0x2C01, "Arabic"},
    };
    std::string out;
    for (const uint16_t language : tarnpst::HeaderLanguages()) {
        char line[64];
        const char* name = "";
        for (const Name& n : kNames)
            if (n.language == language) name = n.name;
        std::snprintf(line, sizeof line, "  0x%04X  %s\n", language, name);
        out += line;
    }
    return out;
}

}  // namespace tarnview
