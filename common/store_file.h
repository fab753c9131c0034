// The file reader beneath the PST store: every page and block the store reads comes through here, and
// through the kernel's file functions, so that the toolkit can redirect file access.
#ifndef TARN_COMMON_STORE_FILE_H_
#define TARN_COMMON_STORE_FILE_H_

#include <cstdint>
#include <span>
#include <string>

#include "kernel/tarnkrn.h"

namespace tarn {

class StoreFile {
  public:
    // Opens `name` for reading. Throws std::runtime_error("fopen failed") when the kernel refuses.
    explicit StoreFile(std::u16string name);
    ~StoreFile();
    StoreFile(const StoreFile&) = delete;
    StoreFile& operator=(const StoreFile&) = delete;

    // Fills all of `buffer` from `offset`. Throws std::out_of_range("fseek failed") when the kernel
    // does not land on `offset`, std::out_of_range("fread failed") when fewer bytes could be read.
    // No caching: every call goes to the kernel.
    void read_at(std::span<std::byte> buffer, uint64_t offset);

    // The file's size in bytes, as the kernel finds its end. Throws std::out_of_range("fseek failed")
    // when it cannot.
    uint64_t size();

    const std::u16string& name() const { return name_; }

  private:
    std::u16string name_;
    krn_handle handle_;
};

}  // namespace tarn

#endif  // TARN_COMMON_STORE_FILE_H_
