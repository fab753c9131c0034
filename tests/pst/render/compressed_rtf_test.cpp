#include "pst/render/compressed_rtf.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "kernel/tarnkrn_control.h"
#include "tests/support/rtf_writer.h"

namespace tarn {
namespace {

using testing::CompressedRtf;
using testing::RtfHeader;
using testing::RtfLiterals;
using testing::RtfReference;
using testing::RtfRuns;
using testing::RtfToken;

constexpr uint32_t kMela = 0x414C454D;

std::string Hex(std::string_view hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size();) {
        if (hex[i] == ' ' || hex[i] == '\n') {
            ++i;
            continue;
        }
        out.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
        i += 2;
    }
    return out;
}

struct Result {
    int32_t status;
    std::string text;
    bool nul_behind = false;
};

Result ViaStream(const std::string& data) {
    std::istringstream stream(data);
    CountedString document;
    Result r{DecompressRtfStream(stream, document), std::string(document.text())};
    return r;
}

Result ViaBuffer(const std::string& data) {
    CountedString document;
    Result r{DecompressRtfBuffer(reinterpret_cast<const std::byte*>(data.data()), data.size(), document), {}};
    r.text.assign(reinterpret_cast<const char*>(document.data()), document.size());
    r.nul_behind = document.data() != nullptr && document.data()[document.size()] == std::byte{0};
    return r;
}

// The two published examples, byte for byte: a reference into the pre-loaded dictionary, and one that
// runs across the write position and copies what it has just written.
TEST(CompressedRtf, PublishedExamplesDecompressThroughBothEntryPoints) {
    const std::string example1 =
        Hex("2d 00 00 00 2b 00 00 00 4c 5a 46 75 f1 c5 c7 a7 03 00 0a 00 72 63 70 67 31 32 35 42 32 0a f3 20"
            "68 65 6c 09 00 20 62 77 05 b0 6c 64 7d 0a 80 0f a0");
    const std::string example2 =
        Hex("1a 00 00 00 1c 00 00 00 4c 5a 46 75 e2 d4 4b 51 41 00 04 20 57 58 59 5a 0d 6e 7d 01 0e b0");
    const struct {
        const std::string& data;
        std::string expected;
    } cases[] = {
        {example1, "{\\rtf1\\ansi\\ansicpg1252\\pard hello world}\r\n"},
        {example2, "{\\rtf1 WXYZWXYZWXYZWXYZWXYZ}"},
    };
    for (const auto& c : cases) {
        Result stream = ViaStream(c.data);
        EXPECT_EQ(stream.status, 1);
        EXPECT_EQ(stream.text, c.expected);
        Result buffer = ViaBuffer(c.data);
        EXPECT_EQ(buffer.status, 1);
        EXPECT_EQ(buffer.text, c.expected);
        EXPECT_TRUE(buffer.nul_behind);
    }
    EXPECT_EQ(RtfCrc(reinterpret_cast<const std::byte*>(example2.data()), example2.size() - 16), 0x514bd4e2u);
    EXPECT_EQ(RtfCrc(reinterpret_cast<const std::byte*>(example2.data()), 0), 0u);
}

// Stored ("MELA") bodies: the two entry points check them differently, on purpose.
TEST(CompressedRtf, StoredBodiesFollowEachEntryPointsOwnChecks) {
    const std::string text = "{\\rtf1 WXYZWXYZWXYZWXYZWXYZ}";
    // Writers store a CRC of 0 for such data: the stream variant refuses it, the buffer variant does not
    // look at the CRC at all.
    const std::string zero_crc = CompressedRtf(text, {.comp_type = kMela, .crc = 0});
    EXPECT_EQ(ViaStream(zero_crc).status, -9);
    Result buffer = ViaBuffer(zero_crc);
    EXPECT_EQ(buffer.status, 1);
    EXPECT_EQ(buffer.text, text);

    // With a matching CRC the stream variant takes the text up to its first NUL and ignores RAWSIZE.
    const std::string with_nul =
        CompressedRtf(std::string("{\\rtf1 A}\0tail", 14), {.raw_size = 3, .comp_type = kMela});
    Result stream = ViaStream(with_nul);
    EXPECT_EQ(stream.status, 1);
    EXPECT_EQ(stream.text, "{\\rtf1 A}");
    // The buffer variant copies RAWSIZE bytes, or what there is when RAWSIZE claims more.
    EXPECT_EQ(ViaBuffer(with_nul).text, "{\\r");
    Result all = ViaBuffer(CompressedRtf(text, {.raw_size = 0xFFFFFFF0u, .comp_type = kMela}));
    EXPECT_EQ(all.status, 1);
    EXPECT_EQ(all.text, text);
}

TEST(CompressedRtf, TokensAndSizes) {
    struct Case {
        const char* name;
        std::vector<RtfToken> tokens;
        uint32_t raw_size;
        int32_t status;
        std::string expected;
    };
    auto literals = [](std::string_view s) { return RtfLiterals(s); };
    std::vector<Case> cases = {
        {"empty body", {}, 0, 1, ""},
        // Offset 0 of the first window is the start of the pre-loaded text.
        {"reference into the dictionary text", {RtfReference{0, 6}}, 6, 1, "{\\rtf1"},
        {"the loop ends by RAWSIZE inside a reference", {RtfReference{0, 17}}, 3, 1, "{\\r"},
        // An end marker (offset = write position) is just another reference: with RAWSIZE past it, the
        // bytes it points at are copied. Here the write position 207 still holds nothing we wrote, so the
        // reference lands in the window before the first and is refused.
        {"end marker not special: refers before the start", {RtfReference{207, 2}}, 2, -9, ""},
        {"literals then input runs out", literals("abc"), 5, -9, ""},
        {"control byte missing after eight tokens", literals("abcdefgh"), 9, -9, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string data = CompressedRtf(RtfRuns(c.tokens), {.raw_size = c.raw_size});
        for (const Result& r : {ViaStream(data), ViaBuffer(data)}) {
            EXPECT_EQ(r.status, c.status);
            if (c.status == 1) {
                EXPECT_EQ(r.text, c.expected);
            }
        }
    }
}

// In the second 4096-byte window a ring offset behind the write position means this window, one ahead
// of it means the window before.
TEST(CompressedRtf, ReferencesWrapAroundTheRing) {
    std::string text;
    for (int i = 0; text.size() < 5000; ++i) text += "line " + std::to_string(i) + "\n";
    ASSERT_LT(207 + text.size(), 3000u + 4096u);
    std::vector<RtfToken> tokens = RtfLiterals(text);
    tokens.push_back(RtfReference{300, 10});   // output position 4096 + 300, text offset 4189
    tokens.push_back(RtfReference{3000, 10});  // output position 3000, text offset 2793
    const std::string data =
        CompressedRtf(RtfRuns(tokens), {.raw_size = static_cast<uint32_t>(text.size() + 20)});
    Result r = ViaStream(data);
    ASSERT_EQ(r.status, 1);
    EXPECT_EQ(r.text.substr(text.size()), text.substr(4189, 10) + text.substr(2793, 10));
}

TEST(CompressedRtf, MalformedHeadersAreRefused) {
    const std::string good = CompressedRtf(RtfRuns(RtfLiterals("{\\rtf1 x}")), {.raw_size = 9});
    std::string bad_crc = good;
    bad_crc[12] ^= 1;
    std::string unknown_type =
        CompressedRtf(RtfRuns(RtfLiterals("x")), {.raw_size = 1, .comp_type = 0x12345678});
    const struct {
        const char* name;
        std::string data;
    } cases[] = {
        {"shorter than a header", good.substr(0, 15)},
        {"COMPSIZE one too small", CompressedRtf("abc", {.comp_size = 14})},
        {"COMPSIZE one too large", CompressedRtf("abc", {.comp_size = 16})},
        {"CRC mismatch", bad_crc},
        {"unknown COMPTYPE", unknown_type},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ViaStream(c.data).status, -9);
        EXPECT_EQ(ViaBuffer(c.data).status, -9);
    }
    CountedString document;
    EXPECT_EQ(DecompressRtfBuffer(nullptr, 100, document), -9);

    // Every truncation of a valid stream fails cleanly; a shorter stream can only mismatch COMPSIZE.
    for (size_t n = 0; n < good.size(); ++n) {
        EXPECT_EQ(ViaStream(good.substr(0, n)).status, -9) << n;
        EXPECT_EQ(ViaBuffer(good.substr(0, n)).status, -9) << n;
    }
}

// A header may claim any RAWSIZE; nothing beyond what the input could expand to is allocated.
TEST(CompressedRtf, ClaimedSizeBeyondTheInputIsRefusedBeforeAllocating) {
    const std::string data = CompressedRtf(RtfRuns(RtfLiterals("{\\rtf1}")), {.raw_size = 0xFFFFFFFFu});
    const uint64_t before = krnctlAllocationCount();
    EXPECT_EQ(ViaBuffer(data).status, -9);
    EXPECT_EQ(krnctlAllocationCount(), before);
    EXPECT_EQ(ViaStream(data).status, -9);
    EXPECT_EQ(krnctlAllocationCount(), before + 1);  // only the copy of the input
}

TEST(CompressedRtf, MemoryFailuresGiveMinusOneAndLeaveTheDocument) {
    const std::string data = CompressedRtf(RtfRuns(RtfLiterals("{\\rtf1 x}")), {.raw_size = 9});
    for (uint32_t nth = 1; nth <= 2; ++nth) {
        CountedString document;
        std::istringstream stream(data);
        krnctlFailAllocation(nth);
        EXPECT_EQ(DecompressRtfStream(stream, document), -1) << nth;
        EXPECT_EQ(document.data(), nullptr);
    }
    krnctlFailAllocation(1);
    CountedString document;
    EXPECT_EQ(DecompressRtfBuffer(reinterpret_cast<const std::byte*>(data.data()), data.size(), document),
              -1);

    // A failure leaves what the document held before.
    krnctlFailAllocation(0);
    ASSERT_EQ(DecompressRtfBuffer(reinterpret_cast<const std::byte*>(data.data()), data.size(), document), 1);
    const std::string junk = CompressedRtf("abc", {.comp_size = 1});
    EXPECT_EQ(DecompressRtfBuffer(reinterpret_cast<const std::byte*>(junk.data()), junk.size(), document),
              -9);
    EXPECT_EQ(document.text(), "{\\rtf1 x}");
}

}  // namespace
}  // namespace tarn
