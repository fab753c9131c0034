// The filter's own ISO-2022-JP decoder, for bodies and header text that declare "iso-2022-jp".
#ifndef TARN_PST_RENDER_ISO2022JP_H_
#define TARN_PST_RENDER_ISO2022JP_H_

#include <cstddef>
#include <cstdint>

#include "pst/render/text_buffer.h"

namespace tarn {

// Decodes `*body` from byte `start` on to UTF-8 in place.
//
// First the first "iso-2022-jp" (any case) at or behind `start` becomes "UTF-8". Then, from the first
// ESC at or behind `start` (none: nothing more is done), the text is split at the escape sequences
// ESC ( B (ASCII), ESC ( J (JIS-Roman), ESC $ @ and ESC $ B (JIS X 0208); any other ESC is text of the
// current mode, and a CR or LF ends a JIS X 0208 run and returns to the mode that was in force before
// it, since mail clients reset to ASCII at every line end. ASCII is copied, JIS-Roman has "\" written
// as the single byte 0xA5 and "~" as U+203E, and JIS X 0208 is decoded pair by pair, U+FFFD for a pair
// or lone byte that names no character. Bytes before the first ESC are kept as they are. The result is
// NUL-terminated.
//
// 1; -814 for a null or empty body; -1 when memory runs out (the body then unchanged).
int32_t DecodeIso2022Jp(CountedString* body, size_t start);

}  // namespace tarn

#endif  // TARN_PST_RENDER_ISO2022JP_H_
