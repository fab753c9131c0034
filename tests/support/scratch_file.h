// Small files written by a test into a private temporary directory, removed with it.
#ifndef TARN_TESTS_SUPPORT_SCRATCH_FILE_H_
#define TARN_TESTS_SUPPORT_SCRATCH_FILE_H_

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/test_util.h"

namespace tarn::testing {

class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Writes `bytes` to `name` inside the directory and returns its full path.
    std::filesystem::path Write(const std::string& name, std::string_view bytes) const {
        const auto file = path_ / name;
        std::ofstream out(file, std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) throw std::runtime_error("cannot write " + file.string());
        return file;
    }
    std::filesystem::path Write(const std::string& name, const std::vector<std::byte>& bytes) const {
        return Write(name, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }

  private:
    std::filesystem::path path_;
};

}  // namespace tarn::testing

#endif  // TARN_TESTS_SUPPORT_SCRATCH_FILE_H_
