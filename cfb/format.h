// On-disk constants of a compound file: header offsets, directory entry offsets and the sector numbers
// with a meaning of their own.
//
// Numbers only. The reader, the fixture writer in tests/support and tarnview's cfb command all take
// their offsets from here, so that a layout fact is written down once; none of them shares logic. The
// signature itself is in common/signatures.h, where the source probe finds it too.
#ifndef TARN_CFB_FORMAT_H_
#define TARN_CFB_FORMAT_H_

#include <cstddef>
#include <cstdint>

namespace tarn::cfb::format {

// ---- Header --------------------------------------------------------------------------------------

inline constexpr size_t kHeaderSize = 512;

inline constexpr size_t kSignatureOffset = 0;
inline constexpr size_t kMinorVersionOffset = 24;  // not read
inline constexpr size_t kMajorVersionOffset = 26;  // not read: 3 for 512-byte sectors, 4 for 4096
inline constexpr size_t kByteOrderOffset = 28;     // not read
inline constexpr size_t kSectorShiftOffset = 30;
inline constexpr size_t kMiniSectorShiftOffset = 32;
inline constexpr size_t kDirectorySectorCountOffset = 40;  // not read
inline constexpr size_t kFatSectorCountOffset = 44;
inline constexpr size_t kFirstDirectorySectorOffset = 48;
inline constexpr size_t kMiniStreamCutoffOffset = 56;
inline constexpr size_t kFirstMiniFatSectorOffset = 60;
inline constexpr size_t kMiniFatSectorCountOffset = 64;
inline constexpr size_t kFirstDifatSectorOffset = 68;
inline constexpr size_t kDifatSectorCountOffset = 72;
inline constexpr size_t kHeaderDifatOffset = 76;  // the first FAT sector numbers, one word each
inline constexpr size_t kHeaderDifatCount = 109;

inline constexpr uint16_t kByteOrderMark = 0xFFFE;
inline constexpr uint16_t kMinorVersion = 0x003E;

// The only mini stream cutoff we accept; streams below it live in the mini stream.
inline constexpr uint64_t kMiniStreamCutoff = 4096;

// ---- Sector numbers ------------------------------------------------------------------------------

// Numbers that end a chain instead of naming a sector.
inline constexpr uint32_t kDifatSectorMark = 0xFFFFFFFC;  // the lowest of them
inline constexpr uint32_t kFatSectorMark = 0xFFFFFFFD;
inline constexpr uint32_t kEndOfChain = 0xFFFFFFFE;
inline constexpr uint32_t kFreeSector = 0xFFFFFFFF;

// ---- Directory entries ---------------------------------------------------------------------------

inline constexpr size_t kDirectoryEntrySize = 128;

inline constexpr size_t kNameOffset = 0;
inline constexpr size_t kNameFieldBytes = 64;  // 32 UTF-16 units, the last a terminator
inline constexpr size_t kNameLengthOffset = 64;
inline constexpr size_t kObjectTypeOffset = 66;
inline constexpr size_t kColourOffset = 67;  // not read
inline constexpr size_t kLeftSiblingOffset = 68;
inline constexpr size_t kRightSiblingOffset = 72;
inline constexpr size_t kChildOffset = 76;
inline constexpr size_t kStartSectorOffset = 116;
inline constexpr size_t kStreamSizeOffset = 120;      // the low 32 bits
inline constexpr size_t kStreamSizeHighOffset = 124;  // not read

inline constexpr uint8_t kTypeStorage = 1;
inline constexpr uint8_t kTypeStream = 2;
inline constexpr uint8_t kTypeRoot = 5;

// A sibling or child link that names no entry.
inline constexpr uint32_t kNoEntry = 0xFFFFFFFF;

}  // namespace tarn::cfb::format

#endif  // TARN_CFB_FORMAT_H_
