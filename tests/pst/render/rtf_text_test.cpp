// Header text written as RTF: escapes, code-page runs, "\u" runs in a font found by its glyphs, and the
// fonts added on the way. Expected bytes come from the code pages' published tables (Shift-JIS,
// Unified Hangul, Windows-125x) and from UTF-16, worked out by hand.
#include "pst/render/rtf_text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/tarnkrn_control.h"
#include "platform/font_coverage.h"

namespace tarn {
namespace {

// The faces the fixed answer was asked about, in order.
std::vector<std::u16string> asked_faces;

// A fixed answer instead of the installed fonts: Latin faces hold Latin, the CJK faces hold CJK (and
// the Korean ones Hangul), "Symbol" holds nothing.
// The glyph test asks again character by character once a run fails; that counts as one question.
bool FixedCoverage(std::u16string_view face, std::u16string_view text) {
    if (asked_faces.empty() || asked_faces.back() != face) asked_faces.emplace_back(face);
    for (char16_t unit : text) {
        const bool cjk = (unit >= 0x3000 && unit <= 0x9FFF) || (unit >= 0xFF00 && unit <= 0xFFEF);
        const bool hangul = unit >= 0xAC00 && unit <= 0xD7A3;
        bool covered;
        if (face == u"Symbol") {
            covered = false;
        } else if (face == u"SimSun" || face == u"MS Gothic" ||
                   face == u"\uFF2D\uFF33 \u30B4\u30B7\u30C3\u30AF") {
            covered = cjk || unit < 0x80;
        } else if (face == u"Batang" || face == u"Gulim") {
            covered = cjk || hangul || unit < 0x80;
        } else {
            covered = unit < 0x250;
        }
        if (!covered) return false;
    }
    return true;
}

struct Encoded {
    int32_t status;
    std::string rtf;
    std::string table_text;  // what the font table's text became
};

// Parses `table_rtf` (none when empty) as the body's font table and writes each value in turn, with
// the `fail_nth` allocation from then on made to fail (0: none).
Encoded Encode(const std::string& table_rtf, uint32_t document_code_page, int32_t current_font,
               const std::vector<std::string>& values, uint32_t fail_nth = 0, Repairs* repairs = nullptr) {
    RtfFontTable table;
    if (!table_rtf.empty()) {
        const char* position = table_rtf.data();
        EXPECT_EQ(ParseFontTable(table, position, table_rtf.data() + table_rtf.size()), 1);
    }
    table.document_code_page = document_code_page;
    GrowBuffer out;
    out.Init(0, 64);
    RtfTextState state{&out, &table, current_font, repairs};
    Encoded result{kStatusOk, {}, {}};
    krnctlFailAllocation(fail_nth);
    for (const std::string& value : values) {
        result.status = EncodeRtfText(state, value.data(), value.size());
        if (result.status != kStatusOk) break;
    }
    krnctlFailAllocation(0);
    result.rtf = std::string(out.view());
    result.table_text = std::string(table.text.view());
    return result;
}

class RtfTextFixed : public ::testing::Test {
  protected:
    void SetUp() override {
        previous_ = platform::SetFaceCoverage(&FixedCoverage);
        asked_faces.clear();
    }
    void TearDown() override { platform::SetFaceCoverage(previous_); }

  private:
    platform::FaceCoverageFn previous_ = nullptr;
};

const std::string kTable = R"({\fonttbl{\f0\fswiss\fcharset0 Arial;}{\f1\fnil\fcharset134 SimSun;}})";

TEST_F(RtfTextFixed, LabelsAndValuesOfEveryScript) {
    struct Case {
        const char* name;
        std::string utf8;
        std::string rtf;
        std::string added;          // fonts the table text gains, before its closing brace
        std::string repaired = "";  // the text when repairs are wanted, where it differs
    };
    const Case cases[] = {
        {"ASCII as it is", "From:      ", "From:      ", ""},
        {"RTF's own characters and controls escaped", "a{b}\\c\x01\x7f",
         R"(a\'7bb\'7d\'5cc\'01)"
         "\x7f",
         ""},
        {"German label in the base font, which holds 1252", "Priorit\xC3\xA4t: ", R"(Priorit\'e4t: )", ""},
        {"Japanese label in Shift-JIS behind an added font", "\xE5\xB7\xAE\xE5\x87\xBA\xE4\xBA\xBA:  ",
         R"(\f2 \'8d\'b7\'8fo\'90l\f0 :  )", R"({\f2 \swiss \fcharset128 MS Gothic})"},
        {"a trail byte that is a backslash stays raw, as code-page bytes below 128 do", "\xE3\x82\xBD",
         R"(\f2 \'83\\f0 )", R"({\f2 \swiss \fcharset128 MS Gothic})", R"(\f2 \'83\'5c\f0 )"},
        {"Chinese has no usable code page: Unicode in the table's covering font",
         "\xE5\x8F\x91\xE4\xBB\xB6\xE4\xBA\xBA:  ",
         R"(\f1 \u21457 ?\u20214 ?\u20154 ?\u58 ?\u32 ?\u32 ?\f0 )", ""},
        {"units from 0x8000 are negative", "\xE5\x8F\x91\xEF\xBC\x81", R"(\f1 \u21457 ?\u-255 ?\f0 )", ""},
        {"Korean label in Unified Hangul", "\xEB\xB3\xB4\xEB\x82\xB8 \xEC\x82\xAC\xEB\x9E\x8C:",
         R"(\f2 \'ba\'b8\'b3\'bd\f0  \f2 \'bb\'e7\'b6\'f7\f0 :)", R"({\f2 \swiss \fcharset129 Batang})"},
        {"Arabic label in 1256 with Arial", "\xD9\x86\xD9\x85\xD9\x86 :  ", R"(\f2 \'e4\'e3\'e4\f0  :  )",
         R"({\f2 \swiss \fcharset178 Arial})"},
        {"two scripts, two code pages",
         "\xCE\x95\xCE\xBB\xCE\xBB\xCE\xB7\xCE\xBD\xCE\xB9\xCE\xBA\xCE\xAC \xD8\xB9\xD8\xB1\xD8\xA8\xD9\x8A",
         R"(\f2 \'c5\'eb\'eb\'e7\'ed\'e9\'ea\'dc\f0  \f3 \'da\'d1\'c8\'ed\f0 )",
         R"({\f2 \swiss \fcharset161 Batang}{\f3 \swiss \fcharset178 Arial})"},
        {"Cyrillic goes to the first usable code page that holds it: Shift-JIS",
         "\xD0\xB8 \xD1\x80\xD1\x83\xD1\x81\xD1\x81\xD0\xBA\xD0\xB8\xD0\xB9",
         R"(\f2 \'84y\f0  \f2 \'84\'82\'84\'85\'84\'83\'84\'83\'84{\'84y\'84z\f0 )",
         R"({\f2 \swiss \fcharset128 MS Gothic})",
         R"(\f2 \'84y\f0  \f2 \'84\'82\'84\'85\'84\'83\'84\'83\'84\'7b\'84y\'84z\f0 )"},
        {"Romanian label: the letter no code page holds goes by glyphs, in the base font that has them",
         "Importan\xC8\x9B\xC4\x83:", R"(Importan\u539 ?\u259 ?\u58 ?)", ""},
        {"Japanese between Latin: the stretch takes the ASCII between runs", "x \xE3\x81\x82 y \xE3\x82\xA2",
         R"(x \f2 \'82\'a0\f0  y \f2 \'83A\f0 )", R"({\f2 \swiss \fcharset128 MS Gothic})"},
        {"ill-formed UTF-8 is U+FFFD, which no font here covers", "\xFF", R"(\u-3 ?)", ""},
        {"the text ends at a NUL", std::string("\xC3\xA4\0junk", 7), R"(\'e4)", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Encoded e = Encode(kTable, 1252, 0, {c.utf8});
        EXPECT_EQ(e.status, 1);
        EXPECT_EQ(e.rtf, c.rtf);
        std::string table = kTable;
        table.insert(table.size() - 1, c.added);
        EXPECT_EQ(e.table_text, table);
        Repairs repairs(true);
        EXPECT_EQ(Encode(kTable, 1252, 0, {c.utf8}, 0, &repairs).rtf,
                  c.repaired.empty() ? c.rtf : c.repaired);
        EXPECT_EQ(repairs.MadeNames(), c.repaired.empty() ? "" : "rtf-header-escape");
    }
}

TEST_F(RtfTextFixed, SwitchesToTheCodePagesFontAndBackToTheBase) {
    // The base is font 1 (a 1250 font); "ä" goes to the body's own 1252 font and back.
    const std::string table = R"({\fonttbl{\f0\froman\fcharset0 Times;}{\f1\fswiss\fcharset238 Arial CE;}})";
    const Encoded e = Encode(table, 1252, 1, {"Priorit\xC3\xA4t: "});
    EXPECT_EQ(e.rtf, R"(Priorit\f0 \'e4\f1 t: )");
    EXPECT_EQ(e.table_text, table);
}

TEST_F(RtfTextFixed, WithoutACurrentFontTheDocumentsCodePageGivesTheBase) {
    // A body without a font table: its first added fonts make the form-feed table text.
    const Encoded e = Encode("", 1252, kNoFont,
                             {"H\xC3\xB6"
                              "ch",
                              "\xE5\xB7\xAE"});
    EXPECT_EQ(e.status, 1);
    EXPECT_EQ(e.rtf, R"(H\'f6ch\f1 \'8d\'b7\f0 )");
    EXPECT_EQ(e.table_text,
              std::string("\x0C"
                          "onttbl{\\f0 \\swiss \\fcharset0 Arial}{\\f1 \\swiss \\fcharset128 MS Gothic}}"));
    // A document code page that no charset stands for cannot give a base font.
    EXPECT_EQ(Encode("", 99999, kNoFont, {"\xC3\xA9"}).status, -13);
    // With a current font it still writes: ASCII faces need no converter.
    EXPECT_EQ(Encode(kTable, 99999, 0, {"\xE5\x8F\x91"}).rtf, R"(\f1 \u21457 ?\f0 )");
}

TEST_F(RtfTextFixed, FaceNamesInTheDocumentsCodePage) {
    // "ＭＳ ゴシック" as Shift-JIS bytes in the table: the glyph test asks about the converted name,
    // which covers the run, so no fallback face is added.
    const std::string table =
        "{\\fonttbl{\\f0\\fmodern\\fcharset128 \x82\x6c\x82\x72 \x83\x53\x83\x56\x83\x62\x83\x4e;}}";
    const Encoded e = Encode(table, 932, 0, {"\xE5\x8F\x91"});
    EXPECT_EQ(e.rtf, R"(\u21457 ?)");
    EXPECT_EQ(e.table_text, table);
}

TEST_F(RtfTextFixed, GlyphSearchOrderAndFallbackFaces) {
    const std::string table =
        R"({\fonttbl{\f0\froman\fcharset0 Times New Roman;}{\f1\fswiss\fcharset0 Arial;}{\f2\fnil\fcharset2 ;}})";
    const Encoded first = Encode(table, 1252, 0, {"\xE5\x8F\x91", "\xE8\xBF\x99"});
    EXPECT_EQ(first.status, 1);
    // Table faces with names first; "Arial" is in the table, so the fallbacks go on with "Symbol", and
    // the face that passes is added with an empty family. The second value finds it in the table.
    const std::vector<std::u16string> expected = {u"Times New Roman", u"Arial", u"Symbol",   u"MS Gothic",
                                                  u"Times New Roman", u"Arial", u"MS Gothic"};
    EXPECT_EQ(asked_faces, expected);
    EXPECT_EQ(first.rtf, R"(\f3 \u21457 ?\f0 \f3 \u-28711 ?\f0 )");
    std::string grown = table;
    grown.insert(grown.size() - 1, R"({\f3 \ \fcharset0 MS Gothic})");
    EXPECT_EQ(first.table_text, grown);

    // Nothing covers U+FFFD: every fallback is asked ("Symbol" twice), no font is added or switched to.
    asked_faces.clear();
    const Encoded none = Encode(kTable, 1252, 0, {"\xEF\xBF\xBD"});
    EXPECT_EQ(none.rtf, R"(\u-3 ?)");
    EXPECT_EQ(none.table_text, kTable);
    const std::vector<std::u16string> all = {u"Arial",  u"SimSun", u"Symbol", u"MS Gothic",
                                             u"Batang", u"Gulim",  u"Symbol"};
    EXPECT_EQ(asked_faces, all);
}

TEST_F(RtfTextFixed, FailuresReachTheCaller) {
    RtfFontTable table;
    RtfTextState no_buffer{nullptr, &table, 0};
    EXPECT_EQ(EncodeRtfText(no_buffer, "a", 1), -814);
    GrowBuffer out;
    out.Init(0, 16);
    RtfTextState no_table{&out, nullptr, 0};
    EXPECT_EQ(EncodeRtfText(no_table, "a", 1), -814);
    RtfTextState state{&out, &table, 0};
    EXPECT_EQ(EncodeRtfText(state, nullptr, 3), -814);
    EXPECT_EQ(EncodeRtfText(state, nullptr, 0), 1);
    int32_t font = 0;
    EXPECT_EQ(EncodeRtfUnicode(nullptr, table, font, u"\u00e4", 1), -814);

    // Every allocation on the way made to fail in turn: each failure comes back as -1, never as a
    // shorter text, and nothing is left behind.
    const std::string greek_arabic_chinese =
        "\xCE\x95\xCE\xAC \xD8\xB9 \xE5\x8F\x91";  // two code pages and a glyph search
    const Encoded whole = Encode(kTable, 1252, 0, {greek_arabic_chinese});
    ASSERT_EQ(whole.status, 1);
    int failures = 0;
    for (uint32_t nth = 1;; ++nth) {
        const Encoded e = Encode(kTable, 1252, 0, {greek_arabic_chinese}, nth);
        if (e.status == 1 && e.rtf == whole.rtf) break;
        if (e.status == 1) {
            ADD_FAILURE() << "allocation " << nth << " failed but the text came back short: " << e.rtf;
            break;
        }
        ++failures;
        EXPECT_EQ(e.status, -1) << nth;
    }
    EXPECT_GE(failures, 10);
}

// With the installed fonts (scripts/deps.sh test installs them).
TEST(RtfTextFontconfig, LatinJapaneseAndArabicFindInstalledFonts) {
    struct Case {
        const char* name;
        std::string table;
        std::string utf8;
        std::string rtf;
        std::string added;
    };
    const Case cases[] = {
        {"Romanian beyond 1250: Arial's stand-in has the letters",
         R"({\fonttbl{\f0\fswiss\fcharset0 Arial;}})",
         "Importan\xC8\x9B\xC4\x83:", R"(Importan\u539 ?\u259 ?\u58 ?)", ""},
        {"a kanji outside Shift-JIS: MS Gothic's stand-in, after Arial and Symbol fail",
         R"({\fonttbl{\f0\fswiss\fcharset0 Arial;}})", "\xF0\xA0\xAE\xB7\xE9\x87\x8E\xE5\xAE\xB6",
         R"(\f1 \u-10174 ?\u-8265 ?\u-28210 ?\u23478 ?\f0 )", R"({\f1 \ \fcharset0 MS Gothic})"},
        {"Arabic outside 1256: the table's Arabic face, not Arial",
         R"({\fonttbl{\f0\fswiss\fcharset0 Arial;}{\f1\fnil\fcharset178 Traditional Arabic;}})",
         "\xDA\xA4\xD9\x8A\xD8\xAF\xD9\x8A\xD9\x88", R"(\f1 \u1700 ?\u1610 ?\u1583 ?\u1610 ?\u1608 ?\f0 )",
         ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Encoded e = Encode(c.table, 1252, 0, {c.utf8});
        EXPECT_EQ(e.status, 1);
        EXPECT_EQ(e.rtf, c.rtf);
        std::string table = c.table;
        table.insert(table.size() - 1, c.added);
        EXPECT_EQ(e.table_text, table);
    }
}

}  // namespace
}  // namespace tarn
