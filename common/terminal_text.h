// Text from a file made safe to print: on a terminal it shows as visible escapes, never as a control
// sequence that moves the cursor, rewrites the title or reorders the characters around it.
#ifndef TARN_COMMON_TERMINAL_TEXT_H_
#define TARN_COMMON_TERMINAL_TEXT_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace tarn {

// The length of the well-formed UTF-8 sequence at the start of `text`, its code point in `*code_point`;
// 0 when there is none (a stray continuation byte, an overlong form, a surrogate, a sequence cut
// short, or a value beyond U+10FFFF).
size_t Utf8Sequence(std::string_view text, char32_t* code_point);

// True for what a terminal acts on or what reorders the text around it: the C0 controls, DEL, the C1
// controls (U+0080-U+009F) and the bidirectional embeddings, overrides and isolates (U+202A-U+202E,
// U+2066-U+2069).
bool IsControlCharacter(char32_t c);

// `text` for a line of tarnview's text output, from which the value can be read back exactly: tab, CR,
// LF and backslash as \t \r \n \\; other C0 controls, DEL and bytes that are not well-formed UTF-8 as
// \xHH; C1 and bidirectional controls as \uHHHH; all other UTF-8 as it is.
std::string TerminalText(std::string_view text);
void AppendTerminalText(std::string& out, std::string_view text);

// Bytes of an unknown character set: printable ASCII as it is, every other byte and the backslash as
// \xHH.
std::string AsciiText(std::string_view text);

}  // namespace tarn

#endif  // TARN_COMMON_TERMINAL_TEXT_H_
