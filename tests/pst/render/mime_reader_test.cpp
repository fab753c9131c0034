// The MIME reader over messages written by the fixture writer: which part becomes the body, what the
// header fields read, what every part's report says, and how damaged and oversized input ends.
#include "pst/render/mime_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/apiutils.h"
#include "common/status.h"
#include "kernel/tarnkrn_control.h"
#include "pst/render/charset.h"
#include "tests/support/mime_writer.h"
#include "tests/support/scratch_file.h"

namespace tarn {
namespace {

using testing::Leaf;
using testing::MimeNode;
using testing::Multipart;
using testing::WriteMessage;

const std::vector<std::string> kEnvelope = {"From: Ada <ada@example.org>", "To: Charles <c@example.org>",
                                            "Subject: Notes", "Date: Mon, 23 Nov 2026 09:00:00 +0000"};

struct Read {
    int32_t status = 0;
    int32_t format = -1;
    std::string body;  // the document for HTML, the text body for text, without a final NUL
    std::vector<MimePartReport> parts;
    MessageDocument record;
};

void ReadInto(std::string_view message, Read& out) {
    MimeReadOptions options;
    options.parts = &out.parts;
    out.status = ReadEmlBytes(message, out.record, &out.format, options);
    if (out.format == kBodyHtml) out.body = out.record.document.text();
    if (out.format == kBodyPlainText) out.body = out.record.text_body.text();
}

// A 1x1 PNG: large enough for its data URI's room (18 bytes and 1.4 per image byte).
constexpr char kPixelPng[] =
    "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==";

MimeNode Html(std::string_view body) { return Leaf("text/html; charset=utf-8", body); }
MimeNode Text(std::string_view body) { return Leaf("text/plain; charset=utf-8", body); }
MimeNode Pixel(const std::string& id) {
    return Leaf("image/png; name=\"" + id + ".png\"", kPixelPng,
                {"Content-Transfer-Encoding: base64", "Content-ID: <" + id + ">"});
}

TEST(ReadEmlBytes, ChoosesTheBody) {
    MimeNode unclosed = Multipart("mixed", "b1", {Text("first"), Text("runs to the end")});
    unclosed.closed = false;
    MimeNode preamble = Multipart("alternative", "b1", {Text("after the preamble")});
    preamble.preamble = "This is a multi-part message in MIME format.\r\n";
    MimeNode headerless = Multipart("mixed", "b1", {Text("kept"), Leaf("", "no headers at all")});
    headerless.parts[1].headers.clear();

    struct Case {
        const char* name;
        std::string message;
        int32_t format;
        std::string body;
    } cases[] = {
        {"single text part", WriteMessage(kEnvelope, Text("Hello")), kBodyPlainText, "Hello"},
        {"single part, LF line ends", WriteMessage(kEnvelope, Text("Hello\n"), "\n"), kBodyPlainText,
         "Hello\n"},
        {"text then HTML",
         WriteMessage(kEnvelope, Multipart("alternative", "b1", {Text("t"), Html("<p>h</p>")})), kBodyHtml,
         "<p>h</p>"},
        {"HTML then text",
         WriteMessage(kEnvelope, Multipart("alternative", "b1", {Html("<p>h</p>"), Text("t")})), kBodyHtml,
         "<p>h</p>"},
        {"later HTML replaces", WriteMessage(kEnvelope, Multipart("mixed", "b1", {Html("one"), Html("two")})),
         kBodyHtml, "two"},
        // The images of a body that is replaced go with it; the new body's images go into it.
        {"later HTML replaces, images after each",
         WriteMessage(kEnvelope, Multipart("related", "b1",
                                           {Html("<img src=\"cid:a\">"), Pixel("a"),
                                            Html("<img src=\"cid:b\">"), Pixel("b"), Pixel("a")})),
         kBodyHtml, "<img src=\"data:image;base64," + std::string(kPixelPng) + "\">"},
        {"later text replaces text",
         WriteMessage(kEnvelope, Multipart("mixed", "b1", {Text("one"), Text("two")})), kBodyPlainText,
         "two"},
        {"nested",
         WriteMessage(kEnvelope,
                      Multipart("mixed", "outer",
                                {Multipart("alternative", "inner", {Text("t"), Html("<b>nested</b>")}),
                                 Leaf("application/pdf", "%PDF")})),
         kBodyHtml, "<b>nested</b>"},
        {"enclosed message is a leaf",
         WriteMessage(kEnvelope, Multipart("mixed", "outer",
                                           {Text("outer text"),
                                            Leaf("message/rfc822",
                                                 testing::WriteMime(Multipart("alternative", "enc",
                                                                              {Html("<p>enclosed</p>")})))})),
         kBodyPlainText, "outer text"},
        {"closing delimiter never comes", WriteMessage(kEnvelope, unclosed), kBodyPlainText,
         "runs to the end\r\n"},
        {"preamble", WriteMessage(kEnvelope, preamble), kBodyPlainText, "after the preamble"},
        {"part without headers", WriteMessage(kEnvelope, headerless), kBodyPlainText, "kept"},
        {"no content type", WriteMessage(kEnvelope, Leaf("", "untyped")), kBodyNone, ""},
        {"empty HTML part skipped",
         WriteMessage(kEnvelope, Multipart("alternative", "b1", {Text("t"), Html("")})), kBodyPlainText, "t"},
        {"quoted-printable",
         WriteMessage(kEnvelope, Leaf("text/html", "<p>caf=C3=A9 and a soft=\r\nbreak</p>",
                                      {"Content-Transfer-Encoding: quoted-printable"})),
         kBodyHtml, "<p>caf\xC3\xA9 and a softbreak</p>"},
        {"base64",
         WriteMessage(kEnvelope, Leaf("text/plain", "Zm9vYmFy\r\n", {"Content-Transfer-Encoding: BASE64"})),
         kBodyPlainText, "foobar"},
        {"names in any case",
         WriteMessage({"SUBJECT: x"},
                      [] {
                          MimeNode node = Multipart("alternative", "b1",
                                                    {Leaf("", "<i>x</i>", {"content-type: TEXT/HTML"})});
                          node.headers[0] = "content-type: Multipart/Alternative; BOUNDARY=b1";
                          return node;
                      }()),
         kBodyHtml, "<i>x</i>"},
        {"document type blanked", WriteMessage(kEnvelope, Html("<!DOCTYPE html PUBLIC \"x\"><p>y</p>")),
         kBodyHtml, std::string(26, ' ') + "<p>y</p>"},
        {"UTF-8 declaration added", WriteMessage(kEnvelope, Leaf("text/html", "<html><head></head>z</html>")),
         kBodyHtml, "<html><head>" + std::string(kUtf8MetaTag) + "</head>z</html>"},
        {"Latin-1 part converted", WriteMessage(kEnvelope, Leaf("text/plain; charset=iso-8859-1", "caf\xE9")),
         kBodyPlainText, "caf\xC3\xA9"},
    };
    for (const Case& c : cases) {
        Read read;
        ReadInto(c.message, read);
        EXPECT_EQ(read.status, kStatusOk) << c.name;
        EXPECT_EQ(read.format, c.format) << c.name;
        EXPECT_EQ(read.body, c.body) << c.name;
    }
}

TEST(ReadEmlBytes, HeaderFields) {
    struct Case {
        const char* name;
        std::vector<std::string> headers;
        MimeNode top;
        HeaderSlot slot;
        std::string value;
    } cases[] = {
        {"folded subject", {"Subject: one", " two"}, Text("x"), kSlotSubject, "one two"},
        {"Date raw",
         {"Date: Mon, 23 Nov 2026 09:00:00 +0000"},
         Text("x"),
         kSlotSent,
         "Mon, 23 Nov 2026 09:00:00 +0000"},
        {"Importance raw", {"Importance: =?utf-8?Q?High?="}, Text("x"), kSlotImportance, "High"},
        {"CC any case", {"cc: c@x"}, Text("x"), kSlotCc, "c@x"},
        {"BCC", {"Bcc: b@x"}, Text("x"), kSlotBcc, "b@x"},
        {"not Reply-To", {"Reply-To: r@x", "To: t@x"}, Text("x"), kSlotTo, "t@x"},
        {"encoded From",
         {"From: =?utf-8?B?QWRhIEzDtnZlbGFjZQ==?= <a@x>"},
         Text("x"),
         kSlotFrom,
         "Ada L\xC3\xB6velace <a@x>"},
        {"raw Latin-1 converted by the part's set",
         {"Subject: caf\xE9"},
         Multipart("alternative", "b", {Leaf("text/plain; charset=iso-8859-1", "x"), Html("h")}),
         kSlotSubject,
         "caf\xC3\xA9"},
        {"US-ASCII part converts nothing",
         {"Subject: caf\xE9"},
         Leaf("text/plain; charset=us-ascii", "x"),
         kSlotSubject,
         "caf\xE9"},
        {"Importance never converted",
         {"Importance: caf\xE9"},
         Leaf("text/plain; charset=iso-8859-1", "x"),
         kSlotImportance,
         "caf\xE9"},
    };
    for (Case& c : cases) {
        Read read;
        ReadInto(WriteMessage(c.headers, c.top), read);
        EXPECT_EQ(read.status, kStatusOk) << c.name;
        EXPECT_EQ(std::string(read.record.header[c.slot].text()), c.value) << c.name;
    }
}

TEST(ReadEmlBytes, ReportsEveryPart) {
    MimeNode top = Multipart(
        "mixed", "outer",
        {Multipart("alternative", "inner", {Text("t"), Html("<p><img src=\"cid:logo\"></p>")}),
         Leaf("image/png; name=\"logo.png\"", kPixelPng,
              {"Content-Transfer-Encoding: base64", "Content-ID: <logo>"}),
         Leaf("image/png", "x"), Leaf("image/svg+xml; name=a.svg", "<svg/>"), Leaf("application/pdf", "%PDF"),
         Leaf("text/plain; charset=ISO-8859-1", "late"), Leaf("text/html", "")});
    Read read;
    ReadInto(WriteMessage(kEnvelope, top), read);
    ASSERT_EQ(read.status, kStatusOk);
    struct Expected {
        int depth;
        std::string type;
        std::string fate;
    } expected[] = {
        {0, "multipart/mixed", "multipart"},
        {1, "multipart/alternative", "multipart"},
        {2, "text/plain", "ignored: replaced by a later body"},
        {2, "text/html", "body"},
        {1, "image/png", "inlined 1 time"},
        {1, "image/png", "ignored: an image without a location (Content-Location or name=)"},
        {1, "image/svg+xml", "ignored: SVG images are not inlined"},
        {1, "application/pdf", "ignored: not a type that is shown"},
        {1, "text/plain", "ignored: text/plain after an HTML body"},
        {1, "text/html", "ignored: no content"},
    };
    ASSERT_EQ(read.parts.size(), std::size(expected));
    for (size_t i = 0; i < read.parts.size(); ++i) {
        EXPECT_EQ(read.parts[i].depth, expected[i].depth) << i;
        EXPECT_EQ(read.parts[i].content_type, expected[i].type) << i;
        EXPECT_EQ(read.parts[i].fate, expected[i].fate) << i;
    }
    const MimePartReport& image = read.parts[4];
    EXPECT_EQ(image.location, "logo.png");
    EXPECT_EQ(image.content_id, "logo");
    EXPECT_EQ(image.transfer_encoding, "base64");
    EXPECT_EQ(image.decoded_size, 70u);
    EXPECT_EQ(read.parts[8].charset, "ISO-8859-1");
    EXPECT_NE(read.body.find("<img src=\"data:image;base64," + std::string(kPixelPng) + "\">"),
              std::string::npos);

    // An image too small for its data URI's room ends the walk: the body stays, later parts are not read,
    // and the record keeps the status.
    Read tiny;
    ReadInto(
        WriteMessage(kEnvelope, Multipart("related", "r",
                                          {Html("<img src=\"cid:dot\">"),
                                           Leaf("image/gif; name=dot.gif", "R0lG", {"Content-ID: <dot>"}),
                                           Html("never read")})),
        tiny);
    EXPECT_EQ(tiny.status, kStatusOk);
    EXPECT_EQ(tiny.body, "<img src=\"cid:dot\">");
    EXPECT_EQ(tiny.record.reader_status, 0);
    ASSERT_EQ(tiny.parts.size(), 3u);
    EXPECT_EQ(tiny.parts[2].fate, "ignored: inlining failed with status 0; the walk ended here");
}

// Each repair against the contract: the same message read in both profiles, and the repair named.
TEST(ReadEmlBytes, RepairsAgainstTheContract) {
    const std::string pixel_uri = "<img src=\"data:image;base64," + std::string(kPixelPng) + "\">";
    const std::vector<std::string> lf_headers = {"Content-Type: text/plain", "Subject: a"};
    struct Case {
        const char* repair;
        std::string message;
        int slot;  // -1 for the body
        std::string contract;
        std::string repaired;
    } cases[] = {
        {"lf-line-ends", WriteMessage(kEnvelope, Multipart("alternative", "b", {Text("t"), Html("h")}), "\n"),
         -1, "", "h"},
        {"lf-line-ends",
         WriteMessage(kEnvelope,
                      Leaf("text/plain", "soft=\nbreak", {"Content-Transfer-Encoding: quoted-printable"}),
                      "\n"),
         -1, "soft=\nbreak", "softbreak"},
        // An empty line of LF alone ends the header block before a later CR LF CR LF.
        {"lf-line-ends", "Content-Type: text/plain\nSubject: a\n\nbody\r\n\r\nmore", -1, "more",
         "body\r\n\r\nmore"},
        {"encoded-word-space", WriteMessage({"Subject: =?utf-8?Q?a?= \r\n =?utf-8?Q?b?= c"}, Text("x")),
         kSlotSubject, "a  b c", "ab c"},
        {"encoded-word-case", WriteMessage({"Subject: =?utf-8?q?caf=C3=A9?="}, Text("x")), kSlotSubject,
         "=?utf-8?q?caf=C3=A9?=", "caf\xC3\xA9"},
        {"raw-header-charset",
         WriteMessage({"Subject: =?windows-1251?B?z/Do4uXy?= \xCF"},
                      Leaf("text/plain; charset=windows-1251", "x")),
         kSlotSubject,
         "\xD0\xA0\xD1\x9F\xD0\xA1\xD0\x82\xD0\xA0\xD1\x91\xD0\xA0\xD0\x86\xD0\xA0\xC2\xB5\xD0\xA1\xE2\x80"
         "\x9A "
         "\xD0\x9F",
         "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82 \xD0\x9F"},
        {"charset-names", WriteMessage({"Subject: =?shift_jis?B?gqCCoA==?="}, Text("x")), kSlotSubject,
         "\x82\xA0\x82\xA0", "\xE3\x81\x82\xE3\x81\x82"},
        {"charset-names", WriteMessage({"Subject: =?windows-31j?Q?=82=A0?="}, Text("x")), kSlotSubject,
         "\x82\xA0", "\xE3\x81\x82"},
        {"charset-names", WriteMessage(kEnvelope, Leaf("text/plain; charset=koi8-r", "\xF0\xD2\xC9")), -1,
         "\xF0\xD2\xC9", "\xD0\x9F\xD1\x80\xD0\xB8"},
        {"charset-names",
         WriteMessage(kEnvelope,
                      Leaf("text/html; charset=\"GB18030\"", "<meta charset=gb18030>\x81\x30\x81\x30")),
         -1, "<meta charset=gb18030>\x81\x30\x81\x30", "<meta charset=UTF-8>\xC2\x80"},
        {"attached-text",
         WriteMessage(kEnvelope, Multipart("mixed", "b",
                                           {Text("body"), Leaf("text/plain", "file",
                                                               {"Content-Disposition: attachment"})})),
         -1, "file", "body"},
        {"cid-without-location",
         WriteMessage(kEnvelope,
                      Multipart("related", "r",
                                {Html("<img src=\"cid:dot\">"),
                                 Leaf("image/png", kPixelPng,
                                      {"Content-ID: <dot>", "Content-Transfer-Encoding: base64"})})),
         -1, "<img src=\"cid:dot\">", pixel_uri},
        {"enclosed-message",
         WriteMessage(kEnvelope,
                      Multipart("mixed", "b",
                                {Text("outer"),
                                 Leaf("message/rfc822", WriteMessage({"From: e@x", "Subject: in"},
                                                                     Html("<body><p>inner</p></body>")))})),
         -1, "outer", "outer\r\n\r\nFrom:   \te@x\r\nSubject:\tin\r\n\r\ninner"},
        {"untyped-text", "Subject: a\r\n\r\nno type", -1, "", "no type"},
    };
    for (const Case& c : cases) {
        for (const bool repaired : {false, true}) {
            Read read;
            read.record.repairs = Repairs(repaired);
            ReadInto(c.message, read);
            EXPECT_EQ(read.status, kStatusOk) << c.repair;
            const std::string value = c.slot < 0 ? read.body : std::string(read.record.header[c.slot].text());
            EXPECT_EQ(value, repaired ? c.repaired : c.contract) << c.repair << (repaired ? " repaired" : "");
            EXPECT_EQ(read.record.repairs.MadeNames(), repaired ? c.repair : "") << c.repair;
        }
    }
}

// A chain of multiparts `levels` deep around one HTML part.
MimeNode Nested(int levels) {
    MimeNode node = Html("<p>deep</p>");
    for (int i = 0; i < levels; ++i) node = Multipart("mixed", "level" + std::to_string(i), {node});
    return node;
}

TEST(ReadEmlBytes, BoundsTheWork) {
    // The message's own multipart is level 0; kMaxMimeDepth levels below it are read.
    Read deepest;
    ReadInto(WriteMessage(kEnvelope, Nested(kMaxMimeDepth + 1)), deepest);
    EXPECT_EQ(deepest.status, kStatusOk);
    EXPECT_EQ(deepest.body, "<p>deep</p>");
    // One level more: that subtree is skipped, and the body found beside it stays.
    Read deeper;
    ReadInto(WriteMessage(kEnvelope, Multipart("mixed", "top", {Text("kept"), Nested(kMaxMimeDepth + 1)})),
             deeper);
    EXPECT_EQ(deeper.status, kStatusOk);
    EXPECT_EQ(deeper.body, "kept");
    EXPECT_EQ(deeper.parts.back().depth, kMaxMimeDepth + 1);
    EXPECT_EQ(deeper.parts.back().fate, "ignored: a multipart nested too deep; its parts were not read");

    // 100,000 parts are read in one pass each: every one is reported and the last body wins.
    std::vector<MimeNode> parts;
    for (int i = 0; i < 100'000; ++i) parts.push_back(Text("part " + std::to_string(i)));
    Read many;
    ReadInto(WriteMessage(kEnvelope, Multipart("mixed", "many", std::move(parts))), many);
    EXPECT_EQ(many.status, kStatusOk);
    EXPECT_EQ(many.body, "part 99999");
    EXPECT_EQ(many.parts.size(), 100'001u);

    // 20,000 openers that begin no word are copied as text into a field that grows in steps, not by
    // one reallocation a piece.
    std::string subject = "Subject:";
    for (int i = 0; i < 20'000; ++i) subject += " =?x?q?";
    const std::string message = WriteMessage({subject}, Text("x"));
    const uint64_t before = krnctlAllocationCount();
    Read openers;
    ReadInto(message, openers);
    EXPECT_LT(krnctlAllocationCount() - before, 1000u);
    EXPECT_TRUE("Subject: " + std::string(openers.record.header[kSlotSubject].text()) == subject);
}

TEST(ReadEmlBytes, MemoryRunningOutEndsTheRead) {
    // Every allocation in turn fails: the read ends with -1, or it gives the message whole, its body and
    // fields converted; never a part or field left in its declared set as if that set had no converter.
    const std::string message =
        WriteMessage({"Subject: caf\xE9"}, Leaf("text/plain; charset=iso-8859-1", "caf\xE9"));
    for (uint32_t nth = 1;; ++nth) {
        ASSERT_LT(nth, 100u);
        Read read;
        krnctlFailAllocation(nth);
        ReadInto(message, read);
        krnctlFailAllocation(0);
        if (read.status == kStatusFailure) continue;
        ASSERT_EQ(read.status, kStatusOk) << nth;
        EXPECT_EQ(read.body, "caf\xC3\xA9") << nth;
        EXPECT_EQ(read.record.header[kSlotSubject].text(), "caf\xC3\xA9") << nth;
        break;
    }
}

TEST(ReadEmlMessage, ReadsTheFileWholeOrFails) {
    testing::ScratchDir dir;
    const std::string message = WriteMessage(kEnvelope, Text("from a file"));
    const auto small = testing::Wide(dir.Write("small.eml", message));
    // A sparse file one byte over the limit: nothing of it is read.
    const auto large_path = dir.path() / "large.eml";
    {
        const int fd = ::open(large_path.c_str(), O_CREAT | O_WRONLY, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, 0x80000000LL), 0);
        ::close(fd);
    }
    const auto large = testing::Wide(large_path);

    struct Case {
        const char* name;
        const std::u16string* file;
        int fail_operation;  // 0 for none
        uint32_t nth;
        int32_t status;
    } cases[] = {
        {"whole", &small, 0, 0, kStatusOk},
        {"over the limit", &large, 0, 0, kStatusFileTooLarge},
        {"end cannot be found", &small, KRNCTL_SEEK, 1, kStatusNoPosition},
        {"start cannot be found", &small, KRNCTL_SEEK, 2, kStatusNoPosition},
        {"read fails", &small, KRNCTL_READ, 1, kStatusShortRead},
    };
    for (const Case& c : cases) {
        KernelFileHandle handle(krnOpenFile(c.file->c_str(), 0, kOpenShareMode));
        ASSERT_TRUE(handle.valid()) << c.name;
        if (c.fail_operation != 0) krnctlFailFileOperation(c.fail_operation, c.nth);
        MessageDocument record;
        int32_t format = -1;
        EXPECT_EQ(ReadEmlMessage(handle.get(), record, &format), c.status) << c.name;
        krnctlReset();
        if (c.status == kStatusOk) {
            EXPECT_EQ(record.text_body.text(), "from a file");
        }
    }

    // Memory refused for the file's buffer.
    KernelFileHandle handle(krnOpenFile(small.c_str(), 0, kOpenShareMode));
    MessageDocument record;
    int32_t format = -1;
    krnctlFailAllocation(1);
    EXPECT_EQ(ReadEmlMessage(handle.get(), record, &format), kStatusFailure);
    krnctlReset();
}

}  // namespace
}  // namespace tarn
