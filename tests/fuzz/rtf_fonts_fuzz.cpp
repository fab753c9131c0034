// RTF font tables and header text from arbitrary bytes: no crash, no read outside the input, every
// status one of the named ones, and nothing left in the kernel.
//
// Input: one byte choosing the document's code page, then the font-table text, a NUL, and UTF-8 text
// written with EncodeRtfText into the table that was read (or into an empty one when it did not parse).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/font_coverage.h"
#include "pst/render/rtf_fonts.h"
#include "pst/render/rtf_text.h"

namespace {

// A fixed glyph answer keeps runs fast and repeatable: fontconfig would be asked about every face the
// input invents. Faces of an odd length cover text without units from 0x8000 on; others cover nothing.
bool FixedCoverage(std::u16string_view face, std::u16string_view text) {
    if (face.size() % 2 == 0) return false;
    for (char16_t unit : text) {
        if (unit >= 0x8000) return false;
    }
    return true;
}

constexpr uint32_t kCodePages[] = {0, 1252, 932, 1250, 1256, 99999, 936, 42};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    tarn::platform::SetFaceCoverage(&FixedCoverage);
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    const size_t rest = size - 1;
    const void* nul = std::memchr(bytes, 0, rest);
    const size_t table_length =
        nul != nullptr ? static_cast<size_t>(static_cast<const char*>(nul) - bytes) : rest;

    tarn::RtfFontTable table;
    const char* position = bytes;
    const int32_t parsed = tarn::ParseFontTable(table, position, bytes + table_length);
    if (parsed != 1 && parsed != -9 && parsed != -1) std::abort();
    if (parsed == 1 && (position < bytes || position > bytes + table_length)) std::abort();
    table.document_code_page = kCodePages[data[0] % std::size(kCodePages)];

    if (nul != nullptr) {
        tarn::GrowBuffer out;
        out.Init(0, 256);
        tarn::RtfTextState state{&out, &table, data[0] >= 128 ? tarn::kNoFont : 0};
        const char* text = bytes + table_length + 1;
        const int32_t status = tarn::EncodeRtfText(state, text, rest - table_length - 1);
        if (status != 1 && status != -13 && status != -1) std::abort();
    }
    return 0;
}
