#include "pst/probe.h"

#include <array>

#include "common/signatures.h"
#include "common/status.h"

namespace tarn {
InputKind ProbeHeader(std::span<const std::byte, kProbeBytes> header) {
    if (StartsWithSignature(header, kPstSignature)) return kInputPstStore;
    if (StartsWithSignature(header, kCompoundSignature)) return kInputMessageFile;
    // Half a compound-file signature is not one: such a file is read as text like any other.
    return kInputMimeText;
}

int32_t ProbeSource(krn_handle handle, InputKind* kind) {
    std::array<std::byte, kProbeBytes> header{};
    if (krnSeekFile(handle, 0, 0, KRN_SEEK_START) != 0) return kStatusShortRead;
    if (krnReadFile(handle, header.data(), static_cast<int32_t>(header.size())) !=
        static_cast<int32_t>(kProbeBytes))
        return kStatusShortRead;
    *kind = ProbeHeader(header);
    return kStatusOk;
}

}  // namespace tarn
