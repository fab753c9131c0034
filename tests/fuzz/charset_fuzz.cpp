// Character-set handling from arbitrary bytes. The first byte selects the routine, the rest is its
// input; selectors that no routine uses return at once, so that new routines take new selectors and the
// committed seeds of the old ones keep their meaning:
//
//   0  DecodeIso2022Jp: the next byte is the start offset, the rest the body
//   1  ConvertToUtf8: of the next byte, bit 0 is the rewrite flag, bits 1-3 pick a code page from a
//      short list and bits 4-7 (modulo 9) the charset code; a declaration in the body overrides both
//   2  EnsureUtf8Meta
//   3  ParseFontTable, then EncodeRtfText: the next byte picks the document's code page from a short
//      list (and, from 128 on, starts without a current font); the rest is a font table, a NUL and UTF-8
//      text written into the table that was read (or into an empty one when it did not parse)
//
// Whatever the input, nothing may crash, read outside a buffer or be left in the kernel, and a failed
// call must leave its body as it was.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/font_coverage.h"
#include "pst/render/charset.h"
#include "pst/render/iso2022jp.h"
#include "pst/render/rtf_fonts.h"
#include "pst/render/rtf_text.h"
#include "pst/render/text_buffer.h"
#include "tests/fuzz/leak_check.h"
#include "tests/support/counted_text.h"

namespace {

constexpr uint8_t kSelectIso2022Jp = 0;
constexpr uint8_t kSelectConvertToUtf8 = 1;
constexpr uint8_t kSelectEnsureUtf8Meta = 2;
constexpr uint8_t kSelectRtfFonts = 3;

// Code pages a "windows-" declaration could name: common ones, stateful ones, a wide one, and one
// that nothing converts.
constexpr int32_t kCodePages[8] = {1252, 1251, 932, 950, 50220, 65000, 1200, 1234};

// Runs `edit` on a copy of `input`; a failure must leave the copy untouched.
template <typename Edit>
void Check(std::string_view input, Edit edit) {
    tarn::CountedString body = tarn::testing::Counted(input);
    if (edit(&body) == tarn::kStatusOk) return;
    const std::string_view after(reinterpret_cast<const char*>(body.data()), body.size());
    if (after != input) {
        std::fprintf(stderr, "a failed conversion changed its body\n");
        std::abort();
    }
}

// A fixed glyph answer keeps runs fast and repeatable: fontconfig would be asked about every face the
// input invents. Faces of an odd length cover text without units from 0x8000 on; others cover nothing.
bool FixedCoverage(std::u16string_view face, std::u16string_view text) {
    if (face.size() % 2 == 0) return false;
    for (char16_t unit : text) {
        if (unit >= 0x8000) return false;
    }
    return true;
}

// Document code pages: usual ones, one of the two deliberately unusable ones, Symbol, and one that
// nothing converts.
constexpr uint32_t kDocumentCodePages[8] = {0, 1252, 932, 1250, 1256, 99999, 936, 42};

void CheckRtfFonts(uint8_t parameter, std::string_view input) {
    tarn::platform::SetFaceCoverage(&FixedCoverage);
    const size_t nul = input.find('\0');
    const std::string_view table_text = input.substr(0, nul);

    tarn::RtfFontTable table;
    const char* position = table_text.data();
    const int32_t parsed = tarn::ParseFontTable(table, position, table_text.data() + table_text.size());
    if (parsed != tarn::kStatusOk && parsed != tarn::kStatusUnsupported && parsed != tarn::kStatusFailure) {
        std::abort();
    }
    if (parsed == tarn::kStatusOk &&
        (position < table_text.data() || position > table_text.data() + table_text.size())) {
        std::abort();
    }
    if (nul == std::string_view::npos) return;
    table.document_code_page = kDocumentCodePages[parameter & 0x07];
    tarn::GrowBuffer out;
    out.Init(0, 256);
    tarn::RtfTextState state{&out, &table, parameter >= 128 ? tarn::kNoFont : 0};
    const std::string_view text = input.substr(nul + 1);
    const int32_t status = tarn::EncodeRtfText(state, text.data(), text.size());
    if (status != tarn::kStatusOk && status != tarn::kStatusBadArgument && status != tarn::kStatusFailure) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint8_t selector = data[0];
    const uint8_t parameter = data[1];
    const std::string_view rest(reinterpret_cast<const char*>(data + 2), size - 2);
    switch (selector) {
        case kSelectIso2022Jp:
            Check(rest, [&](tarn::CountedString* body) { return tarn::DecodeIso2022Jp(body, parameter); });
            break;
        case kSelectConvertToUtf8: {
            tarn::CharsetCode charset{(parameter >> 4) % (tarn::kCharsetOther + 1),
                                      kCodePages[parameter >> 1 & 0x07]};
            tarn::FindCharsetDeclaration(rest, &charset);
            const bool rewrite = (parameter & 1) != 0;
            Check(rest,
                  [&](tarn::CountedString* body) { return tarn::ConvertToUtf8(body, &charset, rewrite); });
            break;
        }
        case kSelectEnsureUtf8Meta:
            Check(rest, [](tarn::CountedString* body) { return tarn::EnsureUtf8Meta(body); });
            break;
        case kSelectRtfFonts:
            CheckRtfFonts(parameter, rest);
            break;
        default:
            return 0;
    }
    tarn::fuzz::AbortOnKernelLeak();
    return 0;
}
