#include "common/store_file.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "common/apiutils.h"

namespace tarn {

StoreFile::StoreFile(std::u16string name) : name_(std::move(name)) {
    handle_ = krnOpenFile(name_.c_str(), 0, kOpenShareMode);
    if (handle_ == KRN_NO_HANDLE) throw std::runtime_error("fopen failed");
}

StoreFile::~StoreFile() { krnCloseFile(handle_); }

void StoreFile::read_at(std::span<std::byte> buffer, uint64_t offset) {
    const auto low = static_cast<int32_t>(static_cast<uint32_t>(offset));
    const auto high = static_cast<int32_t>(static_cast<uint32_t>(offset >> 32));
    // Compared as 64 bits: the kernel must land on both halves of the offset.
    const int64_t position = krnSeekFile(handle_, low, high, KRN_SEEK_START);
    if (static_cast<uint64_t>(position) != offset) throw std::out_of_range("fseek failed");

    // The kernel reads at most 2^31-1 bytes a call; a store never asks for more than one block at a time,
    // but a larger buffer is read in pieces rather than truncated.
    size_t done = 0;
    while (done < buffer.size()) {
        const size_t want = std::min<size_t>(buffer.size() - done, std::numeric_limits<int32_t>::max());
        const int32_t got = krnReadStoreFile(handle_, buffer.data() + done, static_cast<int32_t>(want));
        if (got <= 0) break;
        done += static_cast<size_t>(got);
        if (static_cast<size_t>(got) < want) break;
    }
    if (done != buffer.size()) throw std::out_of_range("fread failed");
}

uint64_t StoreFile::size() {
    const int64_t end = krnSeekFile(handle_, 0, 0, KRN_SEEK_END);
    if (end < 0) throw std::out_of_range("fseek failed");
    return static_cast<uint64_t>(end);
}

}  // namespace tarn
