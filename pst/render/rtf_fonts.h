// The font table of an RTF body: reading it, finding a font for a code page, and adding the fonts the
// header's text needs. The header builder and the RTF-to-HTML reader share it.
#ifndef TARN_PST_RENDER_RTF_FONTS_H_
#define TARN_PST_RENDER_RTF_FONTS_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "pst/render/text_buffer.h"

namespace tarn {

// One row of the RTF charset table: an RTF charset number, the Windows code page it stands for, and
// whether that code page is tried for the header's text.
struct RtfCharset {
    int32_t charset;
    uint32_t code_page;
    bool usable;
};

// The 35 rows, sorted by charset. 936 and 950 are deliberately not usable, so that Chinese text is
// written as Unicode in a font found by its glyphs rather than in a code page its reader may not have.
std::span<const RtfCharset> RtfCharsets();

// The code page of an RTF charset, by the rows in order: the search stops at the first row whose charset
// is larger. 0 when the charset is not in the table.
uint32_t CodePageOfCharset(int32_t charset);

// A font of the table. The face is kernel memory owned by the table: NUL-terminated, empty when the
// entry named none.
struct RtfFont {
    int32_t number = 0;
    uint32_t code_page = 0;  // 0: the document's code page
    int32_t charset = 0;
    char* face = nullptr;
    size_t face_length = 0;

    std::string_view face_name() const { return {face == nullptr ? "" : face, face_length}; }
};

// The fonts of one RTF body, with the text of its font-table group, to which added fonts are written.
class RtfFontTable {
  public:
    RtfFontTable();
    ~RtfFontTable();
    RtfFontTable(const RtfFontTable&) = delete;
    RtfFontTable& operator=(const RtfFontTable&) = delete;

    std::span<const RtfFont> entries() const { return {entries_, count_}; }
    // Appends an entry with a copy of `face`; 1, or -1 when memory runs out (nothing is added then).
    int32_t Append(int32_t number, uint32_t code_page, int32_t charset, std::string_view face);
    // Drops every entry and the table text; the code page and the counters are reset.
    void Clear();

    uint32_t document_code_page = 0;  // from the body's "\ansicpg"; set by the caller
    int32_t next_font_number = 0;     // the last parsed entry's number + 1; 0 for an empty table
    bool changed = false;             // a font was added to `text`
    GrowBuffer text;                  // the font-table group's text, from its start to its closing brace

  private:
    RtfFont* entries_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

// Reads the font-table group whose text starts at `position`: at its opening brace, or just inside it
// (at "\fonttbl", where a search for that word lands). The table's entries and text are replaced; the
// text runs from `position` to the closing brace. Each entry group ("{\f1\fswiss\fcharset0 Arial;}")
// gives its font number ("\f" and digits), its charset and the code page that charset stands for
// ("\fcharset"), or a code page directly ("\fcpg"), and its face name: the first text directly inside
// the entry, up to a quote, semicolon, backslash or brace, or the whole of a name in double quotes.
// Text in groups nested inside an entry ("{\*\panose ...}", "{\*\falt ...}") is not a face name.
// Numbers saturate at the limits of 32 bits.
// Returns 1 with `position` behind the closing brace; -9 for a backslash at the very end or a group that
// never closes; -1 when memory runs out. On failure the table is left empty and `position` unchanged.
int32_t ParseFontTable(RtfFontTable& table, const char*& position, const char* end);

// The entry with that number, or null.
const RtfFont* FontByNumber(const RtfFontTable& table, int32_t number);

// The number of a font for `code_page`: the first entry of that code page, or of code page 0 when
// `code_page` is the document's; else a font added for the first charset of that code page. -13 for a
// code page that no charset stands for; -1 when memory runs out.
int32_t FontForCodePage(RtfFontTable& table, uint32_t code_page);

// Adds a font with the next number and writes "{\fN \FAMILY \fcharsetC FACE}" into the table text
// before its last byte. The number, or -1 when memory runs out.
int32_t AddFont(RtfFontTable& table, uint32_t code_page, int32_t charset, std::string_view family,
                std::string_view face);

}  // namespace tarn

#endif  // TARN_PST_RENDER_RTF_FONTS_H_
