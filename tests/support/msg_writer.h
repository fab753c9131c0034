// Builds Outlook message files for tests on top of the compound-file writer: string properties as
// "__substg1.0_XXXX001F" (UTF-16LE) or "001E" (8-bit) streams, the fixed-length property stream and
// numbered attachment storages, every byte chosen by the test so that damage can be made on purpose.
#ifndef TARN_TESTS_SUPPORT_MSG_WRITER_H_
#define TARN_TESTS_SUPPORT_MSG_WRITER_H_

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/cfb_writer.h"
#include "tests/support/rtf_writer.h"

namespace tarn::test {

// An ASCII name as the UTF-16 a directory entry holds.
inline std::u16string MsgName(std::string_view ascii) { return {ascii.begin(), ascii.end()}; }

inline std::vector<uint8_t> MsgBytes(std::string_view bytes) { return {bytes.begin(), bytes.end()}; }

inline std::vector<uint8_t> Utf16LeBytes(std::u16string_view text) {
    std::vector<uint8_t> out;
    for (const char16_t unit : text) {
        out.push_back(static_cast<uint8_t>(unit & 0xFF));
        out.push_back(static_cast<uint8_t>(unit >> 8));
    }
    return out;
}

// "__substg1.0_" + `id` (four hex digits) + "001F", holding `text` as UTF-16LE.
inline CfbNode UnicodeProperty(std::string_view id, std::u16string_view text) {
    return CfbNode::Stream(MsgName("__substg1.0_" + std::string(id) + "001F"), Utf16LeBytes(text));
}

// "__substg1.0_" + `id` + "001E", holding `bytes` as they are.
inline CfbNode EightBitProperty(std::string_view id, std::string_view bytes) {
    return CfbNode::Stream(MsgName("__substg1.0_" + std::string(id) + "001E"), MsgBytes(bytes));
}

// The compressed-RTF body holding `contents` stored as they are ("MELA", with the CRC field 0 as writers
// store it).
inline CfbNode StoredRtfBody(std::string_view contents) {
    return CfbNode::Stream(u"__substg1.0_10090102",
                           MsgBytes(testing::CompressedRtf(contents, {.comp_type = 0x414C454D, .crc = 0})));
}

// The compressed-RTF body holding `rtf` compressed ("LZFu") as literal tokens only; RAWSIZE is the RTF's
// size unless `header` says otherwise.
inline CfbNode CompressedRtfBody(std::string_view rtf, testing::RtfHeader header = {}) {
    if (!header.raw_size) header.raw_size = static_cast<uint32_t>(rtf.size());
    return CfbNode::Stream(
        u"__substg1.0_10090102",
        MsgBytes(testing::CompressedRtf(testing::RtfRuns(testing::RtfLiterals(rtf)), header)));
}

// One entry of the fixed-length property stream.
struct MsgFixedProperty {
    uint16_t type;
    uint16_t id;
    uint64_t value;
};

// The property stream: `header_size` zero bytes (32 for a message's top level), then 16-byte entries.
// `cut` bytes are removed from the end, to leave a partial entry.
inline std::vector<uint8_t> PropertyStreamBytes(const std::vector<MsgFixedProperty>& entries,
                                                size_t header_size = 32, size_t cut = 0) {
    std::vector<uint8_t> out(header_size, 0);
    auto put = [&out](uint64_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    };
    for (const MsgFixedProperty& e : entries) {
        put(e.type, 2);
        put(e.id, 2);
        put(0x6, 4);  // readable and writable, as writers set it
        put(e.value, 8);
    }
    out.resize(out.size() - cut);
    return out;
}

inline CfbNode PropertyStream(std::vector<uint8_t> bytes) {
    return CfbNode::Stream(MsgName("__properties_version1.0"), std::move(bytes));
}

inline std::string AttachmentName(uint32_t number) {
    char name[40];
    std::snprintf(name, sizeof name, "__attach_version1.0_#%08X", number);
    return name;
}

inline CfbNode AttachmentStorage(uint32_t number, std::vector<CfbNode> children) {
    return CfbNode::Storage(MsgName(AttachmentName(number)), std::move(children));
}

// A message file whose root holds `children`.
inline CfbImage BuildMsg(std::vector<CfbNode> children, const CfbOptions& options = {}) {
    return BuildCfb(CfbNode::Storage(u"Root Entry", std::move(children)), options);
}

}  // namespace tarn::test

#endif  // TARN_TESTS_SUPPORT_MSG_WRITER_H_
