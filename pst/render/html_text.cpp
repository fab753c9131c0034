#include "pst/render/html_text.h"

#include <algorithm>
#include <span>
#include <string>

#include "common/status.h"
#include "pst/render/text_search.h"

namespace tarn {
namespace {

struct Entity {
    std::string_view name;
    char32_t code_point;
};
// The named character references of HTML 4 and "apos", sorted by name (byte order) for a binary search.
// Mail bodies are written by mail programs, which use these; the thousands that later HTML added are
// left as written.
constexpr Entity kEntities[] = {
    {"AElig", 0xC6},     {"Aacute", 0xC1},   {"Acirc", 0xC2},    {"Agrave", 0xC0},   {"Alpha", 0x391},
    {"Aring", 0xC5},     {"Atilde", 0xC3},   {"Auml", 0xC4},     {"Beta", 0x392},    {"Ccedil", 0xC7},
    {"Chi", 0x3A7},      {"Dagger", 0x2021}, {"Delta", 0x394},   {"ETH", 0xD0},      {"Eacute", 0xC9},
    {"Ecirc", 0xCA},     {"Egrave", 0xC8},   {"Epsilon", 0x395}, {"Eta", 0x397},     {"Euml", 0xCB},
    {"Gamma", 0x393},    {"Iacute", 0xCD},   {"Icirc", 0xCE},    {"Igrave", 0xCC},   {"Iota", 0x399},
    {"Iuml", 0xCF},      {"Kappa", 0x39A},   {"Lambda", 0x39B},  {"Mu", 0x39C},      {"Ntilde", 0xD1},
    {"Nu", 0x39D},       {"OElig", 0x152},   {"Oacute", 0xD3},   {"Ocirc", 0xD4},    {"Ograve", 0xD2},
    {"Omega", 0x3A9},    {"Omicron", 0x39F}, {"Oslash", 0xD8},   {"Otilde", 0xD5},   {"Ouml", 0xD6},
    {"Phi", 0x3A6},      {"Pi", 0x3A0},      {"Prime", 0x2033},  {"Psi", 0x3A8},     {"Rho", 0x3A1},
    {"Scaron", 0x160},   {"Sigma", 0x3A3},   {"THORN", 0xDE},    {"Tau", 0x3A4},     {"Theta", 0x398},
    {"Uacute", 0xDA},    {"Ucirc", 0xDB},    {"Ugrave", 0xD9},   {"Upsilon", 0x3A5}, {"Uuml", 0xDC},
    {"Xi", 0x39E},       {"Yacute", 0xDD},   {"Yuml", 0x178},    {"Zeta", 0x396},    {"aacute", 0xE1},
    {"acirc", 0xE2},     {"acute", 0xB4},    {"aelig", 0xE6},    {"agrave", 0xE0},   {"alefsym", 0x2135},
    {"alpha", 0x3B1},    {"amp", 0x26},      {"and", 0x2227},    {"ang", 0x2220},    {"apos", 0x27},
    {"aring", 0xE5},     {"asymp", 0x2248},  {"atilde", 0xE3},   {"auml", 0xE4},     {"bdquo", 0x201E},
    {"beta", 0x3B2},     {"brvbar", 0xA6},   {"bull", 0x2022},   {"cap", 0x2229},    {"ccedil", 0xE7},
    {"cedil", 0xB8},     {"cent", 0xA2},     {"chi", 0x3C7},     {"circ", 0x2C6},    {"clubs", 0x2663},
    {"cong", 0x2245},    {"copy", 0xA9},     {"crarr", 0x21B5},  {"cup", 0x222A},    {"curren", 0xA4},
    {"dArr", 0x21D3},    {"dagger", 0x2020}, {"darr", 0x2193},   {"deg", 0xB0},      {"delta", 0x3B4},
    {"diams", 0x2666},   {"divide", 0xF7},   {"eacute", 0xE9},   {"ecirc", 0xEA},    {"egrave", 0xE8},
    {"empty", 0x2205},   {"emsp", 0x2003},   {"ensp", 0x2002},   {"epsilon", 0x3B5}, {"equiv", 0x2261},
    {"eta", 0x3B7},      {"eth", 0xF0},      {"euml", 0xEB},     {"euro", 0x20AC},   {"exist", 0x2203},
    {"fnof", 0x192},     {"forall", 0x2200}, {"frac12", 0xBD},   {"frac14", 0xBC},   {"frac34", 0xBE},
    {"frasl", 0x2044},   {"gamma", 0x3B3},   {"ge", 0x2265},     {"gt", 0x3E},       {"hArr", 0x21D4},
    {"harr", 0x2194},    {"hearts", 0x2665}, {"hellip", 0x2026}, {"iacute", 0xED},   {"icirc", 0xEE},
    {"iexcl", 0xA1},     {"igrave", 0xEC},   {"image", 0x2111},  {"infin", 0x221E},  {"int", 0x222B},
    {"iota", 0x3B9},     {"iquest", 0xBF},   {"isin", 0x2208},   {"iuml", 0xEF},     {"kappa", 0x3BA},
    {"lArr", 0x21D0},    {"lambda", 0x3BB},  {"lang", 0x2329},   {"laquo", 0xAB},    {"larr", 0x2190},
    {"lceil", 0x2308},   {"ldquo", 0x201C},  {"le", 0x2264},     {"lfloor", 0x230A}, {"lowast", 0x2217},
    {"loz", 0x25CA},     {"lrm", 0x200E},    {"lsaquo", 0x2039}, {"lsquo", 0x2018},  {"lt", 0x3C},
    {"macr", 0xAF},      {"mdash", 0x2014},  {"micro", 0xB5},    {"middot", 0xB7},   {"minus", 0x2212},
    {"mu", 0x3BC},       {"nabla", 0x2207},  {"nbsp", 0xA0},     {"ndash", 0x2013},  {"ne", 0x2260},
    {"ni", 0x220B},      {"not", 0xAC},      {"notin", 0x2209},  {"nsub", 0x2284},   {"ntilde", 0xF1},
    {"nu", 0x3BD},       {"oacute", 0xF3},   {"ocirc", 0xF4},    {"oelig", 0x153},   {"ograve", 0xF2},
    {"oline", 0x203E},   {"omega", 0x3C9},   {"omicron", 0x3BF}, {"oplus", 0x2295},  {"or", 0x2228},
    {"ordf", 0xAA},      {"ordm", 0xBA},     {"oslash", 0xF8},   {"otilde", 0xF5},   {"otimes", 0x2297},
    {"ouml", 0xF6},      {"para", 0xB6},     {"part", 0x2202},   {"permil", 0x2030}, {"perp", 0x22A5},
    {"phi", 0x3C6},      {"pi", 0x3C0},      {"piv", 0x3D6},     {"plusmn", 0xB1},   {"pound", 0xA3},
    {"prime", 0x2032},   {"prod", 0x220F},   {"prop", 0x221D},   {"psi", 0x3C8},     {"quot", 0x22},
    {"rArr", 0x21D2},    {"radic", 0x221A},  {"rang", 0x232A},   {"raquo", 0xBB},    {"rarr", 0x2192},
    {"rceil", 0x2309},   {"rdquo", 0x201D},  {"real", 0x211C},   {"reg", 0xAE},      {"rfloor", 0x230B},
    {"rho", 0x3C1},      {"rlm", 0x200F},    {"rsaquo", 0x203A}, {"rsquo", 0x2019},  {"sbquo", 0x201A},
    {"scaron", 0x161},   {"sdot", 0x22C5},   {"sect", 0xA7},     {"shy", 0xAD},      {"sigma", 0x3C3},
    {"sigmaf", 0x3C2},   {"sim", 0x223C},    {"spades", 0x2660}, {"sub", 0x2282},    {"sube", 0x2286},
    {"sum", 0x2211},     {"sup", 0x2283},    {"sup1", 0xB9},     {"sup2", 0xB2},     {"sup3", 0xB3},
    {"supe", 0x2287},    {"szlig", 0xDF},    {"tau", 0x3C4},     {"there4", 0x2234}, {"theta", 0x3B8},
    {"thetasym", 0x3D1}, {"thinsp", 0x2009}, {"thorn", 0xFE},    {"tilde", 0x2DC},   {"times", 0xD7},
    {"trade", 0x2122},   {"uArr", 0x21D1},   {"uacute", 0xFA},   {"uarr", 0x2191},   {"ucirc", 0xFB},
    {"ugrave", 0xF9},    {"uml", 0xA8},      {"upsih", 0x3D2},   {"upsilon", 0x3C5}, {"uuml", 0xFC},
    {"weierp", 0x2118},  {"xi", 0x3BE},      {"yacute", 0xFD},   {"yen", 0xA5},      {"yuml", 0xFF},
    {"zeta", 0x3B6},     {"zwj", 0x200D},    {"zwnj", 0x200C},
};

constexpr size_t kLongestEntityName = 8;
constexpr char32_t kReplacement = 0xFFFD;

// Elements whose start and end each end the line, and those that also leave an empty line around them.
constexpr std::string_view kLineBlocks[] = {"address", "article", "center", "dd", "div",     "dt",
                                            "footer",  "form",    "header", "li", "section", "tr"};
constexpr std::string_view kParagraphBlocks[] = {"blockquote", "h1", "h2", "h3",  "h4",    "h5", "h6",
                                                 "hr",         "ol", "p",  "pre", "table", "ul"};
// Elements whose content is not text to be read: it is left out up to their end tag.
constexpr std::string_view kHiddenElements[] = {"head", "script", "style", "title"};

bool IsIn(std::string_view name, std::span<const std::string_view> names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool IsAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsHtmlSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

// The code point of a character reference at the start of `text` ("&" included) and its length; 0 for
// none. A numeric reference that names no character (a surrogate, beyond U+10FFFF, NUL) is U+FFFD.
size_t ReadReference(std::string_view text, char32_t* code_point) {
    if (text.size() < 3) return 0;
    if (text[1] == '#') {
        const bool hex = text[2] == 'x' || text[2] == 'X';
        size_t at = hex ? 3 : 2;
        uint32_t value = 0;
        const size_t digits_from = at;
        for (; at < text.size(); ++at) {
            const int digit =
                hex ? HexValue(text[at]) : (text[at] >= '0' && text[at] <= '9' ? text[at] - '0' : -1);
            if (digit < 0) break;
            // Saturates: the value is only compared with the largest code point.
            value = std::min<uint32_t>(value * (hex ? 16 : 10) + static_cast<uint32_t>(digit), 0x110000);
        }
        if (at == digits_from) return 0;
        const bool named = value != 0 && value < 0x110000 && (value < 0xD800 || value > 0xDFFF);
        *code_point = named ? value : kReplacement;
        return at < text.size() && text[at] == ';' ? at + 1 : at;
    }
    const size_t semicolon = text.substr(0, kLongestEntityName + 2).find(';');
    if (semicolon == std::string_view::npos) return 0;
    const std::string_view name = text.substr(1, semicolon - 1);
    const auto found =
        std::lower_bound(std::begin(kEntities), std::end(kEntities), name,
                         [](const Entity& entity, std::string_view key) { return entity.name < key; });
    if (found == std::end(kEntities) || found->name != name) return 0;
    *code_point = found->code_point;
    return semicolon + 1;
}

int32_t AppendUtf8(char32_t c, GrowBuffer& out) {
    char bytes[4];
    size_t count;
    if (c < 0x80) {
        bytes[0] = static_cast<char>(c);
        count = 1;
    } else if (c < 0x800) {
        bytes[0] = static_cast<char>(0xC0 | c >> 6);
        bytes[1] = static_cast<char>(0x80 | (c & 0x3F));
        count = 2;
    } else if (c < 0x10000) {
        bytes[0] = static_cast<char>(0xE0 | c >> 12);
        bytes[1] = static_cast<char>(0x80 | (c >> 6 & 0x3F));
        bytes[2] = static_cast<char>(0x80 | (c & 0x3F));
        count = 3;
    } else {
        bytes[0] = static_cast<char>(0xF0 | c >> 18);
        bytes[1] = static_cast<char>(0x80 | (c >> 12 & 0x3F));
        bytes[2] = static_cast<char>(0x80 | (c >> 6 & 0x3F));
        bytes[3] = static_cast<char>(0x80 | (c & 0x3F));
        count = 4;
    }
    return out.Append(bytes, count);
}

// Where the tag that starts at `text[0]` ends (behind its ">"); quoted attribute values may hold ">".
size_t TagEnd(std::string_view text) {
    char quote = 0;
    for (size_t at = 1; at < text.size(); ++at) {
        const char c = text[at];
        if (quote != 0) {
            if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            return at + 1;
        }
    }
    return text.size();
}

// Writes the text with its line breaks: breaks asked for by blocks are merged, so that blocks in a row
// leave at most one empty line, and none are written before the first text or after the last.
class TextWriter {
  public:
    explicit TextWriter(GrowBuffer& out) : out_(out) {}

    void AskBreaks(int breaks) { wanted_ = std::max(wanted_, breaks); }
    void AskSpace() { space_ = true; }
    int32_t Break() {
        ++trailing_;
        space_ = false;
        return out_.Append("\r\n");
    }
    int32_t Text(std::string_view text) {
        if (started_) {
            for (; trailing_ < wanted_; ++trailing_)
                if (const int32_t status = out_.Append("\r\n"); status != kStatusOk) return status;
            if (space_ && trailing_ == 0) {
                if (const int32_t status = out_.AppendByte(' '); status != kStatusOk) return status;
            }
        }
        started_ = true;
        wanted_ = 0;
        trailing_ = 0;
        space_ = false;
        return text.empty() ? kStatusOk : out_.Append(text);
    }
    int32_t CodePoint(char32_t c) {
        if (const int32_t status = Text({}); status != kStatusOk) return status;
        return AppendUtf8(c, out_);
    }

  private:
    GrowBuffer& out_;
    bool started_ = false;
    int wanted_ = 0;    // line breaks the blocks ask for before the next text
    int trailing_ = 0;  // line breaks written since the last text
    bool space_ = false;
};

}  // namespace

int32_t HtmlToText(std::string_view html, GrowBuffer* out) {
    if (out == nullptr) return kStatusNullPointer;
    TextWriter writer(*out);
    std::string_view hidden;  // the element whose content is being left out
    int pre = 0;              // depth of pre elements: their white space is kept
    size_t at = 0;
    while (at < html.size()) {
        const char c = html[at];
        if (c == '<' && html.substr(at, 4) == "<!--") {
            const size_t end = html.find("-->", at + 4);
            at = end == std::string_view::npos ? html.size() : end + 3;
            continue;
        }
        const bool closing = c == '<' && at + 1 < html.size() && html[at + 1] == '/';
        if (c == '<' && at + 1 < html.size() &&
            (IsAsciiLetter(html[at + 1]) || closing || html[at + 1] == '!' || html[at + 1] == '?')) {
            const size_t end = at + TagEnd(html.substr(at));
            const size_t name_from = at + (closing ? 2 : 1);
            size_t name_to = name_from;
            while (name_to < end &&
                   (IsAsciiLetter(html[name_to]) || (html[name_to] >= '0' && html[name_to] <= '9')))
                ++name_to;
            std::string name(html.substr(name_from, name_to - name_from));
            for (char& letter : name) letter = AsciiLower(letter);
            at = end;
            if (!hidden.empty()) {
                // A head left open ends where the body begins.
                if ((closing && name == hidden) || (hidden == "head" && !closing && name == "body"))
                    hidden = {};
                continue;
            }
            if (!closing && IsIn(name, kHiddenElements)) {
                hidden = *std::find(std::begin(kHiddenElements), std::end(kHiddenElements), name);
                continue;
            }
            if (name == "br") {
                if (const int32_t status = writer.Break(); status != kStatusOk) return status;
            } else if (IsIn(name, kParagraphBlocks)) {
                writer.AskBreaks(2);
                if (name == "pre") pre = std::max(0, pre + (closing ? -1 : 1));
            } else if (IsIn(name, kLineBlocks)) {
                writer.AskBreaks(1);
            } else if (name == "td" || name == "th") {
                writer.AskSpace();
            }
            continue;
        }
        if (!hidden.empty()) {
            ++at;
            continue;
        }
        if (c == '&') {
            char32_t code_point = 0;
            if (const size_t length = ReadReference(html.substr(at), &code_point); length != 0) {
                if (const int32_t status = writer.CodePoint(code_point); status != kStatusOk) return status;
                at += length;
                continue;
            }
        }
        if (IsHtmlSpace(c) && pre == 0) {
            writer.AskSpace();
            ++at;
            continue;
        }
        if (pre > 0 && (c == '\r' || c == '\n')) {
            // A line of preformatted text ends at LF, CR LF or CR.
            if (c == '\r' && at + 1 < html.size() && html[at + 1] == '\n') ++at;
            if (const int32_t status = writer.Break(); status != kStatusOk) return status;
            ++at;
            continue;
        }
        // A run of ordinary bytes goes in one piece.
        size_t run = at + 1;
        while (run < html.size() && html[run] != '<' && html[run] != '&' && !IsHtmlSpace(html[run])) ++run;
        if (const int32_t status = writer.Text(html.substr(at, run - at)); status != kStatusOk) return status;
        at = run;
    }
    return kStatusOk;
}

}  // namespace tarn
