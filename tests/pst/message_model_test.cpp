// The message model on property contexts made by the fixture writer: the subject rules, the header
// fields as UTF-8, the sent time in the local time zone, the importance labels and attachment access.
#include "pst/message_model.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/little_endian.h"
#include "store/ltp/property_bag.h"
#include "store/ndb/database.h"
#include "store/ndb/errors.h"
#include "tests/pst/store_fixture.h"
#include "tests/support/ltp_writer.h"
#include "tests/support/pst_writer.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

using fixture::PcProperty;
using fixture::PstLayout;

constexpr uint32_t kMessageNid = 0x200024;

// One message node holding exactly `properties`, opened through the store layers.
class OneMessage {
  public:
    OneMessage(PstLayout layout, std::vector<PcProperty> properties) {
        uint32_t next = 0x100;
        fixture::LtpNodeData pc =
            fixture::WritePropertyContext(layout, std::move(properties), {.next_subnode = &next});
        fixture::PstDescription d;
        d.layout = layout;
        d.nodes.push_back(
            {.id = kMessageNid, .data = std::move(pc.data), .subnodes = std::move(pc.subnodes)});
        const fixture::PstImage image = fixture::WritePst(d);
        path_ = Wide(dir_.Write("m.pst", image.bytes));
        db_ = ndb::open_database(path_);
        message_.emplace(db_->lookup_node(kMessageNid));
    }
    PstMessage& message() { return *message_; }

  private:
    ScratchDir dir_;
    std::u16string path_;
    ndb::db_ptr db_;
    std::optional<PstMessage> message_;
};

PcProperty Unicode(uint16_t id, std::u16string_view text) { return {id, 0x001F, fixture::Utf16(text)}; }

std::string Text(const CountedString& s) { return std::string(s.text()); }

uint64_t FileTime(int64_t unix_seconds) {
    return static_cast<uint64_t>(unix_seconds + 11644473600LL) * 10'000'000u;
}

TEST(MessageModel, SubjectRules) {
    struct Case {
        const char* what;
        std::optional<std::u16string> stored;
        std::u16string subject;
    };
    const Case cases[] = {
        {"missing", std::nullopt, u"No Subject"},
        {"empty stays empty", u"", u""},
        {"plain", u"Quarterly report", u"Quarterly report"},
        {"prefix marker and length dropped", std::u16string(u"\u0001\u0005RE: Lunch"), u"RE: Lunch"},
        {"marker and length only", std::u16string(u"\u0001\u0004"), u""},
        {"a marker later on is kept", std::u16string(u"a\u0001b"), std::u16string(u"a\u0001b")},
    };
    for (const Case& c : cases) {
        std::vector<PcProperty> props;
        if (c.stored) props.push_back(Unicode(kPropSubject, *c.stored));
        OneMessage m(PstLayout::kUnicode, props);
        EXPECT_EQ(ReadSubject(m.message().properties()), c.subject) << c.what;
    }
    // A marker without its length unit is damage, for the walk to handle.
    OneMessage broken(PstLayout::kUnicode, {Unicode(kPropSubject, std::u16string(u"\u0001"))});
    EXPECT_THROW(ReadSubject(broken.message().properties()), std::out_of_range);
}

TEST(MessageModel, HeaderFieldsAsUtf8) {
    TimeZone utc("UTC");
    OneMessage m(PstLayout::kUnicode, {Unicode(kPropSenderName, u"Zoë Müller"),
                                       Unicode(kPropDisplayTo, u"田中; Bob"),
                                       Unicode(kPropDisplayCc, u""),
                                       Unicode(kPropDisplayBcc, std::u16string(1, char16_t{0xD800})),
                                       {kPropImportance, 0x0003, fixture::Le(2, 4)},
                                       {kPropSubmitTime, 0x0040, fixture::Le(FileTime(1551794820), 8)}});
    MessageDocument record;
    ReadHeaderFields(m.message().properties(), record);
    EXPECT_EQ(Text(record.header[kSlotFrom]), "Zoë Müller");
    EXPECT_EQ(Text(record.header[kSlotTo]), "田中; Bob");
    EXPECT_EQ(record.header[kSlotCc].data(), nullptr) << "an empty value leaves the slot empty";
    EXPECT_EQ(record.header[kSlotBcc].data(), nullptr) << "text the kernel cannot convert leaves it empty";
    EXPECT_EQ(Text(record.header[kSlotSent]), "Tue Mar 05, 2019 02:07 PM");
    EXPECT_EQ(Text(record.header[kSlotImportance]), "High");
    EXPECT_EQ(record.header[kSlotSubject].data(), nullptr) << "the subject slot is the composer's";

    // An 8-bit store string is widened byte by byte; ASCII comes through unchanged.
    OneMessage ansi(PstLayout::kAnsi, {{kPropSenderName, 0x001E, AsBytes("Alice")}});
    MessageDocument ansi_record;
    ReadHeaderFields(ansi.message().properties(), ansi_record);
    EXPECT_EQ(Text(ansi_record.header[kSlotFrom]), "Alice");
}

TEST(MessageModel, SentTimeNeedsEightBytesAndFollowsTheTimeZone) {
    struct Case {
        const char* zone;
        fixture::Bytes value;
        const char* sent;  // null: left empty
    };
    const Case cases[] = {
        {"UTC", fixture::Le(FileTime(1551794820), 8), "Tue Mar 05, 2019 02:07 PM"},
        {"JST-9", fixture::Le(FileTime(1551794820), 8), "Tue Mar 05, 2019 11:07 PM"},
        {"EST5", fixture::Le(FileTime(0), 8), "Wed Dec 31, 1969 07:00 PM"},
        {"UTC", fixture::Le(FileTime(1551794820), 4), nullptr},
        {"UTC", fixture::Bytes(9, std::byte{1}), nullptr},
    };
    for (const Case& c : cases) {
        TimeZone zone(c.zone);
        // Binary, so that the length can be anything: the model checks the length, not the type.
        OneMessage m(PstLayout::kUnicode, {{kPropSubmitTime, 0x0102, c.value}});
        MessageDocument record;
        ReadHeaderFields(m.message().properties(), record);
        if (c.sent == nullptr) {
            EXPECT_EQ(record.header[kSlotSent].data(), nullptr) << c.value.size() << " bytes";
        } else {
            EXPECT_EQ(Text(record.header[kSlotSent]), c.sent) << c.zone;
        }
    }
}

TEST(MessageModel, ImportanceLabels) {
    const struct {
        uint32_t value;
        const char* label;  // null: nothing written
    } cases[] = {{0, "Low"}, {1, nullptr}, {2, "High"}, {3, nullptr}, {0xFFFFFFFF, nullptr}};
    for (const auto& c : cases) {
        OneMessage m(PstLayout::kUnicode, {{kPropImportance, 0x0003, fixture::Le(c.value, 4)}});
        MessageDocument record;
        ReadHeaderFields(m.message().properties(), record);
        EXPECT_EQ(record.header[kSlotFrom].data(), nullptr) << "a missing property leaves its slot empty";
        if (c.label == nullptr) {
            EXPECT_EQ(record.header[kSlotImportance].data(), nullptr) << c.value;
        } else {
            EXPECT_EQ(Text(record.header[kSlotImportance]), c.label) << c.value;
        }
    }
    // The label is appended to what the slot holds.
    CountedString slot;
    ASSERT_EQ(ImportanceText(2, slot), kStatusOk);
    ASSERT_EQ(ImportanceText(0, slot), kStatusOk);
    EXPECT_EQ(Text(slot), "HighLow");
}

TEST(MessageModel, Attachments) {
    ScratchDir dir;
    StoreMessage with = HtmlMessage("with", "<p/>");
    with.attachments = {{"photo.png", "PHOTO~1.PNG", AsBytes("PNG")},
                        {"notes.txt", "NOTES.TXT", AsBytes("text")}};
    StoreDescription store;
    store.folders = {{"Inbox", {with, HtmlMessage("without", "<p/>")}}};
    fixture::StoreMap map;
    const std::u16string path = WriteStore(dir, store, "a.pst", &map);
    const ndb::db_ptr db = ndb::open_database(path);

    PstMessage message(db->lookup_node(map.messages[0][0]));
    ASSERT_EQ(message.AttachmentCount(), 2u);
    EXPECT_EQ(message.Attachment(1).read_wstring(kPropAttachLongName), u"notes.txt");
    EXPECT_EQ(message.Attachment(0).read_wstring(kPropAttachShortName), u"PHOTO~1.PNG");
    EXPECT_THROW(message.Attachment(2), std::out_of_range);

    PstMessage bare(db->lookup_node(map.messages[0][1]));
    EXPECT_EQ(bare.AttachmentCount(), 0u) << "no attachment subnode: no attachments and no error";
}

TEST(MessageModel, WholeValuesReadBackOrFailWithTheStoresError) {
    // A value in the heap and one in a subnode over an XBLOCK, read whole; then the XBLOCK's second
    // leaf damaged: the read must end in that leaf's own error, not in the first leaf's bytes as a
    // shorter value. The writer's bytes are the model.
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        SCOPED_TRACE(layout == PstLayout::kAnsi ? "ANSI" : "Unicode");
        const fixture::Bytes small = fixture::PatternBytes(100, 1);
        const fixture::Bytes large = fixture::PatternBytes(30000, 2);
        uint32_t next = 0x100;
        fixture::LtpNodeData pc = fixture::WritePropertyContext(
            layout, {{kPropBody, 0x0102, small}, {kPropHtmlBody, 0x0102, large}}, {.next_subnode = &next});
        fixture::PstDescription d;
        d.layout = layout;
        d.encoding = fixture::PstEncoding::kPermute;
        d.nodes.push_back(
            {.id = kMessageNid, .data = std::move(pc.data), .subnodes = std::move(pc.subnodes)});
        fixture::PstImage image = fixture::WritePst(d);
        ScratchDir dir;
        const auto read = [&](ltp::prop_id id) {
            const ndb::db_ptr db = ndb::open_database(Wide(dir.Write("m.pst", image.bytes)));
            const PstMessage message(db->lookup_node(kMessageNid));
            CountedString value;
            EXPECT_EQ(ReadWholeStream(message.properties(), id, value), kStatusOk);
            return std::vector<std::byte>(value.data(), value.data() + value.size());
        };
        EXPECT_EQ(read(kPropBody), small);
        EXPECT_EQ(read(kPropHtmlBody), large);

        const fixture::PstBlockRecord* xblock = nullptr;
        for (const auto& [id, record] : image.blocks)
            if (record.kind == fixture::PstBlockRecord::Kind::kXBlock) xblock = &record;
        ASSERT_NE(xblock, nullptr);
        const size_t width = layout == PstLayout::kAnsi ? 4 : 8;
        const uint64_t second_leaf = width == 4 ? LoadLe32(image.bytes.data() + xblock->address + 8 + width)
                                                : LoadLe64(image.bytes.data() + xblock->address + 8 + width);
        image.bytes[image.Block(second_leaf).trailer + 2] ^= std::byte{1};
        EXPECT_EQ(read(kPropBody), small);
        EXPECT_EQ(MessageOf<ndb::sig_mismatch>([&] { read(kPropHtmlBody); }), "block sig mismatch");
    }
}

}  // namespace
}  // namespace tarn::testing
