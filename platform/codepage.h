// Stand-ins for the three Windows code-page calls the filter makes, backed by ICU converters. The
// contracts are the Windows ones, so that callers written against them (size queries, round-trip checks
// through the used-default flag) behave the same here:
//
// - A source length of -1 means "up to and including the terminating NUL"; the NUL is converted and
//   counted. A length of 0 or below -1, a null source, a negative destination size, or a null
//   destination with a non-zero size fail.
// - A destination size of 0 asks for the size needed; nothing is written.
// - A destination that is too small fails (returns 0); what was written into it is unspecified.
// - A code page without a converter fails; so do flags this stand-in does not implement.
//
// Code pages: 0 and 3 (the ANSI code page, 1252), 1 (OEM, 437), 2 (Mac, 10000), 42 (Symbol), the DOS
// pages 437-869, 874, 932 (Shift-JIS with the Microsoft extensions), 936, 949, 950, 1250-1258,
// 1200/1201 (UTF-16), 10000 and the Mac pages ICU carries, 12000/12001 (UTF-32), 20127 (US-ASCII),
// 20866, 21866, 28591-28605 (ISO-8859), 50220-50222 (ISO-2022-JP), 50225 (ISO-2022-KR), 51932
// (EUC-JP), 51949 (EUC-KR), 52936 (HZ), 54936 (GB18030), 65000 (UTF-7), 65001 (UTF-8).
//
// Unlike Windows, characters without a mapping are never replaced by a look-alike ("best fit"): they
// always take the default character, so a conversion without a default character round-trips.
#ifndef TARN_PLATFORM_CODEPAGE_H_
#define TARN_PLATFORM_CODEPAGE_H_

#include <cstdint>

namespace tarn::platform {

constexpr uint32_t kCpAcp = 0;
constexpr uint32_t kCpSymbol = 42;
constexpr uint32_t kCpWestern = 1252;  // Windows-1252, where a store or message names no code page
constexpr uint32_t kCpUtf7 = 65000;
constexpr uint32_t kCpUtf8 = 65001;

// MultiByteToWideChar flags. Precomposed output is what ICU gives anyway; the composite and glyph
// flags are not implemented and make the call fail.
constexpr uint32_t kMbPrecomposed = 0x1;
// Fail on an invalid byte sequence instead of writing a substitute.
constexpr uint32_t kMbErrInvalidChars = 0x8;

// WideCharToMultiByte flags. Best fit is never done, so kWcNoBestFitChars changes nothing.
constexpr uint32_t kWcErrInvalidChars = 0x80;  // UTF-8 only: fail on an unpaired surrogate
constexpr uint32_t kWcNoBestFitChars = 0x400;

// Number of UTF-16 units written (or needed, when dest_units is 0); 0 on failure (unknown code page,
// bad arguments, too small a buffer, or - with kMbErrInvalidChars - an invalid sequence). Without that
// flag an invalid sequence becomes U+FFFD (or the converter's substitute control, U+001A, where a
// single-byte page has a byte without a character).
int MultiByteToWideChar(uint32_t code_page, uint32_t flags, const char* source, int source_bytes,
                        char16_t* dest, int dest_units);

// Number of bytes written (or needed, when dest_bytes is 0); 0 on failure. A character the code page
// cannot hold becomes `default_char` (its first byte), or "?" when that is null. When used_default is
// not null it is set to whether a default character had to be substituted (the filter uses it for
// round-trip checks). With UTF-7 and UTF-8 both must be null, as on Windows; there an unpaired
// surrogate becomes U+FFFD, or fails the call with kWcErrInvalidChars.
int WideCharToMultiByte(uint32_t code_page, uint32_t flags, const char16_t* source, int source_units,
                        char* dest, int dest_bytes, const char* default_char, bool* used_default);

// The process's ANSI code page; ours is 1252.
uint32_t GetACP();

}  // namespace tarn::platform

#endif  // TARN_PLATFORM_CODEPAGE_H_
