// The glyph test's platform side: fontconfig's answer for Windows faces through the face table, its
// cache, and the script stand-ins over the kernel's fonts and device contexts.
#include "platform/font_coverage.h"

#include <gtest/gtest.h>

#include <string>

#include "kernel/tarnkrn.h"
#include "platform/script_cmap.h"

namespace tarn::platform {
namespace {

// The fonts these cases rely on come with scripts/deps.sh test.
TEST(FontCoverage, FontconfigAnswersForWindowsFaces) {
    struct Case {
        std::u16string face;
        std::u16string text;
        bool covered;
    };
    const Case cases[] = {
        {u"Arial", u"Hello, World", true},
        {u"arial", u"\u00c4\u00e9\u00df", true},                  // faces compare without case
        {u"Arial", u"\u65e5\u672c\u8a9e", false},                 // Liberation Sans has no kanji
        {u"MS Gothic", u"\u5dee\u51fa\u4eba\u3042\u30a2", true},  // kanji, hiragana, katakana
        {u"SimSun", u"\u53d1\u4ef6\u4eba", true},
        {u"Batang", u"\ubcf4\ub0b8 \uc0ac\ub78c", true},
        {u"Gulim", u"\ubcf4\ub0b8", true},
        {u"Traditional Arabic", u"\u0627\u0644\u0645\u0648\u0636\u0648\u0639", true},
        {u"Arial", u"\u0627\u0644\u0645", false},
        {u"Tahoma", u"\u0627\u0644\u0645 \u05e9\u05dc\u05d5\u05dd", true},  // DejaVu Sans: Arabic and Hebrew
        {u"MS Gothic", u"\U00020B9F", true},  // a character beyond the BMP, as a pair
        {u"MS Gothic", u"\xD842", false},     // an unpaired surrogate is never covered
        {u"Liberation Serif", u"abc", true},  // an installed family by its own name
        {u"No Such Face", u"abc", false},     // no installed font is taken in its place
        {u"", u"abc", false},
        {u"Arial", u"", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(FontconfigCovers(c.face, c.text), c.covered)
            << std::string(c.face.begin(), c.face.end()) << " / " << c.text.size() << " units";
    }
}

TEST(FontCoverage, EveryFaceOfTheTableResolvesToAnInstalledFont) {
    // Catches a family misspelt in the table, or a font package missing from the test set. "Symbol"
    // has a stand-in only where an office suite brings its own symbol font, so it is not asked about.
    for (const FaceFamilies& entry : KnownFaces()) {
        const std::u16string face(entry.face.begin(), entry.face.end());
        if (entry.face == "Symbol") continue;
        EXPECT_TRUE(FontconfigCovers(face, u"")) << entry.face;
    }
}

TEST(FontCoverage, EachFaceIsResolvedOnce) {
    const uint64_t before = FontconfigResolutions();
    // A face no other case asks about: the cache lives as long as the process.
    EXPECT_TRUE(FontconfigCovers(u"Noto Serif CJK JP", u"\u6f22"));
    EXPECT_EQ(FontconfigResolutions(), before + 1);
    for (int i = 0; i < 50; ++i) {
        FontconfigCovers(u"Noto Serif CJK JP", u"\u3042");
        FontconfigCovers(u"noto serif cjk jp", u"abc");
    }
    EXPECT_FALSE(FontconfigCovers(u"Missing Face 7", u"a"));
    EXPECT_FALSE(FontconfigCovers(u"Missing Face 7", u"b"));  // a face without a font is remembered too
    EXPECT_EQ(FontconfigResolutions(), before + 2);
}

// Answers by a rule instead of by fonts: "Latin" has ASCII only, "Wide" everything but U+FFFF.
bool FixedAnswer(std::u16string_view face, std::u16string_view text) {
    for (char16_t unit : text) {
        if (face == u"Latin" && unit >= 0x80) return false;
        if (face == u"Wide" && unit == 0xFFFF) return false;
        if (face != u"Latin" && face != u"Wide") return false;
    }
    return true;
}

TEST(FontCoverage, ScriptCMapAsksAboutTheSelectedFont) {
    SetFaceCoverage(&FixedAnswer);
    KrnFontDescription description{};
    std::u16string(u"Latin").copy(description.face_name, KRN_FACE_SIZE - 1);
    krn_font font = krnCreateFont(&description);
    krn_dc dc = krnScreenDc();
    krn_font previous = SelectObject(dc, font);
    ASSERT_NE(previous, nullptr);

    ScriptCache cache = nullptr;
    uint16_t glyphs[5] = {9, 9, 9, 9, 9};
    EXPECT_EQ(ScriptGetCMap(dc, &cache, u"ab", 2, 0, glyphs), kScriptOk);
    EXPECT_NE(cache, nullptr);
    EXPECT_TRUE(glyphs[0] != 0 && glyphs[1] != 0);
    const char16_t mixed[] = u"a\u00e9\U00010000b";
    EXPECT_EQ(ScriptGetCMap(dc, &cache, mixed, 5, 0, glyphs), kScriptSomeMissing);
    EXPECT_NE(glyphs[0], 0);
    EXPECT_EQ(glyphs[1], 0);
    EXPECT_EQ(glyphs[2], 0);  // both units of a pair share its answer
    EXPECT_EQ(glyphs[3], 0);
    EXPECT_NE(glyphs[4], 0);

    EXPECT_EQ(ScriptGetCMap(dc, nullptr, u"a", 1, 0, glyphs), kScriptBadArgument);
    EXPECT_EQ(ScriptGetCMap(dc, &cache, u"a", 0, 0, glyphs), kScriptBadArgument);
    EXPECT_EQ(ScriptGetCMap(dc, &cache, u"a", 1, 2, glyphs), kScriptBadArgument);
    EXPECT_EQ(ScriptGetCMap(dc, &cache, u"a", 1, 0, nullptr), kScriptBadArgument);
    EXPECT_EQ(ScriptFreeCache(&cache), kScriptOk);
    EXPECT_EQ(cache, nullptr);

    EXPECT_EQ(SelectObject(dc, previous), font);
    EXPECT_EQ(krnDeleteFont(font), 1);
    EXPECT_EQ(krnReleaseScreenDc(dc), 1);
    EXPECT_EQ(ScriptGetCMap(dc, &cache, u"a", 1, 0, glyphs), kScriptBadHandle);  // released

    // Putting fontconfig back: the fixed answer knows no "Arial".
    EXPECT_EQ(SetFaceCoverage(nullptr), &FixedAnswer);
    EXPECT_TRUE(FaceCovers(u"Arial", u"abc"));
}

}  // namespace
}  // namespace tarn::platform
