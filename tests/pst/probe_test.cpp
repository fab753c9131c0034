// The 12-byte probe that picks the reader for a source.
#include "pst/probe.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "common/apiutils.h"
#include "common/status.h"
#include "tests/support/scratch_file.h"

namespace tarn {
namespace {

std::array<std::byte, kProbeBytes> Header(std::initializer_list<int> bytes) {
    std::array<std::byte, kProbeBytes> header{};
    size_t i = 0;
    for (int b : bytes) header[i++] = static_cast<std::byte>(b);
    return header;
}

TEST(ProbeHeader, ClassifiesByTheLeadingWords) {
    struct Case {
        const char* what;
        std::array<std::byte, kProbeBytes> header;
        InputKind expected;
    };
    const Case cases[] = {
        {"PST magic, rest ignored", Header({'!', 'B', 'D', 'N', 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4}),
         kInputPstStore},
        {"PST magic, zeros after", Header({'!', 'B', 'D', 'N'}), kInputPstStore},
        {"compound file", Header({0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1, 9, 9, 9, 9}),
         kInputMessageFile},
        {"compound file, second word differs", Header({0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE0}),
         kInputMimeText},
        {"second compound word alone", Header({0, 0, 0, 0, 0xA1, 0xB1, 0x1A, 0xE1}), kInputMimeText},
        {"PST magic byte-swapped", Header({'N', 'D', 'B', '!'}), kInputMimeText},
        {"PST magic one word late", Header({'F', 'r', 'o', 'm', '!', 'B', 'D', 'N'}), kInputMimeText},
        {"MIME header", Header({'F', 'r', 'o', 'm', ':', ' ', 'a', '@', 'b', '.', 'c', 'o'}), kInputMimeText},
        {"zeros", Header({}), kInputMimeText},
    };
    for (const Case& c : cases) EXPECT_EQ(ProbeHeader(c.header), c.expected) << c.what;
}

TEST(ProbeSource, ReadsTwelveBytesFromTheStart) {
    testing::ScratchDir dir;
    const auto pst = testing::Wide(dir.Write("a.pst", std::string("!BDN") + std::string(8, '\0')));
    const auto small = testing::Wide(dir.Write("small", std::string("!BDN\x01\x02\x03\x04\x05\x06\x07", 11)));

    KernelFileHandle handle(krnOpenFile(pst.c_str(), 0, kOpenShareMode));
    ASSERT_TRUE(handle.valid());
    krnSeekFile(handle.get(), 7, 0, KRN_SEEK_START);  // the probe does not trust the caller's position
    InputKind kind = kInputUnsupported;
    ASSERT_EQ(ProbeSource(handle.get(), &kind), kStatusOk);
    EXPECT_EQ(kind, kInputPstStore);

    KernelFileHandle short_file(krnOpenFile(small.c_str(), 0, kOpenShareMode));
    ASSERT_TRUE(short_file.valid());
    kind = kInputUnsupported;
    EXPECT_EQ(ProbeSource(short_file.get(), &kind), kStatusShortRead);
    EXPECT_EQ(kind, kInputUnsupported);
}

}  // namespace
}  // namespace tarn
