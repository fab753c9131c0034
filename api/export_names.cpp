#include "api/export_names.h"

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <array>
#include <cctype>
#include <cstdint>

#include "common/json_writer.h"

namespace tarn::api {
namespace {

constexpr std::string_view kForbidden = "/\\:*?\"<>|";
// Windows takes these as devices whatever the extension; the superscript digits count as digits there.
constexpr std::array<std::string_view, 32> kDeviceNames = {
    "con",       "prn",       "aux",       "nul",  "conin$", "conout$",   "com0",      "com1",
    "com2",      "com3",      "com4",      "com5", "com6",   "com7",      "com8",      "com9",
    "com\u00b9", "com\u00b2", "com\u00b3", "lpt0", "lpt1",   "lpt2",      "lpt3",      "lpt4",
    "lpt5",      "lpt6",      "lpt7",      "lpt8", "lpt9",   "lpt\u00b9", "lpt\u00b2", "lpt\u00b3"};

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Bidirectional formatting characters reorder what is shown around them ("inv\u202Efdp.exe" shows as
// "invexe.pdf"); a name keeps none of them.
bool BidiControl(uint32_t c) {
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

// Two names that case folding and canonical composition make equal are one file on a file system that
// ignores case or normalizes (as macOS and Windows do).
std::string ClashKey(const std::string& name) {
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(name);
    text.foldCase();
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_SUCCESS(status)) {
        icu::UnicodeString composed = nfc->normalize(text, status);
        if (U_SUCCESS(status)) text = composed;
    }
    std::string out;
    text.toUTF8String(out);
    return out;
}

bool Trimmed(char c) { return c == ' ' || c == '.'; }

std::string TrimEnds(std::string text) {
    size_t begin = 0;
    while (begin < text.size() && Trimmed(text[begin])) ++begin;
    size_t end = text.size();
    while (end > begin && Trimmed(text[end - 1])) --end;
    return text.substr(begin, end - begin);
}

}  // namespace

std::string PortableName(std::string_view text, size_t max_bytes, std::string_view fallback) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        char32_t code_point = 0;
        const size_t length = tarn::Utf8Sequence(text.substr(at), &code_point);
        std::string_view piece = length == 0 ? "_" : text.substr(at, length);
        const bool control = code_point < 0x20 || (code_point >= 0x7F && code_point < 0xA0);
        if (length == 0 || control || (length == 1 && kForbidden.find(piece[0]) != std::string_view::npos))
            piece = "_";
        at += length == 0 ? 1 : length;
        if (length != 0 && BidiControl(code_point)) continue;
        // Trailing spaces and dots are dropped below, so the cut leaves room for nothing else.
        if (out.size() + piece.size() > max_bytes) break;
        out += piece;
    }
    out = TrimEnds(std::move(out));
    if (out.empty()) return std::string(fallback);
    const std::string stem = Lower(out.substr(0, out.find('.')));
    for (const std::string_view device : kDeviceNames) {
        if (stem == device) return "_" + out;
    }
    return out;
}

std::string NameRegistry::Claim(const std::string& dir, const std::string& name) {
    std::set<std::string>& taken = taken_[dir];
    if (taken.insert(ClashKey(name)).second) return name;
    // The extension is the part after the last dot that is not the first character.
    const size_t dot = name.rfind('.');
    const bool has_extension = dot != std::string::npos && dot > 0;
    const std::string stem = has_extension ? name.substr(0, dot) : name;
    const std::string extension = has_extension ? name.substr(dot) : "";
    for (size_t n = 2;; ++n) {
        std::string candidate = stem + " (" + std::to_string(n) + ")" + extension;
        if (taken.insert(ClashKey(candidate)).second) return candidate;
    }
}

void NameRegistry::Forget(const std::string& dir) {
    taken_.erase(dir);
    // The folders below sort from dir + "/" up to dir + "0", '0' being the character after '/'.
    taken_.erase(taken_.lower_bound(dir + "/"), taken_.lower_bound(dir + "0"));
}

}  // namespace tarn::api
