// The kernel stand-in's own behaviour: what the filter relies on of files, memory, the registry,
// temporary names, conversion and the control interface.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
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
    EXPECT_EQ(krnSeekFile(h, -20, -1, KRN_SEEK_CURRENT), -1);  // before the start
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
    EXPECT_EQ(krnUtf16ToUtf8(u"abc", 3, out, 2), 0);    // does not fit
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

}  // namespace
