// Reading the source through the kernel: the store's file reader and the file-size probe.
#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>

#include "common/apiutils.h"
#include "common/status.h"
#include "common/store_file.h"
#include "kernel/tarnkrn_control.h"
#include "tests/support/scratch_file.h"

namespace tarn {
namespace {

using testing::ScratchDir;
using testing::Wide;

// The exception's type and message, so that a table can say both.
template <typename Call>
std::string Failure(Call&& call) {
    try {
        call();
    } catch (const std::out_of_range& e) {
        return std::string("out_of_range: ") + e.what();
    } catch (const std::runtime_error& e) {
        return std::string("runtime_error: ") + e.what();
    }
    return "no exception";
}

TEST(StoreFile, ReadsWholeBuffersOrThrowsWithTheFixedMessages) {
    ScratchDir dir;
    const auto path = dir.Write("store.bin", std::string("0123456789"));

    EXPECT_EQ(Failure([&] { StoreFile missing(Wide(dir.path() / "missing.pst")); }),
              "runtime_error: fopen failed");

    StoreFile file(Wide(path));
    std::array<std::byte, 4> buffer{};
    file.read_at(buffer, 6);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size()), "6789");
    file.read_at(std::span<std::byte>(buffer.data(), 0), 10);  // nothing, at the very end

    // One byte short at the end, and an offset past it.
    EXPECT_EQ(Failure([&] { file.read_at(buffer, 7); }), "out_of_range: fread failed");
    EXPECT_EQ(Failure([&] { file.read_at(buffer, 1000); }), "out_of_range: fread failed");
    // An offset whose high word would be lost by a 32-bit seek.
    EXPECT_EQ(Failure([&] { file.read_at(buffer, 0x100000006ull); }), "out_of_range: fread failed");

    krnctlFailFileOperation(KRNCTL_SEEK, 1);
    EXPECT_EQ(Failure([&] { file.read_at(buffer, 0); }), "out_of_range: fseek failed");
    krnctlFailFileOperation(KRNCTL_READ, 1);
    EXPECT_EQ(Failure([&] { file.read_at(buffer, 0); }), "out_of_range: fread failed");

    // Every read goes to the kernel: a failure does not poison the next one.
    file.read_at(buffer, 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size()), "0123");
}

TEST(ProbeFileSize, MeasuresAndRestoresThePosition) {
    ScratchDir dir;
    const auto five = Wide(dir.Write("five.bin", std::string("abcde")));
    const auto empty = Wide(dir.Write("empty.bin", std::string()));

    KernelFileHandle handle(krnOpenFile(five.c_str(), 0, kOpenShareMode));
    ASSERT_TRUE(handle.valid());
    ASSERT_EQ(krnSeekFile(handle.get(), 2, 0, KRN_SEEK_START), 2);
    int64_t size = -1;
    ASSERT_EQ(ProbeFileSize(handle.get(), &size), kStatusOk);
    EXPECT_EQ(size, 5);
    EXPECT_EQ(krnSeekFile(handle.get(), 0, 0, KRN_SEEK_CURRENT), 2);
    EXPECT_EQ(ProbeFileSize(handle.get(), nullptr), kStatusNullPointer);

    // The last byte cannot be read: a failed read, or no byte at all.
    size = -1;
    krnctlFailFileOperation(KRNCTL_READ, 1);
    EXPECT_EQ(ProbeFileSize(handle.get(), &size), kStatusShortRead);
    EXPECT_EQ(size, -1);
    KernelFileHandle nothing(krnOpenFile(empty.c_str(), 0, kOpenShareMode));
    ASSERT_TRUE(nothing.valid());
    EXPECT_EQ(ProbeFileSize(nothing.get(), &size), kStatusShortRead);

    // The byte is read but the position after it cannot be told (the third seek of the probe).
    krnctlFailFileOperation(KRNCTL_SEEK, 3);
    EXPECT_EQ(ProbeFileSize(handle.get(), &size), kStatusNoPosition);
    EXPECT_EQ(size, -1);

    EXPECT_EQ(ProbeFileSize(KRN_NO_HANDLE, &size), kStatusShortRead);
}

}  // namespace
}  // namespace tarn
