#include "pst/render/compressed_rtf.h"

#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include "common/crc32.h"
#include "common/little_endian.h"
#include "pst/render/encapsulated_html.h"

namespace tarn {
namespace {

// The dictionary is pre-loaded with this text, and writing starts right after it.
constexpr char kInitialDictionary[] =
    "{\\rtf1\\ansi\\mac\\deff0\\deftab720{\\fonttbl;}{\\f0\\fnil \\froman \\fswiss \\fmodern \\fscript "
    "\\fdecor MS Sans SerifSymbolArialTimes New RomanCourier{\\colortbl\\red0\\green0\\blue0\r\n\\par "
    "\\pard\\plain\\f0\\fs20\\b\\i\\u\\tab\\tx";
constexpr size_t kDictionarySize = sizeof kInitialDictionary - 1;
static_assert(kDictionarySize == 207);
constexpr size_t kRingSize = 4096;

// A control byte and its eight tokens, each a literal byte or a two-byte reference of up to 17
// bytes, produce at most 8 * 17 = 136 bytes from 17 input bytes: no input expands more than eight
// times. A RAWSIZE beyond that cannot be reached before the input runs out, so it is refused before
// anything is allocated.
constexpr uint64_t kMaxExpansion = 8;

struct Header {
    uint32_t comp_size;
    uint32_t raw_size;
    uint32_t comp_type;
    uint32_t crc;
};

Header ReadHeader(const std::byte* data) {
    return Header{LoadLe32(data), LoadLe32(data + 4), LoadLe32(data + 8), LoadLe32(data + 12)};
}

// Decompresses the contents after the header onto the end of `out`, which holds the dictionary text
// and has room reserved for raw_size more bytes, so its data never moves while we append. The loop ends
// by RAWSIZE alone: the end-of-data reference (one that points at the write position) gets no special
// meaning, and padding after it is never reached. -9 when the input runs out first, or a reference
// reaches back before anything was written.
int32_t Decode(std::span<const std::byte> contents, uint32_t raw_size, GrowBuffer& out) {
    ByteCursor in(contents);
    const size_t end = kDictionarySize + raw_size;
    const std::byte* const written = out.data();
    unsigned control = 0;
    uint32_t tokens = 0;
    while (out.length() < end) {
        if (tokens % 8 == 0) {
            auto next = in.Read8();
            if (!next) return kStatusUnsupported;
            control = *next;
        } else {
            control >>= 1;
        }
        ++tokens;
        if ((control & 1) == 0) {
            auto literal = in.Read8();
            if (!literal) return kStatusUnsupported;
            out.AppendByte(*literal);
            continue;
        }
        auto b0 = in.Read8();
        auto b1 = in.Read8();
        if (!b0 || !b1) return kStatusUnsupported;
        const size_t offset = (size_t{*b0} << 4) | (*b1 >> 4);
        const size_t length = (*b1 & 0x0F) + 2u;
        const size_t w = out.length();
        // Ring position `offset` within the current 4096-byte window, or the window before it.
        size_t source = offset + (w & ~(kRingSize - 1));
        if (source >= w) {
            if (source < kRingSize) return kStatusUnsupported;  // before the first byte ever written
            source -= kRingSize;
        }
        // Byte by byte, so that a run may copy what it has itself just written.
        for (size_t i = 0; i < length && out.length() < end; ++i) {
            out.AppendByte(std::to_integer<uint8_t>(written[source++]));
        }
    }
    return kStatusOk;
}

// Allocates the output, decodes into it and moves the RTF (RAWSIZE bytes) into `document`, followed
// in memory by a NUL that the size does not count when `nul_behind` is set.
int32_t DecompressInto(std::span<const std::byte> data, uint32_t raw_size, bool nul_behind,
                       CountedString& document) {
    const auto contents = data.subspan(kRtfHeaderSize);
    if (raw_size > kMaxExpansion * contents.size()) return kStatusUnsupported;
    GrowBuffer out;
    if (out.Init(kDictionarySize + size_t{raw_size} + 1, 0) != kStatusOk) return kStatusFailure;
    if (out.Assign(kInitialDictionary, kDictionarySize) != kStatusOk) return kStatusFailure;
    const int32_t status = Decode(contents, raw_size, out);
    if (status != kStatusOk) return status;
    std::memmove(out.data(), out.data() + kDictionarySize, raw_size);
    out.Truncate(raw_size);
    if (nul_behind) {
        out.AppendByte(0);
        out.Truncate(raw_size);
    }
    out.MoveInto(document);
    return kStatusOk;
}

// Copies `count` bytes into `document` with a NUL behind them that the size does not count.
int32_t CopyInto(const std::byte* bytes, size_t count, CountedString& document) {
    GrowBuffer out;
    if (out.Init(count + 1, 0) != kStatusOk) return kStatusFailure;
    if (out.Assign(bytes, count) != kStatusOk || out.AppendByte(0) != kStatusOk) return kStatusFailure;
    out.Truncate(count);
    out.MoveInto(document);
    return kStatusOk;
}

}  // namespace

uint32_t RtfCrc(const std::byte* data, size_t size) {
    if (size == 0) return 0;
    return Crc32(std::span(data + kRtfHeaderSize, size));
}

int32_t DecompressRtfStream(std::istream& stream, CountedString& document) {
    stream.clear();
    // Set before the first seek: an error of the value's own blocks must reach the caller as itself,
    // not as a fail bit that reads like a short or empty body.
    stream.exceptions(std::ios::badbit);
    stream.seekg(0, std::ios::end);
    const std::streamoff size = stream.tellg();
    stream.seekg(0, std::ios::beg);
    if (size < static_cast<std::streamoff>(kRtfHeaderSize) || !stream) return kStatusUnsupported;
    // A property value never reaches 2 GiB; anything claiming more is damage.
    if (size > std::numeric_limits<int32_t>::max()) return kStatusUnsupported;
    const auto length = static_cast<size_t>(size);

    GrowBuffer input;
    const int32_t read = AppendFromStream(stream, length, input);
    if (read == kStatusShortRead) return kStatusUnsupported;
    if (read != kStatusOk) return kStatusFailure;

    const std::span<const std::byte> data(input.data(), length);
    const Header header = ReadHeader(data.data());
    if (header.comp_size != length - 4) return kStatusUnsupported;
    // Checked for stored data too, although writers store a CRC of 0 there: such bodies are refused.
    if (RtfCrc(data.data(), length - kRtfHeaderSize) != header.crc) return kStatusUnsupported;

    if (header.comp_type == kRtfUncompressed) {
        // Taken as a NUL-terminated string; RAWSIZE plays no part.
        const std::byte* text = data.data() + kRtfHeaderSize;
        const size_t available = length - kRtfHeaderSize;
        const void* nul = std::memchr(text, 0, available);
        const size_t count = nul ? static_cast<size_t>(static_cast<const std::byte*>(nul) - text) : available;
        return CopyInto(text, count, document);
    }
    if (header.comp_type != kRtfCompressed) return kStatusUnsupported;
    return DecompressInto(data, header.raw_size, false, document);
}

int32_t DecompressRtfBuffer(const std::byte* data, size_t size, CountedString& document) {
    if (data == nullptr || size < kRtfHeaderSize) return kStatusUnsupported;
    const Header header = ReadHeader(data);
    if (header.comp_size != size - 4) return kStatusUnsupported;
    CountedString rtf;
    int32_t status = kStatusUnsupported;
    if (header.comp_type == kRtfUncompressed) {
        const uint64_t raw = header.raw_size;
        const size_t count = raw + kRtfHeaderSize < size ? static_cast<size_t>(raw) : size - kRtfHeaderSize;
        status = CopyInto(data + kRtfHeaderSize, count, rtf);
    } else if (header.comp_type == kRtfCompressed) {
        if (RtfCrc(data, size - kRtfHeaderSize) != header.crc) return kStatusUnsupported;
        status = DecompressInto(std::span(data, size), header.raw_size, true, rtf);
    }
    if (status != kStatusOk) return status;
    // A body that encapsulates HTML is handed on as that HTML. A failure there is the call's failure,
    // and leaves the document as it was like any other.
    if (IsEncapsulatedHtml(rtf.text())) {
        status = DeencapsulateHtml(&rtf);
        if (status == kStatusOk) status = RewriteConditionalComments(&rtf);
        if (status == kStatusOk) status = TrimLongDivs(&rtf);
        if (status != kStatusOk) return status;
    }
    document = std::move(rtf);
    return kStatusOk;
}

}  // namespace tarn
