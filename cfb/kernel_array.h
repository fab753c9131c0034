// An array taken from the kernel's allocator and entered in its object registry for as long as it
// lives. Every buffer of the compound-file layer is one of these, so that the kernel can account for
// it and so that an early return cannot leak it.
#ifndef TARN_CFB_KERNEL_ARRAY_H_
#define TARN_CFB_KERNEL_ARRAY_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

#include "kernel/tarnkrn.h"

namespace tarn::cfb {

// The source name under which this layer's buffers are allocated and registered.
inline constexpr const char* kKernelSourceName = "cfb";

template <typename T>
class KernelArray {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>,
                  "the kernel hands out raw bytes: only plain values may live in them");

  public:
    KernelArray() = default;
    KernelArray(const KernelArray&) = delete;
    KernelArray& operator=(const KernelArray&) = delete;
    KernelArray(KernelArray&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          line_(other.line_) {}
    KernelArray& operator=(KernelArray&& other) noexcept {
        if (this != &other) {
            reset();
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
            line_ = other.line_;
        }
        return *this;
    }
    ~KernelArray() { reset(); }

    // Replaces the contents by `count` zeroed elements. Returns false (and holds nothing) when the
    // kernel refuses the memory or the registration. A count of 0 holds nothing and succeeds.
    // The default `line` is the caller's (std::source_location is not available to every compiler
    // we build with).
    bool allocate(size_t count, int32_t line = __builtin_LINE()) {
        reset();
        if (count == 0) return true;
        void* block = krnAllocZeroed(count, sizeof(T), kKernelSourceName, line);
        if (block == nullptr) return false;
        if (krnRegisterObject(KRN_OBJECT_ARRAY, block, line, kKernelSourceName) != 1) {
            krnFree(block, kKernelSourceName, line);
            return false;
        }
        data_ = static_cast<T*>(block);
        size_ = count;
        line_ = line;
        return true;
    }

    // Unregisters and frees; afterwards the array is empty.
    void reset() {
        if (data_ == nullptr) return;
        krnUnregisterObject(KRN_OBJECT_ARRAY, data_, line_, kKernelSourceName);
        krnFree(data_, kKernelSourceName, line_);
        data_ = nullptr;
        size_ = 0;
    }

    // Shortens the visible length without giving memory back (a chain cut after it was sized).
    void shrink(size_t count) {
        if (count < size_) size_ = count;
    }

    T* data() { return data_; }
    const T* data() const { return data_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    T& operator[](size_t i) { return data_[i]; }
    const T& operator[](size_t i) const { return data_[i]; }
    std::span<T> span() { return {data_, size_}; }
    std::span<const T> span() const { return {data_, size_}; }

  private:
    T* data_ = nullptr;
    size_t size_ = 0;
    int32_t line_ = 0;
};

}  // namespace tarn::cfb

#endif  // TARN_CFB_KERNEL_ARRAY_H_
