// The header block on PST messages through the entry points: the fields the store holds come out as the
// block's rows, in the kernel's language, at the top of the HTML, RTF and text documents the toolkit's
// loaders are handed. Expected rows are put together from the published templates and labels.
#include <gtest/gtest.h>

#include <string>

#include "common/status.h"
#include "tests/pst/store_fixture.h"

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

}  // namespace
}  // namespace tarn::testing
