// The message-file reader on files built byte by byte: string properties in both encodings, the sender
// address rules, the fixed-length property scan, the attachment numbering, the bodies and the statuses.
// What a case expects comes from the writer's own description of the file (or, for UTF-8 and dates, is
// written out by hand), never from an earlier run of the reader.
#include "pst/msg/msg_reader.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "cfb/compound_storage.h"
#include "common/status.h"
#include "kernel/tarnkrn_control.h"
#include "tests/support/counted_text.h"
#include "tests/support/msg_writer.h"
#include "tests/support/rtf_writer.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

using test::AttachmentStorage;
using test::BuildMsg;
using test::CfbNode;
using test::EightBitProperty;
using test::KernelTempFile;
using test::MsgBytes;
using test::MsgFixedProperty;
using test::MsgName;
using test::PropertyStream;
using test::PropertyStreamBytes;
using test::UnicodeProperty;

constexpr uint16_t kLong = 0x0003;
constexpr uint16_t kFileTime = 0x0040;
// 2006-08-12 18:25:25 UTC as a Windows file time, and how that minute reads.
constexpr uint64_t kAugust2006 = 0x01C6BE3CADCF5880;
constexpr char kAugust2006Text[] = "Sat Aug 12, 2006 06:25 PM";
constexpr uint64_t kNewYearsEve1999 = 0x01BF53EB01A9FA00;
constexpr char kNewYearsEve1999Text[] = "Fri Dec 31, 1999 11:59 PM";

CfbNode TextBody(std::u16string_view text) { return UnicodeProperty("1000", text); }

// A file on disk holding `children` in its root, opened as a compound file.
class MsgFile {
  public:
    explicit MsgFile(std::vector<CfbNode> children) : file_(BuildMsg(std::move(children)).bytes) {}
    explicit MsgFile(const std::vector<uint8_t>& bytes) : file_(bytes) {}

    std::u16string name() const { return Wide(file_.path()); }
    const cfb::CompoundStorage& storage() {
        if (!storage_) {
            storage_.emplace(file_.handle());
            EXPECT_TRUE(storage_->open());
        }
        return *storage_;
    }
    // ReadMsgMessage on the file, by name.
    int32_t Read(MessageDocument& record, const MsgReadOptions& options = {}) const {
        const std::u16string path = name();
        return ReadMsgMessage(record, path.c_str(), options);
    }

  private:
    KernelTempFile file_;
    std::optional<cfb::CompoundStorage> storage_;
};

TEST(MsgReader, StringPropertiesInBothEncodings) {
    struct Case {
        const char* what;
        std::vector<CfbNode> streams;
        int32_t status;
        std::string bytes;  // what the counted string holds, a counted NUL included
    };
    const std::vector<Case> cases = {
        {"UTF-16 becomes UTF-8 with one NUL",
         {UnicodeProperty("0037", u"Grüße 日本 \U0001F600")},
         1,
         std::string("Gr\xC3\xBC\xC3\x9F"
                     "e \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x98\x80") +
             '\0'},
        {"a stored NUL is not doubled",
         {UnicodeProperty("0037", std::u16string(u"abc\0", 4))},
         1,
         std::string("abc\0", 4)},
        {"an odd last byte is dropped",
         {CfbNode::Stream(MsgName("__substg1.0_0037001F"), {'a', 0, 'b', 0, 'c'})},
         1,
         std::string("ab\0", 3)},
        {"a lone surrogate becomes U+FFFD",
         {UnicodeProperty("0037", std::u16string(1, char16_t{0xD800}))},
         1,
         std::string("\xEF\xBF\xBD\0", 4)},
        // Deliberate: the bytes of an 8-bit string are not converted from any code page.
        {"8-bit bytes kept as they are",
         {EightBitProperty("0037", "Caf\xE9 \x93\xFA\x96{")},
         1,
         "Caf\xE9 \x93\xFA\x96{"},
        {"UTF-16 wins over 8-bit",
         {EightBitProperty("0037", "narrow"), UnicodeProperty("0037", u"wide")},
         1,
         std::string("wide\0", 5)},
        {"an empty UTF-16 value", {UnicodeProperty("0037", u"")}, 1, ""},
        {"a one-byte UTF-16 value is empty",
         {CfbNode::Stream(MsgName("__substg1.0_0037001F"), {'a'})},
         1,
         ""},
        {"an empty 8-bit value", {EightBitProperty("0037", "")}, 1, ""},
        {"neither stream", {UnicodeProperty("0038", u"other")}, 2, ""},
        {"a storage of that name is not a value",
         {CfbNode::Storage(MsgName("__substg1.0_0037001F"), {UnicodeProperty("0037", u"inner")})},
         2,
         ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MsgFile file(c.streams);
        CountedString out;
        EXPECT_EQ(ReadStringProperty(file.storage(), "__substg1.0_0037", out), c.status);
        EXPECT_EQ(Bytes(out), c.bytes);
    }
}

TEST(MsgReader, HeaderFieldsAndTheSenderAddress) {
    struct Case {
        const char* what;
        std::vector<CfbNode> streams;
        std::string address;
    };
    const std::vector<Case> cases = {
        {"the SMTP address", {UnicodeProperty("5D01", u"ann@example.com")}, "ann@example.com"},
        {"an empty SMTP address gives way to the representing address",
         {UnicodeProperty("5D01", u""), UnicodeProperty("0065", u"rep@example.com")},
         "rep@example.com"},
        {"a missing one too", {EightBitProperty("0065", "rep@example.com")}, "rep@example.com"},
        {"an X.500 address is dropped",
         {UnicodeProperty("0065", u"/O=EXCHANGELABS/OU=GROUP/CN=RECIPIENTS/CN=ANN")},
         ""},
        // The representing address is consulted only for an empty SMTP address, not for an unusable one.
        {"an X.500 SMTP address hides the representing one",
         {UnicodeProperty("5D01", u"/O=ORG/CN=ANN"), UnicodeProperty("0065", u"rep@example.com")},
         ""},
        {"no address at all", {}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<CfbNode> streams = c.streams;
        streams.push_back(TextBody(u"body"));
        streams.push_back(UnicodeProperty("0C1A", u"Ann Example"));
        streams.push_back(EightBitProperty("004D", "Boss"));
        streams.push_back(UnicodeProperty("0E04", u"To One; To Two"));
        streams.push_back(UnicodeProperty("0E03", u"Cc One"));
        streams.push_back(UnicodeProperty("0E02", u"Bcc One"));
        streams.push_back(UnicodeProperty("0037", u"Hello"));
        MsgFile file(streams);
        MessageDocument record;
        ASSERT_EQ(file.Read(record), kStatusOk);
        EXPECT_EQ(record.header[kSlotSenderAddress].text(), c.address);
        EXPECT_EQ(record.header[kSlotFrom].text(), "Ann Example");
        EXPECT_EQ(record.header[kSlotRepresenting].text(), "Boss");
        EXPECT_EQ(record.header[kSlotTo].text(), "To One; To Two");
        EXPECT_EQ(record.header[kSlotCc].text(), "Cc One");
        EXPECT_EQ(record.header[kSlotBcc].text(), "Bcc One");
        EXPECT_EQ(record.header[kSlotSubject].text(), "Hello");
        EXPECT_EQ(record.text_body.text(), "body");
    }
}

TEST(MsgReader, FixedPropertyScan) {
    const TimeZone utc("UTC");
    struct Case {
        const char* what;
        std::vector<uint8_t> stream;
        std::string sent;
        std::string importance;
    };
    const MsgFixedProperty sent{kFileTime, 0x0039, kAugust2006};
    const MsgFixedProperty high{kLong, 0x0017, 2};
    const std::vector<Case> cases = {
        {"entries behind the 32-byte header", PropertyStreamBytes({high, sent}), kAugust2006Text, "High"},
        {"low importance", PropertyStreamBytes({{kLong, 0x0017, 0}}), "", "Low"},
        {"normal importance has no text", PropertyStreamBytes({{kLong, 0x0017, 1}}), "", ""},
        // Deliberate: the header's second half is examined as an entry.
        {"an entry in the header's second half", PropertyStreamBytes({sent}, 16), kAugust2006Text, ""},
        {"the first of two entries wins", PropertyStreamBytes({{kFileTime, 0x0039, kNewYearsEve1999}, sent}),
         kNewYearsEve1999Text, ""},
        {"a wrong type is not the property",
         PropertyStreamBytes({{kLong, 0x0039, kAugust2006}, {kFileTime, 0x0017, 2}}), "", ""},
        {"a partial entry is not read", PropertyStreamBytes({sent}, 32, 1), "", ""},
        {"a stream shorter than the header is not scanned", PropertyStreamBytes({sent}, 8), "", ""},
        {"an empty stream", {}, "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MsgFile file({TextBody(u"t"), PropertyStream(c.stream)});
        MessageDocument record;
        ASSERT_EQ(file.Read(record), kStatusOk);
        EXPECT_EQ(record.header[kSlotSent].text(), c.sent);
        EXPECT_EQ(record.header[kSlotImportance].text(), c.importance);
    }
}

std::vector<uint32_t> Numbers(const std::vector<AttachmentStorageEntry>& storages) {
    std::vector<uint32_t> numbers;
    for (const AttachmentStorageEntry& s : storages) numbers.push_back(s.number);
    return numbers;
}

TEST(MsgReader, AttachmentNumbering) {
    struct Case {
        const char* what;
        std::vector<CfbNode> children;
        std::vector<uint32_t> walked;
    };
    auto a = [](uint32_t n) { return AttachmentStorage(n, {UnicodeProperty("3704", u"x.png")}); };
    const std::vector<Case> cases = {
        {"none", {}, {}},
        {"dense", {a(0), a(1), a(2)}, {0, 1, 2}},
        {"one gap is stepped over", {a(0), a(1), a(3)}, {0, 1, 3}},
        {"two missing numbers end the walk", {a(0), a(1), a(4)}, {0, 1}},
        {"a missing first number", {a(1), a(2)}, {1, 2}},
        {"two missing first numbers", {a(2)}, {}},
        {"a stream of that name is missing",
         {a(0), CfbNode::Stream(MsgName(test::AttachmentName(1)), {1, 2}), a(2)},
         {0, 2}},
        {"a stream does not carry the walk over a gap",
         {a(0), CfbNode::Stream(MsgName(test::AttachmentName(2)), {1, 2}), a(3)},
         {0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MsgFile file(c.children);
        EXPECT_EQ(Numbers(FindAttachmentStorages(file.storage())), c.walked);
    }
    // Numbers past nine are written in upper-case hex, so "#0000000A" follows "#00000009".
    std::vector<CfbNode> many;
    for (uint32_t n = 0; n < 12; ++n) many.push_back(a(n));
    MsgFile file(many);
    EXPECT_EQ(FindAttachmentStorages(file.storage()).size(), 12u);
    EXPECT_EQ(AttachmentStorageName(10), "__attach_version1.0_#0000000A");
}

// Images go into an HTML body from the storages the walk visits: by "cid:" and the content id, else by
// the file name. A storage behind two missing numbers is not visited, and an RTF body takes no images.
TEST(MsgReader, ImagesFromTheAttachmentStorages) {
    const std::vector<uint8_t> image = test::PatternBytes(60, 9);
    auto attachment = [&](uint32_t n, std::u16string name, std::u16string content_id) {
        return AttachmentStorage(n, {UnicodeProperty("3704", name), UnicodeProperty("3712", content_id),
                                     CfbNode::Stream(u"__substg1.0_37010102", image)});
    };
    const std::string html = "<img src=\"cid:one\"><img src=\"b.png\"><img src=\"cid:four\">";
    struct Case {
        const char* what;
        std::vector<CfbNode> streams;
        std::vector<std::string> kept;  // references still in the document
        int inlined;                    // data URIs in it
    };
    const std::vector<Case> cases = {
        {"by content id and by file name",
         {test::StoredRtfBody(html), attachment(0, u"a.png", u"one"), attachment(1, u"b.png", u"")},
         {"cid:four"},
         2},
        {"not behind two missing numbers",
         {test::StoredRtfBody(html), attachment(0, u"a.png", u"one"), attachment(3, u"d.png", u"four")},
         {"b.png", "cid:four"},
         1},
        {"behind one",
         {test::StoredRtfBody(html), attachment(0, u"a.png", u"one"), attachment(2, u"d.png", u"four")},
         {"b.png"},
         2},
        {"not into RTF",
         {test::CompressedRtfBody("{\\rtf1 " + html + "}"), attachment(0, u"a.png", u"one")},
         {"cid:one", "b.png", "cid:four"},
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MsgFile file(c.streams);
        MessageDocument record;
        ASSERT_EQ(file.Read(record), kStatusOk);
        const std::string document(record.document.text());
        for (const std::string& kept : c.kept) EXPECT_NE(document.find(kept), std::string::npos) << kept;
        int inlined = 0;
        for (size_t at = document.find("data:image;base64,"); at != std::string::npos;
             at = document.find("data:image;base64,", at + 1))
            ++inlined;
        EXPECT_EQ(inlined, c.inlined) << document;
        EXPECT_EQ(record.reader_status, kStatusOk);
    }
    // A record that has written image files already walks no attachments.
    MsgFile file({test::StoredRtfBody(html), attachment(0, u"a.png", u"one")});
    MessageDocument record;
    ASSERT_EQ(file.Read(record, {.walk_attachments = false}), kStatusOk);
    EXPECT_EQ(record.document.text(), html);
}

TEST(MsgReader, BodiesAndStatuses) {
    const std::string rtf = "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard hello\\par}";
    struct Case {
        const char* what;
        std::vector<CfbNode> streams;
        int32_t status;
        std::optional<std::string> document;  // none: absent
        std::optional<std::string> text;
    };
    const std::vector<Case> cases = {
        {"no body at all", {UnicodeProperty("0037", u"s")}, -9, {}, {}},
        {"a text body alone", {TextBody(u"plain")}, 1, {}, std::string("plain\0", 6)},
        {"an 8-bit text body", {EightBitProperty("1000", "plain\xE9")}, 1, {}, "plain\xE9"},
        {"an empty text body is a body", {TextBody(u"")}, 1, {}, {}},
        {"compressed RTF", {test::CompressedRtfBody(rtf)}, 1, rtf, {}},
        {"RTF beside text", {test::CompressedRtfBody(rtf), TextBody(u"t")}, 1, rtf, std::string("t\0", 2)},
        {"stored HTML", {test::StoredRtfBody("<p>x</p>")}, 1, "<p>x</p>", {}},
        {"an unknown type is ignored",
         {test::CompressedRtfBody(rtf, {.comp_type = 0x44434241}), TextBody(u"t")},
         1,
         {},
         std::string("t\0", 2)},
        {"an unknown type alone is no body",
         {test::CompressedRtfBody(rtf, {.comp_type = 0x44434241})},
         -9,
         {},
         {}},
        {"a stream too short for its type",
         {CfbNode::Stream(MsgName("__substg1.0_10090102"), {1, 2, 3})},
         -9,
         {},
         {}},
        {"a bad CRC is the decompressor's refusal",
         {test::CompressedRtfBody(rtf, {.crc = 1}), TextBody(u"t")},
         -9,
         {},
         {}},
        {"a wrong size is too", {test::CompressedRtfBody(rtf, {.comp_size = 7})}, -9, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MsgFile file(c.streams);
        MessageDocument record;
        EXPECT_EQ(file.Read(record), c.status);
        if (c.status != kStatusOk) continue;
        ASSERT_EQ(record.document.data() != nullptr, c.document.has_value());
        if (c.document) {
            EXPECT_EQ(Bytes(record.document), *c.document);
            // A NUL that the size does not count.
            EXPECT_EQ(record.document.data()[record.document.size()], std::byte{0});
        }
        ASSERT_EQ(record.text_body.data() != nullptr, c.text.has_value());
        if (c.text) {
            EXPECT_EQ(Bytes(record.text_body), *c.text);
        }
        EXPECT_EQ(record.reader_status, kStatusOk);
    }
}

TEST(MsgReader, FilesThatAreNotMessages) {
    MessageDocument record;
    EXPECT_EQ(ReadMsgMessage(record, u"/nonexistent/dir/file.msg", {}), kStatusMessageFileOpen);
    EXPECT_EQ(ReadMsgMessage(record, nullptr, {}), kStatusMessageFileOpen);
    // Not a compound file, or one we refuse: nothing is read, and that is not the reader's failure.
    std::vector<uint8_t> damaged = BuildMsg({TextBody(u"t")}).bytes;
    damaged[56] = 0x08;  // a mini stream cutoff of 2048
    for (const std::vector<uint8_t>& bytes : {MsgBytes("From: a@b\r\n\r\nhello"), damaged}) {
        MsgFile file(bytes);
        MessageDocument nothing;
        EXPECT_EQ(file.Read(nothing), kStatusOk);
        EXPECT_EQ(nothing.text_body.data(), nullptr);
        EXPECT_EQ(nothing.document.data(), nullptr);
    }
}

TEST(MsgClaims, WholeStreamsAreBoundedByWhatTheFileHolds) {
    struct Case {
        const char* what;
        size_t data_size;
        uint32_t stated_size;
        size_t expected;
    };
    // 5000 bytes take ten 512-byte sectors; 100 bytes take two 64-byte small blocks.
    const std::vector<Case> cases = {
        {"as stated", 5000, 5000, 5000},
        {"a big stream claiming 4 GiB yields its chain", 5000, 0xFFFFF000, 5120},
        {"a big stream claiming 2 GiB", 5000, 0x7FFFF000, 5120},
        {"a small stream claiming more than its blocks", 100, 4095, 128},
        {"a stated size below the data", 5000, 4100, 4100},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const std::vector<uint8_t> data = test::PatternBytes(c.data_size, 7);
        test::CfbImage image = BuildMsg({CfbNode::Stream(u"data", data)});
        image.SetEntryField(image.Find({u"data"}).index, cfb::format::kStreamSizeOffset, c.stated_size);
        MsgFile file(image.bytes);
        CountedString out;
        ASSERT_EQ(ReadWholeStream(file.storage(), "data", out), kStatusOk);
        ASSERT_EQ(out.size(), c.expected);
        const size_t common = std::min(c.expected, data.size());
        EXPECT_EQ(Bytes(out).substr(0, common), std::string(data.begin(), data.begin() + common));
        // Two zero bytes behind every stream.
        EXPECT_EQ(out.data()[out.size()], std::byte{0});
        EXPECT_EQ(out.data()[out.size() + 1], std::byte{0});
    }
    // A chain that the FAT cuts after its first sector yields that sector.
    test::CfbImage image = BuildMsg({CfbNode::Stream(u"data", test::PatternBytes(5000, 3))});
    const test::CfbEntryInfo& entry = image.Find({u"data"});
    image.SetFatEntry(entry.chain[0], cfb::format::kEndOfChain);
    MsgFile file(image.bytes);
    CountedString out;
    ASSERT_EQ(ReadWholeStream(file.storage(), "data", out), kStatusOk);
    EXPECT_EQ(out.size(), 512u);
    EXPECT_EQ(ReadWholeStream(file.storage(), "missing", out), kStatusNotPresent);
    EXPECT_EQ(ReadWholeStream(file.storage(), "/", out), kStatusNotPresent);
}

// Every stream the reader takes whole, each claiming near 4 GiB in a file of a few KiB: the message is
// read with what the streams hold. CTest runs this under an allocation limit far below the claims.
TEST(MsgClaims, EveryStreamOfAMessageClaimingGigabytes) {
    const std::string html(5000, 'h');
    std::vector<CfbNode> streams = {
        test::StoredRtfBody(html),
        TextBody(std::u16string(3000, u't')),
        UnicodeProperty("0037", std::u16string(3000, u's')),
        PropertyStream(PropertyStreamBytes(std::vector<MsgFixedProperty>(300, {kLong, 0x0017, 2}))),
        AttachmentStorage(0, {UnicodeProperty("3704", std::u16string(3000, u'n')),
                              CfbNode::Stream(MsgName("__substg1.0_37010102"), test::PatternBytes(5000, 1))}),
    };
    const std::vector<std::vector<std::u16string>> claimed = {
        {u"__substg1.0_1000001F"},
        {u"__substg1.0_0037001F"},
        {u"__properties_version1.0"},
        {MsgName(test::AttachmentName(0)), u"__substg1.0_3704001F"},
        {MsgName(test::AttachmentName(0)), u"__substg1.0_37010102"}};
    {
        test::CfbImage image = BuildMsg(streams);
        for (const auto& path : claimed)
            image.SetEntryField(image.Find(path).index, cfb::format::kStreamSizeOffset, 0xFFFFF000);
        MsgFile file(image.bytes);
        MessageDocument record;
        ASSERT_EQ(file.Read(record), kStatusOk);
        // Each value is what its chain holds: whole sectors, the written 6000 bytes and the 144 zero bytes
        // that fill the last sector, 3072 units in all.
        EXPECT_EQ(Bytes(record.text_body), std::string(3000, 't') + std::string(72, '\0'));
        EXPECT_EQ(record.header[kSlotSubject].text().substr(0, 3000), std::string(3000, 's'));
        EXPECT_EQ(record.header[kSlotImportance].text(), "High");
        EXPECT_EQ(record.document.text(), html);
    }
    // The body's stream then holds more than its header's COMPSIZE says: the decompressor refuses it.
    test::CfbImage image = BuildMsg(streams);
    image.SetEntryField(image.Find({u"__substg1.0_10090102"}).index, cfb::format::kStreamSizeOffset,
                        0xFFFFF000);
    MsgFile file(image.bytes);
    MessageDocument record;
    EXPECT_EQ(file.Read(record), kStatusUnsupported);
}

// Name streams of many attachments pointing at one chain: each read is bounded, and so is their sum,
// by what the file holds. The walk stops there with -9 beside the message; the images before stay.
TEST(MsgClaims, TheStreamsOfAMessageTogetherTakeNoMoreThanTheFile) {
    const std::u16string shared(6000, u'n');
    std::vector<CfbNode> streams = {test::StoredRtfBody("<img src=\"cid:a\"><img src=\"cid:b\">")};
    for (uint32_t n = 0; n < 4; ++n) {
        streams.push_back(AttachmentStorage(
            n,
            {UnicodeProperty("3704", n == 0 ? shared : u"x"), UnicodeProperty("3712", n == 3 ? u"b" : u"a"),
             CfbNode::Stream(u"__substg1.0_37010102", test::PatternBytes(30, 1))}));
    }
    for (const bool shared_chain : {false, true}) {
        SCOPED_TRACE(shared_chain);
        test::CfbImage image = BuildMsg(streams);
        const test::CfbEntryInfo& big =
            image.Find({MsgName(test::AttachmentName(0)), u"__substg1.0_3704001F"});
        for (uint32_t n = 1; n < 4 && shared_chain; ++n) {
            const uint32_t index =
                image.Find({MsgName(test::AttachmentName(n)), u"__substg1.0_3704001F"}).index;
            image.SetEntryField(index, cfb::format::kStartSectorOffset, big.start);
            image.SetEntryField(index, cfb::format::kStreamSizeOffset, static_cast<uint32_t>(big.size));
        }
        ASSERT_LT(image.bytes.size(), 3 * big.size);
        MsgFile file(image.bytes);
        MessageDocument record;
        ASSERT_EQ(file.Read(record), kStatusOk);
        EXPECT_EQ(record.reader_status, shared_chain ? kStatusUnsupported : kStatusOk);
        const std::string document(record.document.text());
        EXPECT_EQ(document.find("cid:a"), std::string::npos);
        EXPECT_EQ(document.find("cid:b") != std::string::npos, shared_chain);
    }
}

// Every allocation of a read failing in turn: each ends in the reader's -1 or in a delivered message,
// never in a crash or a leak (the test main checks the kernel's leak report).
TEST(MsgReader, EveryAllocationFailure) {
    MsgFile file({test::StoredRtfBody("<p>x</p>"), TextBody(u"text"), UnicodeProperty("0037", u"s"),
                  UnicodeProperty("0C1A", u"n"), UnicodeProperty("5D01", u"a@b"),
                  PropertyStream(PropertyStreamBytes({{kLong, 0x0017, 2}})),
                  AttachmentStorage(0, {UnicodeProperty("3704", u"x.png")})});
    const uint64_t before = krnctlAllocationCount();
    {
        MessageDocument record;
        ASSERT_EQ(file.Read(record), kStatusOk);
    }
    const uint64_t needed = krnctlAllocationCount() - before;
    ASSERT_GT(needed, 5u);
    int reported_beside = 0;
    for (uint32_t nth = 1; nth <= needed; ++nth) {
        SCOPED_TRACE(nth);
        MessageDocument record;
        krnctlFailAllocation(nth);
        const int32_t status = file.Read(record);
        krnctlFailAllocation(0);
        EXPECT_TRUE(status == kStatusOk || status == kStatusFailure || status == kStatusMessageFileOpen)
            << status;
        // A failure in the attachment walk is the only one that leaves the message delivered; it is
        // reported beside it rather than lost. Any other delivered message is whole, or, when memory ran
        // out while the compound file was opened, empty: a file that does not open has no body, which
        // the document's assembly refuses with -9.
        if (status == kStatusOk && record.reader_status == kStatusFailure) ++reported_beside;
        const bool opened = record.document.data() != nullptr || record.text_body.data() != nullptr;
        if (status == kStatusOk && record.reader_status == kStatusOk && opened) {
            EXPECT_EQ(record.header[kSlotImportance].text(), "High");
            EXPECT_EQ(record.header[kSlotSenderAddress].text(), "a@b");
            EXPECT_EQ(record.text_body.text(), "text");
        }
    }
    EXPECT_GT(reported_beside, 0);
    // A file read or seek failing in turn: the stream comes up short or the file does not open, which
    // ends in a refusal or a message with less in it, never in a read beyond what was read.
    for (const int32_t operation : {KRNCTL_SEEK, KRNCTL_READ}) {
        for (uint32_t nth = 1; nth <= 40; ++nth) {
            SCOPED_TRACE(nth);
            MessageDocument record;
            krnctlFailFileOperation(operation, nth);
            const int32_t status = file.Read(record);
            krnctlFailFileOperation(operation, 0);
            EXPECT_TRUE(status == kStatusOk || status == kStatusUnsupported) << status;
        }
    }
}

}  // namespace
}  // namespace tarn::testing
