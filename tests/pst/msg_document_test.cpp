// Message files through ProduceDocument and the entry points: the choice between RTF and HTML, the html
// wrapper, the UTF-8 declaration, plain-text mode with its mark and declared length, and the statuses.
#include "pst/msg_document.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/apiutils.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/produce.h"
#include "pst/pst.h"
#include "tests/support/msg_writer.h"
#include "tests/support/rtf_writer.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

using test::BuildMsg;
using test::CfbNode;
using test::EightBitProperty;
using test::KernelTempFile;
using test::MsgBytes;
using test::MsgName;
using test::UnicodeProperty;

const host::EntryPoints kLinkedFilter{fltInfo, fltLoad, fltFreeData};
constexpr char kRtf[] = "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard hello\\par}";
constexpr char kMeta[] = "<meta http-equiv=Content-Type content=\"text/html; charset=utf-8\">";

struct Produced {
    int32_t status = 0;
    int32_t body_format = kBodyNone;
    std::string document;  // the declared length
    std::string behind;    // up to four bytes of the buffer behind the declared length
    int32_t produced_kind = 0;
};

Produced Produce(const std::vector<CfbNode>& streams, bool plain_text) {
    KernelTempFile file(BuildMsg(streams).bytes);
    const std::u16string name = Wide(file.path());
    FilterDataHolder record(NewFilterData());
    Produced out;
    InputKind kind = kInputMessageFile;
    int32_t index = 0;
    out.status = ProduceDocument(name.c_str(), record.get(), &kind, &index, &out.body_format, plain_text,
                                 file.handle());
    const GrowBuffer& document = record->document;
    if (document.data() != nullptr) {
        const char* bytes = reinterpret_cast<const char*>(document.data());
        out.document.assign(bytes, document.length());
        out.behind.assign(bytes + document.length(),
                          std::min<size_t>(4, document.capacity() - document.length()));
    }
    out.produced_kind = record->produced_kind;
    return out;
}

// The document without the localised HTML header block, whose rows have tests of their own.
std::string WithoutHtmlHeader(std::string document) {
    const size_t start = document.find("<table style = ");
    const std::string end = "<o:p>&nbsp;</o:p></p>\r\n";
    if (start != std::string::npos && document.find(end, start) != std::string::npos)
        document.erase(start, document.find(end, start) + end.size() - start);
    return document;
}

TEST(MsgDocument, BodiesBecomeDocuments) {
    struct Case {
        const char* what;
        std::vector<CfbNode> streams;
        int32_t status;
        int32_t body_format;
        std::string document;
    };
    const std::string rtf = kRtf;
    const std::vector<Case> cases = {
        {"RTF as it is", {test::CompressedRtfBody(rtf)}, 1, kBodyRtf, rtf},
        {"RTF wins over a text body",
         {test::CompressedRtfBody(rtf), UnicodeProperty("1000", u"t")},
         1,
         kBodyRtf,
         rtf},
        {"HTML without its element is wrapped",
         {test::StoredRtfBody("<p>x</p>")},
         1,
         kBodyHtml,
         "<html><p>x</p></html>"},
        {"HTML after spaces and line ends, its element in capitals, is not",
         {test::StoredRtfBody("  \r\n<HTML><p>x</p></HTML>")},
         1,
         kBodyHtml,
         "  \r\n<HTML><p>x</p></HTML>"},
        {"a tab is not among the skipped characters",
         {test::StoredRtfBody("\t<html>x</html>")},
         1,
         kBodyHtml,
         "<html>\t<html>x</html></html>"},
        {"\"<htm\" alone is not the element",
         {test::StoredRtfBody("<htm>")},
         1,
         kBodyHtml,
         "<html><htm></html>"},
        {"a head without a character set is declared UTF-8",
         {test::StoredRtfBody("<html><head></head>x</html>")},
         1,
         kBodyHtml,
         std::string("<html><head>") + kMeta + "</head>x</html>"},
        {"a declared character set stays",
         {test::StoredRtfBody("<html><head><meta charset=us-ascii></head>x</html>")},
         1,
         kBodyHtml,
         "<html><head><meta charset=us-ascii></head>x</html>"},
        {"\"{\\rtf\" decides, not what follows",
         {test::StoredRtfBody("{\\rtf1{\\fonttbl{\\f0 A;}}\\pard <html>x</html>}")},
         1,
         kBodyRtf,
         "{\\rtf1{\\fonttbl{\\f0 A;}}\\pard <html>x</html>}"},
        {"a text body alone is no document", {UnicodeProperty("1000", u"t")}, -9, kBodyNone, ""},
        {"no body at all", {UnicodeProperty("0037", u"s")}, -9, kBodyNone, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Produced p = Produce(c.streams, false);
        EXPECT_EQ(p.status, c.status);
        EXPECT_EQ(p.body_format, c.body_format);
        if (c.status != kStatusOk) {
            EXPECT_EQ(p.produced_kind, kInputUnsupported);
            continue;
        }
        EXPECT_EQ(p.document, c.document);
        // The document ends with a NUL that its length does not count.
        ASSERT_FALSE(p.behind.empty());
        EXPECT_EQ(p.behind[0], '\0');
        EXPECT_EQ(p.produced_kind, kInputMessageFile);
    }
}

// Repaired, an HTML body serves where there is no compressed RTF, a text body or the header block alone
// where there is neither, and 8-bit strings are read in the message's code page. The contract refuses
// the first three (-9) and keeps 8-bit bytes as they are.
TEST(MsgDocument, RepairedBodiesAndStrings) {
    const std::string utf8_meta = "<meta charset=\"utf-8\">";
    const std::string mark = "\xEF\xBB\xBF";
    const CfbNode cyrillic = test::PropertyStream(test::PropertyStreamBytes({{0x0003, 0x3FFD, 1251}}));
    struct Case {
        const char* what;
        std::vector<CfbNode> streams;
        int32_t contract_status;
        int32_t format;  // repaired
        std::string document;
        std::string repairs;
        std::string shown = "";  // in the header block
    };
    const std::vector<Case> cases = {
        {"binary HTML",
         {CfbNode::Stream(u"__substg1.0_10130102", MsgBytes("<p>x</p>"))},
         -9,
         kBodyHtml,
         "<html>" + utf8_meta + "<p>x</p></html>",
         "html-utf8-meta,msg-html-body"},
        {"HTML as a string",
         {UnicodeProperty("1013", u"<p>\u00e9</p>")},
         -9,
         kBodyHtml,
         "<html>" + utf8_meta + "<p>\xC3\xA9</p></html>",
         "html-utf8-meta,msg-html-body"},
        {"undeclared 8-bit HTML in the message's code page",
         {cyrillic, CfbNode::Stream(u"__substg1.0_10130102", MsgBytes("<p>\xCF\xF0</p>"))},
         -9,
         kBodyHtml,
         "<html>" + utf8_meta + "<p>\xD0\x9F\xD1\x80</p></html>",
         "html-utf8-meta,msg-html-body"},
        {"a text body alone",
         {UnicodeProperty("1000", u"t")},
         -9,
         kBodyPlainText,
         mark + "t",
         "text-whole-length,text-body"},
        {"no body at all",
         {UnicodeProperty("0037", u"s")},
         -9,
         kBodyPlainText,
         mark + "Subject:   \ts\r\n\r\n",
         "text-whole-length,header-only"},
        {"an 8-bit subject in the message's code page",
         {cyrillic, EightBitProperty("0037", "\xCF\xF0"), test::StoredRtfBody("<p>x</p>")},
         1,
         kBodyHtml,
         "<html>" + utf8_meta + "<p>x</p></html>",
         "html-utf8-meta,msg-code-page",
         "\xD0\x9F\xD1\x80</span>"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Produce(c.streams, false).status, c.contract_status);
        krnctlSetRepairs(1);
        KernelTempFile file(BuildMsg(c.streams).bytes);
        const std::u16string name = Wide(file.path());
        FilterDataHolder record(NewFilterData());
        InputKind kind = kInputMessageFile;
        int32_t index = 0;
        int32_t format = kBodyNone;
        EXPECT_EQ(ProduceDocument(name.c_str(), record.get(), &kind, &index, &format, false, file.handle()),
                  kStatusOk);
        krnctlSetRepairs(0);
        EXPECT_EQ(format, c.format);
        const std::string document(reinterpret_cast<const char*>(record->document.data()),
                                   record->document.length());
        // The header rows of an HTML document are not this test's business.
        EXPECT_EQ(c.format == kBodyHtml ? WithoutHtmlHeader(document) : document, c.document);
        EXPECT_EQ(record->repairs.MadeNames(), c.repairs);
        EXPECT_NE(document.find(c.shown), std::string::npos) << document;
    }
}

TEST(MsgDocument, HeaderBlockGoesIntoEveryKindOfBody) {
    const std::vector<CfbNode> fields = {
        UnicodeProperty("0037", u"Quarterly"), UnicodeProperty("0C1A", u"Ann"),
        UnicodeProperty("5D01", u"ann@example.com"), EightBitProperty("0E04", "Bob")};
    struct Case {
        const char* what;
        CfbNode body;
        bool plain_text;
        std::string from;
    };
    const std::vector<Case> cases = {
        {"RTF", test::CompressedRtfBody(kRtf), false, "Ann <ann@example.com>"},
        {"HTML", test::StoredRtfBody("<html><body>x</body></html>"), false, "Ann &lt;ann@example.com&gt;"},
        {"text", UnicodeProperty("1000", u"x"), true, "Ann <ann@example.com>"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<CfbNode> streams = fields;
        streams.push_back(c.body);
        const Produced p = Produce(streams, c.plain_text);
        ASSERT_EQ(p.status, kStatusOk);
        EXPECT_NE(p.document.find("Quarterly"), std::string::npos);
        EXPECT_NE(p.document.find("Bob"), std::string::npos);
        EXPECT_NE(p.document.find(c.from), std::string::npos) << p.document;
        EXPECT_LT(p.document.find("Quarterly"), p.document.find('x', p.document.find("Quarterly")));
    }
}

TEST(MsgDocument, PlainTextMode) {
    struct Case {
        const char* what;
        std::vector<CfbNode> streams;
        std::string text;  // the text behind the mark
    };
    const std::vector<Case> cases = {
        {"UTF-16 text", {UnicodeProperty("1000", u"h\u00E9llo")}, "h\xC3\xA9llo"},
        {"8-bit text as it is", {EightBitProperty("1000", "h\xE9llo")}, "h\xE9llo"},
        {"the text body, not the RTF",
         {test::CompressedRtfBody(kRtf), UnicodeProperty("1000", u"plain")},
         "plain"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Produced p = Produce(c.streams, true);
        ASSERT_EQ(p.status, kStatusOk);
        EXPECT_EQ(p.body_format, kBodyPlainText);
        // Deliberate: the buffer holds EF BB BF, the text and its NUL, but the declared length counts the
        // text and the NUL only, so it stops three bytes short of the buffer's end.
        const std::string full = p.document + p.behind.substr(0, 3);
        EXPECT_EQ(full, "\xEF\xBB\xBF" + c.text + '\0');
        EXPECT_EQ(p.document.size(), c.text.size() + 1);
    }
    // Without a text body the document is empty, which is not a failure.
    const Produced empty = Produce({test::CompressedRtfBody(kRtf)}, true);
    EXPECT_EQ(empty.status, kStatusOk);
    EXPECT_EQ(empty.body_format, kBodyPlainText);
    EXPECT_EQ(empty.document, "");
}

// Memory running out at each allocation in turn: a failure ends in -1, except one in the attachment walk,
// which leaves the message delivered and its status in the record's reader status, and one while the
// compound file is opened, which reads as a file that does not open: no body, -9.
TEST(MsgDocument, TheReaderStatusReachesTheRecord) {
    KernelTempFile file(BuildMsg({test::StoredRtfBody("<p>x</p>"), UnicodeProperty("0037", u"s"),
                                  test::AttachmentStorage(0, {UnicodeProperty("3704", u"x.png")})})
                            .bytes);
    const std::u16string name = Wide(file.path());
    auto produce = [&](uint32_t fail_at, int32_t* reader_status) {
        FilterDataHolder record(NewFilterData());
        if (record == nullptr) return kStatusFailure;
        InputKind kind = kInputMessageFile;
        int32_t index = 0;
        int32_t body_format = kBodyNone;
        krnctlFailAllocation(fail_at);
        const int32_t status =
            ProduceDocument(name.c_str(), record.get(), &kind, &index, &body_format, false, file.handle());
        krnctlFailAllocation(0);
        *reader_status = record->reader_status;
        return status;
    };
    int32_t reader_status = 0;
    const uint64_t before = krnctlAllocationCount();
    ASSERT_EQ(produce(0, &reader_status), kStatusOk);
    EXPECT_EQ(reader_status, kStatusOk);
    const uint64_t needed = krnctlAllocationCount() - before;
    int reported = 0;
    // The record itself is the first allocation; the sweep starts behind it.
    for (uint32_t nth = 2; nth <= needed; ++nth) {
        SCOPED_TRACE(nth);
        const int32_t status = produce(nth, &reader_status);
        EXPECT_TRUE(status == kStatusOk || status == kStatusFailure || status == kStatusMessageFileOpen ||
                    status == kStatusUnsupported)
            << status;
        if (status == kStatusOk && reader_status == kStatusFailure) ++reported;
    }
    EXPECT_GT(reported, 0);
}

// Through the exported entry points as the toolkit calls them: the format and the reported kind.
TEST(MsgDocument, ThroughTheEntryPoints) {
    struct Case {
        const char* what;
        std::vector<CfbNode> streams;
        bool plain_text;
        int32_t status;
        int32_t format;
    };
    const std::vector<Case> cases = {
        {"RTF", {test::CompressedRtfBody(kRtf)}, false, 1, 226},
        {"HTML", {test::StoredRtfBody("<p>x</p>")}, false, 1, 369},
        {"text", {UnicodeProperty("1000", u"t")}, true, 1, 316},
        {"nothing", {UnicodeProperty("0037", u"s")}, false, -9, 0},
    };
    krnctlSetMode(kKernelModeInMemory);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        KernelTempFile file(BuildMsg(c.streams).bytes);
        host::Toolkit toolkit;
        host::SourceSession session(Wide(file.path()));
        const int32_t status = fltInfo(&session.BuildInfoRequest(file.handle(), 1, c.plain_text));
        EXPECT_EQ(status, c.status);
        if (status != kStatusOk) continue;
        EXPECT_EQ(session.file_info().format, kInputMessageFile);
        ASSERT_EQ(toolkit.calls().size(), 1u);
        EXPECT_EQ(toolkit.calls()[0].info->format, c.format);
        EXPECT_EQ(fltLoad(&session.BuildLoadRequest(1, c.plain_text)), kStatusOk);
        EXPECT_TRUE(session.ReleaseSlot(kLinkedFilter).returned());
    }
    krnctlReset();
}

}  // namespace
}  // namespace tarn::testing
