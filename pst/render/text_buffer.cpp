#include "pst/render/text_buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "kernel/tarnkrn.h"

namespace tarn {

int32_t GrowBuffer::Init(size_t initial_size, size_t growth_step, bool zero_fill) {
    Release();
    growth_step_ = growth_step;
    zero_fill_ = zero_fill;
    status_ = kStatusFailure;
    reallocations_ = 0;
    if (initial_size != 0 && !Reserve(initial_size)) return status_;
    return kStatusOk;
}

bool GrowBuffer::Reserve(size_t needed) {
    if (capacity_ >= needed) return true;
    if (needed > kMaxBufferBytes || growth_step_ > kMaxBufferBytes - needed) {
        status_ = kStatusFailure;
        return false;
    }
    const size_t new_capacity = needed + growth_step_;
    void* grown = krnRealloc(data_, new_capacity, __FILE__, __LINE__);
    if (grown == nullptr) {
        // The stand-in kernel keeps no error of its own for a failed allocation.
        status_ = kStatusFailure;
        return false;
    }
    data_ = static_cast<std::byte*>(grown);
    const size_t old_capacity = capacity_;
    capacity_ = new_capacity;

    // Small buffers are not worth the kernel's attention; once one crosses the threshold every change
    // of its size is reported, so that Release can give back exactly what was taken.
    if (accounting_ || new_capacity >= kAccountThreshold) {
        const int64_t delta = static_cast<int64_t>(new_capacity) - accounted_;
        if (const int32_t status = krnAccountMemory(delta); status != kStatusOk) {
            Release();
            status_ = status;
            return false;
        }
        accounting_ = true;
        accounted_ = static_cast<int64_t>(new_capacity);
    }

    if (zero_fill_) std::memset(data_ + old_capacity, 0, new_capacity - old_capacity);
    if (++reallocations_ == kReallocationsPerDoubling) {
        reallocations_ = 0;
        // A buffer made with step 0 expects one exact fill; one that keeps growing gets a step, or every
        // later append would reallocate and copy it all.
        growth_step_ = growth_step_ == 0 ? kStepAfterZero : std::min(growth_step_ * 2, kMaxBufferBytes);
    }
    return true;
}

int32_t GrowBuffer::Append(const void* bytes, size_t count) {
    if (count == 0) return kStatusOk;
    if (bytes == nullptr) return kStatusNullPointer;
    if (count > kMaxBufferBytes - length_) {
        status_ = kStatusFailure;
        return status_;
    }
    if (!Reserve(length_ + count)) return status_;
    std::memcpy(data_ + length_, bytes, count);
    length_ += count;
    return kStatusOk;
}

int32_t GrowBuffer::AppendByte(uint8_t byte) { return Append(&byte, 1); }

int32_t GrowBuffer::Assign(const void* bytes, size_t count) {
    length_ = 0;
    return Append(bytes, count);
}

int32_t GrowBuffer::Terminate() {
    if (length_ > 0 && data_[length_ - 1] == std::byte{0}) return kStatusOk;
    return AppendByte(0);
}

void GrowBuffer::Release() {
    krnFree(data_, __FILE__, __LINE__);
    if (accounted_ > 0) krnAccountMemory(-accounted_);
    data_ = nullptr;
    length_ = 0;
    capacity_ = 0;
    accounted_ = 0;
    accounting_ = false;
}

void GrowBuffer::MoveInto(CountedString& target) {
    target.Release();
    target.data_ = data_;
    target.size_ = length_;
    // The string is not accounted: its memory leaves the buffer's account with it.
    if (accounted_ > 0) krnAccountMemory(-accounted_);
    data_ = nullptr;
    length_ = 0;
    capacity_ = 0;
    accounted_ = 0;
    accounting_ = false;
}

int32_t GrowBuffer::Adopt(CountedString& source) {
    Release();
    const size_t size = source.size_;
    if (size >= kAccountThreshold) {
        if (const int32_t status = krnAccountMemory(static_cast<int64_t>(size)); status != kStatusOk) {
            status_ = status;
            return status;
        }
        accounting_ = true;
        accounted_ = static_cast<int64_t>(size);
    }
    length_ = source.TextLength();
    capacity_ = size;
    data_ = std::exchange(source.data_, nullptr);
    source.size_ = 0;
    return kStatusOk;
}

void GrowBuffer::Truncate(size_t length) { length_ = std::min(length_, length); }

CountedString::CountedString(CountedString&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

CountedString& CountedString::operator=(CountedString&& other) noexcept {
    if (this != &other) {
        Release();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

size_t CountedString::TextLength() const {
    return size_ > 0 && data_[size_ - 1] == std::byte{0} ? size_ - 1 : size_;
}

void CountedString::Release() {
    krnFree(data_, __FILE__, __LINE__);
    data_ = nullptr;
    size_ = 0;
}

int32_t InsertAt(CountedString* string, size_t offset, const void* bytes, size_t count) {
    if (string == nullptr || (bytes == nullptr && count > 0)) return kStatusNullPointer;
    const size_t base = std::max(string->size_, offset);
    if (base > kMaxBufferBytes || count > kMaxBufferBytes - base) return kStatusFailure;
    const size_t new_size = base + count;
    if (count == 0 && new_size == string->size_) return kStatusOk;

    void* grown = krnRealloc(string->data_, new_size, __FILE__, __LINE__);
    if (grown == nullptr) return kStatusFailure;
    auto* data = static_cast<std::byte*>(grown);
    const size_t old_size = string->size_;
    if (offset > old_size) std::memset(data + old_size, 0, offset - old_size);
    if (offset < old_size) std::memmove(data + offset + count, data + offset, old_size - offset);
    if (count > 0) std::memcpy(data + offset, bytes, count);
    string->data_ = data;
    string->size_ = new_size;
    return kStatusOk;
}

int32_t AppendFromStream(std::istream& in, uint64_t size, GrowBuffer& out) {
    in.exceptions(in.exceptions() | std::ios::badbit);
    return AppendFromReader(
        [&in](char* into, size_t count) {
            in.read(into, static_cast<std::streamsize>(count));
            return static_cast<size_t>(in.gcount());
        },
        size, out);
}

int32_t AppendCounted(CountedString* string, const void* bytes, int32_t count) {
    if (string == nullptr || bytes == nullptr) return kStatusNullPointer;
    if (count < 0 && count != kUpToNul) return kStatusBadArgument;
    const size_t length =
        count == kUpToNul ? std::strlen(static_cast<const char*>(bytes)) : static_cast<size_t>(count);

    const bool terminated = string->size() != string->TextLength();
    if (int32_t status = InsertAt(string, string->TextLength(), bytes, length); status != kStatusOk)
        return status;
    if (terminated) return kStatusOk;
    const char nul = 0;
    return InsertAt(string, string->size(), &nul, 1);
}

}  // namespace tarn
