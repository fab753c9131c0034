// The directory stand-ins: the Windows contracts (no parents made, only empty directories removed).
#include "platform/directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/scratch_file.h"

namespace tarn::platform {
namespace {

TEST(Directory, CreatesAndRemovesOneLevel) {
    testing::ScratchDir dir;
    const auto images = dir.path() / "images";
    const std::u16string wide = testing::Wide(images);
    ASSERT_TRUE(CreateDirectoryW(wide.c_str()));
    EXPECT_TRUE(std::filesystem::is_directory(images));
    EXPECT_FALSE(CreateDirectoryW(wide.c_str()));  // exists already

    const std::u16string nested = testing::Wide(dir.path() / "a" / "b");
    EXPECT_FALSE(CreateDirectoryW(nested.c_str()));  // parents are not made

    std::ofstream(images / "x.png") << "x";
    EXPECT_FALSE(RemoveDirectoryW(wide.c_str()));  // not empty
    std::filesystem::remove(images / "x.png");
    EXPECT_TRUE(RemoveDirectoryW(wide.c_str()));
    EXPECT_FALSE(std::filesystem::exists(images));
    EXPECT_FALSE(RemoveDirectoryW(wide.c_str()));
}

TEST(Directory, NamesAreUtf16) {
    testing::ScratchDir dir;
    std::u16string name = testing::Wide(dir.path()) + u"/bilder-\u00E4\U0001F4E7";
    ASSERT_TRUE(CreateDirectoryW(name.c_str()));
    EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "bilder-\xC3\xA4\xF0\x9F\x93\xA7"));
    EXPECT_TRUE(RemoveDirectoryW(name.c_str()));

    EXPECT_FALSE(CreateDirectoryW(nullptr));
    EXPECT_FALSE(CreateDirectoryW(u""));
    EXPECT_FALSE(RemoveDirectoryW(nullptr));
    const std::u16string unpaired =
        testing::Wide(dir.path()) + u"/bad-" + std::u16string(1, char16_t(0xD800));
    EXPECT_FALSE(CreateDirectoryW(unpaired.c_str()));
    const std::u16string lone_low =
        testing::Wide(dir.path()) + u"/bad-" + std::u16string(1, char16_t(0xDC00)) + u"x";
    EXPECT_FALSE(CreateDirectoryW(lone_low.c_str()));
}

}  // namespace
}  // namespace tarn::platform
