// Header text written into an RTF body: ASCII as it is (escaped where RTF needs it), other text in a
// code page that holds it, behind a switch to a font of that code page, and what no usable code page
// holds as "\u" escapes in a font whose glyphs cover it. Fonts that the text needs are added to the
// body's font table.
#ifndef TARN_PST_RENDER_RTF_TEXT_H_
#define TARN_PST_RENDER_RTF_TEXT_H_

#include <cstddef>
#include <cstdint>

#include "pst/render/repairs.h"
#include "pst/render/rtf_fonts.h"
#include "pst/render/text_buffer.h"

namespace tarn {

// No font selected yet.
constexpr int32_t kNoFont = -1;

// Where header text goes: the header's buffer, the body's font table, and the font the text is in.
// The buffer and table are borrowed and must outlive the state.
struct RtfTextState {
    GrowBuffer* out = nullptr;
    RtfFontTable* fonts = nullptr;
    int32_t current_font = kNoFont;
    // Repaired, structural bytes that a code page gives are escaped too; null for the contract.
    Repairs* repairs = nullptr;
};

// Writes `length` bytes of UTF-8. Bytes 32 to 127 are copied, except "{", "}" and the backslash, which
// like the bytes below 32 are written as "\'" and two lower-case hex digits; from the first byte of 128
// or more on, the rest is converted to UTF-16 and written by EncodeRtfUnicode.
// 1; -814 for a null state buffer or table or null text with a length; -13 when the conversion yields
// nothing or a needed code page has no font; -1 when memory runs out; or the buffer's status when it
// cannot grow.
int32_t EncodeRtfText(RtfTextState& state, const char* utf8, size_t length);

// Writes UTF-16 text that holds a unit of 128 or more; the text ends at its first NUL unit, if any.
// With no current font, the font of the document's code page becomes the base; otherwise the current
// one is. Text that one usable code page holds whole is written in it; else the text is walked by
// script runs, each written in a code page that holds it or, failing that, as "\u" escapes of signed
// 16-bit units in the first font (of the table, then of "Arial", "Symbol", "MS Gothic", "Batang",
// "Gulim", "Symbol") whose glyphs cover the run. Ends in the base font. Statuses as EncodeRtfText.
// With `repairs` wanted, a code page's bytes below 32, its braces and its backslashes (a double-byte
// code page's trail bytes can be any of these) are escaped as "\'hh" too.
int32_t EncodeRtfUnicode(GrowBuffer* out, RtfFontTable& table, int32_t& current_font, const char16_t* text,
                         size_t count, Repairs* repairs = nullptr);

}  // namespace tarn

#endif  // TARN_PST_RENDER_RTF_TEXT_H_
