// Memory the filter holds from the kernel: one object (`KernelPtr`) or an array (`KernelArray`), each
// constructed in place, destroyed, and given back with the kernel call that matches how it was taken,
// so that an early return or an exception cannot leak it. The kernel's tracker charges every block to
// the source file and line the caller names (by default the line of the call), and its leak report is
// the proof that nothing stays behind.
#ifndef TARN_COMMON_KERNEL_MEMORY_H_
#define TARN_COMMON_KERNEL_MEMORY_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

#include "kernel/tarnkrn.h"

namespace tarn {

// Whether a holder enters its memory in the kernel's object registry: long-lived objects are, so that
// the toolkit can account for them.
enum class KernelRegistry : int32_t {
    kNone = 0,
    kSingle = KRN_OBJECT_SINGLE,  // one object, such as the per-file record
    kArray = KRN_OBJECT_ARRAY,    // an array, such as the message list's entries
};

// Destroys and frees one object made by MakeKernelObject, unregistering it first when it was registered.
template <typename T>
class KernelDelete {
  public:
    KernelDelete() = default;
    KernelDelete(KernelRegistry registry, const char* file, int32_t line)
        : registry_(registry), file_(file), line_(line) {}

    void operator()(T* object) const {
        if (object == nullptr) return;
        if (registry_ != KernelRegistry::kNone)
            krnUnregisterObject(static_cast<int32_t>(registry_), object, line_, file_);
        object->~T();
        krnFree(object, file_, line_);
    }

  private:
    KernelRegistry registry_ = KernelRegistry::kNone;
    const char* file_ = "";
    int32_t line_ = 0;
};

template <typename T>
using KernelPtr = std::unique_ptr<T, KernelDelete<T>>;

// A T value-initialised in zeroed kernel memory and, unless `registry` is kNone, registered with the
// kernel. Null when the kernel refuses the memory or the registration (nothing is then held).
// `file` and `line` default to the caller's (std::source_location is not in every compiler we build with).
template <typename T>
KernelPtr<T> MakeKernelObject(KernelRegistry registry, const char* file = __builtin_FILE(),
                              int32_t line = __builtin_LINE()) {
    static_assert(std::is_nothrow_default_constructible_v<T>, "a failed constructor would leak the block");
    static_assert(alignof(T) <= alignof(std::max_align_t), "the kernel aligns blocks for plain values only");
    void* block = krnAllocZeroed(1, sizeof(T), file, line);
    if (block == nullptr) return KernelPtr<T>(nullptr, KernelDelete<T>(registry, file, line));
    T* object = new (block) T();
    if (registry != KernelRegistry::kNone &&
        krnRegisterObject(static_cast<int32_t>(registry), object, line, file) != 1) {
        KernelDelete<T>(KernelRegistry::kNone, file, line)(object);
        return KernelPtr<T>(nullptr, KernelDelete<T>(registry, file, line));
    }
    return KernelPtr<T>(object, KernelDelete<T>(registry, file, line));
}

// Takes back an object that MakeKernelObject made and whose holder let it go (one kept by the toolkit
// between calls, for instance). `registry` must be the one it was made with.
template <typename T>
KernelPtr<T> AdoptKernelObject(T* object, KernelRegistry registry, const char* file = __builtin_FILE(),
                               int32_t line = __builtin_LINE()) {
    return KernelPtr<T>(object, KernelDelete<T>(registry, file, line));
}

// An array of T in kernel memory, registered with the kernel as an array (kind 5) for as long as it is
// held. Elements are value-initialised on allocation (zero for plain values) and destroyed, last first,
// before the memory goes back.
template <typename T>
class KernelArray {
    static_assert(std::is_nothrow_default_constructible_v<T>, "a failed constructor would leak the block");
    static_assert(alignof(T) <= alignof(std::max_align_t), "the kernel aligns blocks for plain values only");

  public:
    KernelArray() = default;
    KernelArray(const KernelArray&) = delete;
    KernelArray& operator=(const KernelArray&) = delete;
    KernelArray(KernelArray&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          file_(other.file_),
          line_(other.line_) {}
    KernelArray& operator=(KernelArray&& other) noexcept {
        if (this != &other) {
            reset();
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
            file_ = other.file_;
            line_ = other.line_;
        }
        return *this;
    }
    ~KernelArray() { reset(); }

    // Replaces the contents by `count` value-initialised elements. Returns false (and holds nothing)
    // when the kernel refuses the memory or the registration. A count of 0 holds nothing and succeeds.
    bool allocate(size_t count, const char* file = __builtin_FILE(), int32_t line = __builtin_LINE()) {
        reset();
        if (count == 0) return true;
        void* block = krnAllocZeroed(count, sizeof(T), file, line);
        if (block == nullptr) return false;
        if (krnRegisterObject(KRN_OBJECT_ARRAY, block, line, file) != 1) {
            krnFree(block, file, line);
            return false;
        }
        data_ = static_cast<T*>(block);
        // Zeroed memory already is a value-initialised plain value; anything else is constructed.
        if constexpr (!std::is_trivially_default_constructible_v<T>)
            for (size_t i = 0; i < count; ++i) new (&data_[i]) T();
        size_ = count;
        file_ = file;
        line_ = line;
        return true;
    }

    // Destroys the elements, unregisters and frees; afterwards the array is empty.
    void reset() {
        if (data_ == nullptr) return;
        shrink(0);
        krnUnregisterObject(KRN_OBJECT_ARRAY, data_, line_, file_);
        krnFree(data_, file_, line_);
        data_ = nullptr;
    }

    // Destroys the elements from `count` on, without giving memory back (a list cut after it was sized).
    void shrink(size_t count) {
        if constexpr (!std::is_trivially_destructible_v<T>)
            for (size_t i = size_; i > count; --i) data_[i - 1].~T();
        if (count < size_) size_ = count;
    }

    T* data() { return data_; }
    const T* data() const { return data_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    // Requires: i < size().
    T& operator[](size_t i) { return data_[i]; }
    const T& operator[](size_t i) const { return data_[i]; }
    std::span<T> span() { return {data_, size_}; }
    std::span<const T> span() const { return {data_, size_}; }

  private:
    T* data_ = nullptr;
    size_t size_ = 0;
    const char* file_ = "";
    int32_t line_ = 0;
};

}  // namespace tarn

#endif  // TARN_COMMON_KERNEL_MEMORY_H_
