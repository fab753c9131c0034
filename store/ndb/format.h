// On-disk constants of the PST node database: header offsets, page and block geometry, entry sizes.
//
// Numbers only. The reader, the fixture writer in tests/support and tarnview's header dump all take
// their offsets from here, so that a layout fact is written down once; none of them shares logic.
#ifndef TARN_STORE_NDB_FORMAT_H_
#define TARN_STORE_NDB_FORMAT_H_

#include <cstddef>
#include <cstdint>

namespace tarn::ndb::format {

// ---- Header --------------------------------------------------------------------------------------

// wVer below this is the ANSI layout (32-bit ids), from it up the Unicode layout (64-bit ids).
inline constexpr uint16_t kUnicodeVersionThreshold = 20;

inline constexpr size_t kMagicOffset = 0;  // "!BDN", not checked by the store
inline constexpr size_t kCrcPartialOffset = 4;
inline constexpr size_t kMagicClientOffset = 8;  // "SM"
inline constexpr size_t kVersionOffset = 10;     // wVer
inline constexpr size_t kCrcPartialStart = 8;    // both header CRCs start at wMagicClient
inline constexpr size_t kCrcPartialLength = 471;

inline constexpr uint8_t kCryptNone = 0;
inline constexpr uint8_t kCryptPermute = 1;
inline constexpr uint8_t kCryptCyclic = 2;

// One set of header offsets per layout. `root_nbt` and `root_bbt` are BREFs: id, then address.
struct HeaderLayout {
    size_t size;          // bytes the store reads from offset 0
    size_t id_width;      // 4 or 8: width of ids and addresses on disk
    size_t bid_next_b;    // bidNextB
    size_t file_eof;      // ibFileEof in the root structure
    size_t root_nbt;      // BREFNBT
    size_t root_bbt;      // BREFBBT
    size_t crypt_method;  // bCryptMethod
    size_t crc_full;      // dwCRCFull (Unicode only; 0 = none)
    size_t crc_full_length;
};

// The ANSI header is 512 bytes. The Unicode header is 564 bytes on disk; 568 are read, the last four
// never looked at (a Unicode store always continues well past its header).
inline constexpr HeaderLayout kAnsiHeader{512, 4, 24, 168, 184, 192, 461, 0, 0};
inline constexpr HeaderLayout kUnicodeHeader{568, 8, 516, 184, 216, 232, 513, 524, 516};
inline constexpr size_t kUnicodeHeaderOnDisk = 564;

// ---- Pages ---------------------------------------------------------------------------------------

inline constexpr size_t kPageSize = 512;
inline constexpr uint8_t kPageTypeBbt = 0x80;
inline constexpr uint8_t kPageTypeNbt = 0x81;

// Trailer and the four B-tree counters in front of it, offsets from the start of the page.
struct PageLayout {
    size_t entries_size;  // bytes available to entries, from offset 0
    size_t c_ent;         // cEnt, then cEntMax, cbEnt, cLevel follow byte by byte
    size_t c_level;
    size_t ptype;
    size_t ptype_repeat;
    size_t signature;
    size_t page_id;
    size_t crc;
    size_t bbt_leaf_entry;  // BBTENTRY size
    size_t nbt_leaf_entry;  // NBTENTRY size
    size_t nonleaf_entry;   // BTENTRY size
};
inline constexpr PageLayout kAnsiPage{496, 496, 499, 500, 501, 502, 504, 508, 12, 16, 12};
inline constexpr PageLayout kUnicodePage{488, 488, 491, 496, 497, 498, 504, 500, 24, 32, 24};

// ---- Blocks --------------------------------------------------------------------------------------

inline constexpr size_t kBlockAlignment = 64;
inline constexpr size_t kMaxBlockSpan = 8192;
inline constexpr uint64_t kInternalBlockBit = 2;  // set in ids of XBLOCK, XXBLOCK, SLBLOCK, SIBLOCK
inline constexpr uint8_t kBlockTypeExtended = 1;
inline constexpr uint8_t kBlockTypeSubnode = 2;

struct BlockLayout {
    size_t trailer_size;
    size_t trailer_cb;  // offsets inside the trailer
    size_t trailer_signature;
    size_t trailer_crc;
    size_t trailer_id;
    size_t max_data;               // largest data of one leaf data block
    size_t max_children;           // child ids the store allows an extended block (deliberate values)
    size_t max_level2_child;       // largest total under one child of a level-2 extended block
    size_t extended_header;        // btype, cLevel, cEnt, lcbTotal
    size_t subnode_header;         // btype, cLevel, cEnt (and dwPadding in Unicode)
    size_t subnode_leaf_entry;     // SLENTRY
    size_t subnode_nonleaf_entry;  // SIENTRY
};
inline constexpr BlockLayout kAnsiBlock{12, 0, 2, 8, 4, 8180, 1019, 8335420, 8, 4, 12, 8};
inline constexpr BlockLayout kUnicodeBlock{16, 0, 2, 4, 8, 8176, 1021, 8347696, 8, 8, 24, 16};

}  // namespace tarn::ndb::format

#endif  // TARN_STORE_NDB_FORMAT_H_
