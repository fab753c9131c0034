// The decoders of Internet message text: quoted-printable and base64 content, header fields found by
// name and unfolded, and the encoded words of header values.
#ifndef TARN_PST_RENDER_MIME_DECODE_H_
#define TARN_PST_RENDER_MIME_DECODE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "pst/render/repairs.h"
#include "pst/render/text_buffer.h"

namespace tarn {

inline constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Appends the quoted-printable text `in`, decoded, to `*out`: "=" and CR LF is a soft line break and
// is dropped; "=" and two hex digits (either case) is that byte; any other "=" is copied as it is, and
// so is every other byte, except that with `underscore_is_space` "_" becomes a space. A soft break of a
// bare LF is not one: the "=" stays. With `repairs` wanted, "=", any spaces and tabs, and LF or CR LF
// are a soft break too. 1; -814 for a null output; the buffer's status when it cannot grow.
int32_t DecodeQuotedPrintable(std::string_view in, GrowBuffer* out, bool underscore_is_space,
                              Repairs* repairs = nullptr);

// Appends the base64 text `in`, decoded, to `*out`. Bytes outside the alphabet and "=" are dropped
// first; fewer than 5 remaining bytes decode to nothing (so a lone group such as "QQ==" gives nothing:
// deliberate, mail software has always read it so). Groups of four are decoded up to the first "=";
// a last group of two or three letters gives one or two bytes. 1; -13 for a null output; the buffer's
// status when it cannot grow.
int32_t DecodeBase64(std::string_view in, GrowBuffer* out);

// Looks in the header block `block` for the first line that begins with `name` (compared without regard
// to case; `name` includes its colon). The value starts behind the name, one space skipped, and runs to
// the line's end; each continuation line (one that begins with a space or a tab) is appended without
// its line break, its leading white space kept. True and the value in `*value`; false when there is
// no such line.
bool FindHeaderField(std::string_view block, std::string_view name, std::string* value);

// Appends `value` to `*out` with its encoded words ("=?" charset "?" B or Q "?" text "?=") decoded:
// base64 for "B", quoted-printable with "_" as space for "Q", then converted to UTF-8 from ISO-2022-JP,
// ISO-8859-1, windows-N, GB2312 and Big5; UTF-8, US-ASCII and sets not recognised are taken as they
// decode. The encoding letter must be an upper-case "B" or "Q": a word with a lower-case letter, or one
// that never closes, is copied as it stands. Text between encoded words, white space included, is
// copied. A word whose text the code page cannot convert keeps its decoded bytes: one bad word does
// not cost the message its header.
//
// With `repairs` wanted, as the encoded-word standard reads them: the letter may be either case, white
// space between two adjacent words is dropped, a word in a set beyond those above (or without a code
// page converter) is converted by the set's name (AppendNamedSetAsUtf8), and raw 8-bit bytes outside
// words are read in the set `raw_set` names, when not empty; the decoded words never are.
//
// 1; -814 for a null output; -1 when memory runs out.
int32_t DecodeEncodedWords(std::string_view value, GrowBuffer* out, Repairs* repairs = nullptr,
                           std::string_view raw_set = {});

}  // namespace tarn

#endif  // TARN_PST_RENDER_MIME_DECODE_H_
