// Character-set handling from arbitrary bytes. The first byte selects the routine, the rest is its
// input; selectors that no routine uses return at once, so that new routines take new selectors and the
// committed seeds of the old ones keep their meaning:
//
//   0  DecodeIso2022Jp: the next byte is the start offset, the rest the body
//   1  ConvertToUtf8: of the next byte, bit 0 is the rewrite flag, bits 1-3 pick a code page from a
//      short list and bits 4-7 (modulo 9) the charset code; a declaration in the body overrides both
//   2  EnsureUtf8Meta
//
// Whatever the input, nothing may crash, read outside a buffer or be left in the kernel, and a failed
// call must leave its body as it was.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "pst/render/charset.h"
#include "pst/render/iso2022jp.h"
#include "pst/render/text_buffer.h"
#include "tests/fuzz/leak_check.h"
#include "tests/support/counted_text.h"

namespace {

constexpr uint8_t kSelectIso2022Jp = 0;
constexpr uint8_t kSelectConvertToUtf8 = 1;
constexpr uint8_t kSelectEnsureUtf8Meta = 2;

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
        default:
            return 0;
    }
    tarn::fuzz::AbortOnKernelLeak();
    return 0;
}
