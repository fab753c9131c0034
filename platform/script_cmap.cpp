#include "platform/script_cmap.h"

#include <string_view>

#include "platform/font_coverage.h"

namespace tarn::platform {
namespace {

// What a cache points at once it has been used. Coverage is kept per face by FaceCovers itself, so the
// cache needs no state of its own; it only has to look used, as the caller may check.
char cache_token;

}  // namespace

krn_font SelectObject(krn_dc dc, krn_font font) { return krnSelectFont(dc, font); }

int32_t ScriptGetCMap(krn_dc dc, ScriptCache* cache, const char16_t* chars, int count, uint32_t flags,
                      uint16_t* glyphs) {
    if (cache == nullptr || chars == nullptr || glyphs == nullptr || count < 1 || flags != 0) {
        return kScriptBadArgument;
    }
    char16_t face[KRN_FACE_SIZE];
    const int32_t face_units = krnSelectedFace(dc, face, KRN_FACE_SIZE);
    if (face_units < 0) return kScriptBadHandle;
    *cache = &cache_token;
    const std::u16string_view name(face, static_cast<size_t>(face_units));
    const std::u16string_view text(chars, static_cast<size_t>(count));
    if (FaceCovers(name, text)) {
        for (int i = 0; i < count; ++i) glyphs[i] = 1;
        return kScriptOk;
    }
    // Some character is missing: find which, one character (a pair is one) at a time.
    for (int i = 0; i < count;) {
        const int units =
            i + 1 < count && (chars[i] & 0xFC00) == 0xD800 && (chars[i + 1] & 0xFC00) == 0xDC00 ? 2 : 1;
        const uint16_t glyph =
            FaceCovers(name, text.substr(static_cast<size_t>(i), static_cast<size_t>(units))) ? 1 : 0;
        for (int j = 0; j < units; ++j) glyphs[i + j] = glyph;
        i += units;
    }
    return kScriptSomeMissing;
}

int32_t ScriptFreeCache(ScriptCache* cache) {
    if (cache == nullptr) return kScriptBadArgument;
    *cache = nullptr;
    return kScriptOk;
}

}  // namespace tarn::platform
