// The shared library the toolkit loads: exactly three entry points in its dynamic symbol table, and
// reached through dlopen they behave as the linked ones do.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>

#include "common/apiutils.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "tests/support/scratch_file.h"

namespace tarn {
namespace {

std::string RunCommand(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char chunk[4096];
    size_t n = 0;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) out.append(chunk, n);
    pclose(pipe);
    return out;
}

TEST(FilterLibrary, ExportsTheThreeEntryPointsAndNothingElse) {
    const std::string listing = RunCommand("nm -D --defined-only '" TARN_FILTER_LIBRARY "' 2>&1");
    std::set<std::string> names;
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        // "address type name"; the name is the last field.
        const size_t space = line.find_last_of(' ');
        names.insert(space == std::string::npos ? line : line.substr(space + 1));
    }
    EXPECT_EQ(names, (std::set<std::string>{"fltFreeData", "fltInfo", "fltLoad"})) << listing;
}

TEST(FilterLibrary, EntryPointsAnswerThroughDlopen) {
    void* library = dlopen(TARN_FILTER_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    host::EntryPoints entries;
    entries.info = reinterpret_cast<int32_t (*)(InfoRequest*)>(dlsym(library, "fltInfo"));
    entries.load = reinterpret_cast<int32_t (*)(LoadRequest*)>(dlsym(library, "fltLoad"));
    entries.free_data = reinterpret_cast<int32_t (*)(void*, int32_t)>(dlsym(library, "fltFreeData"));
    ASSERT_NE(entries.info, nullptr);
    ASSERT_NE(entries.load, nullptr);
    ASSERT_NE(entries.free_data, nullptr);

    testing::ScratchDir dir;
    host::Toolkit toolkit;
    host::SourceSession session(testing::Wide(dir.Write("a.eml", std::string("Subject: x\r\n\r\nbody\r\n"))));
    KernelFileHandle handle(krnOpenFile(session.name().c_str(), 0, kOpenShareMode));
    EXPECT_EQ(host::CallInfo(entries, &session.BuildInfoRequest(handle.get(), 1)).status, kStatusUnsupported);
    EXPECT_EQ(host::CallLoad(entries, &session.BuildLoadRequest(1)).status, kStatusUnsupported);
    EXPECT_EQ(host::CallInfo(entries, nullptr).status, kStatusBadArgument);
    EXPECT_EQ(host::CallFreeData(entries, nullptr, 0).status, kStatusBadArgument);
    handle.Close();
    dlclose(library);
}

}  // namespace
}  // namespace tarn
