// Replays a fuzz harness over committed inputs in the normal test run (no libFuzzer needed).
// Usage: NAME_replay DIR_OR_FILE...   Every regular file under each directory is one input.
// Each input must return from the harness without a sanitizer report and leave the kernel stand-in
// holding nothing.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kernel/tarnkrn_control.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int ReplayOne(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    krnctlReset();
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    size_t leaked = krnctlLeakReport(nullptr, 0);
    if (leaked != 0) {
        std::string report(leaked + 1, '\0');
        krnctlLeakReport(report.data(), report.size());
        std::fprintf(stderr, "%s: kernel leak report not empty:\n%s", path.c_str(), report.c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int failures = 0, count = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path root(argv[i]);
        if (std::filesystem::is_regular_file(root)) {
            failures += ReplayOne(root);
            ++count;
            continue;
        }
        if (!std::filesystem::is_directory(root)) continue;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
            if (!entry.is_regular_file()) continue;
            failures += ReplayOne(entry.path());
            ++count;
        }
    }
    std::printf("%d passed, %d failed\n", count - failures, failures);
    return failures == 0 ? 0 : 1;
}
