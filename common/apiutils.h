// Small helpers over the kernel's functions that every part of the filter uses: the file-size probe,
// and holders that give kernel memory back with the call that matches how it was taken.
#ifndef TARN_COMMON_APIUTILS_H_
#define TARN_COMMON_APIUTILS_H_

#include <cstdint>
#include <memory>
#include <string>

#include "kernel/tarnkrn.h"

namespace tarn {

// The size of the file behind `handle`, found by reading its last byte; the position is restored.
// 1 on success; -7 when that byte cannot be read (an empty file too); -4 when the position cannot be
// told. *size is written only on success.
int32_t ProbeFileSize(krn_handle handle, int64_t* size);

// Frees kernel memory (krnFree). For std::unique_ptr over blocks from krnAlloc and friends.
struct KernelFree {
    void operator()(void* block) const;
};

template <typename T>
using KernelPtr = std::unique_ptr<T, KernelFree>;

// Closes a kernel file handle from krnOpenFile when it goes out of scope, unless released.
class KernelFileHandle {
  public:
    explicit KernelFileHandle(krn_handle handle = KRN_NO_HANDLE) : handle_(handle) {}
    ~KernelFileHandle() { Close(); }
    KernelFileHandle(const KernelFileHandle&) = delete;
    KernelFileHandle& operator=(const KernelFileHandle&) = delete;

    krn_handle get() const { return handle_; }
    bool valid() const { return handle_ != KRN_NO_HANDLE; }
    void Close();
    krn_handle Release() {
        krn_handle h = handle_;
        handle_ = KRN_NO_HANDLE;
        return h;
    }

  private:
    krn_handle handle_;
};

// A zero-terminated UTF-16 string's length in units; 0 for null.
size_t WideLength(const char16_t* text);

}  // namespace tarn

#endif  // TARN_COMMON_APIUTILS_H_
