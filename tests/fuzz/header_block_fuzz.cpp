// Both header builders from arbitrary bytes: no crash, no read outside the input, every status one of
// the named ones, the body unchanged whenever a build fails, and nothing left in the kernel.
//
// Input: one byte choosing the builder (bit 7), the body format (bits 0-1) and the language (bits 2-6),
// then NUL-separated pieces: the body, and the From, sender address, representing name, To, Subject,
// Sent, Cc, Bcc and Importance slots in the record's order. Missing pieces are empty.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kernel/tarnkrn_control.h"
#include "platform/font_coverage.h"
#include "pst/render/header_block.h"

namespace {

// A fixed glyph answer keeps runs fast and repeatable: "MS Gothic" covers everything, nothing else does.
bool OnlyGothic(std::u16string_view face, std::u16string_view) { return face == u"MS Gothic"; }

constexpr uint16_t kLanguages[] = {0x0409, 0x0407, 0x0418, 0x040C, 0x0411, 0x0804,
                                   0x0404, 0x0412, 0x2C01, 0x1004, 0x1401, 0x0C07};

std::string Copy(const tarn::CountedString& s) {
    return std::string(reinterpret_cast<const char*>(s.data()), s.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    tarn::platform::SetFaceCoverage(&OnlyGothic);
    const bool english = (data[0] & 0x80) != 0;
    const int32_t format = data[0] & 0x03;
    krnctlSetLanguage(kLanguages[((data[0] >> 2) & 0x1F) % std::size(kLanguages)]);

    tarn::MessageDocument record;
    const char* at = reinterpret_cast<const char*>(data + 1);
    const char* end = reinterpret_cast<const char*>(data + size);
    const auto next_piece = [&](tarn::CountedString& target) {
        const void* nul = std::memchr(at, 0, static_cast<size_t>(end - at));
        const char* stop = nul != nullptr ? static_cast<const char*>(nul) : end;
        if (tarn::AssignBytes(target, at, static_cast<size_t>(stop - at)) != 1) std::abort();
        at = stop < end ? stop + 1 : end;
    };
    tarn::CountedString& body = format == tarn::kBodyPlainText ? record.text_body : record.document;
    next_piece(body);
    for (tarn::CountedString& slot : record.header) next_piece(slot);

    const std::string before = Copy(body);
    const int32_t status =
        english ? tarn::BuildEnglishHeader(record, format) : tarn::BuildLocalizedHeader(record, format);
    if (status != 1 && status != -9 && status != -1 && status != -13 && status != -1851) std::abort();
    if (status != 1 && Copy(body) != before) std::abort();
    tarn::platform::SetFaceCoverage(nullptr);
    return 0;
}
