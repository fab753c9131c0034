// Compressed RTF: the LZ77-style "LZFu" encoding in which messages store their RTF body, and its
// stored-as-is variant "MELA".
//
// Layout, 16-byte header then contents (all little-endian):
//   0 COMPSIZE  bytes after this field (total size - 4)
//   4 RAWSIZE   size of the decompressed RTF
//   8 COMPTYPE  "LZFu" compressed, "MELA" stored
//  12 CRC       CRC-32 of the bytes from 16 to the end
//
// There are two entry points with deliberately different checks: the stream one serves PST messages,
// the buffer one serves message files. Both leave the document as it was on failure.
#ifndef TARN_PST_RENDER_COMPRESSED_RTF_H_
#define TARN_PST_RENDER_COMPRESSED_RTF_H_

#include <cstddef>
#include <cstdint>
#include <istream>

#include "pst/render/text_buffer.h"

namespace tarn {

constexpr uint32_t kRtfCompressed = 0x75465A4C;    // "LZFu"
constexpr uint32_t kRtfUncompressed = 0x414C454D;  // "MELA"
constexpr size_t kRtfHeaderSize = 16;

// The CRC of data[16 .. 16 + size); 0 for an empty range. Requires: 16 + size bytes at `data`.
uint32_t RtfCrc(const std::byte* data, size_t size);

// Reads a seekable stream whole and decompresses it into `document` (RAWSIZE bytes, no terminator).
// The CRC is checked for both kinds; "MELA" data is taken up to its first NUL. 1, -9 for a malformed
// header or data (a stream that ends before the size it reported included), -1 when memory runs out.
// The stream's exception mask is set to badbit, so that an error of its source leaves as itself.
int32_t DecompressRtfStream(std::istream& stream, CountedString& document);

// Decompresses `size` bytes into `document`: RAWSIZE bytes, with a NUL behind them that the size does
// not count. "MELA" data is copied with no CRC check (RAWSIZE bytes, or what there is), and only
// "LZFu" data has its CRC checked. 1, -9, -1 as above.
//
// An RTF body that encapsulates HTML (IsEncapsulatedHtml) is handed on: the document receives the HTML
// that DeencapsulateHtml recovers, tidied by RewriteConditionalComments and TrimLongDivs, NUL-terminated
// (the NUL counted in its size). A failure of any of those is returned as it is.
int32_t DecompressRtfBuffer(const std::byte* data, size_t size, CountedString& document);

}  // namespace tarn

#endif  // TARN_PST_RENDER_COMPRESSED_RTF_H_
