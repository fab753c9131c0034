// Every compressed-RTF body in the real stores: each one of the compressed kind decompresses, and the
// RTF equals what an independent decompressor makes of the same bytes.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "common/little_endian.h"
#include "pst/render/compressed_rtf.h"
#include "store/ltp/prop_stream.h"
#include "store/ltp/property_bag.h"
#include "store/ndb/database.h"
#include "tests/support/test_util.h"

namespace {

using namespace tarn;
namespace fs = std::filesystem;

constexpr ltp::prop_id kRtfCompressedProperty = 0x1009;

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct Body {
    std::string where;
    fs::path raw;
    uint32_t raw_size;
    std::string ours;
};

TEST(CompressedRtfCorpus, EveryStoreBodyMatchesAnIndependentDecompressor) {
    const fs::path corpus = fs::path(TARN_SHARED_DIR) / "corpus" / "pst";
    const fs::path work = fs::temp_directory_path() / ("tarn-rtf-corpus-" + std::to_string(::getpid()));
    fs::create_directories(work);

    std::vector<Body> bodies;
    std::map<std::string, int> compressed_per_file, stored_per_file;
    for (const auto& entry : fs::directory_iterator(corpus)) {
        if (entry.path().extension() != ".pst") continue;
        const std::string file = entry.path().filename().string();
        auto db = ndb::open_database(tarn::testing::Wide(entry.path()));
        for (const ndb::node_info& info : ndb::page_range(db->read_nbt_root())) {
            if ((info.id & 0x1F) != 0x04) continue;
            ltp::property_bag message(db->lookup_node(info.id));
            if (!message.prop_exists(kRtfCompressedProperty)) continue;
            const std::string where = file + " message 0x" + std::to_string(info.id);
            const std::vector<std::byte> raw = message.get_value_variable(kRtfCompressedProperty);
            ASSERT_GE(raw.size(), 16u) << where;
            const uint32_t type = LoadLe32(raw.data() + 8);

            ltp::prop_stream stream(message.open_prop_stream(kRtfCompressedProperty));
            CountedString document;
            const int32_t status = DecompressRtfStream(stream, document);
            if (type != kRtfCompressed) {
                // Stored bodies carry a CRC of 0, which the stream path refuses; none is expected here.
                ++stored_per_file[file];
                ADD_FAILURE() << where << ": a stored (uncompressed) RTF body, status " << status;
                continue;
            }
            ++compressed_per_file[file];
            ASSERT_EQ(status, 1) << where;
            Body body{where, work / (std::to_string(bodies.size()) + ".bin"), LoadLe32(raw.data() + 4),
                      std::string(reinterpret_cast<const char*>(document.data()), document.size())};
            std::ofstream(body.raw, std::ios::binary)
                .write(reinterpret_cast<const char*>(raw.data()), static_cast<std::streamsize>(raw.size()));
            bodies.push_back(std::move(body));
        }
    }

    // One run of the oracle for all bodies.
    std::string command = "node '" + std::string(TARN_SOURCE_DIR) + "/tests/oracles/decompressrtf.js'";
    for (const Body& b : bodies) command += " '" + b.raw.string() + "' '" + b.raw.string() + ".rtf'";
    ASSERT_EQ(std::system(command.c_str()), 0)
        << "the independent decompressor did not run (scripts/oracles.sh)";
    // Byte for byte, RAWSIZE bytes: Outlook 97 counts a NUL after the closing brace in RAWSIZE, and
    // both decompressors keep it.
    for (const Body& b : bodies) {
        const fs::path path = b.raw.string() + ".rtf";
        ASSERT_TRUE(fs::exists(path)) << b.where << ": rejected by the independent decompressor";
        EXPECT_EQ(b.ours.size(), b.raw_size) << b.where;
        EXPECT_EQ(b.ours, ReadFile(path)) << b.where;
    }
    fs::remove_all(work);

    // The compressed RTF bodies each store holds, so a change in what is found shows.
    const std::map<std::string, int> expected = {
        {"ansi-cp932-nonunicode.pst", 1},
        {"ansi-gopst-32bit-minimal.pst", 1},  // an appointment
        {"ansi-outlook2000-pst2john-73msgs.pst", 73},
        {"ansi-outlook97-pst2john-294msgs.pst", 294},
        {"unicode-aspose-outlook-images.pst", 2},  // a message and a contact
        {"unicode-attach-and-inline.pst", 1},
        {"unicode-contacts-dist-list-row-order.pst", 1},
        {"unicode-cyclic-pst2john-quickquick.pst", 22},
        {"unicode-msginmsginmsg.pst", 1},
        {"unicode-permute-pst2john-quickquick.pst", 22},
        {"unicode-nocrypt-pst2john-quickquick.pst", 10},
    };
    EXPECT_EQ(compressed_per_file, expected);
    EXPECT_TRUE(stored_per_file.empty());
}

}  // namespace
