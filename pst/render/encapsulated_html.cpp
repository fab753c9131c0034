#include "pst/render/encapsulated_html.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <limits>
#include <unordered_map>

#include "common/kernel_memory.h"
#include "platform/codepage.h"
#include "pst/render/rtf_fonts.h"
#include "pst/render/text_search.h"

namespace tarn {
namespace {

// The output starts at this size and grows in steps of kOutputGrowth. Every write goes through the
// buffer's own checks, so no step depends on a margin being left (a run of hex escapes can write eight
// bytes for every four it reads).
constexpr size_t kInitialOutput = 2048;
constexpr size_t kOutputGrowth = 1024;
// Hex-escape runs up to this many bytes are converted on the stack; longer ones in kernel memory.
constexpr size_t kShortRun = 256;
// Code pages below this are the "system" pages 0 and 1, which say nothing about the text.
constexpr int32_t kFirstRealCodePage = 2;
constexpr int32_t kUnset = -1;

constexpr std::string_view kHtmlTag = "\\*\\htmltag";
constexpr std::string_view kModifiedHtmlTag = "\\*\\mhtmltag";
constexpr std::string_view kHtmlRtfOff = "\\htmlrtf0";

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The bytes the main scan stops at; every other byte is copied as it is.
bool IsStructure(char c) { return c == '{' || c == '}' || c == '\\' || c == '\r' || c == '\n'; }

// The code page a "\lang" number stands for. Only three languages are known; any other number is
// deliberately taken as a code page as it stands, which for most languages names no code page and so
// leaves the conversion to the font's or the document's.
int32_t CodePageOfLanguage(int32_t language) {
    switch (language) {
        case 1033:
            return 1252;
        case 1041:
            return 932;
        case 1049:
            return 1251;
        default:
            return language;
    }
}

class Deencapsulator {
  public:
    Deencapsulator(std::string_view rtf, GrowBuffer& out) : in_(rtf), out_(out) {}

    int32_t Run() {
        if (const int32_t status = Preamble(); status != kStatusOk) return status;
        while (pos_ < in_.size() && status_ == kStatusOk) Step();
        return status_;
    }

  private:
    bool At(size_t p, std::string_view word) const {
        return in_.substr(std::min(p, in_.size())).starts_with(word);
    }
    bool DigitAt(size_t p) const { return p < in_.size() && IsDigit(in_[p]); }

    void Write(std::string_view text) {
        if (status_ == kStatusOk) status_ = out_.Append(text);
    }

    // Unsigned decimal digits at `p` (none reads as 0), saturating at INT32_MAX, and one space behind
    // them. `p` ends behind what was read.
    int32_t Number(size_t& p) const {
        const int32_t value = Digits(p);
        if (p < in_.size() && in_[p] == ' ') ++p;
        return value;
    }
    int32_t Digits(size_t& p) const {
        int64_t value = 0;
        for (; p < in_.size() && IsDigit(in_[p]); ++p) {
            value = std::min<int64_t>(value * 10 + (in_[p] - '0'), std::numeric_limits<int32_t>::max());
        }
        return static_cast<int32_t>(value);
    }
    void SkipSpace() {
        if (pos_ < in_.size() && in_[pos_] == ' ') ++pos_;
    }

    // 0 for a font the table does not have.
    int32_t FontCodePage(int32_t number) const {
        const auto found = font_code_pages_.find(number);
        return found == font_code_pages_.end() ? 0 : found->second;
    }

    // Reads the font table whose "\fonttbl" is at `p`; `p` ends behind its closing brace. The code pages
    // are kept by font number, so that a body switching fonts often does not search the table each time;
    // of two entries with one number the first counts, as in FontByNumber.
    int32_t FontTable(size_t& p) {
        const char* position = in_.data() + p;
        RtfFontTable fonts;
        const int32_t status = ParseFontTable(fonts, position, in_.data() + in_.size());
        if (status != kStatusOk) return status;
        p = static_cast<size_t>(position - in_.data());
        font_code_pages_.clear();
        for (const RtfFont& font : fonts.entries())
            font_code_pages_.emplace(font.number, static_cast<int32_t>(font.code_page));
        return kStatusOk;
    }

    // Everything up to the first "{" that opens an HTML tag group: only the document's code page, its
    // default font, the font selected last and the font table are taken from it; nothing is written.
    int32_t Preamble() {
        int32_t selected = kUnset;
        size_t p = 0;
        while (p < in_.size()) {
            if (in_[p] == '{' && At(p + 1, kHtmlTag)) break;
            if (in_[p] != '\\') {
                ++p;
            } else if (At(p, "\\ansicpg")) {
                p += 8;
                document_code_page_ = Number(p);
            } else if (At(p, "\\deff")) {
                p += 5;
                default_font_ = Number(p);
            } else if (At(p, "\\f") && DigitAt(p + 2)) {
                p += 2;
                selected = Number(p);
            } else if (At(p, "\\fonttbl")) {
                if (const int32_t status = FontTable(p); status != kStatusOk) return status;
            } else {
                p += 2;  // a control word's first letter, or an escaped symbol that opens nothing
            }
        }
        const int32_t font = selected != kUnset ? selected : default_font_;
        current_code_page_ = font == kUnset ? 0 : FontCodePage(font);
        groups_.push_back(current_code_page_);
        pos_ = std::min(p, in_.size());
        return kStatusOk;
    }

    void Step() {
        const char c = in_[pos_];
        switch (c) {
            case '{':
                groups_.push_back(current_code_page_);
                ++pos_;
                return;
            case '}':
                PopGroup();
                ++pos_;
                return;
            case '\r':
            case '\n': {
                // A line break as RTF writes it (either order) is not text; a lone one is kept.
                const char pair = c == '\r' ? '\n' : '\r';
                if (pos_ + 1 < in_.size() && in_[pos_ + 1] == pair) {
                    pos_ += 2;
                } else {
                    Write(in_.substr(pos_, 1));
                    ++pos_;
                }
                return;
            }
            case '\\':
                ControlWord();
                return;
            default: {
                size_t end = pos_ + 1;
                while (end < in_.size() && !IsStructure(in_[end])) ++end;
                Write(in_.substr(pos_, end - pos_));
                pos_ = end;
                return;
            }
        }
    }

    void PopGroup() {
        if (groups_.empty()) return;
        current_code_page_ = groups_.back();
        groups_.pop_back();
    }

    // The backslash at pos_: the first of these that matches, in this order. Control words are matched
    // as prefixes, so the order decides between "\pard" and "\par", and a longer word that begins with
    // one of these ("\line", "\cbpat25") is read as that one followed by text.
    void ControlWord() {
        const size_t p = pos_;
        if (At(p, kHtmlTag)) {
            size_t q = p + kHtmlTag.size();
            const int32_t number = Number(q);
            if (number == pending_modified_) {
                // The original tag that the modified one before it replaces: dropped with its group.
                const size_t close = in_.find('}', q);
                pos_ = close == std::string_view::npos ? in_.size() : close + 1;
                if (close != std::string_view::npos) PopGroup();
            } else {
                pos_ = q;
            }
            pending_modified_ = kUnset;
        } else if (At(p, kModifiedHtmlTag)) {
            pos_ = p + kModifiedHtmlTag.size();
            pending_modified_ = Number(pos_);
        } else if (At(p, "\\intbl")) {
            Write(" ");
            pos_ += 6;
        } else if (At(p, "\\qc")) {
            Write(" ");
            pos_ += 3;
        } else if (At(p, "\\pard")) {
            Write("&nbsp;");
            pos_ += 5;
        } else if (At(p, "\\par")) {
            Write("\r\n");
            pos_ += 4;
            SkipSpace();
        } else if (At(p, "\\tab")) {
            Write("   ");
            pos_ += 4;
            SkipSpace();
        } else if (At(p, "\\cbpat2")) {
            Write("      ");
            pos_ += 7;
            SkipSpace();
        } else if (At(p, "\\ltrch")) {
            Write("     ");
            pos_ += 6;
            SkipSpace();
        } else if (At(p, "\\rtlch")) {
            pos_ += 6;
            SkipSpace();
        } else if (At(p, "\\li") || At(p, "\\sb") || At(p, "\\qr")) {
            pos_ += 3;
            Number(pos_);
        } else if (At(p, "\\f") && DigitAt(p + 2)) {
            pos_ += 2;
            current_code_page_ = FontCodePage(Number(pos_));
        } else if (At(p, "\\plain")) {
            pos_ += 6;
        } else if (At(p, "\\fi-")) {
            pos_ += 4;
            Number(pos_);
        } else if (HexEscapeAt(p)) {
            HexRun();
        } else if (At(p, "\\pntext")) {
            const size_t close = in_.find('}', p);
            pos_ = close == std::string_view::npos ? in_.size() : close;
        } else if (At(p, "\\htmlrtf")) {
            Suppressed(p + 8);
        } else if (At(p, "\\{") || At(p, "\\}")) {
            Write(in_.substr(p + 1, 1));
            pos_ += 2;
        } else if (At(p, "\\ansicpg")) {
            pos_ += 8;
            document_code_page_ = Number(pos_);
        } else if (At(p, "\\lang")) {
            pos_ += 5;
            language_code_page_ = CodePageOfLanguage(Number(pos_));
        } else if (At(p, "\\deff")) {
            pos_ += 5;
            const int32_t font = Number(pos_);
            if (default_font_ == kUnset) default_font_ = font;
        } else if (At(p, "\\fonttbl")) {
            status_ = FontTable(pos_);
            // The table's closing brace was read with it; it closes the group its "{" opened here.
            if (status_ == kStatusOk) PopGroup();
        } else if ((At(p, "\\u") && DigitAt(p + 2)) || At(p + 2, "-")) {
            UnicodeEscape();
        } else {
            // Not a word this scan knows: the backslash is text, and so are the letters behind it.
            Write("\\");
            pos_ += 1;
        }
    }

    // Material only an RTF reader should see, from `p` (behind "\htmlrtf") to the next "\htmlrtf0".
    // Nothing is written, but groups, font changes and "\lang" still count. The search ends where fewer
    // than the nine bytes of "\htmlrtf0" are left; the main scan takes those.
    void Suppressed(size_t p) {
        while (in_.size() - std::min(p, in_.size()) >= kHtmlRtfOff.size()) {
            const char c = in_[p];
            if (c == '{') {
                groups_.push_back(current_code_page_);
                ++p;
            } else if (c == '}') {
                PopGroup();
                ++p;
            } else if (c != '\\') {
                ++p;
            } else if (At(p, kHtmlRtfOff)) {
                pos_ = p + kHtmlRtfOff.size();
                SkipSpace();
                return;
            } else if (At(p, "\\lang")) {
                p += 5;
                language_code_page_ = CodePageOfLanguage(Number(p));
            } else if (At(p, "\\f") && DigitAt(p + 2)) {
                p += 2;
                current_code_page_ = FontCodePage(Number(p));
            } else {
                p += 2;  // an escaped brace or backslash is not structure
            }
        }
        pos_ = std::min(p, in_.size());
    }

    bool HexEscapeAt(size_t p) const {
        return p + 4 <= in_.size() && in_[p] == '\\' && in_[p + 1] == '\'' && HexValue(in_[p + 2]) >= 0 &&
               HexValue(in_[p + 3]) >= 0;
    }

    // A run of "\'hh" escapes back to back, decoded together so that a character of a multi-byte code
    // page split over two escapes stays whole.
    void HexRun() {
        size_t end = pos_;
        while (HexEscapeAt(end)) end += 4;
        const size_t count = (end - pos_) / 4;
        char stack_bytes[kShortRun];
        char16_t stack_units[kShortRun];
        KernelArray<char> heap_bytes;
        KernelArray<char16_t> heap_units;
        char* bytes = stack_bytes;
        char16_t* units = stack_units;
        if (count > kShortRun) {
            if (count > static_cast<size_t>(INT_MAX) || !heap_bytes.allocate(count) ||
                !heap_units.allocate(count)) {
                status_ = kStatusFailure;
                return;
            }
            bytes = heap_bytes.data();
            units = heap_units.data();
        }
        for (size_t i = 0; i < count; ++i) {
            const size_t at = pos_ + 4 * i;
            bytes[i] = static_cast<char>(HexValue(in_[at + 2]) * 16 + HexValue(in_[at + 3]));
        }
        pos_ = end;

        const int written = Convert(bytes, static_cast<int>(count), units);
        if (written <= 0) {
            status_ = kStatusFailure;
            return;
        }
        // An escape of up to eight bytes for each unit.
        if (!out_.Reserve(out_.length() + 8 * static_cast<size_t>(written))) {
            status_ = out_.status();
            return;
        }
        for (int i = 0; i < written && status_ == kStatusOk; ++i) {
            if (units[i] < 0x80) {
                status_ = out_.AppendByte(static_cast<uint8_t>(units[i]));
            } else {
                char reference[16];
                const int length = std::snprintf(reference, sizeof reference, "&#x%X;", unsigned{units[i]});
                Write(std::string_view(reference, static_cast<size_t>(length)));
            }
        }
    }

    // Decodes the bytes in the code page of the current font if it names one (2 or more), else in the
    // language's if that does, else in the document's. A code page the platform cannot convert (the
    // language rule gives many) falls back to the document's, and that to the system's ANSI code page,
    // so that no text is lost. The units written, at most `count`.
    int Convert(const char* bytes, int count, char16_t* units) const {
        int32_t chosen = document_code_page_;
        if (current_code_page_ >= kFirstRealCodePage) {
            chosen = current_code_page_;
        } else if (language_code_page_ >= kFirstRealCodePage) {
            chosen = language_code_page_;
        }
        for (const int32_t page : {chosen, document_code_page_, int32_t{platform::kCpAcp}}) {
            if (page < 0) continue;
            const int written =
                platform::MultiByteToWideChar(static_cast<uint32_t>(page), 0, bytes, count, units, count);
            if (written > 0) return written;
        }
        return 0;
    }

    // "\u" and its number, written as a decimal character reference. The number is unsigned to this
    // scan: at a "-" it reads as 0, and the "-" is then taken as the replacement character that follows
    // every "\u" and is skipped, so the digits behind it are copied as text. Exactly one byte is skipped
    // as the replacement; one written as a hex escape thus loses only its backslash.
    void UnicodeEscape() {
        pos_ += 2;
        const int32_t value = Digits(pos_);
        char reference[24];
        const int length = std::snprintf(reference, sizeof reference, "&#%d;", value);
        Write(std::string_view(reference, static_cast<size_t>(length)));
        SkipSpace();
        if (pos_ < in_.size()) ++pos_;
    }

    std::string_view in_;
    GrowBuffer& out_;
    size_t pos_ = 0;
    int32_t status_ = kStatusOk;
    std::unordered_map<int32_t, int32_t> font_code_pages_;
    int32_t document_code_page_ = kUnset;
    int32_t language_code_page_ = kUnset;
    int32_t default_font_ = kUnset;
    int32_t current_code_page_ = 0;
    int32_t pending_modified_ = kUnset;
    // The font code page in force outside each open group. Its depth follows the input, and only costs
    // memory in proportion to it.
    std::deque<int32_t> groups_;
};

// Replaces the text of `*body` by `out`, keeping a terminating NUL if the body had one.
int32_t Replace(CountedString* body, GrowBuffer& out) {
    if (body->size() != body->TextLength() && out.AppendByte(0) != kStatusOk) return out.status();
    out.MoveInto(*body);
    return kStatusOk;
}

// The position of `needle` (whose first byte is not a letter) at or behind `from`, in any case.
size_t FindMarkup(std::string_view text, std::string_view needle, size_t from) {
    while (from < text.size()) {
        const void* hit = std::memchr(text.data() + from, needle[0], text.size() - from);
        if (hit == nullptr) break;
        const auto at = static_cast<size_t>(static_cast<const char*>(hit) - text.data());
        if (StartsIgnoringCase(text.substr(at), needle)) return at;
        from = at + 1;
    }
    return std::string_view::npos;
}

}  // namespace

bool IsEncapsulatedHtml(std::string_view rtf) {
    const size_t from = rtf.find("\\from");
    return from != std::string_view::npos && rtf.substr(from + 5).starts_with("html");
}

int32_t DeencapsulateHtml(CountedString* body) {
    if (body == nullptr) return kStatusNullPointer;
    GrowBuffer out;
    if (out.Init(kInitialOutput, kOutputGrowth) != kStatusOk) return out.status();
    const int32_t status = Deencapsulator(body->text(), out).Run();
    if (status != kStatusOk) return status;
    if (out.Terminate() != kStatusOk) return out.status();
    out.MoveInto(*body);
    return kStatusOk;
}

int32_t RewriteConditionalComments(CountedString* body) {
    if (body == nullptr) return kStatusNullPointer;
    constexpr std::string_view kOpen = "<![if";
    constexpr size_t kCondition = 6;     // where "!V" goes: behind "<![if "
    constexpr size_t kConditionEnd = 8;  // where the "]" moves to
    const std::string_view text = body->text();
    size_t match = text.find(kOpen);
    if (match == std::string_view::npos) return kStatusOk;
    GrowBuffer out;
    if (out.Init(body->size(), 0) != kStatusOk) return out.status();
    size_t copied = 0;
    for (; match != std::string_view::npos; match = text.find(kOpen, match + kOpen.size())) {
        const size_t close = text.find(']', match + kOpen.size());
        if (close == std::string_view::npos) break;
        // A condition shorter than "!V" would have the "]" moved up, not down: left as it is.
        if (close < match + kConditionEnd) continue;
        if (out.Append(text.data() + copied, match + kCondition - copied) != kStatusOk ||
            out.Append("!V") != kStatusOk)
            return out.status();
        copied = close;
        match = close - kOpen.size();  // the search goes on behind the "]"
    }
    if (out.Append(text.data() + copied, text.size() - copied) != kStatusOk) return out.status();
    return Replace(body, out);
}

int32_t TrimLongDivs(CountedString* body) {
    if (body == nullptr) return kStatusNullPointer;
    constexpr std::string_view kOpen = "<div>";
    constexpr std::string_view kClose = "</div>";
    constexpr std::string_view kNbsp = "&nbsp;";
    const std::string_view text = body->text();
    GrowBuffer out;
    bool trimmed = false;
    size_t copied = 0;
    for (size_t from = 0;;) {
        const size_t open = FindMarkup(text, kOpen, from);
        if (open == std::string_view::npos) break;
        const size_t content = open + kOpen.size();
        const size_t close = FindMarkup(text, kClose, content);
        if (close == std::string_view::npos) break;
        from = close + kClose.size();
        if (close - content < kLongDivBytes) continue;
        const size_t nbsp = FindMarkup(text.substr(0, close), kNbsp, content);
        // An "&nbsp;" too close to the end would have the cut start behind the "</div>".
        if (nbsp == std::string_view::npos || close - nbsp < kKeptBehindNbsp) continue;
        if (!trimmed && out.Init(body->size(), 0) != kStatusOk) return out.status();
        trimmed = true;
        if (out.Append(text.data() + copied, nbsp + kKeptBehindNbsp - copied) != kStatusOk)
            return out.status();
        copied = close;
    }
    if (!trimmed) return kStatusOk;
    if (out.Append(text.data() + copied, text.size() - copied) != kStatusOk) return out.status();
    return Replace(body, out);
}

}  // namespace tarn
