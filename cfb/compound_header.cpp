#include "cfb/compound_header.h"

#include "common/little_endian.h"

namespace tarn::cfb {

CompoundHeader parse_compound_header(std::span<const std::byte> bytes) {
    CompoundHeader header;
    if (bytes.size() < kHeaderSize) return header;
    const std::byte* p = bytes.data();
    header.signature_ok = true;
    for (size_t i = 0; i < kCompoundSignature.size(); ++i)
        if (LoadLe8(p + i) != kCompoundSignature[i]) header.signature_ok = false;
    header.sector_shift = LoadLe16(p + 30);
    header.mini_sector_shift = LoadLe16(p + 32);
    header.fat_sector_count = LoadLe32(p + 44);
    header.first_directory_sector = LoadLe32(p + 48);
    header.mini_stream_cutoff = LoadLe32(p + 56);
    header.first_mini_fat_sector = LoadLe32(p + 60);
    header.mini_fat_sector_count = LoadLe32(p + 64);
    header.first_difat_sector = LoadLe32(p + 68);
    header.difat_sector_count = LoadLe32(p + 72);
    for (size_t i = 0; i < kHeaderDifatCount; ++i) header.difat[i] = LoadLe32(p + 76 + 4 * i);
    return header;
}

}  // namespace tarn::cfb
