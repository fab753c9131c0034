// Builds compressed-RTF data byte by byte for tests: a header whose fields can each be set or left to
// be computed, and contents made of runs of literal and reference tokens.
#ifndef TARN_TESTS_SUPPORT_RTF_WRITER_H_
#define TARN_TESTS_SUPPORT_RTF_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "common/crc32.h"

namespace tarn::testing {

// One token of a run: a literal byte, or a reference to (ring offset, length 2..17).
struct RtfReference {
    uint16_t offset;
    uint8_t length;
};
using RtfToken = std::variant<char, RtfReference>;

// Packs tokens into runs of a control byte and up to eight tokens.
inline std::string RtfRuns(const std::vector<RtfToken>& tokens) {
    std::string out;
    for (size_t start = 0; start < tokens.size(); start += 8) {
        const size_t control_at = out.size();
        out.push_back('\0');
        uint8_t control = 0;
        for (size_t i = start; i < tokens.size() && i < start + 8; ++i) {
            if (const char* c = std::get_if<char>(&tokens[i])) {
                out.push_back(*c);
            } else {
                const auto& ref = std::get<RtfReference>(tokens[i]);
                control |= static_cast<uint8_t>(1u << (i - start));
                const uint16_t word = static_cast<uint16_t>((ref.offset << 4) | ((ref.length - 2) & 0x0F));
                out.push_back(static_cast<char>(word >> 8));  // references are big-endian
                out.push_back(static_cast<char>(word & 0xFF));
            }
        }
        out[control_at] = static_cast<char>(control);
    }
    return out;
}

// Literal tokens for every byte of `text`.
inline std::vector<RtfToken> RtfLiterals(std::string_view text) { return {text.begin(), text.end()}; }

struct RtfHeader {
    std::optional<uint32_t> comp_size = std::nullopt;  // default: contents size + 12
    std::optional<uint32_t> raw_size = std::nullopt;   // default: contents size (right for stored data)
    uint32_t comp_type = 0x75465A4C;                   // "LZFu"; 0x414C454D is "MELA"
    std::optional<uint32_t> crc = std::nullopt;        // default: the CRC of the contents
};

inline std::string CompressedRtf(std::string_view contents, const RtfHeader& header = {}) {
    auto put32 = [](std::string& s, uint32_t v) {
        for (int i = 0; i < 4; ++i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    };
    std::string out;
    put32(out, header.comp_size.value_or(static_cast<uint32_t>(contents.size() + 12)));
    put32(out, header.raw_size.value_or(static_cast<uint32_t>(contents.size())));
    put32(out, header.comp_type);
    put32(out, header.crc.value_or(Crc32(std::as_bytes(std::span(contents.data(), contents.size())))));
    out.append(contents);
    return out;
}

}  // namespace tarn::testing

#endif  // TARN_TESTS_SUPPORT_RTF_WRITER_H_
