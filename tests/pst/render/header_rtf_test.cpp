// The header block in RTF: for each of the nine languages the rows pinned byte for byte with a fixed
// glyph answer, where the block goes into the body and what happens to its font table, the English
// block's two separator paragraphs, and the failures that leave the body as it was.
//
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "kernel/tarnkrn_control.h"
#include "platform/font_coverage.h"
#include "pst/render/header_block.h"
#include "pst/render/header_labels.h"
#include "tests/pst/render/header_rtf_rows.h"

namespace tarn::testing {
namespace {

const std::string kSeparator =
    "\\pard \\ltrpar\\ql \\li0\\ri0\\widctlpar\\wrapdefault\\aspalpha\\aspnum\\faauto\\adjustright\\rin0"
    "\\lin0\\itap0 {\\rtlch\\fcs1 \\af1 \\ltrch\\fcs0 \\insrsid5716485 \\par }";

// The body the rows go into: a table of one font, a group between the table and the first "\pard".
const std::string kBodyHead = "{\\rtf1\\ansi\\ansicpg1252\\deff0{";
const std::string kBodyTable = "\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}";
const std::string kBodyMiddle = "\r\n{\\colortbl;}\r\n";
const std::string kBodyTail = "\\pard\\plain body\\par\r\n}";

bool OnlyGothic(std::u16string_view face, std::u16string_view) { return face == u"MS Gothic"; }

class RtfHeader : public ::testing::Test {
  protected:
    void SetUp() override { previous_ = platform::SetFaceCoverage(&OnlyGothic); }
    void TearDown() override { platform::SetFaceCoverage(previous_); }

  private:
    platform::FaceCoverageFn previous_ = nullptr;
};

void Put(CountedString& slot, const std::string& bytes) {
    ASSERT_EQ(AssignBytes(slot, bytes.data(), bytes.size()), kStatusOk);
}

std::string Bytes(const CountedString& s) {
    return std::string(reinterpret_cast<const char*>(s.data()), s.size());
}

// The fields the model's rows show; Importance is the High label of the language, as the store's
// importance 2 gives it.
void FillFields(MessageDocument& record, uint16_t language) {
    krnctlSetLanguage(language);
    Put(record.header[kSlotFrom], "Ann");
    Put(record.header[kSlotSenderAddress], "ann@example.com");
    Put(record.header[kSlotSent], "Tue Mar 05, 2019 02:07 PM");
    Put(record.header[kSlotTo], "Bob");
    Put(record.header[kSlotCc], "Cy");
    Put(record.header[kSlotBcc], "Dee");
    Put(record.header[kSlotSubject], "Hi {x}");
    ASSERT_EQ(ImportanceText(kImportanceHigh, record.header[kSlotImportance]), kStatusOk);
}

TEST_F(RtfHeader, RowsOfEveryLanguageWithAFixedGlyphAnswer) {
    for (const LanguageRows& expected : kRows) {
        SCOPED_TRACE(expected.language);
        MessageDocument record;
        FillFields(record, expected.language);
        Put(record.document, kBodyHead + kBodyTable + kBodyMiddle + kBodyTail);
        ASSERT_EQ(BuildLocalizedHeader(record, kBodyRtf), kStatusOk);
        std::string rows;
        for (const char* row : expected.rows) rows += row;
        const std::string table = expected.table != nullptr ? expected.table : kBodyTable;
        EXPECT_EQ(Bytes(record.document),
                  kBodyHead + table + kBodyMiddle + rows + kSeparator + kBodyTail + std::string(1, '\0'));
    }
}

TEST_F(RtfHeader, WhereTheBlockGoesAndWhatItNeedsOfTheBody) {
    krnctlSetLanguage(0x0409);
    const std::string subject_row =
        "\r{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 Subject:   \\tab }{\\rtlch\\fcs1 "
        "\\af37 \\ltrch\\fcs0 \\cf0 s\\insrsid5716485 \\par }\r\n";
    struct Case {
        const char* what;
        std::string body;
        int32_t status;
        std::string expected;  // with H for the rows and separator; empty: the body unchanged
        std::string repaired;  // the same, repaired (status 1 whenever it is not empty)
    };
    const Case cases[] = {
        {"in front of the first \\pard", "{\\rtf1{\\fonttbl}x\\pard a\\pard b}", kStatusOk,
         "{\\rtf1{\\fonttbl}xH\\pard a\\pard b}", "{\\rtf1{\\fonttbl}xH\\pard a\\pard b}"},
        {"\\from instead of a table", "{\\rtf1\\fromtext \\pard a}", kStatusOk,
         "{\\rtf1\\fromtext H\\pard a}", "{\\rtf1\\fromtext H\\pard a}"},
        {"a \\pard in a destination", "{\\rtf1{\\fonttbl}{\\*\\ftnsep{\\pard x}}\\pard a}", kStatusOk,
         "{\\rtf1{\\fonttbl}{\\*\\ftnsep{H\\pard x}}\\pard a}",
         "{\\rtf1{\\fonttbl}{\\*\\ftnsep{\\pard x}}H\\pard a}"},
        {"no \\pard", "{\\rtf1{\\fonttbl{\\f0 Arial;}}{\\colortbl;} a}", kStatusFailure, "",
         "{\\rtf1{\\fonttbl{\\f0 Arial;}}{\\colortbl;}H a}"},
        {"neither a table nor \\from", "{\\rtf1\\pard a}", kStatusUnsupported, "", "{\\rtf1H\\pard a}"},
        {"a table that never closes", "{\\rtf1{\\fonttbl{\\f0 Arial;}\\pard a", kStatusUnsupported, "", ""},
    };
    for (const Case& c : cases) {
        for (const bool repaired : {false, true}) {
            MessageDocument record;
            record.repairs = Repairs(repaired);
            Put(record.header[kSlotSubject], "s");
            Put(record.document, c.body);
            const bool mended = repaired && !c.repaired.empty();
            EXPECT_EQ(BuildLocalizedHeader(record, kBodyRtf), mended ? kStatusOk : c.status) << c.what;
            std::string expected = mended ? c.repaired : c.expected;
            if (expected.empty()) {
                expected = c.body;
            } else {
                expected.replace(expected.find('H'), 1, subject_row + kSeparator);
                expected += std::string(1, '\0');
            }
            EXPECT_EQ(Bytes(record.document), expected) << c.what << (repaired ? ", repaired" : "");
        }
    }

    // No rows: nothing is needed of the body, not even a "\pard".
    MessageDocument empty;
    Put(empty.document, "{\\rtf1\\fromtext x}");
    EXPECT_EQ(BuildLocalizedHeader(empty, kBodyRtf), kStatusOk);
    EXPECT_EQ(Bytes(empty.document), "{\\rtf1\\fromtext x}");
}

TEST_F(RtfHeader, FontsAddedToABodyWithoutATableOrWithOneBehindPard) {
    krnctlSetLanguage(0x0411);  // "件名:    " needs a font for code page 932
    const std::string row =
        "\r{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 \\f1 \\'8c\\'8f\\'96\\'bc\\f0 :  "
        "  "
        "\\tab }{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 s\\insrsid5716485 \\par }\r\n";
    // Without a table the body's code page has no font either: the first font is the one for 1252.
    // The table text starts as a form feed and "onttbl}" (where "\f" was meant), kept as it stands.
    MessageDocument bare;
    Put(bare.header[kSlotSubject], "s");
    Put(bare.document, "{\\rtf1\\ansicpg1252\\fromhtml1 \\deff0{\\colortbl;}\\pard a}");
    ASSERT_EQ(BuildLocalizedHeader(bare, kBodyRtf), kStatusOk);
    EXPECT_EQ(Bytes(bare.document),
              "{\\rtf1\\ansicpg1252\\fromhtml1 " + std::string("\x0C") +
                  "onttbl{\\f0 \\swiss \\fcharset0 Arial}{\\f1 \\swiss \\fcharset128 MS Gothic}}" +
                  "\\deff0{\\colortbl;}" + row + kSeparator + "\\pard a}" + std::string(1, '\0'));

    // Repaired, the table is a well-formed group.
    MessageDocument mended;
    mended.repairs = Repairs(true);
    Put(mended.header[kSlotSubject], "s");
    Put(mended.document, "{\\rtf1\\ansicpg1252\\fromhtml1 \\deff0{\\colortbl;}\\pard a}");
    ASSERT_EQ(BuildLocalizedHeader(mended, kBodyRtf), kStatusOk);
    EXPECT_EQ(Bytes(mended.document),
              "{\\rtf1\\ansicpg1252\\fromhtml1 {\\fonttbl{\\f0 \\swiss \\fcharset0 Arial}{\\f1 "
              "\\swiss \\fcharset128 MS Gothic}}\\deff0{\\colortbl;}" +
                  row + kSeparator + "\\pard a}" + std::string(1, '\0'));
    EXPECT_EQ(mended.repairs.MadeNames(), "rtf-font-table");

    // A table behind the first "\pard" that gains fonts: everything in front of that "\pard" is left out
    // (kept as it stands).
    MessageDocument late;
    Put(late.header[kSlotSubject], "s");
    Put(late.document, "{\\rtf1\\ansicpg1252\\pard a{\\fonttbl{\\f0\\fcharset0 Arial;}}}");
    ASSERT_EQ(BuildLocalizedHeader(late, kBodyRtf), kStatusOk);
    EXPECT_EQ(Bytes(late.document),
              row + kSeparator + "\\pard a{\\fonttbl{\\f0\\fcharset0 Arial;}}}" + std::string(1, '\0'));
    // Repaired, nothing is left out, and the table gains its font where it stands.
    MessageDocument kept;
    kept.repairs = Repairs(true);
    Put(kept.header[kSlotSubject], "s");
    Put(kept.document, "{\\rtf1\\ansicpg1252\\pard a{\\fonttbl{\\f0\\fcharset0 Arial;}}}");
    ASSERT_EQ(BuildLocalizedHeader(kept, kBodyRtf), kStatusOk);
    EXPECT_EQ(Bytes(kept.document),
              "{\\rtf1\\ansicpg1252" + row + kSeparator +
                  "\\pard a{\\fonttbl{\\f0\\fcharset0 Arial;}{\\f1 \\swiss \\fcharset128 MS "
                  "Gothic}}}" +
                  std::string(1, '\0'));
}

TEST_F(RtfHeader, ABodyInUtf8TakesItsHeaderAsUnicodeWhenRepaired) {
    krnctlSetLanguage(0x0409);
    const std::string body =
        "{\\rtf1\\ansi\\ansicpg65001\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}\\pard a}";
    for (const bool repaired : {false, true}) {
        MessageDocument record;
        record.repairs = Repairs(repaired);
        Put(record.header[kSlotSubject], "M\u00fcller \u65e5\u672c");
        Put(record.document, body);
        const int32_t status = BuildLocalizedHeader(record, kBodyRtf);
        const std::string document = Bytes(record.document);
        if (!repaired) {
            // No font of code page 65001 to write in: no header, and the body as it was.
            EXPECT_LT(status, kStatusOk);
            EXPECT_EQ(document, body);
            continue;
        }
        ASSERT_EQ(status, kStatusOk);
        const std::string text = std::regex_replace(document, std::regex(R"(\\f\d+ )"), "");
        EXPECT_NE(text.find("M\\u252 ?ller \\u26085 ?\\u26412 ?"), std::string::npos) << document;
        EXPECT_EQ(document.find("\\'"), std::string::npos) << document;
        EXPECT_EQ(record.repairs.MadeNames(), "rtf-unicode-header");
    }
}

TEST_F(RtfHeader, EnglishBlockHasTwoSeparatorsAndWritesValuesAsTheyAre) {
    MessageDocument record;
    Put(record.header[kSlotFrom], "Zoë {Z}");
    Put(record.header[kSlotBcc], "Dee");
    Put(record.header[kSlotImportance], "High");
    Put(record.document, "{\\rtf1{\\fonttbl{\\f0 Arial;}}\\pard a}");
    ASSERT_EQ(BuildEnglishHeader(record, kBodyRtf), kStatusOk);
    const std::string open = "{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 ";
    const std::string joint = "}{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 ";
    const std::string end = "\\insrsid5716485 \\par }\r\n";
    EXPECT_EQ(Bytes(record.document), "{\\rtf1{\\fonttbl{\\f0 Arial;}}" + open +
                                          "From:\\tab \\tab \\tab \\tab " + joint + "Zoë {Z}" + end + open +
                                          "Bcc:\\tab \\tab \\tab " + joint + "Dee" + end + open +
                                          "Importance:\\tab \\tab \\tab \\tab " + joint + "High" + end +
                                          kSeparator + kSeparator + "\\pard a}" + std::string(1, '\0'));
}

TEST_F(RtfHeader, EveryFailedAllocationLeavesTheBodyAsItWas) {
    const std::string body = kBodyHead + kBodyTable + kBodyMiddle + kBodyTail;
    for (uint32_t nth = 1;; ++nth) {
        MessageDocument record;
        FillFields(record, 0x0804);
        Put(record.document, body);
        krnctlFailAllocation(nth);
        const int32_t status = BuildLocalizedHeader(record, kBodyRtf);
        krnctlFailAllocation(0);
        if (status == kStatusOk) break;
        EXPECT_EQ(status, kStatusFailure) << nth;
        EXPECT_EQ(Bytes(record.document), body) << nth;
    }
}

}  // namespace
}  // namespace tarn::testing
