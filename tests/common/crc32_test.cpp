#include "common/crc32.h"

#include <gtest/gtest.h>

#include <string_view>

namespace tarn {
namespace {

// The table is data as published; it must be the one the polynomial gives, bit by bit.
TEST(Crc32, TableIsTheReflectedPolynomialAndKnownValuesHold) {
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        ASSERT_EQ(kCrc32Table[i], c) << i;
    }
    // Seed 0 and no final inversion: not zlib's 0xCBF43926 for "123456789", which inverts both.
    const std::string_view digits = "123456789";
    const auto bytes = std::as_bytes(std::span(digits.data(), digits.size()));
    EXPECT_EQ(Crc32(bytes), 0x2DFD2D88u);
    EXPECT_EQ(Crc32(bytes.subspan(4), Crc32(bytes.first(4))), Crc32(bytes));  // continues a running value
    EXPECT_EQ(Crc32({}), 0u);
}

}  // namespace
}  // namespace tarn
