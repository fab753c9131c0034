#include "pst/probe.h"

#include <array>

#include "common/little_endian.h"
#include "common/status.h"

namespace tarn {
namespace {

constexpr uint32_t kPstMagic = 0x4E444221;           // "!BDN"
constexpr uint32_t kCompoundMagicLow = 0xE011CFD0;   // D0 CF 11 E0
constexpr uint32_t kCompoundMagicHigh = 0xE11AB1A1;  // A1 B1 1A E1

}  // namespace

InputKind ProbeHeader(std::span<const std::byte, kProbeBytes> header) {
    const uint32_t first = LoadLe32(header.data());
    if (first == kPstMagic) return kInputPstStore;
    if (first == kCompoundMagicLow && LoadLe32(header.data() + 4) == kCompoundMagicHigh)
        return kInputMessageFile;
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
