// The header block in HTML and plain text, localised and English: the rows and their order, the From
// row's rules, where the block goes into the body, the deliberate oddities, and that a failure leaves
// the body as it was. Expected bytes are put together from the published row templates below.
#include "pst/render/header_block.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "kernel/tarnkrn_control.h"

namespace tarn::testing {
namespace {

// The localised HTML pieces.
const std::string kTable =
    "<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'>\r\n";
const std::string kRowOpen =
    "\n<tr><td style = 'width:87pt; padding: 0px; vertical-align:top'><b><span style = "
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black'>";
const std::string kJoint =
    "</span></b></td><td style = 'padding: 0px'><span style = "
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; word-wrap: "
    "break-word;'>";
const std::string kRowEnd = "</span></td></tr>\r\n";
const std::string kBlockEnd = "</table>\r\n<p class=MsoNormal><o:p>&nbsp;</o:p></p>\r\n";

std::string Row(const std::string& label, const std::string& value) {
    return kRowOpen + label + kJoint + value + kRowEnd;
}

// The English HTML row of a label.
std::string EnglishHtmlRow(const std::string& label, const std::string& value) {
    return "<tr><td style = 'width:87pt; padding: 0px; vertical-align:top'><b><span lang = EN-US style = "
           "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; "
           "mso-ansi-language:EN-US'>" +
           label +
           "</span></b></td><td style = 'padding: 0px'><span lang = EN-US style = "
           "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; "
           "mso-ansi-language:EN-US; word-wrap: break-word;'>" +
           value + kRowEnd;
}

std::string Z(const std::string& text) { return text + std::string(1, '\0'); }

void Put(CountedString& slot, const std::string& bytes) {
    ASSERT_EQ(AssignBytes(slot, bytes.data(), bytes.size()), kStatusOk);
}

struct Fields {
    std::string from, address, representing, to, subject, sent, cc, bcc, importance;
};

// A record with the given fields (an empty string leaves a slot absent) and bodies.
void Fill(MessageDocument& record, const Fields& f, const std::optional<std::string>& document,
          const std::optional<std::string>& text = std::nullopt) {
    Put(record.header[kSlotFrom], f.from);
    Put(record.header[kSlotSenderAddress], f.address);
    Put(record.header[kSlotRepresenting], f.representing);
    Put(record.header[kSlotTo], f.to);
    Put(record.header[kSlotSubject], f.subject);
    Put(record.header[kSlotSent], f.sent);
    Put(record.header[kSlotCc], f.cc);
    Put(record.header[kSlotBcc], f.bcc);
    Put(record.header[kSlotImportance], f.importance);
    if (document) Put(record.document, *document);
    if (text) Put(record.text_body, *text);
}

std::string Bytes(const CountedString& s) {
    return std::string(reinterpret_cast<const char*>(s.data()), s.size());
}

const Fields kAll{"Ann Smith", "", "", "Bob; Cy", "Lunch", "Tue Mar 05, 2019 02:07 PM", "Dee", "Eve", "High"};

TEST(LocalizedHeader, HtmlRowsInOrderBehindTheBodyTag) {
    krnctlSetLanguage(0x0409);
    MessageDocument record;
    Fill(record, kAll, "<html><body bgcolor=white><p>hi</p></body></html>");
    ASSERT_EQ(BuildLocalizedHeader(record, kBodyHtml), kStatusOk);
    const std::string block =
        kTable + Row("From:      ", "Ann Smith") + Row("Sent:      ", "Tue Mar 05, 2019 02:07 PM") +
        Row("To:        ", "Bob; Cy") + Row("Cc:        ", "Dee") + Row("Bcc:       ", "Eve") +
        Row("Subject:   ", "Lunch") + Row("Importance:", "High") + kBlockEnd;
    EXPECT_EQ(Bytes(record.document), Z("<html><body bgcolor=white>" + block + "<p>hi</p></body></html>"));

    // German labels, the values as they are (these rows do not escape), a final NUL of a value dropped,
    // a value that is only a NUL taken as empty; no "<body": the block goes first.
    krnctlSetLanguage(0x0407);
    MessageDocument german;
    Fill(german, {.from = Z("<b>Jörg</b>"), .subject = std::string(1, '\0'), .importance = "Höch"},
         "<p>x</p>");
    ASSERT_EQ(BuildLocalizedHeader(german, kBodyHtml), kStatusOk);
    EXPECT_EQ(Bytes(german.document), Z(kTable + Row("Von:       ", "<b>Jörg</b>") +
                                        Row("Priorität: ", "Höch") + kBlockEnd + "<p>x</p>"));

    // Repaired, every value is HTML text: a subject that opens a comment no longer hides the body.
    krnctlSetLanguage(0x0409);
    MessageDocument repaired;
    repaired.repairs = Repairs(true);
    Fill(repaired, {.from = "A&B", .address = "a\"b@x", .subject = "note <!-- draft"}, "<p>x</p>");
    ASSERT_EQ(BuildLocalizedHeader(repaired, kBodyHtml), kStatusOk);
    EXPECT_EQ(Bytes(repaired.document), Z(kTable + Row("From:      ", "A&amp;B &lt;a&quot;b@x&gt;") +
                                          Row("Subject:   ", "note &lt;!-- draft") + kBlockEnd + "<p>x</p>"));
    EXPECT_EQ(repaired.repairs.MadeNames(), "html-header-escape");
}

TEST(LocalizedHeader, FromRowShowsOnBehalfOfOrTheAddress) {
    krnctlSetLanguage(0x0409);
    struct Case {
        const char* what;
        std::string from, representing, address, shown;
    };
    const Case cases[] = {
        {"neither", "Ann", "", "", "Ann"},
        {"address only", "Ann", "", "ann@x.org", "Ann &lt;ann@x.org&gt;"},
        {"representing equal to From: the address", "Ann", "Ann", "ann@x.org", "Ann &lt;ann@x.org&gt;"},
        {"representing equal up to its NUL", "Ann", Z("Ann"), "ann@x.org", "Ann &lt;ann@x.org&gt;"},
        {"different representing: no address", "Ann", "Boss", "ann@x.org", "Ann on behalf of Boss"},
        {"same length, other bytes", "Anna", "Anne", "", "Anna on behalf of Anne"},
        {"address starting with NUL is absent", "Ann", "", std::string("\0x", 2), "Ann"},
    };
    for (const Case& c : cases) {
        MessageDocument record;
        Fill(record, {.from = c.from, .address = c.address, .representing = c.representing}, "<body>");
        ASSERT_EQ(BuildLocalizedHeader(record, kBodyHtml), kStatusOk) << c.what;
        EXPECT_EQ(Bytes(record.document), Z("<body>" + kTable + Row("From:      ", c.shown) + kBlockEnd))
            << c.what;
    }
}

TEST(LocalizedHeader, HtmlEdgesAndFailuresKeepTheBody) {
    krnctlSetLanguage(0x0409);
    // Nothing to show: no table, the body untouched (not even terminated).
    MessageDocument empty;
    Fill(empty, {}, "<p>x</p>");
    ASSERT_EQ(BuildLocalizedHeader(empty, kBodyHtml), kStatusOk);
    EXPECT_EQ(Bytes(empty.document), "<p>x</p>");

    // "<body" without its ">": -9, the body as it was.
    MessageDocument open_tag;
    Fill(open_tag, {.subject = "s"}, "<html><body bgcolor=x");
    EXPECT_EQ(BuildLocalizedHeader(open_tag, kBodyHtml), kStatusUnsupported);
    EXPECT_EQ(Bytes(open_tag.document), "<html><body bgcolor=x");

    // "<BODY>" is not "<body": the block goes first.
    MessageDocument upper;
    Fill(upper, {.subject = "s"}, "<BODY>b");
    ASSERT_EQ(BuildLocalizedHeader(upper, kBodyHtml), kStatusOk);
    EXPECT_EQ(Bytes(upper.document), Z(kTable + Row("Subject:   ", "s") + kBlockEnd + "<BODY>b"));

    // Every allocation that can fail, failed in turn: -1 and the body as it was.
    for (uint32_t nth = 1;; ++nth) {
        MessageDocument record;
        Fill(record, kAll, "<body>b");
        krnctlFailAllocation(nth);
        const int32_t status = BuildLocalizedHeader(record, kBodyHtml);
        krnctlFailAllocation(0);
        if (status == kStatusOk) {
            EXPECT_GT(nth, 1u);
            break;
        }
        EXPECT_EQ(status, kStatusFailure) << nth;
        EXPECT_EQ(Bytes(record.document), "<body>b") << nth;
    }
}

TEST(LocalizedHeader, ABodyInAnotherCharacterSetIsConvertedForABlockBeyondAscii) {
    krnctlSetLanguage(0x0409);
    struct Case {
        const char* what;
        std::string from;  // the only field; "Jörg" makes the block more than ASCII
        std::string body;
        int32_t status;
        std::string expected;  // B for the block; empty: the body unchanged
    };
    const Case cases[] = {
        {"ISO-8859-1 is read as Windows-1252 and the tag then says UTF-8", "Jörg",
         "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=ISO-8859-1\"><body>caf\xE9 "
         "\x80</body>",
         kStatusOk,
         "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=UTF-8\"><body>Bcaf\xC3\xA9 "
         "\xE2\x82\xAC</body>"},
        {"an ASCII block leaves the body in its own set", "Ann",
         "<meta content=\"text/html; charset=iso-8859-1\"><body>caf\xE9", kStatusOk,
         "<meta content=\"text/html; charset=iso-8859-1\"><body>Bcaf\xE9"},
        {"the first tag that declares a set decides", "Jörg",
         "<META name=x><meta charset=\"utf-8\"><meta content=\"charset=windows-1251\">\xE9", kStatusOk,
         "B<META name=x><meta charset=\"utf-8\"><meta content=\"charset=windows-1251\">\xE9"},
        {"a tag without its \">\" runs to the end, nested \"<meta\" and all", "Jörg",
         "<meta x<meta <META charset=windows-1251 <meta\xC4", kStatusOk,
         "B<meta x<meta <META charset=UTF-8 <meta\xD0\x94"},
        {"a later tag after one that closes", "Jörg", "<meta x<meta y><meta charset=big5>\xA4\x40", kStatusOk,
         "B<meta x<meta y><meta charset=UTF-8>\xE4\xB8\x80"},
        {"windows-1251 with a semicolon", "Jörg", "<meta content=\"charset=windows-1251;\"><body>\xC4\xE0",
         kStatusOk, "<meta content=\"charset=UTF-8;\"><body>B\xD0\x94\xD0\xB0"},
        {"a code page that cannot convert: its status, the body as it was", "Jörg",
         "<meta content=\"charset=windows-99999\"><body>\xE9", kStatusConversionFailed, ""},
    };
    for (const Case& c : cases) {
        MessageDocument record;
        Fill(record, {.from = c.from}, c.body);
        EXPECT_EQ(BuildLocalizedHeader(record, kBodyHtml), c.status) << c.what;
        std::string expected = c.expected;
        if (expected.empty()) {
            expected = c.body;
        } else {
            expected.replace(expected.find('B'), 1, kTable + Row("From:      ", c.from) + kBlockEnd);
            expected += std::string(1, '\0');
        }
        EXPECT_EQ(Bytes(record.document), expected) << c.what;
    }
}

TEST(LocalizedHeader, TextLinesInFrontWithABlankLineBeforeTheBody) {
    struct Case {
        const char* what;
        uint16_t language;
        Fields fields;
        std::string body;
        std::string expected;
    };
    const Case cases[] = {
        {"every line; the address, never on behalf of",
         0x0409,
         {"Ann", "ann@x.org", "Boss", "Bob", "Lunch", "Mon", "Cy", "Dee", "Low"},
         "body",
         "From:      \tAnn <ann@x.org>\r\nSent:      \tMon\r\nTo:        \tBob\r\nCc:        \tCy\r\n"
         "Bcc:       \tDee\r\nSubject:   \tLunch\r\nImportance:\tLow\r\n\r\nbody"},
        {"no Importance: the blank line follows Subject",
         0x0411,
         {.from = "A", .subject = "S"},
         Z("body"),
         "差出人:  \tA\r\n件名:    \tS\r\n\r\nbody"},
        {"neither Subject nor Importance: no blank line", 0x2C01, {.to = "B"}, "body", "إلى :  \tB\r\nbody"},
        {"a body of UTF-16 keeps its bytes",
         0x0409,
         {.subject = "s"},
         std::string("h\0i\0", 4),
         "Subject:   \ts\r\n\r\n" + std::string("h\0i", 3)},
    };
    for (const Case& c : cases) {
        krnctlSetLanguage(c.language);
        MessageDocument record;
        Fill(record, c.fields, std::nullopt, c.body);
        ASSERT_EQ(BuildLocalizedHeader(record, kBodyPlainText), kStatusOk) << c.what;
        EXPECT_EQ(Bytes(record.text_body), Z(c.expected)) << c.what;
    }
    // An empty text body gets no header at all.
    for (const std::string& body : {std::string(), std::string(1, '\0')}) {
        MessageDocument record;
        Fill(record, kAll, std::nullopt, body);
        ASSERT_EQ(BuildLocalizedHeader(record, kBodyPlainText), kStatusOk);
        EXPECT_EQ(Bytes(record.text_body), body);
    }
    // Every allocation that can fail, failed in turn: -1 and the text as it was, no lines half put in.
    for (uint32_t nth = 1;; ++nth) {
        MessageDocument record;
        Fill(record, kAll, std::nullopt, "body");
        krnctlFailAllocation(nth);
        const int32_t status = BuildLocalizedHeader(record, kBodyPlainText);
        krnctlFailAllocation(0);
        if (status == kStatusOk) break;
        EXPECT_EQ(status, kStatusFailure) << nth;
        EXPECT_EQ(Bytes(record.text_body), "body") << nth;
    }
    // Formats without a block leave everything alone.
    MessageDocument none;
    Fill(none, kAll, "<p/>", "t");
    EXPECT_EQ(BuildLocalizedHeader(none, kBodyNone), kStatusOk);
    EXPECT_EQ(Bytes(none.document), "<p/>");
    EXPECT_EQ(Bytes(none.text_body), "t");
}

TEST(EnglishHeader, OwnOrderEscapingAndWrapping) {
    krnctlSetLanguage(0x0407);  // the English block ignores the language
    MessageDocument record;
    Fill(record, {"Ann <a@x>", "", "", "Bob", "Lunch & more", "Mon", "Cy", "Dee", "High"}, "<p>x</p>");
    // Only the angle brackets are escaped, and the value ends at a NUL.
    Put(record.header[kSlotCc], std::string("C<y>\0tail", 9));
    ASSERT_EQ(BuildEnglishHeader(record, kBodyHtml), kStatusOk);
    const std::string block =
        kTable + EnglishHtmlRow("From:", "Ann &lt;a@x&gt;") + EnglishHtmlRow("To:", "Bob") +
        EnglishHtmlRow("Sent:", "Mon") + EnglishHtmlRow("Cc:", "C&lt;y&gt;") + EnglishHtmlRow("Bcc:", "Dee") +
        EnglishHtmlRow("Subject:", "Lunch & more") + EnglishHtmlRow("Importance:", "High") + kBlockEnd;
    EXPECT_EQ(Bytes(record.document), Z("<html>" + block + "<p>x</p></html>"));
    // Repaired, the ampersand and the double quote too.
    MessageDocument repaired;
    repaired.repairs = Repairs(true);
    Fill(repaired, {.subject = "\"Lunch\" & <more>", .cc = "Cy"}, "<p>x</p>");
    ASSERT_EQ(BuildEnglishHeader(repaired, kBodyHtml), kStatusOk);
    EXPECT_EQ(Bytes(repaired.document), Z("<html>" + kTable + EnglishHtmlRow("Cc:", "Cy") +
                                          EnglishHtmlRow("Subject:", "&quot;Lunch&quot; &amp; &lt;more&gt;") +
                                          kBlockEnd + "<p>x</p></html>"));

    // Where the block goes in an HTML body, and whether the body is wrapped.
    struct Case {
        const char* body;
        std::string expected;  // with B for the block
    };
    const Case cases[] = {
        {"<html><body><p>x</p></body></html>", "<html><body>B<p>x</p></body></html>"},
        {" \r\n<HTML><BODY>x", "B \r\n<HTML><BODY>x"},  // "<BODY>" is not "<body"
        {"\t<html>x", "<html>B\t<html>x</html>"},
        {"<p><body a=b>x", "<html><p><body a=b>Bx</html>"},
    };
    for (const Case& c : cases) {
        MessageDocument r;
        Fill(r, {.sent = "Mon"}, c.body);
        ASSERT_EQ(BuildEnglishHeader(r, kBodyHtml), kStatusOk) << c.body;
        std::string expected = c.expected;
        expected.replace(expected.find('B'), 1, kTable + EnglishHtmlRow("Sent:", "Mon") + kBlockEnd);
        EXPECT_EQ(Bytes(r.document), Z(expected)) << c.body;
    }

    // "<body" without ">": -9, the body as it was.
    MessageDocument open_tag;
    Fill(open_tag, {.to = "Bob"}, "<body");
    EXPECT_EQ(BuildEnglishHeader(open_tag, kBodyHtml), kStatusUnsupported);
    EXPECT_EQ(Bytes(open_tag.document), "<body");
}

TEST(EnglishHeader, WhatMakesABlockAndTheTextForm) {
    // Subject, Bcc and Importance alone make no English block (the localised one shows the Subject).
    MessageDocument subject_only;
    Fill(subject_only, {.subject = "s", .bcc = "b", .importance = "High"}, "<p>x</p>", "t");
    ASSERT_EQ(BuildEnglishHeader(subject_only, kBodyHtml), kStatusOk);
    EXPECT_EQ(Bytes(subject_only.document), "<p>x</p>");
    ASSERT_EQ(BuildEnglishHeader(subject_only, kBodyPlainText), kStatusOk);
    EXPECT_EQ(Bytes(subject_only.text_body), "t");
    ASSERT_EQ(BuildEnglishHeader(subject_only, kBodyNone), kStatusOk);
    krnctlSetLanguage(0x0409);
    ASSERT_EQ(BuildLocalizedHeader(subject_only, kBodyHtml), kStatusOk);
    EXPECT_EQ(Bytes(subject_only.document), Z(kTable + Row("Bcc:       ", "b") + Row("Subject:   ", "s") +
                                              Row("Importance:", "High") + kBlockEnd + "<p>x</p>"));

    // The text rows: tabs, the Importance row's space, the values unescaped, a blank line at the end; and
    // the block behind the first three bytes of a body that looks like it starts with "+/v".
    const std::string block =
        "From:   \tA <a@x>\r\nTo:     \tB\r\nSent:   \tMon\r\nCc:     \tC\r\nBcc:    \tD\r\nSubject:\tS\r\n"
        "Importance: High\r\n\r\n";
    struct Case {
        std::string body, expected;
    };
    const Case cases[] = {
        {"plain", block + "plain"},      {"+/v8-abc", "+/v" + block + "8-abc"},
        {"+abcd", "+ab" + block + "cd"}, {"a/cd", "a/c" + block + "d"},
        {"abvd", "abv" + block + "d"},   {"+/v", block + "+/v"},
        {Z("+/v"), block + "+/v"},       {"xyzw", block + "xyzw"},
    };
    for (const Case& c : cases) {
        MessageDocument r;
        Fill(r, {"A <a@x>", "", "", "B", "S", "Mon", "C", "D", "High"}, std::nullopt, c.body);
        ASSERT_EQ(BuildEnglishHeader(r, kBodyPlainText), kStatusOk) << c.body;
        EXPECT_EQ(Bytes(r.text_body), Z(c.expected)) << c.body;
    }
}

}  // namespace
}  // namespace tarn::testing
