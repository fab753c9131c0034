// Small helpers over the kernel's functions that every part of the filter uses: the fixed arguments of
// its calls, the file-size probe, and a holder that closes a file handle. Kernel memory has its own
// holders in common/kernel_memory.h.
#ifndef TARN_COMMON_APIUTILS_H_
#define TARN_COMMON_APIUTILS_H_

#include <cstdint>
#include <string>

#include "kernel/tarnkrn.h"

namespace tarn {

// The share mode the filter passes to the kernel's open call, with an open mode of 0.
inline constexpr int32_t kOpenShareMode = 256;

// The answer of the kernel's mode query that asks for an HTML document to be handed over in memory;
// any other answer has it written to a temporary file.
inline constexpr int32_t kKernelModeInMemory = 3;

// The size of the file behind `handle`, found by reading its last byte; the position is restored.
// 1 on success; -7 when that byte cannot be read (an empty file too); -4 when the position cannot be
// told. *size is written only on success.
int32_t ProbeFileSize(krn_handle handle, int64_t* size);

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
