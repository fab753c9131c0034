#include "pst/render/charset.h"

#include <unicode/ucnv.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <string>

#include "common/kernel_memory.h"
#include "kernel/tarnkrn.h"
#include "platform/codepage.h"
#include "pst/render/iso2022jp.h"
#include "pst/render/text_search.h"

namespace tarn {
namespace {

constexpr std::string_view kUtf8Name = "UTF-8";
// Longer names are no set's: ICU's longest alias is far shorter.
constexpr size_t kMaxSetName = 64;
constexpr size_t kGrowthStep = 1024;
// A UTF-16 unit becomes at most three UTF-8 bytes (a pair of surrogates, two units, becomes four).
constexpr size_t kUtf8BytesPerUnit = 3;

// The decimal digits at the start of `text`, saturating instead of overflowing.
int32_t LeadingNumber(std::string_view text) {
    int64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') break;
        value = std::min<int64_t>(value * 10 + (c - '0'), INT32_MAX);
    }
    return static_cast<int32_t>(value);
}

bool IsTrailingSpace(char c) { return c == '\r' || c == '\n' || c == '\t' || c == ' '; }

// Appends `bytes`, decoded in `code_page`, as UTF-8. A code page that the platform cannot convert is
// -1851, not -1: callers keep such text as it is, but end their work when memory runs out.
int32_t AppendConverted(std::string_view bytes, int32_t code_page, GrowBuffer& out) {
    if (bytes.empty()) return kStatusOk;
    if (bytes.size() > static_cast<size_t>(INT_MAX)) return kStatusFailure;
    const auto page = static_cast<uint32_t>(code_page);
    const int source_bytes = static_cast<int>(bytes.size());
    // Without flags invalid bytes become U+FFFD, so only a page without a converter gives nothing.
    const int units = platform::MultiByteToWideChar(page, 0, bytes.data(), source_bytes, nullptr, 0);
    if (units <= 0) return kStatusConversionFailed;
    if (static_cast<size_t>(units) > static_cast<size_t>(INT32_MAX) / kUtf8BytesPerUnit)
        return kStatusFailure;
    KernelArray<char16_t> wide;
    if (!wide.allocate(static_cast<size_t>(units))) return kStatusFailure;
    if (platform::MultiByteToWideChar(page, 0, bytes.data(), source_bytes, wide.data(), units) != units)
        return kStatusConversionFailed;

    const int32_t capacity = units * static_cast<int32_t>(kUtf8BytesPerUnit);
    KernelArray<char> utf8;
    if (!utf8.allocate(static_cast<size_t>(capacity))) return kStatusFailure;
    const int32_t written = krnUtf16ToUtf8(wide.data(), units, utf8.data(), capacity);
    if (written <= 0) return kStatusConversionFailed;
    return out.Append(utf8.data(), static_cast<size_t>(written));
}

// The name under which a converted set is declared in a body, as ConvertToUtf8 looks for it.
std::string DeclaredName(const CharsetCode& charset) {
    switch (charset.code) {
        case kCharsetLatin1:
            return "iso-8859-1";
        case kCharsetUsAscii:
            return "us-ascii";
        case kCharsetGb2312:
            return "gb2312";
        case kCharsetBig5:
            return "big5";
        default: {
            char name[24];
            std::snprintf(name, sizeof name, "windows-%d", charset.code_page);
            return name;
        }
    }
}

int32_t ConvertingCodePage(const CharsetCode& charset) {
    switch (charset.code) {
        case kCharsetLatin1:
            // Deliberately Windows-1252 and not ISO-8859-1 (28591): mail that says Latin-1 is nearly
            // always written by Windows programs, with quotes and dashes in the 0x80-0x9F range.
            return 1252;
        case kCharsetGb2312:
            return 936;
        case kCharsetBig5:
            return 950;
        default:
            return charset.code_page;
    }
}

// Replaces the declared name with "UTF-8" and, unless the set is US-ASCII, converts what follows it.
int32_t ConvertDeclared(CountedString* body, CharsetCode* charset) {
    const bool terminated = body->size() != body->TextLength();
    const std::string_view text = body->text();
    const std::string name = DeclaredName(*charset);
    const size_t declared = FindIgnoringCase(text, name);
    const bool ascii = charset->code == kCharsetUsAscii;
    if (ascii && declared == std::string_view::npos) {
        charset->code = kCharsetUtf8;
        return kStatusOk;
    }

    GrowBuffer out;
    int32_t status = out.Init(text.size() + 1, kGrowthStep);
    std::string_view rest = text;
    if (declared != std::string_view::npos) {
        // The declaration comes first in a document, so what stands before it is taken as ASCII and
        // kept byte for byte.
        if (status == kStatusOk) status = out.Append(text.substr(0, declared));
        if (status == kStatusOk) status = out.Append(kUtf8Name);
        rest = text.substr(declared + name.size());
    }
    if (status == kStatusOk)
        status = ascii ? out.Append(rest) : AppendConverted(rest, ConvertingCodePage(*charset), out);
    if (status == kStatusOk && terminated) status = out.AppendByte(0);
    if (status != kStatusOk) return status;
    out.MoveInto(*body);
    // US-ASCII text is UTF-8 already; the caller sees that it needs nothing more.
    if (ascii) charset->code = kCharsetUtf8;
    return kStatusOk;
}

}  // namespace

CharsetCode CharsetFromName(std::string_view name) {
    if (EqualsIgnoringCase(name, "gb2312")) return {kCharsetGb2312, 936};
    if (StartsIgnoringCase(name, "iso-2022-jp")) return {kCharsetIso2022Jp, 0};
    if (EqualsIgnoringCase(name, "big5")) return {kCharsetBig5, 950};
    // The whole name, so that iso-8859-15 and the other parts of the series are not taken for Latin-1.
    if (EqualsIgnoringCase(name, "iso-8859-1")) return {kCharsetLatin1, 1252};
    if (StartsIgnoringCase(name, "us-ascii")) return {kCharsetUsAscii, 0};
    if (StartsIgnoringCase(name, "utf-8")) return {kCharsetUtf8, 0};
    if (StartsIgnoringCase(name, "windows-")) return {kCharsetWindows, LeadingNumber(name.substr(8))};
    return {kCharsetOther, 0};
}

int32_t FindCharsetDeclaration(std::string_view text, CharsetCode* out) {
    constexpr std::string_view kParameter = "charset=";
    if (out == nullptr || text.size() < kParameter.size()) return 0;
    const size_t found = FindIgnoringCase(text, kParameter);
    if (found == std::string_view::npos) return 0;

    std::string_view value = text.substr(found + kParameter.size());
    if (!value.empty() && value.front() == '"') value.remove_prefix(1);
    value = value.substr(0, value.find('"'));
    value = value.substr(0, value.find(';'));
    while (!value.empty() && IsTrailingSpace(value.back())) value.remove_suffix(1);
    *out = CharsetFromName(value);
    return 1;
}

int32_t ConvertToUtf8(CountedString* body, CharsetCode* charset, bool rewrite_declaration) {
    if (body == nullptr || body->data() == nullptr || body->size() == 0 || charset == nullptr)
        return kStatusNullPointer;
    if (charset->code == kCharsetIso2022Jp) return DecodeIso2022Jp(body, 0);
    if (!rewrite_declaration) return kStatusOk;
    switch (charset->code) {
        case kCharsetLatin1:
        case kCharsetUsAscii:
        case kCharsetWindows:
        case kCharsetGb2312:
        case kCharsetBig5:
            return ConvertDeclared(body, charset);
        default:
            return kStatusOk;
    }
}

int32_t AppendNamedSetAsUtf8(std::string_view bytes, std::string_view name, GrowBuffer* out) {
    if (out == nullptr) return kStatusBadArgument;
    if (bytes.empty()) return kStatusOk;
    if (name.empty() || name.size() > kMaxSetName || name.find('\0') != std::string_view::npos)
        return kStatusConversionFailed;
    if (bytes.size() > static_cast<size_t>(INT32_MAX)) return kStatusFailure;
    const CharsetCode charset = CharsetFromName(name);
    switch (charset.code) {
        case kCharsetUtf8:
        case kCharsetUsAscii:
            return out->Append(bytes);
        case kCharsetLatin1:
        case kCharsetWindows:
        case kCharsetGb2312:
        case kCharsetBig5:
            if (const int32_t status = AppendConverted(bytes, ConvertingCodePage(charset), *out);
                status != kStatusConversionFailed)
                return status;
            break;
        default:
            break;
    }
    const std::string from(name);
    const auto length = static_cast<int32_t>(bytes.size());
    // The first call measures; the second converts into room of exactly that size.
    UErrorCode error = U_ZERO_ERROR;
    const int32_t needed = ucnv_convert("UTF-8", from.c_str(), nullptr, 0, bytes.data(), length, &error);
    if (error != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(error)) return kStatusConversionFailed;
    if (needed <= 0) return kStatusOk;
    const size_t start = out->length();
    if (!out->Reserve(start + static_cast<size_t>(needed) + 1)) return out->status();
    error = U_ZERO_ERROR;
    const int32_t written = ucnv_convert("UTF-8", from.c_str(), reinterpret_cast<char*>(out->data() + start),
                                         needed + 1, bytes.data(), length, &error);
    if (U_FAILURE(error) || written != needed) return kStatusConversionFailed;
    out->Extend(static_cast<size_t>(written));
    return kStatusOk;
}

int32_t ConvertNamedSetToUtf8(CountedString* body, std::string_view name, bool html) {
    if (body == nullptr || body->data() == nullptr || body->size() == 0) return kStatusNullPointer;
    const bool terminated = body->size() != body->TextLength();
    GrowBuffer out;
    int32_t status = out.Init(body->TextLength() + 1, kGrowthStep);
    if (status == kStatusOk) status = AppendNamedSetAsUtf8(body->text(), name, &out);
    if (status != kStatusOk) return status;
    if (html) {
        // The declaration comes first; the name is compared where a "charset=" names it.
        const std::string_view text = out.view();
        const size_t declared = FindIgnoringCase(text, "charset=");
        size_t at = declared == std::string_view::npos ? declared : declared + 8;
        if (at != std::string_view::npos && at < text.size() && (text[at] == '"' || text[at] == '\'')) ++at;
        if (at != std::string_view::npos && StartsIgnoringCase(text.substr(at), name)) {
            std::string rewritten(text.substr(0, at));
            rewritten.append(kUtf8Name).append(text.substr(at + name.size()));
            status = out.Assign(rewritten.data(), rewritten.size());
        }
    }
    if (status == kStatusOk && terminated) status = out.AppendByte(0);
    if (status != kStatusOk) return status;
    out.MoveInto(*body);
    return kStatusOk;
}

int32_t EnsureUtf8Meta(CountedString* html) {
    if (html == nullptr) return kStatusNullPointer;
    const std::string_view text = html->text();
    if (text.find("charset") != std::string_view::npos) return kStatusOk;
    constexpr std::string_view kHead = "<head>";
    const size_t head = text.find(kHead);
    if (head == std::string_view::npos) return kStatusOk;

    const size_t insert_at = head + kHead.size();
    GrowBuffer out;
    int32_t status = out.Init(text.size() + kUtf8MetaTag.size() + 1, 0);
    if (status == kStatusOk) status = out.Append(text.substr(0, insert_at));
    if (status == kStatusOk) status = out.Append(kUtf8MetaTag);
    if (status == kStatusOk) status = out.Append(text.substr(insert_at));
    if (status == kStatusOk) status = out.AppendByte(0);
    if (status != kStatusOk) return status;
    out.MoveInto(*html);
    return kStatusOk;
}

uint32_t StoredStringCodePage(uint32_t named) {
    switch (named) {
        case 50220:
        case 50221:
        case 50222:
            return 932;
        case 50225:
            return 949;
        case 50227:
        case 52936:
            return 936;
        case 20127:
            return 1252;
        default:
            return named;
    }
}

int32_t EightBitToUtf8(std::string_view bytes, uint32_t code_page, CountedString& out) {
    if (bytes.size() > static_cast<size_t>(INT32_MAX) / 4) return kStatusFailure;
    const int size = static_cast<int>(bytes.size());
    int units = platform::MultiByteToWideChar(code_page, 0, bytes.data(), size, nullptr, 0);
    if (units <= 0) {
        code_page = platform::kCpWestern;
        units = platform::MultiByteToWideChar(code_page, 0, bytes.data(), size, nullptr, 0);
    }
    std::u16string wide(static_cast<size_t>(std::max(units, 0)), u'\0');
    if (units > 0 &&
        platform::MultiByteToWideChar(code_page, 0, bytes.data(), size, wide.data(), units) != units)
        wide.clear();
    const int needed = wide.empty() ? 0
                                    : platform::WideCharToMultiByte(platform::kCpUtf8, 0, wide.data(),
                                                                    static_cast<int>(wide.size()), nullptr, 0,
                                                                    nullptr, nullptr);
    GrowBuffer utf8;
    if (utf8.Init(static_cast<size_t>(std::max(needed, 0)) + 1, 0) != kStatusOk) return kStatusFailure;
    const int written = needed <= 0 ? 0
                                    : platform::WideCharToMultiByte(
                                          platform::kCpUtf8, 0, wide.data(), static_cast<int>(wide.size()),
                                          reinterpret_cast<char*>(utf8.data()), needed, nullptr, nullptr);
    utf8.Extend(static_cast<size_t>(std::max(written, 0)));
    if (utf8.Terminate() != kStatusOk) return kStatusFailure;
    utf8.MoveInto(out);
    return kStatusOk;
}

}  // namespace tarn
