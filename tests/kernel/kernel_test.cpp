// The kernel stand-in's own behaviour: what the filter relies on of files, memory, the registry,
// temporary names, conversion and the control interface.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>

#include "kernel/tarnkrn.h"
#include "kernel/tarnkrn_control.h"
#include "tests/support/test_util.h"

namespace {

using tarn::testing::Wide;

std::string ReportText() {
    std::string report(krnctlLeakReport(nullptr, 0) + 1, '\0');
    krnctlLeakReport(report.data(), report.size());
    report.pop_back();
    return report;
}

class TempPath {
  public:
    explicit TempPath(const std::string& content) {
        char name[] = "/tmp/tarnkrn-testXXXXXX";
        int fd = mkstemp(name);
        path_ = name;
        FILE* f = fdopen(fd, "wb");
        std::fwrite(content.data(), 1, content.size(), f);
        std::fclose(f);
    }
    ~TempPath() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }
    std::u16string wide() const { return Wide(path_); }

  private:
    std::string path_;
};

TEST(Kernel, FilesOpenSeekReadAndClose) {
    TempPath file("0123456789");
    krn_handle h = krnOpenFile(file.wide().c_str(), 0, 256);
    ASSERT_NE(h, KRN_NO_HANDLE);
    EXPECT_EQ(krnSeekFile(h, -1, -1, KRN_SEEK_END), 9);
    char byte = 0;
    EXPECT_EQ(krnReadFile(h, &byte, 1), 1);
    EXPECT_EQ(byte, '9');
    EXPECT_EQ(krnSeekFile(h, 0, 0, KRN_SEEK_CURRENT), 10);
    EXPECT_EQ(krnSeekFile(h, 2, 0, KRN_SEEK_START), 2);
    char buf[16] = {};
    EXPECT_EQ(krnReadStoreFile(h, buf, 16), 8);  // a short read at the end
    EXPECT_STREQ(buf, "23456789");
    EXPECT_EQ(krnSeekFile(h, -20, -1, KRN_SEEK_CURRENT), -1);           // before the start
    EXPECT_EQ(krnSeekFile(h, 0, 1, KRN_SEEK_START), int64_t{1} << 32);  // beyond the end is allowed
    EXPECT_EQ(krnReadFile(h, buf, 4), 0);
    EXPECT_NE(ReportText().find("still open"), std::string::npos);
    krnCloseFile(h);
    EXPECT_EQ(krnSeekFile(h, 0, 0, KRN_SEEK_START), -1);  // closed handle
    EXPECT_EQ(krnOpenFile(u"/nonexistent/file", 0, 256), KRN_NO_HANDLE);
    EXPECT_EQ(krnOpenFile(nullptr, 0, 256), KRN_NO_HANDLE);
}

TEST(Kernel, AllocationsAreTrackedWithTheirOrigin) {
    void* a = krnAlloc(1, 8, "alpha.cpp", 11);
    void* z = krnAllocZeroed(4, 4, "beta.cpp", 22);
    ASSERT_TRUE(a && z);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(static_cast<unsigned char*>(z)[i], 0);
    EXPECT_EQ(krnctlOutstandingAllocations(), 2u);
    std::string report = ReportText();
    EXPECT_NE(report.find("alpha.cpp:11"), std::string::npos);
    EXPECT_NE(report.find("beta.cpp:22"), std::string::npos);
    a = krnRealloc(a, 4096, "gamma.cpp", 33);
    ASSERT_TRUE(a);
    EXPECT_NE(ReportText().find("gamma.cpp:33"), std::string::npos);
    EXPECT_EQ(krnAlloc(SIZE_MAX / 2, 4, "x", 1), nullptr);  // count * size overflows
    krnFree(a, "t", 1);
    krnFree(z, "t", 1);
    krnFree(nullptr, "t", 1);
    EXPECT_EQ(krnctlLeakReport(nullptr, 0), 0u);
}

TEST(Kernel, FaultInjectionFailsTheNthCallOnly) {
    krnctlFailAllocation(2);
    void* first = krnAlloc(1, 1, "t", 1);
    void* second = krnAlloc(1, 1, "t", 2);
    void* third = krnAlloc(1, 1, "t", 3);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    krnFree(first, "t", 1);
    krnFree(third, "t", 1);

    TempPath file("abc");
    krnctlFailFileOperation(KRNCTL_OPEN, 1);
    EXPECT_EQ(krnOpenFile(file.wide().c_str(), 0, 256), KRN_NO_HANDLE);
    krn_handle h = krnOpenFile(file.wide().c_str(), 0, 256);
    ASSERT_NE(h, KRN_NO_HANDLE);
    krnctlFailFileOperation(KRNCTL_SEEK, 1);
    EXPECT_EQ(krnSeekFile(h, 0, 0, KRN_SEEK_START), -1);
    krnctlFailFileOperation(KRNCTL_READ, 1);
    char c;
    EXPECT_EQ(krnReadFile(h, &c, 1), -1);
    EXPECT_EQ(krnReadFile(h, &c, 1), 1);
    krnCloseFile(h);
}

// The position and the bytes a plain descriptor gives: what every seek and read of a kernel handle must
// give too, however the kernel serves them.
class DescriptorModel {
  public:
    explicit DescriptorModel(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        struct stat st {};
        if (fd_ >= 0 && ::fstat(fd_, &st) == 0) size_ = st.st_size;
    }
    ~DescriptorModel() {
        if (fd_ >= 0) ::close(fd_);
    }
    bool valid() const { return fd_ >= 0; }

    int64_t Seek(int64_t offset, int32_t origin) {
        const int64_t base = origin == KRN_SEEK_START     ? 0
                             : origin == KRN_SEEK_CURRENT ? position_
                             : origin == KRN_SEEK_END     ? size_
                                                          : -1;
        if (base < 0 || (offset < 0 && base + offset < 0)) return -1;
        position_ = base + offset;
        return position_;
    }

    // The bytes read, or nullopt for a failed read.
    std::optional<std::string> Read(int32_t count) {
        std::string out(static_cast<size_t>(count), '\0');
        size_t total = 0;
        while (total < out.size()) {
            const ssize_t got = ::pread(fd_, out.data() + total, out.size() - total,
                                        static_cast<off_t>(position_ + static_cast<int64_t>(total)));
            if (got < 0) return std::nullopt;
            if (got == 0) break;
            total += static_cast<size_t>(got);
        }
        out.resize(total);
        position_ += static_cast<int64_t>(total);
        return out;
    }

  private:
    int fd_;
    int64_t size_ = 0;
    int64_t position_ = 0;
};

// Bytes that differ from place to place, so that a read from the wrong offset shows.
std::string NumberedBytes(size_t size) {
    std::string bytes(size, '\0');
    uint32_t x = 0x9E3779B9u;
    for (char& c : bytes) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>(x >> 24);
    }
    return bytes;
}

int64_t KernelSeek(krn_handle h, int64_t offset, int32_t origin) {
    const auto bits = static_cast<uint64_t>(offset);
    return krnSeekFile(h, static_cast<int32_t>(static_cast<uint32_t>(bits)),
                       static_cast<int32_t>(static_cast<uint32_t>(bits >> 32)), origin);
}

TEST(KernelFiles, EverySeekAndReadGivesWhatTheDescriptorGives) {
    // Larger than everything the kernel may keep of a file, and not a multiple of any block size.
    constexpr size_t kSize = 700 * 1024 + 123;
    const std::string content = NumberedBytes(kSize);
    TempPath file(content);
    DescriptorModel model(file.path());
    ASSERT_TRUE(model.valid());
    krn_handle h = krnOpenFile(file.wide().c_str(), 0, 256);
    ASSERT_NE(h, KRN_NO_HANDLE);

    const auto size = static_cast<int64_t>(kSize);
    // Read sizes: nothing, the store's pages and blocks, sizes around the kernel's own windows, and
    // more than all of them together.
    const int32_t kReadSizes[] = {
        0,         1,          7,         448, 512, 4095, 4096, 8192, 16 * 1024 - 1, 16 * 1024, 32 * 1024 + 5,
        64 * 1024, 256 * 1024, 300 * 1024};
    std::mt19937 random(20261123);
    auto pick = [&](int64_t low, int64_t high) {
        return std::uniform_int_distribution<int64_t>(low, high)(random);
    };
    int64_t position = 0;  // the model's, to aim seeks near it
    for (int step = 0; step < 20000; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const int64_t kind = pick(0, 9);
        if (kind < 4) {
            // Seeks: near the position both ways (inside and just outside what was read), anywhere,
            // before the start, at and beyond the end, far beyond it, and an unknown origin.
            int32_t origin = KRN_SEEK_START;
            int64_t offset = 0;
            switch (pick(0, 8)) {
                case 0:
                    offset = position + pick(-5000, 5000);
                    break;
                case 1:
                    offset = pick(0, size);
                    break;
                case 2:
                    origin = KRN_SEEK_CURRENT;
                    offset = pick(-70000, 70000);
                    break;
                case 3:
                    origin = KRN_SEEK_CURRENT;
                    offset = 0;
                    break;
                case 4:
                    origin = KRN_SEEK_END;
                    offset = pick(-size - 10, 10);
                    break;
                case 5:
                    offset = -pick(1, 1 << 20);
                    break;
                case 6:
                    offset = size + pick(0, 300000);
                    break;
                case 7:
                    offset = int64_t{1} << pick(32, 40);
                    break;
                default:
                    origin = static_cast<int32_t>(pick(3, 5));
                    offset = pick(0, size);
                    break;
            }
            const int64_t expected = model.Seek(offset, origin);
            ASSERT_EQ(KernelSeek(h, offset, origin), expected) << "origin " << origin << " offset " << offset;
            if (expected >= 0) position = expected;
        } else {
            // Mostly small reads that move forward, as a walk makes them.
            const int32_t count = kReadSizes[pick(0, std::size(kReadSizes) - 1)];
            const std::optional<std::string> expected = model.Read(count);
            ASSERT_TRUE(expected.has_value());
            std::string got(static_cast<size_t>(count) + 1, '\0');
            const int32_t n =
                (step & 1) != 0 ? krnReadFile(h, got.data(), count) : krnReadStoreFile(h, got.data(), count);
            ASSERT_EQ(n, static_cast<int32_t>(expected->size())) << "read " << count << " at " << position;
            got.resize(static_cast<size_t>(n));
            ASSERT_TRUE(got == *expected) << "read " << count << " at " << position;
            position += n;
        }
    }
    // The file's own bytes, once more from the start in one read: the model reads the same file.
    ASSERT_EQ(KernelSeek(h, 0, KRN_SEEK_START), 0);
    std::string whole(kSize, '\0');
    EXPECT_EQ(krnReadFile(h, whole.data(), static_cast<int32_t>(kSize)), static_cast<int32_t>(kSize));
    EXPECT_TRUE(whole == content);
    krnCloseFile(h);
}

TEST(KernelFiles, FaultsCountCallsAndNothingIsAllocatedFromTheTrackedHeap) {
    const std::string content = NumberedBytes(100 * 1024);
    TempPath file(content);
    const uint64_t allocations = krnctlAllocationCount();
    krn_handle h = krnOpenFile(file.wide().c_str(), 0, 256);
    ASSERT_NE(h, KRN_NO_HANDLE);

    // Ten small reads, one after the other, that a single fill of the kernel's buffer can serve: the
    // third call fails all the same, reads nothing and leaves the position where it was.
    struct Step {
        int32_t fail_read_at;  // 0: no read fault armed
        int32_t fail_seek_at;  // 0: no seek fault armed; counts both seeks of every call
    };
    const Step kSteps[] = {{3, 0}, {1, 0}, {10, 0}, {0, 2}, {0, 1}, {0, 20}, {4, 5}};
    for (const Step& s : kSteps) {
        SCOPED_TRACE("read fault " + std::to_string(s.fail_read_at) + ", seek fault " +
                     std::to_string(s.fail_seek_at));
        ASSERT_EQ(KernelSeek(h, 0, KRN_SEEK_START), 0);
        krnctlFailFileOperation(KRNCTL_READ, static_cast<uint32_t>(s.fail_read_at));
        krnctlFailFileOperation(KRNCTL_SEEK, static_cast<uint32_t>(s.fail_seek_at));
        int64_t expected_position = 0;
        int32_t seeks = 0;
        for (int call = 1; call <= 10; ++call) {
            // Each call: a seek to where the last read ended (free inside the buffer), 16 bytes, and a
            // seek that tells the position.
            const int64_t sought = KernelSeek(h, expected_position, KRN_SEEK_START);
            EXPECT_EQ(sought, ++seeks == s.fail_seek_at ? -1 : expected_position) << "call " << call;
            char bytes[16] = {};
            const int32_t n = krnReadStoreFile(h, bytes, sizeof bytes);
            if (call == s.fail_read_at) {
                EXPECT_EQ(n, -1) << "call " << call;
                continue;
            }
            ASSERT_EQ(n, 16) << "call " << call;
            EXPECT_EQ(std::string(bytes, 16), content.substr(static_cast<size_t>(expected_position), 16));
            expected_position += 16;
            EXPECT_EQ(KernelSeek(h, 0, KRN_SEEK_CURRENT), ++seeks == s.fail_seek_at ? -1 : expected_position);
        }
        krnctlReset();
    }
    krnCloseFile(h);
    EXPECT_EQ(krnctlAllocationCount(), allocations);
    EXPECT_EQ(krnctlOutstandingAllocations(), 0u);
}

TEST(Kernel, RegistryAndAccounting) {
    int object = 0;
    EXPECT_EQ(krnRegisterObject(KRN_OBJECT_SINGLE, &object, 7, "reg.cpp"), 1);
    EXPECT_LT(krnRegisterObject(KRN_OBJECT_SINGLE, &object, 7, "reg.cpp"), 0);
    EXPECT_NE(ReportText().find("kind 4 registered at reg.cpp:7"), std::string::npos);
    EXPECT_LT(krnUnregisterObject(KRN_OBJECT_ARRAY, &object, 8, "reg.cpp"), 0);
    EXPECT_EQ(krnUnregisterObject(KRN_OBJECT_SINGLE, &object, 8, "reg.cpp"), 1);

    krnctlSetAccountCeiling(1000);
    EXPECT_EQ(krnAccountMemory(600), 1);
    EXPECT_LT(krnAccountMemory(600), 0);
    EXPECT_EQ(krnctlAccountedBytes(), 600);
    EXPECT_EQ(krnAccountMemory(-600), 1);
    EXPECT_EQ(krnctlAccountedBytes(), 0);
}

TEST(Kernel, TempFilesAndOutputFiles) {
    char16_t path[264];
    ASSERT_EQ(krnTempFileName(nullptr, path, 264, 1, u"pst", u"html"), 1);
    std::u16string wide(path);
    std::string narrow(wide.begin(), wide.end());
    EXPECT_NE(narrow.find("/pst"), std::string::npos);
    EXPECT_EQ(narrow.substr(narrow.size() - 5), ".html");
    EXPECT_NE(ReportText().find("temporary file not deleted"), std::string::npos);

    krn_handle out = krnCreateFile(path, 0);
    ASSERT_NE(out, KRN_NO_HANDLE);
    EXPECT_EQ(krnWriteFile(out, "hello", 5, 0), 5);
    EXPECT_EQ(krnCloseCreatedFile(out, 0), 1);
    std::ifstream in(narrow);
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(content, "hello");
    EXPECT_EQ(krnDeleteFile(path), 1);
    EXPECT_LT(krnDeleteTempFile(path), 0);  // already gone

    char16_t tiny[8];
    EXPECT_LT(krnTempFileName(nullptr, tiny, 8, 1, u"pst", u"html"), 0);  // does not fit: nothing left
}

TEST(Kernel, ConversionModeAndLanguage) {
    char out[16];
    EXPECT_EQ(krnUtf16ToUtf8(u"h\u00e9\u65e5", 3, out, 16), 6);
    EXPECT_EQ(std::string(out, 6), "h\xC3\xA9\xE6\x97\xA5");
    EXPECT_EQ(krnUtf16ToUtf8(u"abc", 3, out, 2), 0);       // does not fit
    EXPECT_EQ(krnUtf16ToUtf8(u"\xD800x", 2, out, 16), 0);  // lone surrogate
    EXPECT_EQ(krnUtf16ToUtf8(u"", 0, out, 16), 0);

    EXPECT_EQ(krnModeQuery(), 0);
    krnctlSetMode(3);
    EXPECT_EQ(krnModeQuery(), 3);
    krnctlSetLanguage(0x0407);
    EXPECT_EQ(krnUiLanguage(), 0x0407);
    krnctlReset();
    EXPECT_EQ(krnModeQuery(), 0);
}

KrnFontDescription Face(const std::u16string& face) {
    KrnFontDescription description{};
    face.copy(description.face_name, KRN_FACE_SIZE - 1);
    return description;
}

std::u16string SelectedFace(krn_dc dc) {
    char16_t face[KRN_FACE_SIZE];
    int32_t units = krnSelectedFace(dc, face, KRN_FACE_SIZE);
    return units < 0 ? u"<error>" : std::u16string(face, static_cast<size_t>(units));
}

TEST(Kernel, FontsAndScreenContextsAreTrackedUntilGivenBack) {
    const KrnFontDescription gothic = Face(u"MS Gothic");
    krn_font font = krnCreateFont(&gothic);
    ASSERT_NE(font, nullptr);
    EXPECT_EQ(krnCreateFont(nullptr), nullptr);
    krn_dc dc = krnScreenDc();
    ASSERT_NE(dc, nullptr);
    EXPECT_EQ(SelectedFace(dc), u"System");  // a new context holds the stock font

    krn_font stock = krnSelectFont(dc, font);
    ASSERT_NE(stock, nullptr);
    EXPECT_EQ(SelectedFace(dc), u"MS Gothic");
    EXPECT_LT(krnDeleteFont(font), 0);  // still selected
    std::string report = ReportText();
    EXPECT_NE(report.find("font \"MS Gothic\" not deleted"), std::string::npos) << report;
    EXPECT_NE(report.find("1 screen device context(s) not released"), std::string::npos) << report;

    EXPECT_EQ(krnSelectFont(dc, stock), font);
    EXPECT_LT(krnDeleteFont(stock), 0);  // the stock font belongs to the kernel
    EXPECT_EQ(krnDeleteFont(font), 1);
    EXPECT_LT(krnDeleteFont(font), 0);            // twice
    EXPECT_EQ(krnSelectFont(dc, font), nullptr);  // a deleted font cannot be selected
    char16_t tiny[3];
    EXPECT_LT(krnSelectedFace(dc, tiny, 3), 0);  // "System" does not fit
    EXPECT_EQ(krnReleaseScreenDc(dc), 1);
    EXPECT_LT(krnReleaseScreenDc(dc), 0);
    EXPECT_EQ(krnSelectFont(dc, stock), nullptr);

    // A name longer than a description holds is cut, not read past its field.
    KrnFontDescription longest{};
    for (char16_t& unit : longest.face_name) unit = u'x';
    krn_font cut = krnCreateFont(&longest);
    krn_dc other = krnScreenDc();
    krnSelectFont(other, cut);
    EXPECT_EQ(SelectedFace(other), std::u16string(KRN_FACE_SIZE - 1, u'x'));
    // Releasing the context frees what was selected into it for deletion.
    EXPECT_EQ(krnReleaseScreenDc(other), 1);
    EXPECT_EQ(krnDeleteFont(cut), 1);
}

TEST(Kernel, ScriptRunsEndWhereTheScriptChanges) {
    struct Case {
        std::u16string text;
        size_t run;  // units in the run that starts at the first unit
    };
    const Case cases[] = {
        {u"abc", 3},
        {u"\u65e5\u672c\u8a9e abc", 4},      // Han, then a space that joins, then Latin
        {u"\u5dee\u51fa\u4eba: \u5f35", 6},  // punctuation and spaces stay in the Han run
        {u"\u3042\u3044\u6f22", 2},          // Hiragana and Han are two scripts
        {u"  \u0645\u0646 \u0041", 5},       // a leading space takes Arabic, then Latin
        {u"\u0645\u0650\u0646", 3},          // a combining mark joins its letter
        {u"\U00020000\U00020001a", 4},       // pairs are whole, never split
        {u"\xD800\u0645", 1},                // a lone surrogate is a run of its own
        {u"12 34", 5},                       // nothing but common characters
        {u"\uac00\u3131 \u0410", 3},         // Hangul, then Cyrillic
    };
    for (const Case& c : cases) {
        const char16_t* end = krnScriptRunEnd(c.text.data(), static_cast<int32_t>(c.text.size()));
        EXPECT_EQ(static_cast<size_t>(end - c.text.data()), c.run)
            << "case with " << c.text.size() << " units";
    }
    const char16_t text[] = u"\u0645\u0646";
    EXPECT_EQ(krnScriptRunEnd(text, 1), text + 1);  // never past the end it is given
    EXPECT_EQ(krnScriptRunEnd(text, 0), text);
    EXPECT_EQ(krnScriptRunEnd(text, -5), text);
    EXPECT_EQ(krnScriptRunEnd(nullptr, 5), nullptr);
}

}  // namespace
