// The images of a PST message's HTML body, put inline from its attachments by the composer: which
// attachment is found by which name, what happens to messages other than the target, what a damaged
// attachment leaves, and the images-as-files mode seen through the entry points.
//
// The expected data URIs are Boost's base64 of the bytes the fixture writer stored.
#include <gtest/gtest.h>

#include <boost/beast/core/detail/base64.hpp>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "common/apiutils.h"
#include "common/status.h"
#include "pst/filter_data.h"
#include "pst/message_walk.h"
#include "store/ndb/database.h"
#include "tests/pst/store_fixture.h"

namespace tarn::testing {
namespace {

using fixture::PstLayout;
using fixture::StoreAttachment;

Bytes Image(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (std::byte& b : bytes) b = static_cast<std::byte>(random());
    return bytes;
}

std::string Uri(const Bytes& bytes) {
    namespace b64 = boost::beast::detail::base64;
    std::string out(b64::encoded_size(bytes.size()), '\0');
    out.resize(b64::encode(out.data(), bytes.data(), bytes.size()));
    return "data:image;base64," + out;
}

std::string Html(const std::string& body) { return "<html>" + body + "</html>"; }

StoreMessage WithImages(const std::string& subject, const std::string& html,
                        std::vector<StoreAttachment> attachments) {
    StoreMessage m = HtmlMessage(subject, html);
    m.attachments = std::move(attachments);
    return m;
}

TEST(ComposerImages, TheTargetsImagesGoInlineKeyedByTheLongFileName) {
    const Bytes a = Image(300, 1), b = Image(200, 2), c = Image(150, 3), e = Image(2, 5), f = Image(90, 6);
    const std::string body =
        "<p><img src=\"cid:a.png\"> and <img alt=\"again\" src=\"cid:a.png\"></p>"
        "<img src=\"b.gif\"><img src=\"cid:c-1@example\"><img src=\"cid:e.png\"><img src=\"cid:f.png\">";
    const std::vector<StoreAttachment> attachments = {
        {"a.png", "A.PNG", a},
        // Without a long name the short one is the file name, matched as it stands.
        {"", "b.gif", b, /*omit_long_name=*/true},
        // Referred to by a content id only: the long file name is the key, so this stays.
        {"c.jpg", "C.JPG", c},
        {"d.png", "D.PNG", Image(120, 4)},  // not referred to
        // Too small to encode: passed over, and the next one still goes in.
        {"e.png", "E.PNG", e},
        {"f.png", "F.PNG", f},
    };
    const std::string expected =
        "<p><img src=\"" + Uri(a) + "\"> and <img alt=\"again\" src=\"" + Uri(a) + "\"></p><img src=\"" +
        Uri(b) + "\"><img src=\"cid:c-1@example\"><img src=\"cid:e.png\"><img src=\"" + Uri(f) + "\">";
    for (const PstLayout layout : {PstLayout::kUnicode, PstLayout::kAnsi}) {
        SCOPED_TRACE(layout == PstLayout::kUnicode ? "Unicode" : "ANSI");
        StoreDescription store;
        store.layout = layout;
        store.folders = {{"Inbox",
                          {WithImages("before", body, attachments), WithImages("target", body, attachments),
                           WithImages("after", body, attachments)}}};
        ScratchDir dir;
        const std::u16string path = WriteStore(dir, store);

        const Loaded target = LoadMessage(path, 2);
        ASSERT_EQ(target.status, kStatusOk) << target.error;
        EXPECT_EQ(target.body, Html(expected));
        // The first and the last message, each the target of its own request, likewise.
        EXPECT_EQ(LoadMessage(path, 1).body, Html(expected));
        EXPECT_EQ(LoadMessage(path, 3).body, Html(expected));
    }
}

TEST(ComposerImages, MessagesBeforeTheTargetKeepTheirReferences) {
    // The walk composes the messages before the target into the list; their documents must not carry
    // images, which the list shows directly.
    const Bytes a = Image(300, 1);
    const std::string body = "<img src=\"cid:a.png\">";
    StoreDescription store;
    store.folders = {{"Inbox",
                      {WithImages("first", body, {{"a.png", "A.PNG", a}}),
                       WithImages("second", body, {{"a.png", "A.PNG", a}})}}};
    ScratchDir dir;
    const std::u16string path = WriteStore(dir, store);
    const ndb::db_ptr db = ndb::open_database(path);
    MessageListPtr list;
    ASSERT_EQ(CountMessages(db, &list), kStatusOk);
    ASSERT_EQ(list->count, 2);
    FilterDataHolder record(NewFilterData());
    ASSERT_NE(record, nullptr);
    record->temp_file_mode = 0;
    int32_t body_format = 3;
    ASSERT_EQ(SelectMessage(db, *list, 1, &body_format, record.get()), kStatusOk);
    EXPECT_EQ(list->entries[0].document.text(), body);
    EXPECT_EQ(list->entries[1].document.text(), "<img src=\"" + Uri(a) + "\">");
}

// The data block that holds `bytes` at its start (the store is written without encoding).
const fixture::PstBlockRecord* BlockHolding(const fixture::PstImage& image, const Bytes& bytes) {
    for (const auto& [id, block] : image.blocks) {
        if (block.kind != fixture::PstBlockRecord::Kind::kData || block.size < 64) continue;
        if (std::memcmp(image.bytes.data() + block.address, bytes.data(), 64) == 0) return &block;
    }
    return nullptr;
}

TEST(ComposerImages, ADamagedAttachmentEndsTheInliningAndKeepsWhatWasDone) {
    // Large enough for each attachment's data to have a block of its own.
    const Bytes a = Image(6000, 1), b = Image(6000, 2), c = Image(6000, 3);
    const std::string body = "<img src=\"cid:a.png\"><img src=\"cid:b.png\"><img src=\"cid:c.png\">";
    for (const PstLayout layout : {PstLayout::kUnicode, PstLayout::kAnsi}) {
        SCOPED_TRACE(layout == PstLayout::kUnicode ? "Unicode" : "ANSI");
        StoreDescription store;
        store.layout = layout;
        store.folders = {
            {"Inbox",
             {WithImages("target", body,
                         {{"a.png", "A.PNG", a}, {"b.png", "B.PNG", b}, {"c.png", "C.PNG", c}})}}};
        fixture::PstImage image = fixture::WritePst(fixture::DescribeStore(store));
        const fixture::PstBlockRecord* block = BlockHolding(image, b);
        ASSERT_NE(block, nullptr);
        image.bytes.at(block->trailer + 2) ^= std::byte{0xFF};  // the block's signature
        ScratchDir dir;
        const std::u16string path = Wide(dir.Write("damaged.pst", image.bytes));

        // The first image is in; the damage stops the rest, and the message is still delivered.
        const Loaded loaded = LoadMessage(path, 1);
        ASSERT_EQ(loaded.status, kStatusOk) << loaded.error;
        EXPECT_EQ(loaded.body,
                  Html("<img src=\"" + Uri(a) + "\"><img src=\"cid:b.png\"><img src=\"cid:c.png\">"));
    }
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(ComposerImages, InTemporaryFileModeImagesAreFilesThatLiveAsLongAsTheRecord) {
    const Bytes a = Image(300, 1), b = Image(500, 2);
    StoreDescription store;
    store.folders = {
        {"Inbox",
         {WithImages("target", "<img src=\"cid:a.png\"><img src=\"cid:b.png\"><img src=\"cid:a.png\">",
                     {{"a.png", "A.PNG", a}, {"b.png", "B.PNG", b}})}}};
    ScratchDir dir;
    const std::u16string path = WriteStore(dir, store);

    host::Toolkit toolkit;
    host::SourceSession session(path);
    krnctlSetMode(0);  // not 3: HTML documents go to the loader by name
    KernelFileHandle handle(krnOpenFile(path.c_str(), 0, kOpenShareMode));
    ASSERT_EQ(host::CallInfo(kLinkedFilter, &session.BuildInfoRequest(handle.get(), 1)).status, kStatusOk);
    ASSERT_EQ(toolkit.calls().size(), 1u);
    const host::LoaderCall& call = toolkit.calls()[0];
    ASSERT_TRUE(call.file_readable);

    // The document, in the images' directory, names each image file by its bare name.
    const std::filesystem::path document(call.path);
    const std::filesystem::path folder = document.parent_path();
    const std::string html = WithoutHeaderBlock(AsString(call.document));
    std::vector<std::string> names;
    for (size_t at = html.find("src=\""); at != std::string::npos; at = html.find("src=\"", at + 1)) {
        const size_t end = html.find('"', at + 5);
        names.push_back(html.substr(at + 5, end - at - 5));
    }
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[0], names[2]);
    EXPECT_NE(names[0], names[1]);
    EXPECT_EQ(html, "<html><img src=\"" + names[0] + "\"><img src=\"" + names[1] + "\"><img src=\"" +
                        names[0] + "\"></html>");
    EXPECT_EQ(ReadFile(folder / names[0]), AsString(a));
    EXPECT_EQ(ReadFile(folder / names[1]), AsString(b));
    // The record lists both and names the directory.
    const auto* record = static_cast<const PstFilterData*>(session.slot().data);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->temp_names.length(), 2 * sizeof(char16_t*));
    EXPECT_EQ(host::Utf8FromWide(record->temp_directory), folder.string());

    // Released as the toolkit does: the images, the document and the directory go.
    ASSERT_TRUE(session.ReleaseSlot(kLinkedFilter).returned());
    EXPECT_FALSE(std::filesystem::exists(folder / names[0]));
    EXPECT_FALSE(std::filesystem::exists(folder / names[1]));
    EXPECT_FALSE(std::filesystem::exists(document));
    EXPECT_FALSE(std::filesystem::exists(folder));
    krnctlReset();
}

}  // namespace
}  // namespace tarn::testing
