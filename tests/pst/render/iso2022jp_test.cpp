// The ISO-2022-JP decoder and its JIS X 0208 table. The table is checked against published values of
// the standard (its row sizes, its character count, chart code points); the decoder against
// hand-decoded text and, for every character of the table, against ICU's own ISO-2022-JP converter
// reached through the code-page stand-in.
#include "pst/render/iso2022jp.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "common/status.h"
#include "kernel/tarnkrn_control.h"
#include "platform/codepage.h"
#include "platform/unicode.h"
#include "pst/render/jisx0208_table.h"
#include "tests/support/counted_text.h"

namespace tarn {
namespace {

using testing::Bytes;
using testing::Counted;

std::string Decoded(std::string_view text, size_t start = 0) {
    CountedString body = Counted(text);
    if (DecodeIso2022Jp(&body, start) != kStatusOk) return "<failed>";
    return Bytes(body);
}

std::string Terminated(std::string text) { return text + std::string(1, '\0'); }

// `count` replacement characters in UTF-8.
std::string Fffd(int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out += "\xEF\xBF\xBD";
    return out;
}

char16_t Cell(int row, int cell) {
    const JisRow& r = kJisX0208Rows[row - 1];
    return static_cast<size_t>(cell - 1) < r.length ? r.cells[cell - 1] : char16_t(0xFFFD);
}

TEST(JisX0208Table, HoldsThePublishedStandard) {
    // JIS X 0208-1990 has 6879 characters: 524 in rows 1-8, 2965 level-1 kanji in rows 16-47 and 3390
    // level-2 kanji in rows 48-84.
    int non_kanji = 0, level1 = 0, level2 = 0;
    for (int row = 1; row <= 94; ++row) {
        const JisRow& r = kJisX0208Rows[row - 1];
        ASSERT_LE(r.length, 94u);
        int mapped = 0;
        for (size_t i = 0; i < r.length; ++i) mapped += r.cells[i] != 0xFFFD;
        if (row <= 8) non_kanji += mapped;
        if (row >= 16 && row <= 47) level1 += mapped;
        if (row >= 48 && row <= 84) level2 += mapped;
        const bool in_standard = row <= 8 || (row >= 16 && row <= 84);
        EXPECT_EQ(r.length > 0, in_standard) << "row " << row;
    }
    EXPECT_EQ(non_kanji, 524);
    EXPECT_EQ(level1, 2965);
    EXPECT_EQ(level2, 3390);
    // Row sizes: hiragana, katakana, Greek, Cyrillic, box drawing, the end of level 1, the last row.
    EXPECT_EQ(kJisX0208Rows[3].length, 83u);
    EXPECT_EQ(kJisX0208Rows[4].length, 86u);
    EXPECT_EQ(kJisX0208Rows[7].length, 32u);
    EXPECT_EQ(kJisX0208Rows[46].length, 51u);
    EXPECT_EQ(kJisX0208Rows[83].length, 6u);

    // Chart values (row-cell, JIS code, character).
    struct Point {
        int row, cell;
        char16_t unit;
    };
    const std::vector<Point> points = {
        {1, 1, 0x3000},    // 0x2121 ideographic space
        {2, 1, 0x25C6},    // 0x2221 black diamond
        {3, 16, 0xFF10},   // 0x2330 full-width digit zero
        {4, 1, 0x3041},    // 0x2421 small a: row 4 starts here
        {4, 2, 0x3042},    // 0x2422 a
        {5, 2, 0x30A2},    // 0x2522 katakana a
        {6, 1, 0x0391},    // 0x2621 Alpha
        {7, 1, 0x0410},    // 0x2721 Cyrillic A
        {8, 1, 0x2500},    // 0x2821 box drawing
        {16, 1, 0x4E9C},   // 0x3021 the first level-1 kanji
        {16, 76, 0x4E00},  // 0x306C one
        {47, 51, 0x8155},  // 0x4F53 the last level-1 kanji
        {48, 1, 0x5F0C},   // 0x5021 the first level-2 kanji
        {84, 6, 0x7199},   // 0x7426 the last character of the standard
        {2, 15, 0xFFFD},   // 0x222F: a hole in row 2
    };
    for (const Point& p : points) EXPECT_EQ(Cell(p.row, p.cell), p.unit) << p.row << "-" << p.cell;
}

TEST(Iso2022Jp, DecodesRunsByTheirMode) {
    struct Case {
        const char* what;
        std::string text;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"hiragana between ASCII", "Re: \x1B$B$3$s$K$A$O\x1B(B!",
         Terminated("Re: \xE3\x81\x93\xE3\x82\x93\xE3\x81\xAB\xE3\x81\xA1\xE3\x81\xAF!")},
        {"ESC $ @ selects JIS X 0208 too", "\x1B$@0!\x1B(B", Terminated("\xE4\xBA\x9C")},
        {"bytes before the first escape are kept", "caf\xE9 \x1B$B$\"\x1B(B",
         Terminated("caf\xE9 \xE3\x81\x82")},
        {"a line break leaves JIS X 0208 for ASCII", "\x1B$B$\"\r\n$\"", Terminated("\xE3\x81\x82\r\n$\"")},
        {"and for JIS-Roman when that was in force", "\x1B(J\x1B$B$\"\n\\~\x1B$B$\"\x1B$B$\"\r~",
         Terminated("\xE3\x81\x82\n\xA5\xE2\x80\xBE\xE3\x81\x82\xE3\x81\x82\r\xE2\x80\xBE")},
        {"JIS-Roman: yen as the lone byte A5, overline as UTF-8", "\x1B(Ja\\b~c\x1B(B\\~",
         Terminated("a\xA5"
                    "b\xE2\x80\xBE"
                    "c\\~")},
        {"space and DEL stand for themselves", "\x1B$B$\" $\"\x7F",
         Terminated("\xE3\x81\x82 \xE3\x81\x82\x7F")},
        {"first bytes without a row consume one byte", "\x1B$B)$\"\x80$\"\x1B(B",
         Terminated(Fffd(1) + "\xE3\x81\x82" + Fffd(1) + "\xE3\x81\x82")},
        {"control, high and out-of-range first bytes", "\x1B$B\x01\xFFu\x7E", Terminated(Fffd(4))},
        {"a second byte of 0x20 or below, beyond the row or in a hole is one U+FFFD", "\x1B$B$\x01t'(A\"/",
         Terminated(Fffd(4))},
        {"a first byte that ends the run", "\x1B$B$\x1B(Bx", Terminated("\xEF\xBF\xBDx")},
        {"an unknown escape is text", "\x1B(I1\x1B$B$\"\x1B(B\x1B", Terminated("\x1B(I1\xE3\x81\x82\x1B")},
        {"an escape cut short is text", "a\x1B$", Terminated("a\x1B$")},
        {"the declaration becomes UTF-8", "charset=\"ISO-2022-JP\"\n\x1B$B$\"\x1B(B",
         Terminated("charset=\"UTF-8\"\n\xE3\x81\x82")},
        {"only the first declaration", "iso-2022-jp iso-2022-jp", "UTF-8 iso-2022-jp"},
        {"without an escape only the declaration changes", "iso-2022-jp caf\xE9", "UTF-8 caf\xE9"},
        {"without either nothing changes", "caf\xE9", "caf\xE9"},
        {"a terminator stays with the declaration alone", std::string("iso-2022-jp\0", 12),
         Terminated("UTF-8")},
        {"a terminated body gets no second NUL", std::string("\x1B$B$\"\0", 6), Terminated("\xE3\x81\x82")},
    };
    for (const Case& c : cases) EXPECT_EQ(Decoded(c.text), c.expected) << c.what;
}

TEST(Iso2022Jp, StartsAtTheGivenOffset) {
    // Escapes and the declaration before the start are left alone.
    EXPECT_EQ(Decoded("\x1B$B$\" iso-2022-jp|\x1B$B$\"", 4), Terminated("\x1B$B$\" UTF-8|\xE3\x81\x82"));
    EXPECT_EQ(Decoded("iso-2022-jp \x1B$B$\"", 1000), "iso-2022-jp \x1B$B$\"");

    CountedString empty;
    EXPECT_EQ(DecodeIso2022Jp(nullptr, 0), kStatusNullPointer);
    EXPECT_EQ(DecodeIso2022Jp(&empty, 0), kStatusNullPointer);

    // Every allocation in turn fails; the body stays as it was until the decoder succeeds.
    const std::string text = "iso-2022-jp: \x1B$B$3$s$K$A$O\x1B(B";
    for (uint32_t nth = 1;; ++nth) {
        CountedString body = Counted(text);
        krnctlFailAllocation(nth);
        const int32_t status = DecodeIso2022Jp(&body, 0);
        krnctlFailAllocation(0);
        if (status == kStatusOk) break;
        EXPECT_EQ(status, kStatusFailure);
        EXPECT_EQ(Bytes(body), text);
        ASSERT_LT(nth, 10u);
    }
}

// Every character of the table, in lines of 400 that each open with ESC $ B and close with ESC ( B,
// decoded by us and by ICU's ISO-2022-JP converter. Long runs also cross the decoder's chunk size.
TEST(Iso2022Jp, AgreesWithIcuOnEveryCharacter) {
    std::string text;
    int in_line = 0;
    for (int row = 1; row <= 94; ++row) {
        for (int cell = 1; cell <= 94; ++cell) {
            if (Cell(row, cell) == 0xFFFD) continue;
            if (in_line == 0) text += "\x1B$B";
            text += static_cast<char>(0x20 + row);
            text += static_cast<char>(0x20 + cell);
            if (++in_line == 400) {
                text += "\x1B(B\r\n";
                in_line = 0;
            }
        }
    }
    text += "\x1B(B";

    const int units =
        platform::MultiByteToWideChar(50220, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    ASSERT_GT(units, 0);
    std::u16string wide(static_cast<size_t>(units), u'\0');
    ASSERT_EQ(platform::MultiByteToWideChar(50220, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                                            units),
              units);
    const std::optional<std::string> icu = platform::Utf8FromUtf16(wide);
    ASSERT_TRUE(icu.has_value());

    const std::string ours = Decoded(text);
    ASSERT_EQ(ours.size(), icu->size() + 1);
    EXPECT_EQ(ours.substr(0, icu->size()), *icu);
}

}  // namespace
}  // namespace tarn
