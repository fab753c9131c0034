// The readers take their sources by name through the kernel's file functions, not from memory, so a
// harness writes each input to one scratch file of its process first. The file goes when the process
// ends.
#ifndef TARN_TESTS_FUZZ_SCRATCH_INPUT_H_
#define TARN_TESTS_FUZZ_SCRATCH_INPUT_H_

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tarn::fuzz {

class ScratchInput {
  public:
    // In TMPDIR when it is set, else in memory (/dev/shm) when we may write there, else in /tmp.
    explicit ScratchInput(const char* name) {
        const char* dir = std::getenv("TMPDIR");
        if (dir == nullptr || *dir == '\0') dir = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        path_ = std::string(dir) + "/tarn-" + name + "-fuzz-" + std::to_string(::getpid());
    }
    ~ScratchInput() { std::remove(path_.c_str()); }
    ScratchInput(const ScratchInput&) = delete;
    ScratchInput& operator=(const ScratchInput&) = delete;

    // Replaces the file's contents with the input; false when the file cannot be written.
    bool Write(const uint8_t* data, size_t size) const {
        FILE* file = std::fopen(path_.c_str(), "wb");
        if (file == nullptr) return false;
        const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
        return std::fclose(file) == 0 && written;
    }
    const std::string& path() const { return path_; }
    std::u16string wide_path() const { return std::u16string(path_.begin(), path_.end()); }

  private:
    std::string path_;
};

}  // namespace tarn::fuzz

#endif  // TARN_TESTS_FUZZ_SCRATCH_INPUT_H_
