#include "platform/font_coverage.h"

#include <fontconfig/fontconfig.h>
#include <unicode/utf16.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "platform/unicode.h"

namespace tarn::platform {
namespace {

using namespace std::string_view_literals;

// Liberation and its Croscore twins are metric copies of the Microsoft core faces; DejaVu Sans has
// Tahoma's and Verdana's reach (Latin, Greek, Cyrillic, Hebrew, Arabic); the Noto CJK families are
// split by region as the Windows faces are.
constexpr std::string_view kSans[] = {"Liberation Sans"sv, "Arimo"sv};
constexpr std::string_view kSerif[] = {"Liberation Serif"sv, "Tinos"sv};
constexpr std::string_view kMono[] = {"Liberation Mono"sv, "Cousine"sv};
constexpr std::string_view kWideSans[] = {"DejaVu Sans"sv};
constexpr std::string_view kSymbol[] = {"Standard Symbols PS"sv, "OpenSymbol"sv};
constexpr std::string_view kJapaneseSans[] = {"Noto Sans CJK JP"sv};
constexpr std::string_view kJapaneseSerif[] = {"Noto Serif CJK JP"sv};
constexpr std::string_view kSimplifiedSans[] = {"Noto Sans CJK SC"sv};
constexpr std::string_view kSimplifiedSerif[] = {"Noto Serif CJK SC"sv};
constexpr std::string_view kTraditionalSans[] = {"Noto Sans CJK TC"sv};
constexpr std::string_view kTraditionalSerif[] = {"Noto Serif CJK TC"sv};
constexpr std::string_view kKoreanSans[] = {"Noto Sans CJK KR"sv};
constexpr std::string_view kKoreanSerif[] = {"Noto Serif CJK KR"sv};
constexpr std::string_view kArabic[] = {"Noto Naskh Arabic"sv, "Noto Sans Arabic"sv, "Amiri"sv, "KacstOne"sv};
constexpr std::string_view kHebrew[] = {"Noto Sans Hebrew"sv, "Noto Serif Hebrew"sv};
constexpr std::string_view kThai[] = {"Noto Sans Thai"sv, "Noto Serif Thai"sv};

constexpr FaceFamilies kFaces[] = {
    {"Arial"sv, kSans},
    {"Helvetica"sv, kSans},
    {"Calibri"sv, kSans},
    {"Times New Roman"sv, kSerif},
    {"Cambria"sv, kSerif},
    {"Courier New"sv, kMono},
    {"Tahoma"sv, kWideSans},
    {"Verdana"sv, kWideSans},
    {"Segoe UI"sv, kWideSans},
    {"Arial Unicode MS"sv, kJapaneseSans},
    {"Symbol"sv, kSymbol},
    {"MS Gothic"sv, kJapaneseSans},
    {"MS PGothic"sv, kJapaneseSans},
    {"MS UI Gothic"sv, kJapaneseSans},
    {"Meiryo"sv, kJapaneseSans},
    {"Yu Gothic"sv, kJapaneseSans},
    {"MS Mincho"sv, kJapaneseSerif},
    {"MS PMincho"sv, kJapaneseSerif},
    {"SimHei"sv, kSimplifiedSans},
    {"Microsoft YaHei"sv, kSimplifiedSans},
    {"SimSun"sv, kSimplifiedSerif},
    {"NSimSun"sv, kSimplifiedSerif},
    {"Microsoft JhengHei"sv, kTraditionalSans},
    {"MingLiU"sv, kTraditionalSerif},
    {"PMingLiU"sv, kTraditionalSerif},
    {"Gulim"sv, kKoreanSans},
    {"GulimChe"sv, kKoreanSans},
    {"Dotum"sv, kKoreanSans},
    {"Malgun Gothic"sv, kKoreanSans},
    {"Batang"sv, kKoreanSerif},
    {"BatangChe"sv, kKoreanSerif},
    {"Gungsuh"sv, kKoreanSerif},
    {"Traditional Arabic"sv, kArabic},
    {"Simplified Arabic"sv, kArabic},
    {"Arabic Typesetting"sv, kArabic},
    {"Sakkal Majalla"sv, kArabic},
    {"Andalus"sv, kArabic},
    {"David"sv, kHebrew},
    {"Miriam"sv, kHebrew},
    {"Cordia New"sv, kThai},
    {"Angsana New"sv, kThai},
};

char FoldAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// The installed font `family` names exactly (ignoring case), or null. Requires: the cache's mutex.
FcCharSet* InstalledCharset(const std::string& family) {
    FcPattern* pattern = FcPatternCreate();
    if (pattern == nullptr) return nullptr;
    FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(family.c_str()));
    FcConfigSubstitute(nullptr, pattern, FcMatchPattern);
    FcDefaultSubstitute(pattern);
    FcResult result = FcResultNoMatch;
    FcPattern* match = FcFontMatch(nullptr, pattern, &result);
    FcPatternDestroy(pattern);
    if (match == nullptr) return nullptr;
    // fontconfig always offers something; only a font that carries the family's own name counts.
    bool named = false;
    FcChar8* name = nullptr;
    for (int i = 0; !named && FcPatternGetString(match, FC_FAMILY, i, &name) == FcResultMatch; ++i) {
        named = FcStrCmpIgnoreCase(name, reinterpret_cast<const FcChar8*>(family.c_str())) == 0;
    }
    FcCharSet* charset = nullptr;
    if (named && FcPatternGetCharSet(match, FC_CHARSET, 0, &charset) == FcResultMatch) {
        charset = FcCharSetCopy(charset);
    } else {
        charset = nullptr;
    }
    FcPatternDestroy(match);
    return charset;
}

struct CoverageCache {
    std::mutex mutex;
    bool initialised = false;
    // Keyed by the face folded to lower case; null for a face that resolves to nothing. The character
    // sets stay for the life of the process.
    std::map<std::string, FcCharSet*> faces;
    uint64_t resolutions = 0;
};

CoverageCache& Cache() {
    static CoverageCache* cache = new CoverageCache;  // never destroyed: answers may come from destructors
    return *cache;
}

// Requires: the cache's mutex.
FcCharSet* Resolve(CoverageCache& cache, const std::string& face) {
    std::string key;
    for (char c : face) key.push_back(FoldAscii(c));
    if (auto it = cache.faces.find(key); it != cache.faces.end()) return it->second;
    if (!cache.initialised) cache.initialised = FcInit() == FcTrue;
    ++cache.resolutions;
    FcCharSet* charset = nullptr;
    if (cache.initialised) {
        bool known = false;
        for (const FaceFamilies& entry : kFaces) {
            if (!SameFaceName(entry.face, face)) continue;
            known = true;
            for (std::string_view family : entry.families) {
                charset = InstalledCharset(std::string(family));
                if (charset != nullptr) break;
            }
            break;
        }
        if (!known) charset = InstalledCharset(face);
    }
    cache.faces.emplace(std::move(key), charset);
    return charset;
}

std::atomic<FaceCoverageFn> current_answer{nullptr};

}  // namespace

bool SameFaceName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (FoldAscii(a[i]) != FoldAscii(b[i])) return false;
    }
    return true;
}

std::span<const FaceFamilies> KnownFaces() { return kFaces; }

FaceCoverageFn SetFaceCoverage(FaceCoverageFn answer) {
    FaceCoverageFn previous = current_answer.exchange(answer);
    return previous != nullptr ? previous : &FontconfigCovers;
}

bool FaceCovers(std::u16string_view face, std::u16string_view text) {
    FaceCoverageFn answer = current_answer.load();
    return answer != nullptr ? answer(face, text) : FontconfigCovers(face, text);
}

bool FontconfigCovers(std::u16string_view face, std::u16string_view text) {
    std::optional<std::string> name = Utf8FromUtf16(face);
    if (!name || name->empty() || text.size() > static_cast<size_t>(INT32_MAX)) return false;
    CoverageCache& cache = Cache();
    std::lock_guard lock(cache.mutex);
    FcCharSet* charset = Resolve(cache, *name);
    if (charset == nullptr) return false;
    const int32_t units = static_cast<int32_t>(text.size());
    for (int32_t at = 0; at < units;) {
        UChar32 c;
        U16_NEXT(text.data(), at, units, c);
        if (U_IS_SURROGATE(c) || !FcCharSetHasChar(charset, static_cast<FcChar32>(c))) return false;
    }
    return true;
}

uint64_t FontconfigResolutions() {
    CoverageCache& cache = Cache();
    std::lock_guard lock(cache.mutex);
    return cache.resolutions;
}

}  // namespace tarn::platform

// GCC says so with __SANITIZE_ADDRESS__, clang (before 16) only through __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define TARN_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(TARN_ADDRESS_SANITIZER)
// fontconfig keeps pieces of its parsed configuration for the life of the process, with nothing left
// pointing at them; the leak checker would blame every program that asks it anything.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
#endif
