// Whether an installed font has glyphs for a run of text: the question behind the glyph test of the
// header's RTF text. Windows face names (what RTF font tables and the filter name) are resolved to the
// installed families that stand in for them, and the question goes to fontconfig.
#ifndef TARN_PLATFORM_FONT_COVERAGE_H_
#define TARN_PLATFORM_FONT_COVERAGE_H_

#include <cstdint>
#include <span>
#include <string_view>

namespace tarn::platform {

// A Windows face name and the installed families that stand in for it, most wanted first.
struct FaceFamilies {
    std::string_view face;
    std::span<const std::string_view> families;
};

// True iff two face names are equal without regard to ASCII case, as Windows compares them.
bool SameFaceName(std::string_view a, std::string_view b);

// The table of Windows faces we know. Face names compare without regard to ASCII case, as Windows
// compares them.
std::span<const FaceFamilies> KnownFaces();

// The question itself: true iff the font that `face` resolves to has a glyph for every character of
// `text` (UTF-16; a surrogate pair is one character, an unpaired surrogate is never covered). Empty
// text is covered by any face that resolves.
using FaceCoverageFn = bool (*)(std::u16string_view face, std::u16string_view text);

// Replaces the answer for the whole process (tests give a fixed one); null restores fontconfig's.
// Returns the function that answered before.
FaceCoverageFn SetFaceCoverage(FaceCoverageFn answer);

// Asks the current answer (fontconfig's unless replaced).
bool FaceCovers(std::u16string_view face, std::u16string_view text);

// Fontconfig's answer. A face in the table resolves to the first of its families that is installed; any
// other face to the installed family of that very name. A face that resolves to nothing covers nothing:
// no installed font is silently taken for a face the system lacks. Each face's character set is looked
// up once and kept for the life of the process, so text with many runs costs one lookup a face.
bool FontconfigCovers(std::u16string_view face, std::u16string_view text);

// How many faces fontconfig has been asked to resolve so far (for tests of the cache).
uint64_t FontconfigResolutions();

}  // namespace tarn::platform

#endif  // TARN_PLATFORM_FONT_COVERAGE_H_
