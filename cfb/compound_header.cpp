#include "cfb/compound_header.h"

#include "common/little_endian.h"
#include "common/signatures.h"

namespace tarn::cfb {

CompoundHeader parse_compound_header(std::span<const std::byte> bytes) {
    CompoundHeader header;
    if (bytes.size() < format::kHeaderSize) return header;
    const std::byte* p = bytes.data();
    header.signature_ok = StartsWithSignature(bytes.subspan(format::kSignatureOffset), kCompoundSignature);
    header.sector_shift = LoadLe16(p + format::kSectorShiftOffset);
    header.mini_sector_shift = LoadLe16(p + format::kMiniSectorShiftOffset);
    header.fat_sector_count = LoadLe32(p + format::kFatSectorCountOffset);
    header.first_directory_sector = LoadLe32(p + format::kFirstDirectorySectorOffset);
    header.mini_stream_cutoff = LoadLe32(p + format::kMiniStreamCutoffOffset);
    header.first_mini_fat_sector = LoadLe32(p + format::kFirstMiniFatSectorOffset);
    header.mini_fat_sector_count = LoadLe32(p + format::kMiniFatSectorCountOffset);
    header.first_difat_sector = LoadLe32(p + format::kFirstDifatSectorOffset);
    header.difat_sector_count = LoadLe32(p + format::kDifatSectorCountOffset);
    for (size_t i = 0; i < format::kHeaderDifatCount; ++i)
        header.difat[i] = LoadLe32(p + format::kHeaderDifatOffset + 4 * i);
    return header;
}

}  // namespace tarn::cfb
