// Stand-ins for the drawing and script calls of the glyph test: selecting a font into a device context
// (GDI's SelectObject), asking whether the selected font has glyphs for a run (Uniscribe's
// ScriptGetCMap) and dropping the script cache (ScriptFreeCache). Fonts and device contexts come from
// the kernel; the answer comes from FaceCovers.
#ifndef TARN_PLATFORM_SCRIPT_CMAP_H_
#define TARN_PLATFORM_SCRIPT_CMAP_H_

#include <cstdint>

#include "kernel/tarnkrn.h"

namespace tarn::platform {

// The results of the script calls, with their Windows values.
constexpr int32_t kScriptOk = 0;                                         // S_OK: every character has a glyph
constexpr int32_t kScriptSomeMissing = 1;                                // S_FALSE: some characters have none
constexpr int32_t kScriptBadHandle = static_cast<int32_t>(0x80070006u);  // E_HANDLE
constexpr int32_t kScriptBadArgument = static_cast<int32_t>(0x80070057u);  // E_INVALIDARG

// Opaque per-font data the script calls keep between calls; starts null.
using ScriptCache = void*;

// Selects `font` into `dc`; the font selected before, or null when either is not the kernel's.
krn_font SelectObject(krn_dc dc, krn_font font);

// Fills glyphs[count] for chars[count] from the font selected into `dc`: 0 (the default glyph) for a
// unit the font has no glyph for, and a non-zero stand-in index otherwise (the indices are not the
// font's own; only "zero or not" means anything here). kScriptOk when none is 0, kScriptSomeMissing when
// some are; kScriptBadArgument for a null cache, characters or glyphs, a count below 1 or flags other
// than 0; kScriptBadHandle for a device context the kernel did not hand out.
int32_t ScriptGetCMap(krn_dc dc, ScriptCache* cache, const char16_t* chars, int count, uint32_t flags,
                      uint16_t* glyphs);

// Frees what ScriptGetCMap kept in *cache and sets it to null. kScriptBadArgument for a null cache.
int32_t ScriptFreeCache(ScriptCache* cache);

}  // namespace tarn::platform

#endif  // TARN_PLATFORM_SCRIPT_CMAP_H_
