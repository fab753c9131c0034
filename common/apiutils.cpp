#include "common/apiutils.h"

#include "common/status.h"

namespace tarn {

int32_t ProbeFileSize(krn_handle handle, int64_t* size) {
    if (size == nullptr) return kStatusNullPointer;
    const int64_t remembered = krnSeekFile(handle, 0, 0, KRN_SEEK_CURRENT);

    // Reading the last byte, rather than trusting a seek alone, proves that the end is really there.
    krnSeekFile(handle, -1, -1, KRN_SEEK_END);
    unsigned char last = 0;
    if (krnReadFile(handle, &last, 1) != 1) return kStatusShortRead;

    const int64_t end = krnSeekFile(handle, 0, 0, KRN_SEEK_CURRENT);
    if (end == -1) return kStatusNoPosition;

    const auto back = static_cast<uint64_t>(remembered);
    krnSeekFile(handle, static_cast<int32_t>(static_cast<uint32_t>(back)),
                static_cast<int32_t>(static_cast<uint32_t>(back >> 32)), KRN_SEEK_START);
    *size = end;
    return kStatusOk;
}

void KernelFileHandle::Close() {
    if (handle_ != KRN_NO_HANDLE) krnCloseFile(handle_);
    handle_ = KRN_NO_HANDLE;
}

size_t WideLength(const char16_t* text) {
    if (text == nullptr) return 0;
    size_t n = 0;
    while (text[n] != 0) ++n;
    return n;
}

}  // namespace tarn
