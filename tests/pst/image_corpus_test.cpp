// Every corpus PST message whose HTML body refers to an attachment gets that attachment's bytes as a
// data URI, checked against pypff (python3-pypff, run as a black box by tests/pst/pypff_inline_images.py):
// which messages refer to which attachment, by "cid:" and the long file name or by the file name
// itself, and the attachment's bytes. The references by "cid:" are counted per store.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/status.h"
#include "pst/composer.h"
#include "pst/message_walk.h"
#include "store/ndb/database.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

namespace fs = std::filesystem;

// One attachment that pypff finds referred to by a message's HTML.
struct Reference {
    uint32_t index = 0;
    bool by_cid = false;  // "cid:" and the long file name; else the file name itself
    std::string name;
    std::string data_base64;
};

struct PypffMessage {
    std::vector<Reference> references;
};

// The messages with an HTML body and attachments, by node id, as pypff reads the store; false when the
// script did not run through.
bool ReadWithPypff(const std::string& path, std::map<uint32_t, PypffMessage>* messages) {
    const std::string command = "/usr/bin/python3 '" + std::string(TARN_SOURCE_DIR) +
                                "/tests/pst/pypff_inline_images.py' '" + path + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return false;
    std::string out;
    char buffer[65536];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    if (pclose(pipe) != 0) return false;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        std::istringstream split(line);
        for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
        if (fields.size() == 3 && fields[0] == "message") {
            (*messages)[static_cast<uint32_t>(std::stoul(fields[1]))];
        } else if (fields.size() >= 5 && fields[0] == "image") {
            (*messages)[static_cast<uint32_t>(std::stoul(fields[1]))].references.push_back(
                {static_cast<uint32_t>(std::stoul(fields[2])), fields[3] == "cid", FromHex(fields[4]),
                 fields.size() > 5 ? fields[5] : ""});
        } else {
            return false;
        }
    }
    return true;
}

struct Counts {
    int cid_messages = 0;   // messages with at least one image referred to by "cid:" and long name
    int cid_images = 0;     // such references, each inlined
    int name_images = 0;    // attachments referred to by their file name and inlined
    int name_absorbed = 0;  // referred to by file name, inside a value an earlier name took already
};

// The references that pypff found, counted per store. None of the ANSI stores has an HTML body with
// attachments; the pst2john and libyal stores refer to their images by file name only.
const std::map<std::string, Counts> kExpected = {
    {"unicode-aspose-outlook-images.pst", {2, 24, 0, 0}},
    {"unicode-cyclic-pst2john-quickquick.pst", {0, 0, 14 * 8, 0}},
    {"unicode-libyal-outlook-cjk-folders.pst", {0, 0, 2 * 10, 2}},
    {"unicode-nocrypt-pst2john-quickquick.pst", {0, 0, 10 * 8, 0}},
    {"unicode-permute-pst2john-quickquick.pst", {0, 0, 10 * 8, 0}},
};

TEST(ImageCorpus, EveryReferredImageIsInlineWithItsAttachmentsBytes) {
    const fs::path corpus = fs::path(TARN_SHARED_DIR) / "corpus" / "pst";
    ASSERT_TRUE(fs::is_directory(corpus));
    int stores = 0;
    for (const fs::directory_entry& file : fs::directory_iterator(corpus)) {
        if (file.path().extension() != ".pst") continue;
        ++stores;
        const std::string name = file.path().filename().string();
        SCOPED_TRACE(name);
        std::map<uint32_t, PypffMessage> expected;
        ASSERT_TRUE(ReadWithPypff(file.path().string(), &expected));

        Counts counts;
        std::map<uint32_t, bool> seen;
        const ndb::db_ptr db = ndb::open_database(Wide(file.path().string()));
        WalkMessages(db, [&](ndb::node_id, PstMessage& message) {
            const uint32_t node = message.properties().get_node().get_id();
            if (!message.properties().prop_exists(kPropHtmlBody) || message.AttachmentCount() == 0)
                return kWalkNext;
            SCOPED_TRACE(node);
            seen[node] = true;
            CountedString html;
            EXPECT_EQ(ReadWholeStream(message.properties(), kPropHtmlBody, html), kStatusOk);
            const std::string before(html.text());
            EXPECT_EQ(InlineAttachedImages(message, html, nullptr), kStatusOk);
            const std::string after(html.text());

            const auto found = expected.find(node);
            if (found == expected.end()) {
                ADD_FAILURE() << "pypff sees no HTML body with attachments";
                return kWalkNext;
            }
            const std::vector<Reference>& references = found->second.references;
            if (references.empty()) {
                EXPECT_EQ(after, before) << "nothing refers to an attachment";
            }
            bool any_cid = false;
            for (size_t r = 0; r < references.size(); ++r) {
                const Reference& ref = references[r];
                SCOPED_TRACE(ref.name);
                const bool inline_here =
                    after.find("data:image;base64," + ref.data_base64) != std::string::npos;
                // A file name inside another, later one ("2.jpg" in "12.jpg") takes that value first.
                bool absorbed = false;
                for (size_t e = 0; e < r; ++e)
                    absorbed |= !ref.by_cid && !references[e].by_cid &&
                                ref.name.find(references[e].name) != std::string::npos;
                if (absorbed && !inline_here) {
                    ++counts.name_absorbed;
                    continue;
                }
                EXPECT_TRUE(inline_here) << "attachment " << ref.index << " is not inline";
                if (!inline_here) continue;
                if (ref.by_cid) {
                    ++counts.cid_images;
                    any_cid = true;
                } else {
                    ++counts.name_images;
                }
            }
            counts.cid_messages += any_cid ? 1 : 0;
            return kWalkNext;
        });
        EXPECT_EQ(seen.size(), expected.size()) << "messages with HTML and attachments";

        const auto want = kExpected.find(name);
        const Counts zero;
        const Counts& w = want != kExpected.end() ? want->second : zero;
        EXPECT_EQ(counts.cid_messages, w.cid_messages);
        EXPECT_EQ(counts.cid_images, w.cid_images);
        EXPECT_EQ(counts.name_images, w.name_images);
        EXPECT_EQ(counts.name_absorbed, w.name_absorbed);
    }
    EXPECT_EQ(stores, 15);
}

}  // namespace
}  // namespace tarn::testing
