// Declared character sets of message bodies and their conversion to UTF-8, the encoding in which every
// document is handed to the toolkit's loaders. ISO-2022-JP has a decoder of its own (iso2022jp.h); the
// other sets go through the platform's code-page conversion.
#ifndef TARN_PST_RENDER_CHARSET_H_
#define TARN_PST_RENDER_CHARSET_H_

#include <cstdint>
#include <string_view>

#include "pst/render/text_buffer.h"

namespace tarn {

// A declared character set. The codes are compared by the MIME reader and the header builder, so their
// values are fixed.
constexpr int32_t kCharsetNone = 0;       // nothing declared
constexpr int32_t kCharsetIso2022Jp = 1;  // the filter's own decoder
constexpr int32_t kCharsetLatin1 = 2;     // converted as Windows-1252
constexpr int32_t kCharsetUtf8 = 3;
constexpr int32_t kCharsetUsAscii = 4;  // only the declaration is rewritten
constexpr int32_t kCharsetWindows = 5;  // "windows-" and the code page number
constexpr int32_t kCharsetGb2312 = 6;   // converted as 936
constexpr int32_t kCharsetBig5 = 7;     // converted as 950
constexpr int32_t kCharsetOther = 8;    // not converted

struct CharsetCode {
    int32_t code = kCharsetNone;
    // The code page that converts the set; 0 where the code is not converted through one.
    int32_t code_page = 0;
};

// The set that `name` names, compared without regard to ASCII case. Never kCharsetNone: a name that
// is not recognised, the empty one included, is kCharsetOther. Recognised are "gb2312", "big5" and
// "iso-8859-1" as whole names, and names that begin with "iso-2022-jp", "us-ascii", "utf-8" or
// "windows-", tested in that order. The code page behind "windows-" is the run of decimal digits that
// follows (0 when there is none, saturating at INT32_MAX).
CharsetCode CharsetFromName(std::string_view name);

// Looks in `text` for a "charset=" parameter (the "c" may be upper case, the rest in any case) and
// reads the name behind it: one opening double quote is skipped, the name ends at the next double
// quote or the end of `text` and, within that, at the first ";", and trailing white space is trimmed.
// 1 with the name's set in `*out` (kCharsetOther for a name not recognised); 0 when `text` holds no
// declaration or is shorter than 8 bytes, `*out` then untouched.
int32_t FindCharsetDeclaration(std::string_view text, CharsetCode* out);

// Converts `*body` to UTF-8 in place, from the set `*charset`.
//
// With `rewrite_declaration` false (plain-text bodies) only ISO-2022-JP is converted. With it true (HTML
// bodies, MIME parts): ISO-8859-1, US-ASCII, windows-N, GB2312 and Big5 have their declared name in the
// body (the first, compared without regard to case) replaced by "UTF-8"; for US-ASCII that is all, and
// `charset->code` becomes kCharsetUtf8. For the others, the bytes behind the declaration are converted
// and the bytes before it are kept as they are, since a declaration comes before any text; a body that
// does not hold the name is converted whole. Nothing declared, UTF-8 and unrecognised sets are left
// alone.
//
// A terminating NUL stays. 1; -814 for a null or empty body or a null charset; -1 when memory runs out;
// -1851 when the text cannot be converted (a code page without a converter, such as the 31 of
// "windows-31j", or a failed UTF-16 to UTF-8 conversion). Callers keep text they cannot convert, but a
// -1 ends their work. The body is unchanged unless the result is 1.
int32_t ConvertToUtf8(CountedString* body, CharsetCode* charset, bool rewrite_declaration);

// Appends `bytes`, read in the set that `name` names, to `*out` as UTF-8: UTF-8 and US-ASCII as they
// are, the windows-N, ISO-8859-1, GB2312 and Big5 of the table through their code pages (ISO-8859-1 as
// Windows-1252), and any other set, or a windows-N without a converter (windows-31j), through ICU's
// converter of that name or one of its aliases (Shift_JIS, GB18030, UTF-7, KOI8-R, x-mac-cyrillic,
// ks_c_5601-1987, ISO-2022-JP and the like). A byte sequence that begins no character becomes U+FFFD.
// 1; -1851 for a name no converter knows; -13 for a null output; -1 when memory runs out.
int32_t AppendNamedSetAsUtf8(std::string_view bytes, std::string_view name, GrowBuffer* out);

// Converts `*body` from the set that `name` names to UTF-8 in place, as AppendNamedSetAsUtf8 does; for
// sets that the table above does not convert. In an HTML body the first "charset=" that declares
// `name` then declares "UTF-8". A terminating NUL stays. Statuses as AppendNamedSetAsUtf8, and -814
// for a null or empty body; the body is unchanged unless the result is 1.
int32_t ConvertNamedSetToUtf8(CountedString* body, std::string_view name, bool html);

// The declaration EnsureUtf8Meta inserts (65 bytes).
constexpr std::string_view kUtf8MetaTag =
    "<meta http-equiv=Content-Type content=\"text/html; charset=utf-8\">";

// Gives an HTML document that declares no character set a UTF-8 declaration: unless "charset" occurs
// anywhere in it (case-sensitive), kUtf8MetaTag is inserted directly behind its first "<head>"
// (case-sensitive; none, and nothing is done). The grown document is NUL-terminated. 1; -814 for a null
// document; -1 when memory runs out (the document then unchanged).
int32_t EnsureUtf8Meta(CountedString* html);

// The code page a message's 8-bit strings are stored in, for a code page the message names. A 7-bit
// transfer form of a script (ISO-2022, HZ, US-ASCII) can be a message's Internet code page but never the
// page its 8-bit strings are in: those are in the Windows page of the same script.
uint32_t StoredStringCodePage(uint32_t named);

// 8-bit text in `code_page` (else Western European, should the page have no converter) into `out` as
// UTF-8 with a terminating NUL. Bytes the page does not map become U+FFFD. 1, or -1 when memory runs out.
int32_t EightBitToUtf8(std::string_view bytes, uint32_t code_page, CountedString& out);

}  // namespace tarn

#endif  // TARN_PST_RENDER_CHARSET_H_
