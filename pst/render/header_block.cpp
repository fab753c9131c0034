#include "pst/render/header_block.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "common/status.h"
#include "pst/render/charset.h"
#include "pst/render/header_labels.h"
#include "pst/render/rtf_fonts.h"
#include "pst/render/rtf_text.h"

namespace tarn {
namespace {

// Fixed pieces of the localised block. The sizes are checked because the toolkit's HTML and RTF
// loaders were tuned on exactly these bytes.
constexpr std::string_view kTableOpening =
    "<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'>\r\n";
constexpr std::string_view kHtmlRowOpening =
    "\n<tr><td style = 'width:87pt; padding: 0px; vertical-align:top'><b><span style = "
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black'>";
constexpr std::string_view kHtmlJoint =
    "</span></b></td><td style = 'padding: 0px'><span style = "
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; word-wrap: "
    "break-word;'>";
constexpr std::string_view kHtmlRowEnd = "</span></td></tr>\r\n";
constexpr std::string_view kHtmlBlockEnd = "</table>\r\n<p class=MsoNormal><o:p>&nbsp;</o:p></p>\r\n";
constexpr std::string_view kRtfSeparator =
    "\\pard \\ltrpar\\ql \\li0\\ri0\\widctlpar\\wrapdefault\\aspalpha\\aspnum\\faauto\\adjustright\\rin0"
    "\\lin0\\itap0 {\\rtlch\\fcs1 \\af1 \\ltrch\\fcs0 \\insrsid5716485 \\par }";
constexpr std::string_view kRtfRowOpening =
    "\r{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 ";
constexpr std::string_view kRtfJoint = "\\tab }{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 ";
constexpr std::string_view kRtfRowEnd = "\\insrsid5716485 \\par }\r\n";
constexpr std::string_view kOnBehalfOf = " on behalf of ";
static_assert(kTableOpening.size() == 80 && kHtmlRowOpening.size() == 160 && kHtmlJoint.size() == 160);
static_assert(kHtmlRowEnd.size() == 19 && kHtmlBlockEnd.size() == 52 && kRtfSeparator.size() == 151);
static_assert(kRtfRowOpening.size() == 57 && kRtfJoint.size() == 42 && kRtfRowEnd.size() == 24);
static_assert(kOnBehalfOf.size() == 14);

// Growth steps: a whole block at a time for HTML, a line at a time for text.
constexpr size_t kHtmlHeaderGrowth = 1024;
constexpr size_t kTextLineGrowth = 32;
constexpr size_t kRtfHeaderGrowth = 1024;

// The English builder's rows, by format and field (From, To, Bcc, Cc, Sent, Subject, Importance).
constexpr std::string_view kEnglishHtmlRows[] = {
#define TARN_ENGLISH_HTML_ROW(label)                                                                \
    "<tr><td style = 'width:87pt; padding: 0px; vertical-align:top'><b><span lang = EN-US style = " \
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; "           \
    "mso-ansi-language:EN-US'>" label                                                               \
    "</span></b></td><td style = 'padding: 0px'><span lang = EN-US style = "                        \
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; "           \
    "mso-ansi-language:EN-US; word-wrap: break-word;'>"
    TARN_ENGLISH_HTML_ROW("From:"),       TARN_ENGLISH_HTML_ROW("To:"),   TARN_ENGLISH_HTML_ROW("Bcc:"),
    TARN_ENGLISH_HTML_ROW("Cc:"),         TARN_ENGLISH_HTML_ROW("Sent:"), TARN_ENGLISH_HTML_ROW("Subject:"),
    TARN_ENGLISH_HTML_ROW("Importance:"),
#undef TARN_ENGLISH_HTML_ROW
};
// In RTF the labels are lined up with tabs: one fewer after the two longer labels.
constexpr std::string_view kEnglishRtfRows[] = {
#define TARN_ENGLISH_RTF_ROW(label, tabs)                                          \
    "{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 " label tabs \
    "}{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 "
#define TARN_TABS3 "\\tab \\tab \\tab "
#define TARN_TABS4 "\\tab \\tab \\tab \\tab "
    TARN_ENGLISH_RTF_ROW("From:", TARN_TABS4),       TARN_ENGLISH_RTF_ROW("To:", TARN_TABS4),
    TARN_ENGLISH_RTF_ROW("Bcc:", TARN_TABS3),        TARN_ENGLISH_RTF_ROW("Cc:", TARN_TABS4),
    TARN_ENGLISH_RTF_ROW("Sent:", TARN_TABS4),       TARN_ENGLISH_RTF_ROW("Subject:", TARN_TABS3),
    TARN_ENGLISH_RTF_ROW("Importance:", TARN_TABS4),
#undef TARN_TABS4
#undef TARN_TABS3
#undef TARN_ENGLISH_RTF_ROW
};
// The Importance row has a space where the others have a tab: deliberate, kept as these pages have
// always shown it.
constexpr std::string_view kEnglishTextRows[] = {"From:   \t", "To:     \t", "Bcc:    \t",  "Cc:     \t",
                                                 "Sent:   \t", "Subject:\t", "Importance: "};
constexpr std::string_view kEnglishRowEnds[] = {kHtmlRowEnd, kRtfRowEnd, "\r\n"};
constexpr std::string_view kEnglishBlockEnds[] = {kHtmlBlockEnd, kRtfSeparator, "\r\n"};

// Where each header field lives in the record.
constexpr HeaderSlot kSlotOfField[] = {kSlotFrom, kSlotTo,      kSlotBcc,       kSlotCc,
                                       kSlotSent, kSlotSubject, kSlotImportance};

// "Empty" covers no data, size 0 and a lone terminating NUL.
bool IsEmpty(const CountedString& text) { return text.TextLength() == 0; }

int32_t AppendAll(GrowBuffer& out, std::initializer_list<std::string_view> pieces) {
    for (const std::string_view piece : pieces)
        if (const int32_t status = out.Append(piece); status != kStatusOk) return status;
    return kStatusOk;
}

// Whether `text` begins with `prefix`, ASCII letters compared without regard to case.
bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(),
                                                      [&](char a, char b) { return lower(a) == lower(b); });
}

// The position of the first `needle` in `text` at or after `from`, ASCII letters compared without regard
// to case; npos when there is none.
size_t FindNoCase(std::string_view text, std::string_view needle, size_t from) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (from > text.size()) return std::string_view::npos;
    const auto it = std::search(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), needle.begin(),
                                needle.end(), [&](char a, char b) { return lower(a) == lower(b); });
    return it == text.end() ? std::string_view::npos : static_cast<size_t>(it - text.begin());
}

// Where an HTML header goes: just behind the first "<body ...>", or at the start without one. -9 when
// the tag has no ">".
int32_t HtmlInsertionPoint(std::string_view body, size_t* point) {
    const size_t tag = body.find("<body");
    if (tag == std::string_view::npos) {
        *point = 0;
        return kStatusOk;
    }
    const size_t close = body.find('>', tag);
    if (close == std::string_view::npos) return kStatusUnsupported;
    *point = close + 1;
    return kStatusOk;
}

// Replaces `body` with `before`, `text` up to `point`, `middle`, the rest of `text` and `after`,
// NUL-terminated. The body is touched only once the new one is whole.
int32_t SpliceText(CountedString& body, std::string_view text, size_t point,
                   std::initializer_list<std::string_view> before, std::string_view middle,
                   std::initializer_list<std::string_view> after) {
    GrowBuffer spliced;
    if (const int32_t status = spliced.Init(text.size() + middle.size() + 1, 0); status != kStatusOk)
        return status;
    for (const std::string_view piece : before)
        if (const int32_t status = spliced.Append(piece); status != kStatusOk) return status;
    if (const int32_t status = AppendAll(spliced, {text.substr(0, point), middle, text.substr(point)});
        status != kStatusOk)
        return status;
    for (const std::string_view piece : after)
        if (const int32_t status = spliced.Append(piece); status != kStatusOk) return status;
    if (const int32_t status = spliced.AppendByte(0); status != kStatusOk) return status;
    spliced.MoveInto(body);
    return kStatusOk;
}

// SpliceText with the body's own text.
int32_t SpliceInto(CountedString& body, size_t point, std::initializer_list<std::string_view> before,
                   std::string_view middle, std::initializer_list<std::string_view> after) {
    return SpliceText(body, body.text(), point, before, middle, after);
}

// ---- The localised HTML block ---------------------------------------------------------------------

struct HtmlHeader {
    GrowBuffer buffer;
    bool table_pending = true;  // the table opens at the first row that has a value
};

// `text` as HTML text: "&", "<", ">" and the double quote escaped, so that a value never opens
// markup of its own (a subject "note <!-- draft" would otherwise hide the body). Notes the repair
// when anything needed escaping.
int32_t AppendHtmlText(GrowBuffer& out, std::string_view text, Repairs& repairs) {
    for (size_t from = 0; from < text.size();) {
        const size_t special = std::min(text.find_first_of("&<>\"", from), text.size());
        if (const int32_t status = out.Append(text.substr(from, special - from)); status != kStatusOk)
            return status;
        if (special == text.size()) break;
        repairs.Make(Repair::kHtmlHeaderEscape);
        const char c = text[special];
        const std::string_view entity = c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : "&quot;";
        if (const int32_t status = out.Append(entity); status != kStatusOk) return status;
        from = special + 1;
    }
    return kStatusOk;
}

// A header value in an HTML row: as it is for the contract, whose rows do not escape markup (so a value
// may carry its own), or escaped when repairs are wanted.
int32_t AppendHtmlValue(GrowBuffer& out, std::string_view text, Repairs& repairs) {
    return repairs.wanted() ? AppendHtmlText(out, text, repairs) : out.Append(text);
}

int32_t WriteHtmlHeaderRow(HtmlHeader& header, MessageDocument& record, const CountedString& value,
                           HeaderField field) {
    if (IsEmpty(value)) return kStatusOk;
    GrowBuffer& out = header.buffer;
    if (header.table_pending) {
        if (const int32_t status = out.Append(kTableOpening); status != kStatusOk) return status;
        header.table_pending = false;
    }
    if (const int32_t status = AppendAll(out, {kHtmlRowOpening, HeaderLabel(field), kHtmlJoint});
        status != kStatusOk)
        return status;
    if (const int32_t status = AppendHtmlValue(out, value.text(), record.repairs); status != kStatusOk)
        return status;
    if (field == kFieldFrom) {
        const CountedString& representing = record.header[kSlotRepresenting];
        const CountedString& address = record.header[kSlotSenderAddress];
        int32_t status = kStatusOk;
        if (!IsEmpty(representing) && representing.text() != value.text()) {
            status = out.Append(kOnBehalfOf);
            if (status == kStatusOk) status = AppendHtmlValue(out, representing.text(), record.repairs);
        } else if (address.size() > 0 && address.data()[0] != std::byte{0}) {
            status = out.Append(" &lt;");
            if (status == kStatusOk) status = AppendHtmlValue(out, address.text(), record.repairs);
            if (status == kStatusOk) status = out.Append("&gt;");
        }
        if (status != kStatusOk) return status;
    }
    return out.Append(kHtmlRowEnd);
}

// The character set that the first "<meta" tag declaring one declares, if any. A tag runs to the next
// ">" or the body's end. The search resumes at the tag's end: a "<meta" inside it spans a tail of the
// same text, and a declaration in that tail is the tag's own, already examined.
bool DeclaredInMeta(std::string_view html, CharsetCode* charset) {
    for (size_t tag = FindNoCase(html, "<meta", 0); tag != std::string_view::npos;) {
        const size_t close = std::min(html.find('>', tag), html.size());
        if (FindCharsetDeclaration(html.substr(tag, close - tag), charset) == 1) return true;
        tag = FindNoCase(html, "<meta", close);
    }
    return false;
}

bool HasNonAscii(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

int32_t FinishHtmlHeader(HtmlHeader& header, CountedString& body) {
    if (header.buffer.length() == 0) return kStatusOk;
    if (const int32_t status = header.buffer.Append(kHtmlBlockEnd); status != kStatusOk) return status;
    // The block is UTF-8. When it holds more than ASCII, a body that declares another character set is
    // converted to UTF-8 (a copy, so that a later failure leaves the body as it was), or the page would
    // show one of the two garbled.
    CountedString converted;
    std::string_view text = body.text();
    CharsetCode charset;
    if (HasNonAscii(header.buffer.view()) && !text.empty() && DeclaredInMeta(text, &charset) &&
        charset.code != kCharsetUtf8) {
        if (const int32_t status = AssignBytes(converted, body.data(), body.size()); status != kStatusOk)
            return status;
        if (const int32_t status = ConvertToUtf8(&converted, &charset, /*rewrite_declaration=*/true);
            status != kStatusOk)
            return status;
        text = converted.text();
    }
    size_t point = 0;
    if (const int32_t status = HtmlInsertionPoint(text, &point); status != kStatusOk) return status;
    return SpliceText(body, text, point, {}, header.buffer.view(), {});
}

int32_t BuildHtmlHeader(MessageDocument& record) {
    HtmlHeader header;
    if (const int32_t status = header.buffer.Init(0, kHtmlHeaderGrowth); status != kStatusOk) return status;
    for (const HeaderField field :
         {kFieldFrom, kFieldSent, kFieldTo, kFieldCc, kFieldBcc, kFieldSubject, kFieldImportance}) {
        const int32_t status = WriteHtmlHeaderRow(header, record, record.header[kSlotOfField[field]], field);
        if (status != kStatusOk) return status;
    }
    return FinishHtmlHeader(header, record.document);
}

// ---- The RTF block ---------------------------------------------------------------------------------

// What the RTF block needs to know of its body, and the header written so far. The header's text goes
// through the body's font table, which may gain fonts for the header's scripts.
struct RtfHeader {
    GrowBuffer header;
    RtfFontTable fonts;
    RtfTextState text{&header, &fonts, kNoFont};
    int32_t default_font = 0;  // "\deff"; read for completeness, the header picks fonts by code page
    size_t table_start = 0;    // the body's font table is body[table_start, table_end)
    size_t table_end = 0;
    bool table_repaired = false;  // the body had none, and the repaired one was started
};

constexpr std::string_view kRepairedEmptyTable = "{\\fonttbl}";

// The decimal number at `at` in `text` (an optional minus sign first), saturating at `low` and `high`;
// 0 when there are no digits.
int64_t ReadRtfNumber(std::string_view text, size_t at, int64_t low, int64_t high) {
    bool negative = false;
    if (at < text.size() && text[at] == '-') {
        negative = true;
        ++at;
    }
    int64_t value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
        value = std::min<int64_t>(value * 10 + (text[at] - '0'), high + 1);
    value = negative ? -value : value;
    return std::clamp(value, low, high);
}

int32_t AnalyseBodyRtf(RtfHeader& state, const CountedString& body, const Repairs& repairs) {
    const std::string_view text = body.text();
    uint32_t code_page = 0;
    if (const size_t at = text.find("\\ansicpg"); at != std::string_view::npos)
        code_page = static_cast<uint32_t>(ReadRtfNumber(text, at + 8, 0, UINT32_MAX));
    if (const size_t at = text.find("\\deff"); at != std::string_view::npos)
        state.default_font = static_cast<int32_t>(ReadRtfNumber(text, at + 5, INT32_MIN, INT32_MAX));

    if (const size_t at = text.find("\\fonttbl"); at != std::string_view::npos) {
        const char* position = text.data() + at;
        if (const int32_t status = ParseFontTable(state.fonts, position, text.data() + text.size());
            status != kStatusOk)
            return status;
        state.table_start = at;
        state.table_end = static_cast<size_t>(position - text.data());
    } else {
        // No table of its own: fonts the header adds get one of their own, put behind the "\from..."
        // word of a body that encapsulates HTML or text. Repaired, the table is a well-formed group,
        // and a body without that word gets it where the header goes.
        if (repairs.wanted()) {
            if (const int32_t status =
                    state.fonts.text.Assign(kRepairedEmptyTable.data(), kRepairedEmptyTable.size());
                status != kStatusOk)
                return status;
            state.table_repaired = true;
        }
        const size_t from = text.find("\\from");
        if (from == std::string_view::npos && state.table_repaired) {
            state.table_start = state.table_end = std::string_view::npos;
            return state.header.Init(0, kRtfHeaderGrowth);
        }
        if (from == std::string_view::npos) return kStatusUnsupported;
        size_t end = from + 1;
        while (end < text.size() && text[end] != '\\' && text[end] != ' ') ++end;
        if (end < text.size() && text[end] == ' ') ++end;
        state.table_start = state.table_end = end;
    }
    // Parsing starts the table afresh, code page included.
    state.fonts.document_code_page = code_page;
    return state.header.Init(0, kRtfHeaderGrowth);
}

int32_t WriteRtfHeaderRow(RtfHeader& state, const MessageDocument& record, const CountedString& value,
                          HeaderField field) {
    if (IsEmpty(value)) return kStatusOk;
    const std::string_view label = HeaderLabel(field);
    const std::string_view text = value.text();
    if (const int32_t status = state.header.Append(kRtfRowOpening); status != kStatusOk) return status;
    if (const int32_t status = EncodeRtfText(state.text, label.data(), label.size()); status != kStatusOk)
        return status;
    if (const int32_t status = state.header.Append(kRtfJoint); status != kStatusOk) return status;
    if (const int32_t status = EncodeRtfText(state.text, text.data(), text.size()); status != kStatusOk)
        return status;
    // The RTF rows show the sender's address but never "on behalf of".
    const CountedString& address = record.header[kSlotSenderAddress];
    if (field == kFieldFrom && !IsEmpty(address)) {
        const std::string_view shown = address.text();
        if (const int32_t status = state.header.Append(" <"); status != kStatusOk) return status;
        if (const int32_t status = EncodeRtfText(state.text, shown.data(), shown.size()); status != kStatusOk)
            return status;
        if (const int32_t status = state.header.Append(">"); status != kStatusOk) return status;
    }
    return state.header.Append(kRtfRowEnd);
}

int32_t InsertRtfHeader(RtfHeader& state, CountedString& body) {
    if (state.header.length() == 0) return kStatusOk;
    if (const int32_t status = state.header.Append(kRtfSeparator); status != kStatusOk) return status;
    const std::string_view text = body.text();
    const size_t pard = text.find("\\pard");
    if (pard == std::string_view::npos) return kStatusFailure;
    if (!state.fonts.changed) return SpliceInto(body, pard, {}, state.header.view(), {});

    GrowBuffer merged;
    const std::string_view table = state.fonts.text.view();
    if (const int32_t status = merged.Init(text.size() + table.size() + state.header.length() + 1, 0);
        status != kStatusOk)
        return status;
    int32_t status = kStatusOk;
    if (state.table_start < pard && state.table_end <= pard) {
        status = AppendAll(merged, {text.substr(0, state.table_start), table,
                                    text.substr(state.table_end, pard - state.table_end)});
    }
    // A table at or behind the first "\pard" leaves everything in front of that "\pard" out of the new
    // body: deliberate, kept as it stands.
    if (status == kStatusOk) status = AppendAll(merged, {state.header.view(), text.substr(pard)});
    if (status == kStatusOk) status = merged.AppendByte(0);
    if (status != kStatusOk) return status;
    merged.MoveInto(body);
    return kStatusOk;
}

// Where a repaired header goes: in front of the first "\\pard" that is not inside an ignorable
// destination ("{\\*...}") or a font, colour, style or information group; in a body without one,
// behind the words and groups that open the document, in front of its first text. npos for a body
// that is not a group. One pass with the depth counted, so nesting costs nothing.
size_t RepairedRtfInsertionPoint(std::string_view text) {
    auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    size_t depth = 0;
    size_t skipped_from = 0;  // the depth of the outermost group passed over; 0 when none
    size_t opening_end = std::string_view::npos;
    bool text_seen = false;  // text at the top level ends the opening
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        size_t next = i + 1;
        if (c == '{') {
            ++depth;
        } else if (c == '}') {
            if (depth == 0) return std::string_view::npos;
            if (skipped_from == depth) skipped_from = 0;
            if (--depth == 0) return opening_end;
            if (depth == 1 && !text_seen) opening_end = next;
        } else if (c == '\\' && next < text.size() && letter(text[next])) {
            while (next < text.size() && letter(text[next])) ++next;
            const std::string_view word = text.substr(i + 1, next - i - 1);
            if (word == "pard" && skipped_from == 0) return i;
            if (skipped_from == 0 && (word == "fonttbl" || word == "colortbl" || word == "stylesheet" ||
                                      word == "info" || word == "listtable" || word == "listoverridetable"))
                skipped_from = depth;
            if (next < text.size() && text[next] == '-') ++next;
            while (next < text.size() && text[next] >= '0' && text[next] <= '9') ++next;
            if (next < text.size() && text[next] == ' ') ++next;
            if (depth == 1 && !text_seen) opening_end = next;
        } else if (c == '\\') {
            const char symbol = next < text.size() ? text[next] : '\0';
            if (symbol == '*' && skipped_from == 0) skipped_from = depth;
            next = std::min(text.size(), i + (symbol == '\'' ? 4 : 2));
            if (depth == 1 && skipped_from == 0 && symbol == '\'') text_seen = true;
            if (depth == 1 && !text_seen) opening_end = next;
        } else if (depth == 1 && skipped_from == 0 && c != '\r' && c != '\n') {
            text_seen = true;
        }
        i = next;
    }
    return opening_end;
}

// The repaired insertion: the header at the repaired point, and a table that gained fonts in place of
// the body's own wherever that stands (or, for a body without one, in front of the header), nothing of
// the body left out.
int32_t InsertRepairedRtfHeader(RtfHeader& state, CountedString& body, Repairs& repairs) {
    if (state.header.length() == 0) return kStatusOk;
    if (const int32_t status = state.header.Append(kRtfSeparator); status != kStatusOk) return status;
    const std::string_view text = body.text();
    const size_t point = RepairedRtfInsertionPoint(text);
    if (point == std::string_view::npos) return kStatusUnsupported;
    if (point != text.find("\\pard")) repairs.Make(Repair::kRtfHeaderPlace);
    if (!state.fonts.changed) return SpliceInto(body, point, {}, state.header.view(), {});

    if (state.table_repaired) repairs.Make(Repair::kRtfFontTable);
    const size_t start = state.table_start == std::string_view::npos ? point : state.table_start;
    const size_t end = state.table_start == std::string_view::npos ? point : state.table_end;
    const std::string_view table = state.fonts.text.view();
    const std::string_view header = state.header.view();
    GrowBuffer merged;
    if (const int32_t status = merged.Init(text.size() + table.size() + header.size() + 1, 0);
        status != kStatusOk)
        return status;
    int32_t status = kStatusOk;
    if (end <= point) {
        status = AppendAll(merged, {text.substr(0, start), table, text.substr(end, point - end), header,
                                    text.substr(point)});
    } else {
        status = AppendAll(merged, {text.substr(0, point), header, text.substr(point, start - point), table,
                                    text.substr(end)});
    }
    if (status == kStatusOk) status = merged.AppendByte(0);
    if (status != kStatusOk) return status;
    merged.MoveInto(body);
    return kStatusOk;
}

int32_t BuildRtfHeader(MessageDocument& record) {
    RtfHeader state;
    if (const int32_t status = AnalyseBodyRtf(state, record.document, record.repairs); status != kStatusOk)
        return status;
    if (record.repairs.wanted()) state.text.repairs = &record.repairs;
    for (const HeaderField field :
         {kFieldFrom, kFieldSent, kFieldTo, kFieldCc, kFieldBcc, kFieldSubject, kFieldImportance}) {
        const int32_t status = WriteRtfHeaderRow(state, record, record.header[kSlotOfField[field]], field);
        if (status != kStatusOk) return status;
    }
    if (record.repairs.wanted()) return InsertRepairedRtfHeader(state, record.document, record.repairs);
    return InsertRtfHeader(state, record.document);
}

// ---- The localised text block ---------------------------------------------------------------------

// Puts one line in front of `body`, the text body being built.
int32_t PrependTextHeaderLine(const MessageDocument& record, CountedString& body, const CountedString& value,
                              HeaderField field) {
    // Repaired, a message without text still shows its header block.
    if (IsEmpty(value) || (IsEmpty(body) && !record.repairs.wanted())) return kStatusOk;
    const std::string_view label = HeaderLabel(field);
    GrowBuffer line;
    if (const int32_t status = line.Init(body.size() + 2 * label.size() + 3, kTextLineGrowth);
        status != kStatusOk)
        return status;
    if (const int32_t status = AppendAll(line, {label, "\t", value.text()}); status != kStatusOk)
        return status;
    const CountedString& address = record.header[kSlotSenderAddress];
    if (field == kFieldFrom && !IsEmpty(address)) {
        if (const int32_t status = AppendAll(line, {" <", address.text(), ">"}); status != kStatusOk)
            return status;
    }
    if (const int32_t status = line.Append("\r\n"); status != kStatusOk) return status;
    // A blank line parts the block from the body: behind Importance, or behind Subject when there is no
    // Importance line (lines are put in front, so these are the last lines of the block).
    if (field == kFieldImportance || (field == kFieldSubject && IsEmpty(record.header[kSlotImportance]))) {
        if (const int32_t status = line.Append("\r\n"); status != kStatusOk) return status;
    }
    if (const int32_t status = AppendAll(line, {body.text(), std::string_view("\0", 1)}); status != kStatusOk)
        return status;
    line.MoveInto(body);
    return kStatusOk;
}

int32_t BuildTextHeader(MessageDocument& record) {
    // An empty text body gets no header at all, unless repairs are wanted.
    if (IsEmpty(record.text_body) && !record.repairs.wanted()) return kStatusOk;
    // The lines go in front of a copy, which replaces the body only once every line is in.
    CountedString body;
    if (const int32_t status = AssignBytes(body, record.text_body.data(), record.text_body.size());
        status != kStatusOk)
        return status;
    // Each line goes in front of the body, so the fields are taken last to first.
    for (const HeaderField field :
         {kFieldImportance, kFieldSubject, kFieldBcc, kFieldCc, kFieldTo, kFieldSent, kFieldFrom}) {
        const int32_t status = PrependTextHeaderLine(record, body, record.header[kSlotOfField[field]], field);
        if (status != kStatusOk) return status;
    }
    record.text_body = std::move(body);
    return kStatusOk;
}

// ---- The English block ----------------------------------------------------------------------------

int32_t WriteEnglishHeaderRow(GrowBuffer& out, const CountedString& value, int32_t body_format,
                              HeaderField field, Repairs& repairs) {
    if (value.size() == 0) return kStatusOk;
    if (body_format < kBodyHtml || body_format > kBodyPlainText) return kStatusFormatFailure;
    const std::string_view templates[] = {kEnglishHtmlRows[field], kEnglishRtfRows[field],
                                          kEnglishTextRows[field]};
    if (const int32_t status = out.Append(templates[body_format]); status != kStatusOk) return status;
    const std::string_view text = value.text();
    if (body_format == kBodyHtml && repairs.wanted()) {
        if (const int32_t status = AppendHtmlText(out, text.substr(0, text.find('\0')), repairs);
            status != kStatusOk)
            return status;
    } else if (body_format == kBodyHtml) {
        // Only the angle brackets are escaped, and the copy ends at the first NUL.
        for (const char c : text.substr(0, text.find('\0'))) {
            const std::string_view piece = c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string_view(&c, 1);
            if (const int32_t status = out.Append(piece); status != kStatusOk) return status;
        }
    } else if (const int32_t status = out.Append(text); status != kStatusOk) {
        return status;
    }
    return out.Append(kEnglishRowEnds[body_format]);
}

// Wraps the body in an html element unless it begins with one (after spaces and line breaks), and puts
// the header behind its "<body ...>".
int32_t MergeEnglishHtml(CountedString& body, std::string_view header) {
    const std::string_view text = body.text();
    size_t point = 0;
    if (const int32_t status = HtmlInsertionPoint(text, &point); status != kStatusOk) return status;
    const size_t start = std::min(text.find_first_not_of(" \r\n"), text.size());
    if (StartsWithNoCase(text.substr(start), "<html")) return SpliceInto(body, point, {}, header, {});
    return SpliceInto(body, point, {"<html>"}, header, {"</html>"});
}

// The header goes in front of a text body, except behind the first three bytes of one that looks as if
// it began with a UTF-7 signature ("+/v"). Any one of the three bytes is taken as the sign, so some
// ordinary bodies get the block behind their first three bytes too: deliberate, kept as it stands.
int32_t MergeEnglishText(CountedString& body, std::string_view header) {
    const std::string_view text = body.text();
    const bool signature = text.size() > 3 && (text[0] == '+' || text[1] == '/' || text[2] == 'v');
    return SpliceInto(body, signature ? 3 : 0, {}, header, {});
}

}  // namespace

int32_t BuildLocalizedHeader(MessageDocument& record, int32_t body_format) {
    switch (body_format) {
        case kBodyHtml:
            return BuildHtmlHeader(record);
        case kBodyRtf:
            return BuildRtfHeader(record);
        case kBodyPlainText:
            return BuildTextHeader(record);
        default:
            return kStatusOk;
    }
}

int32_t AppendEnglishHeaderBlock(MessageDocument& record, int32_t body_format, GrowBuffer& out) {
    if (body_format < kBodyHtml || body_format > kBodyPlainText) return kStatusFormatFailure;
    if (IsEmpty(record.header[kSlotFrom]) && IsEmpty(record.header[kSlotTo]) &&
        IsEmpty(record.header[kSlotSent]) && IsEmpty(record.header[kSlotCc])) {
        // The contract's pages show no block without one of these four; a repaired one shows the rest.
        const bool rest = !IsEmpty(record.header[kSlotSubject]) || !IsEmpty(record.header[kSlotBcc]) ||
                          !IsEmpty(record.header[kSlotImportance]);
        if (!rest || !record.repairs.Make(Repair::kSubjectOnlyHeader)) return kStatusOk;
    }
    if (body_format == kBodyHtml) {
        if (const int32_t status = out.Append(kTableOpening); status != kStatusOk) return status;
    }
    // The English block has its own order, Sent before Cc; pages of Internet mail have always read so.
    for (const HeaderField field :
         {kFieldFrom, kFieldTo, kFieldSent, kFieldCc, kFieldBcc, kFieldSubject, kFieldImportance}) {
        const int32_t status = WriteEnglishHeaderRow(out, record.header[kSlotOfField[field]], body_format,
                                                     field, record.repairs);
        if (status != kStatusOk) return status;
    }
    return out.Append(kEnglishBlockEnds[body_format]);
}

int32_t BuildEnglishHeader(MessageDocument& record, int32_t body_format) {
    if (body_format < kBodyHtml || body_format > kBodyPlainText) return kStatusOk;
    GrowBuffer header;
    if (const int32_t status = header.Init(0, kHtmlHeaderGrowth); status != kStatusOk) return status;
    if (const int32_t status = AppendEnglishHeaderBlock(record, body_format, header); status != kStatusOk)
        return status;
    if (header.length() == 0) return kStatusOk;
    switch (body_format) {
        case kBodyHtml:
            return MergeEnglishHtml(record.document, header.view());
        case kBodyPlainText:
            return MergeEnglishText(record.text_body, header.view());
        default: {  // RTF
            // The block already ends in the separator paragraph, and the merge adds its own: English RTF
            // pages have always shown two. Deliberate, kept as it stands.
            RtfHeader state;
            if (const int32_t status = AnalyseBodyRtf(state, record.document, Repairs()); status != kStatusOk)
                return status;
            if (const int32_t status = state.header.Append(header.view()); status != kStatusOk) return status;
            return InsertRtfHeader(state, record.document);
        }
    }
}

}  // namespace tarn
