// Internet messages through the entry points: the document the toolkit's loader is handed, with the
// English header block put together from the published row templates, and the statuses of messages
// that give no document.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "common/apiutils.h"
#include "common/status.h"
#include "pst/filter_data.h"
#include "tests/pst/store_fixture.h"
#include "tests/support/mime_writer.h"

namespace tarn::testing {
namespace {

const std::string kRowStart =
    "<tr><td style = 'width:87pt; padding: 0px; vertical-align:top'><b><span lang = EN-US style = "
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; "
    "mso-ansi-language:EN-US'>";
const std::string kJoint =
    "</span></b></td><td style = 'padding: 0px'><span lang = EN-US style = "
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; "
    "mso-ansi-language:EN-US; word-wrap: break-word;'>";
const std::string kTable =
    "<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'>\r\n";
const std::string kBlockEnd = "</table>\r\n<p class=MsoNormal><o:p>&nbsp;</o:p></p>\r\n";

std::string Row(const std::string& label, const std::string& value) {
    return kRowStart + label + kJoint + value + "</span></td></tr>\r\n";
}

// Each case in the contract's profile and, where `repaired` is set, in the repaired one.
TEST(MimeDocument, TheLoaderGetsTheBodyWithTheEnglishBlock) {
    ScratchDir dir;
    const std::vector<std::string> envelope = {
        "From: =?utf-8?Q?J=C3=B6rg?= <j@example.org>", "To: Ann <a@example.org>",
        "Subject: =?utf-8?B?R3LDvMOfZQ==?= =?utf-8?B?R3LDvMOfZQ==?=", "Date: Mon, 23 Nov 2026 09:00:00 +0000",
        "Importance: high"};
    const std::string html_block = kTable + Row("From:", "Jörg &lt;j@example.org&gt;") +
                                   Row("To:", "Ann &lt;a@example.org&gt;") +
                                   Row("Sent:", "Mon, 23 Nov 2026 09:00:00 +0000") +
                                   Row("Subject:", "Grüße Grüße") + Row("Importance:", "high") + kBlockEnd;
    const std::string text_block =
        "From:   \tJörg <j@example.org>\r\nTo:     \tAnn <a@example.org>\r\n"
        "Sent:   \tMon, 23 Nov 2026 09:00:00 +0000\r\nSubject:\tGrüße Grüße\r\nImportance: high\r\n\r\n";

    // Repaired, the space between the subject's two encoded words goes.
    std::string repaired_block = text_block;
    repaired_block.erase(repaired_block.find("e Gr") + 1, 1);
    const std::string html_only =
        WriteMessage(envelope, Leaf("text/html", "<html><body><h1>T&eacute;l</h1>a<br>b</body></html>"));
    struct Case {
        const char* name;
        std::string message;
        int32_t message_number;
        int32_t status;
        int32_t format;
        std::string document;
        bool repaired = false;
        bool plain_text = false;
    } cases[] = {
        {"HTML with body tag",
         WriteMessage(envelope,
                      Leaf("text/html; charset=utf-8", "<html><body class=x><p>hi</p></body></html>")),
         1, kStatusOk, 369, "<html><body class=x>" + html_block + "<p>hi</p></body></html>"},
        // The English builder wraps a body that has no html element of its own.
        {"HTML fragment", WriteMessage(envelope, Leaf("text/html", "<p>hi</p>")), 7, kStatusOk, 369,
         "<html>" + html_block + "<p>hi</p></html>"},
        {"text", WriteMessage(envelope, Leaf("text/plain", "hi")), 1, kStatusOk, 316, text_block + "hi"},
        // Subject alone makes no block, and then nothing wraps the fragment either.
        {"subject only", WriteMessage({"Subject: s"}, Leaf("text/html", "<p>hi</p>")), 1, kStatusOk, 369,
         "<p>hi</p>"},
        {"subject only", WriteMessage({"Subject: s"}, Leaf("text/html", "<p>hi</p>")), 1, kStatusOk, 369,
         "<html>" + kTable + Row("Subject:", "s") + kBlockEnd + "<p>hi</p></html>", true},
        {"no body", WriteMessage(envelope, Leaf("application/pdf", "%PDF")), 1, kStatusUnsupported, 0, ""},
        {"no body", WriteMessage(envelope, Leaf("application/pdf", "%PDF")), 1, kStatusOk, 316,
         repaired_block, true},
        {"multipart of LF line ends",
         WriteMessage(envelope, Multipart("alternative", "b", {Leaf("text/plain", "t")}), "\n"), 1,
         kStatusUnsupported, 0, ""},
        // Neither a body nor a header field: nothing to show, in either profile.
        {"nothing at all", WriteMessage({"X-Note: n"}, Leaf("application/pdf", "%PDF")), 1,
         kStatusUnsupported, 0, "", true},
        {"multipart of LF line ends",
         WriteMessage(envelope, Multipart("alternative", "b", {Leaf("text/plain", "t")}), "\n"), 1, kStatusOk,
         316, repaired_block + "t", true},
        // The contract hands the HTML source to the text loader; repaired, the text goes.
        {"HTML as text", html_only, 1, kStatusOk, 316,
         "<html><body>" + html_block + "<h1>T&eacute;l</h1>a<br>b</body></html>", false, true},
        {"HTML as text", html_only, 1, kStatusOk, 316, repaired_block + "T\xC3\xA9l\r\n\r\na\r\nb", true,
         true},
        {"body tag never closes", WriteMessage(envelope, Leaf("text/html", "<body class=x")), 1,
         kStatusUnsupported, 0, ""},
    };
    int n = 0;
    for (const Case& c : cases) {
        const auto path = Wide(dir.Write("m" + std::to_string(n++) + ".eml", c.message));
        krnctlSetRepairs(c.repaired ? 1 : 0);
        const Loaded loaded = LoadMessage(path, c.message_number, c.plain_text);
        krnctlReset();
        EXPECT_EQ(loaded.status, c.status) << c.name << loaded.error;
        EXPECT_EQ(loaded.format, c.format) << c.name;
        EXPECT_EQ(loaded.document, c.document) << c.name;
    }
}

TEST(MimeDocument, InfoDescribesOneMessage) {
    ScratchDir dir;
    host::Toolkit toolkit;
    host::SourceSession session(
        Wide(dir.Write("a.eml", WriteMessage({"From: a@x"}, Leaf("text/plain", "hello")))));
    KernelFileHandle handle(krnOpenFile(session.name().c_str(), 0, kOpenShareMode));
    krnctlSetMode(3);
    ASSERT_EQ(fltInfo(&session.BuildInfoRequest(handle.get(), 4)), kStatusOk);
    EXPECT_EQ(session.file_info().format, 387);
    EXPECT_EQ(session.info_request().message_number, 0);  // one message, whatever was asked
    EXPECT_EQ(session.file_info().message_count, 0);      // only a store reports a count
    ASSERT_FALSE(toolkit.calls().empty());
    EXPECT_EQ(AsString(toolkit.calls().back().document), "From:   \ta@x\r\n\r\nhello");
    EXPECT_EQ(session.ReleaseSlot(kLinkedFilter).status, kStatusOk);
}

TEST(MimeDocument, InTemporaryFileModeImagesAreFilesBesideTheDocument) {
    ScratchDir dir;
    // A 1x1 PNG, and its bytes as the part's base64 carries them.
    const std::string png_base64 =
        "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==";
    const std::string png = std::string(
        "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52"
        "\x00\x00\x00\x01\x00\x00\x00\x01\x08\x06\x00\x00\x00\x1f\x15\xc4"
        "\x89\x00\x00\x00\x0d\x49\x44\x41\x54\x78\xda\x63\x64\xf8\xcf\x50"
        "\x0f\x00\x03\x86\x01\x80\x5a\x34\x7d\x6b\x00\x00\x00\x00\x49\x45"
        "\x4e\x44\xae\x42\x60\x82",
        70);
    const std::string message = WriteMessage(
        {"From: a@x"}, Multipart("related", "r",
                                 {Leaf("text/html", "<body><img src=\"cid:dot\"></body>"),
                                  Leaf("image/png; name=dot.png", png_base64,
                                       {"Content-ID: <dot>", "Content-Transfer-Encoding: base64"})}));
    const auto path = Wide(dir.Write("images.eml", message));

    host::Toolkit toolkit;
    host::SourceSession session(path);
    krnctlSetMode(0);  // not 3: HTML documents go to the loader by name
    KernelFileHandle handle(krnOpenFile(path.c_str(), 0, kOpenShareMode));
    ASSERT_EQ(host::CallInfo(kLinkedFilter, &session.BuildInfoRequest(handle.get(), 1)).status, kStatusOk);
    ASSERT_EQ(toolkit.calls().size(), 1u);
    const std::string html = AsString(toolkit.calls()[0].document);
    const size_t src = html.find("<img src=\"");
    ASSERT_NE(src, std::string::npos);
    const std::string name = html.substr(src + 10, html.find('"', src + 10) - src - 10);
    EXPECT_EQ(name.find(':'), std::string::npos) << name;  // a bare file name, neither cid: nor data:
    const auto* record = static_cast<const PstFilterData*>(session.slot().data);
    ASSERT_NE(record, nullptr);
    const std::filesystem::path image =
        std::filesystem::path(host::Utf8FromWide(record->temp_directory)) / name;
    std::ifstream in(image, std::ios::binary);
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()), png);
    in.close();
    // Released as the toolkit does: the image goes with the record.
    ASSERT_TRUE(session.ReleaseSlot(kLinkedFilter).returned());
    EXPECT_FALSE(std::filesystem::exists(image));
}

TEST(MimeDocument, AFileOverTheLimitIsRefusedUnread) {
    ScratchDir dir;
    const auto path = dir.path() / "large.eml";
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 0x80000000LL), 0);
    ::close(fd);
    EXPECT_EQ(LoadMessage(Wide(path), 1).status, kStatusFileTooLarge);
}

}  // namespace
}  // namespace tarn::testing
