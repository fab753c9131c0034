// The header block on PST messages through the entry points: the fields the store holds come out as the
// block's rows, in the kernel's language, at the top of the HTML, RTF and text documents the toolkit's
// loaders are handed. Expected rows are put together from the published templates and labels.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "common/status.h"
#include "tests/pst/render/header_rtf_rows.h"
#include "tests/pst/store_fixture.h"
#include "tests/support/rtf_writer.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

const std::string kTable =
    "<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'>\r\n";
const std::string kBlockEnd = "</table>\r\n<p class=MsoNormal><o:p>&nbsp;</o:p></p>\r\n";

std::string Row(const std::string& label, const std::string& value) {
    return "\n<tr><td style = 'width:87pt; padding: 0px; vertical-align:top'><b><span style = "
           "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black'>" +
           label +
           "</span></b></td><td style = 'padding: 0px'><span style = "
           "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; word-wrap: "
           "break-word;'>" +
           value + "</span></td></tr>\r\n";
}

StoreMessage Message(const std::string& html) {
    StoreMessage m = HtmlMessage("Grüße", html);
    m.sender_name = "Jörg";
    m.display_to = "Ann; Bob";
    m.display_cc = "";  // present but empty: no row
    m.display_bcc = "Cy";
    m.importance = 2;
    m.body = fixture::StoreText(fixture::PstLayout::kUnicode, "hi");
    return m;
}

TEST(PstHeader, HtmlAndTextDocumentsOpenWithTheBlockInTheKernelsLanguage) {
    ScratchDir dir;
    StoreDescription store;
    store.folders = {{"Inbox", {Message("<body><p>x</p></body>")}}};
    const std::u16string path = WriteStore(dir, store);

    struct Case {
        uint16_t language;
        std::string from, to, bcc, subject, importance, high;
    };
    const Case cases[] = {
        {0x0407, "Von:       ", "An:        ", "Bcc:       ", "Betreff:   ", "Priorität: ", "Höch"},
        {0x0C07, "From:      ", "To:        ", "Bcc:       ", "Subject:   ", "Importance:", "High"},
        {0x1004, "发件人:  ", "收件人:  ", "Bcc:    ", "主题:    ", "重要性:  ", "高"},
        {0x1401, "نمن :  ", "إلى :  ", "Bcc:   ", "الموضوع:", "الأهمية: ", "عالية"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.language);
        krnctlSetLanguage(c.language);
        const Loaded html = LoadMessage(path, 1);
        ASSERT_EQ(html.status, kStatusOk) << html.error;
        EXPECT_EQ(html.format, 369);
        EXPECT_EQ(html.document, "<html><body>" + kTable + Row(c.from, "Jörg") + Row(c.to, "Ann; Bob") +
                                     Row(c.bcc, "Cy") + Row(c.subject, "Grüße") + Row(c.importance, c.high) +
                                     kBlockEnd + "<p>x</p></body></html>");

        // The text lines go in front of the stored UTF-16 text; the loader is told of the length less the
        // mark, so the text's last two bytes fall outside it (kept as it stands).
        const Loaded text = LoadMessage(path, 1, /*plain_text=*/true);
        ASSERT_EQ(text.status, kStatusOk) << text.error;
        EXPECT_EQ(text.format, 316);
        EXPECT_EQ(text.document, "\xFF\xFE" + c.from + "\tJörg\r\n" + c.to + "\tAnn; Bob\r\n" + c.bcc +
                                     "\tCy\r\n" + c.subject + "\tGrüße\r\n" + c.importance + "\t" + c.high +
                                     "\r\n\r\nh");
    }
}

TEST(PstHeader, AFailedBlockFailsTheDocument) {
    ScratchDir dir;
    StoreDescription store;
    store.folders = {{"Inbox", {Message("text <body bgcolor=x")}}};
    // "<body" without ">" is malformed for the block, which the document step reports as -1.
    const Loaded loaded = LoadMessage(WriteStore(dir, store), 1);
    EXPECT_EQ(loaded.status, kStatusFailure);
    EXPECT_TRUE(loaded.document.empty());
}

// Font switches ("\fN ") removed: which font covers a run depends on the fonts installed.
std::string WithoutFontSwitches(const std::string& rtf) {
    return std::regex_replace(rtf, std::regex(R"(\\f[0-9]+ )"), "");
}

TEST(PstHeader, RtfDocumentsOfEveryLanguageWithTheInstalledFonts) {
    // The sent time is formatted in the local time zone; the expected rows are in UTC.
    TimeZone utc("UTC");

    const std::string body =
        "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}\r\n"
        "{\\colortbl;}\r\n\\pard\\plain body\\par\r\n}";
    StoreMessage m;
    m.subject = "Hi {x}";
    m.sender_name = "Ann";
    m.display_to = "Bob";
    m.display_cc = "Cy";
    m.display_bcc = "Dee";
    m.submit_time = (1551794820ull + 11644473600ull) * 10'000'000ull;  // 2019-03-05 14:07 UTC
    m.importance = 2;
    m.rtf_compressed = AsBytes(CompressedRtf(body, {.comp_type = 0x414C454D}));
    ScratchDir dir;
    StoreDescription store;
    store.folders = {{"Inbox", {m}}};
    const std::u16string path = WriteStore(dir, store);

    for (const LanguageRows& expected : kRows) {
        SCOPED_TRACE(expected.language);
        krnctlSetLanguage(expected.language);
        const Loaded loaded = LoadMessage(path, 1);
        ASSERT_EQ(loaded.status, kStatusOk) << loaded.error;
        EXPECT_EQ(loaded.format, 226);
        const std::string& document = loaded.document;

        // The rows as the model has them (a store gives no sender address), whatever fonts they are in.
        std::string rows;
        for (const char* row : expected.rows) rows += row;
        rows.erase(rows.find(" <ann@example.com>"), 18);
        const std::string tail = "\\pard\\plain body\\par\r\n}";
        EXPECT_NE(WithoutFontSwitches(document).find(WithoutFontSwitches(rows) + "\\pard \\ltrpar"),
                  std::string::npos);
        EXPECT_EQ(document.substr(0, 32), body.substr(0, 32));
        EXPECT_EQ(document.substr(document.size() - tail.size()), tail);

        // Every font the rows switch to is one the document's font table defines.
        const size_t table_end = document.find("}}\r\n{\\colortbl");
        ASSERT_NE(table_end, std::string::npos);
        const std::string table = document.substr(0, table_end + 2);
        const std::string header = document.substr(table_end);
        const std::regex font_switch(R"(\\f([0-9]+) )");
        for (auto it = std::sregex_iterator(header.begin(), header.end(), font_switch);
             it != std::sregex_iterator(); ++it) {
            const std::string number = (*it)[1];
            EXPECT_TRUE(table.find("{\\f" + number + " ") != std::string::npos ||
                        table.find("{\\f" + number + "\\") != std::string::npos)
                << "\\f" << number << " is not in " << table;
        }
    }
}

}  // namespace
}  // namespace tarn::testing
