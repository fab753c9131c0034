// The code-page stand-ins against the published code-page charts, and their Windows calling contracts:
// size queries, too-small buffers, -1 lengths, default-character reporting and unknown code pages.
#include "platform/codepage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarn::platform {
namespace {

std::u16string ToWide(uint32_t code_page, std::string_view bytes, uint32_t flags = 0) {
    const int needed =
        MultiByteToWideChar(code_page, flags, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    if (needed <= 0) return u"<failed>";
    std::u16string out(static_cast<size_t>(needed), u'\0');
    const int written = MultiByteToWideChar(code_page, flags, bytes.data(), static_cast<int>(bytes.size()),
                                            out.data(), needed);
    if (written != needed) return u"<size mismatch>";
    return out;
}

struct Narrowed {
    std::string bytes;
    bool used_default = false;
};

Narrowed ToBytes(uint32_t code_page, std::u16string_view text, const char* default_char = nullptr) {
    Narrowed result;
    bool used_in_query = false;
    const int needed = WideCharToMultiByte(code_page, 0, text.data(), static_cast<int>(text.size()), nullptr,
                                           0, default_char, &used_in_query);
    if (needed <= 0) return {"<failed>", false};
    result.bytes.assign(static_cast<size_t>(needed), '\0');
    const int written = WideCharToMultiByte(code_page, 0, text.data(), static_cast<int>(text.size()),
                                            result.bytes.data(), needed, default_char, &result.used_default);
    if (written != needed || used_in_query != result.used_default) return {"<size mismatch>", false};
    return result;
}

// Values from the published charts of each code page (Microsoft's code-page tables, the Unicode
// mapping files for the ISO and Windows sets).
TEST(CodePage, DecodesChartValues) {
    struct Case {
        uint32_t code_page;
        std::string bytes;
        std::u16string text;
    };
    const std::vector<Case> cases = {
        {1252, "\x80\x9F\xE4", u"\u20AC\u0178\u00E4"},
        {0, "\x80", u"\u20AC"},                // the ANSI code page is 1252
        {28591, "\x80\xE4", u"\u0080\u00E4"},  // ISO-8859-1 is not 1252
        {1250, "\x8A\xB9", u"\u0160\u0105"},
        {1251, "\xC0\xFF", u"\u0410\u044F"},
        {1253, "\xC1", u"\u0391"},
        {1254, "\xF0", u"\u011F"},
        {1255, "\xE0", u"\u05D0"},
        {1256, "\xC7", u"\u0627"},
        {1257, "\xE0", u"\u0105"},
        {1258, "\xD2", u"\u0309"},
        {874, "\xA1", u"\u0E01"},
        {932, "\x82\xA0\x88\x9F", u"\u3042\u4E9C"},
        {932, "\x81\x60", u"\uFF5E"},        // Windows maps the wave dash to the full-width tilde
        {932, "\x87\x40\x5C", u"\u2460\\"},  // NEC circled digit; 0x5C stays a backslash
        {932, "\xB1", u"\uFF71"},            // half-width katakana
        {936, "\xB0\xA1", u"\u554A"},
        {949, "\xB0\xA1", u"\uAC00"},
        {950, "\xA4\x40", u"\u4E00"},
        {437, "\x82\xB0", u"\u00E9\u2591"},
        {1, "\x82", u"\u00E9"},  // the OEM code page is 437
        {866, "\x80", u"\u0410"},
        {20866, "\xC1", u"\u0430"},
        {28592, "\xA1", u"\u0104"},
        {28605, "\xA4", u"\u20AC"},
        {10000, "\x80", u"\u00C4"},
        {20127, "Az", u"Az"},
        {51932, "\xA4\xA2", u"\u3042"},
        {50220, "a\x1B$B$\"\x1B(Bb", u"a\u3042b"},
        {54936, "\x81\x30\x81\x30", u"\u0080"},
        {65001, "\xE2\x82\xAC\xF0\x9F\x93\xA7", u"\u20AC\U0001F4E7"},
        {1200, std::string("A\0\xAC\x20", 4), u"A\u20AC"},
        {1201, std::string("\0A", 2), u"A"},
        {42, "A\x01", u"\uF041\u0001"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code_page);
        EXPECT_EQ(ToWide(c.code_page, c.bytes), c.text);
    }
}

TEST(CodePage, EncodesChartValuesAndReportsDefaults) {
    struct Case {
        uint32_t code_page;
        std::u16string text;
        const char* default_char;
        std::string bytes;
        bool used_default;
    };
    const std::vector<Case> cases = {
        {1252, u"\u20AC\u00E4x", nullptr, "\x80\xE4x", false},
        {1252, u"a\u3042", nullptr, "a?", true},
        {1252, u"a\u3042", "*", "a*", true},
        {1252, u"\u0100", nullptr, "?", true},  // no look-alike: a round trip stays honest
        {1252, u"\xD800", nullptr, "?", true},  // a lone surrogate is a default character too
        {1251, u"\u0416", nullptr, "\xC6", false},
        {932, u"\u3042\uFF5E", nullptr, "\x82\xA0\x81\x60", false},
        {932, u"\u00E4", nullptr, "?", true},
        {949, u"\uAC00", nullptr, "\xB0\xA1", false},
        {950, u"\u4E00", nullptr, "\xA4\x40", false},
        {936, u"\u554A\u00E0", nullptr, "\xB0\xA1\xA8\xA4", false},
        {28591, u"\u00E4\u20AC", nullptr, "\xE4?", true},
        {42, u"\uF041\u0041", "#", "A#", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code_page);
        const Narrowed got = ToBytes(c.code_page, c.text, c.default_char);
        EXPECT_EQ(got.bytes, c.bytes);
        EXPECT_EQ(got.used_default, c.used_default);
    }
}

TEST(CodePage, Utf8FollowsTheWindowsRules) {
    // The default-character arguments must be null for UTF-8 and UTF-7.
    bool used = false;
    char out[16] = {};
    EXPECT_EQ(WideCharToMultiByte(kCpUtf8, 0, u"a", 1, out, 16, nullptr, &used), 0);
    EXPECT_EQ(WideCharToMultiByte(kCpUtf8, 0, u"a", 1, out, 16, "?", nullptr), 0);
    EXPECT_EQ(WideCharToMultiByte(kCpUtf7, 0, u"a", 1, out, 16, nullptr, &used), 0);

    // An unpaired surrogate becomes U+FFFD unless the caller asks for a failure.
    const char16_t lone[] = {u'a', 0xDC00, u'b'};
    EXPECT_EQ(WideCharToMultiByte(kCpUtf8, 0, lone, 3, out, 16, nullptr, nullptr), 5);
    EXPECT_EQ(std::string(out, 5),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(WideCharToMultiByte(kCpUtf8, kWcErrInvalidChars, lone, 3, out, 16, nullptr, nullptr), 0);
    EXPECT_EQ(WideCharToMultiByte(1252, kWcErrInvalidChars, u"a", 1, out, 16, nullptr, nullptr), 0);

    // An ill-formed byte sequence becomes U+FFFD, or fails with kMbErrInvalidChars.
    EXPECT_EQ(ToWide(kCpUtf8, "\xC3(x"), u"\uFFFD(x");
    EXPECT_EQ(ToWide(kCpUtf8, "\xC3(x", kMbErrInvalidChars), u"<failed>");
    EXPECT_EQ(ToWide(kCpUtf8, "\xC3\xA4", kMbErrInvalidChars), u"\u00E4");
    EXPECT_EQ(ToWide(932, "\x82", kMbErrInvalidChars), u"<failed>");  // a lead byte without its trail
}

TEST(CodePage, SizesAndBuffersFollowTheWindowsContract) {
    // A size query counts without writing; -1 includes the terminator in the count and the output.
    EXPECT_EQ(MultiByteToWideChar(932, 0, "\x82\xA0z", 3, nullptr, 0), 2);
    EXPECT_EQ(MultiByteToWideChar(932, 0, "\x82\xA0z", -1, nullptr, 0), 3);
    char16_t wide[4] = {u'#', u'#', u'#', u'#'};
    EXPECT_EQ(MultiByteToWideChar(932, 0, "\x82\xA0z", -1, wide, 4), 3);
    EXPECT_EQ(std::u16string(wide, 4), std::u16string(u"\u3042z\0#", 4));
    EXPECT_EQ(MultiByteToWideChar(1200, 0, "A\0B\0\0\0", -1, nullptr, 0), 3);

    // Exactly enough room writes nothing beyond the count.
    std::fill(wide, wide + 4, u'#');
    EXPECT_EQ(MultiByteToWideChar(1252, 0, "ab", 2, wide, 2), 2);
    EXPECT_EQ(wide[2], u'#');
    EXPECT_EQ(MultiByteToWideChar(1252, 0, "abc", 3, wide, 2), 0);
    // A stateful converter that fills the room exactly (its closing escape yields nothing).
    EXPECT_EQ(MultiByteToWideChar(50220, 0, "\x1B$B$\"$\"\x1B(B", 10, wide, 2), 2);
    EXPECT_EQ(std::u16string(wide, 3), u"\u3042\u3042#");

    EXPECT_EQ(WideCharToMultiByte(kCpUtf8, 0, u"a\u00E4", 2, nullptr, 0, nullptr, nullptr), 3);
    EXPECT_EQ(WideCharToMultiByte(kCpUtf8, 0, u"a\u00E4", -1, nullptr, 0, nullptr, nullptr), 4);
    char narrow[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(WideCharToMultiByte(kCpUtf8, 0, u"a\u00E4", -1, narrow, 4, nullptr, nullptr), 4);
    EXPECT_EQ(std::string(narrow, 4), std::string("a\xC3\xA4\0", 4));
    EXPECT_EQ(WideCharToMultiByte(kCpUtf8, 0, u"a\u00E4", 2, narrow, 2, nullptr, nullptr), 0);
    EXPECT_EQ(WideCharToMultiByte(932, 0, u"\u3042", 1, narrow, 1, nullptr, nullptr), 0);
    char escaped[8];
    EXPECT_EQ(WideCharToMultiByte(50220, 0, u"\u3042", 1, escaped, 8, nullptr, nullptr), 8);
    EXPECT_EQ(std::string(escaped, 8), "\x1B$B$\"\x1B(B");
    EXPECT_EQ(WideCharToMultiByte(42, 0, u"\uF041\uF042", 2, narrow, 1, nullptr, nullptr), 0);
}

TEST(CodePage, BadArgumentsAndUnknownCodePagesFail) {
    char16_t wide[8];
    char narrow[8];
    bool used = true;
    struct Case {
        const char* what;
        int result;
    };
    const std::vector<Case> cases = {
        {"unknown code page", MultiByteToWideChar(12345, 0, "a", 1, wide, 8)},
        {"a language id is no code page", MultiByteToWideChar(2052, 0, "a", 1, wide, 8)},
        {"unset code page", MultiByteToWideChar(0xFFFFFFFF, 0, "a", 1, wide, 8)},
        {"Johab has no converter", MultiByteToWideChar(1361, 0, "a", 1, wide, 8)},
        {"null source", MultiByteToWideChar(1252, 0, nullptr, 1, wide, 8)},
        {"empty source", MultiByteToWideChar(1252, 0, "a", 0, wide, 8)},
        {"length below -1", MultiByteToWideChar(1252, 0, "a", -2, wide, 8)},
        {"negative room", MultiByteToWideChar(1252, 0, "a", 1, wide, -1)},
        {"room without a buffer", MultiByteToWideChar(1252, 0, "a", 1, nullptr, 8)},
        {"composite flag", MultiByteToWideChar(1252, 0x2, "a", 1, wide, 8)},
        {"unknown code page (wide)", WideCharToMultiByte(12345, 0, u"a", 1, narrow, 8, nullptr, &used)},
        {"null source (wide)", WideCharToMultiByte(1252, 0, nullptr, 1, narrow, 8, nullptr, nullptr)},
        {"empty source (wide)", WideCharToMultiByte(1252, 0, u"a", 0, narrow, 8, nullptr, nullptr)},
        {"length below -1 (wide)", WideCharToMultiByte(1252, 0, u"a", -5, narrow, 8, nullptr, nullptr)},
        {"room without a buffer (wide)", WideCharToMultiByte(1252, 0, u"a", 1, nullptr, 8, nullptr, nullptr)},
        {"unknown flag (wide)", WideCharToMultiByte(1252, 0x10, u"a", 1, narrow, 8, nullptr, nullptr)},
    };
    for (const Case& c : cases) EXPECT_EQ(c.result, 0) << c.what;
    EXPECT_EQ(GetACP(), 1252u);
}

}  // namespace
}  // namespace tarn::platform
