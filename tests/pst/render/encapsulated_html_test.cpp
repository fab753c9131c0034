#include "pst/render/encapsulated_html.h"

#include <gtest/gtest.h>

#include <string>

#include "kernel/tarnkrn_control.h"
#include "pst/render/compressed_rtf.h"
#include "tests/support/rtf_writer.h"

namespace tarn {
namespace {

CountedString Counted(std::string_view bytes) {
    GrowBuffer buffer;
    buffer.Init(bytes.size() + 1, 0);
    buffer.Append(bytes);
    CountedString out;
    buffer.MoveInto(out);
    return out;
}

std::string Bytes(const CountedString& s) { return {reinterpret_cast<const char*>(s.data()), s.size()}; }

// An HTML-encapsulating body around `text`, as mail clients write them: a font table (0 Western, 1
// Cyrillic, 2 without a charset, 3 with the system code page 1), RTF-only settings and an empty first
// tag group, all of which stay out of the HTML; then `text`, and the closing brace.
std::string Encapsulated(std::string_view text, std::string_view ansicpg = "\\ansicpg1252") {
    return "{\\rtf1\\ansi" + std::string(ansicpg) +
           "\\fromhtml1 \\deff0{\\fonttbl\r\n{\\f0\\fswiss\\fcharset0 Arial;}\r\n"
           "{\\f1\\fswiss\\fcharset204 Arial Cyr;}\r\n{\\f2\\fnil Wingdings;}\r\n{\\f3\\fnil\\fcpg1 "
           "Terminal;}}\r\n"
           "{\\colortbl\\red0\\green0\\blue0;}\r\n\\uc1\\pard\\plain\\deftab360 \\f0\\fs24 "
           "\r\n{\\*\\htmltag64}" +
           std::string(text) + "}";
}

struct Result {
    int32_t status;
    std::string html;  // without the terminating NUL
};

Result Deencapsulate(std::string_view rtf) {
    CountedString body = Counted(rtf);
    const int32_t status = DeencapsulateHtml(&body);
    std::string html = Bytes(body);
    if (status == kStatusOk) {
        EXPECT_TRUE(!html.empty() && html.back() == '\0') << rtf;
        if (!html.empty()) html.pop_back();
    }
    return {status, html};
}

struct Case {
    std::string_view rtf;
    std::string_view html;
};

// The scan's readings of RTF, each one a deliberate part of what the HTML looks like.
TEST(DeencapsulateHtml, ReadsControlWordsAsTheScanDefinesThem) {
    const Case cases[] = {
        // A modified tag replaces the original of the same number behind it, whose group goes.
        {"{\\*\\mhtmltag84 <a href=\"new\">}{\\*\\htmltag84 <a href=\"old\">}x", "<a href=\"new\">x"},
        {"{\\*\\mhtmltag84 <b>}{\\*\\htmltag85 <i>}{\\*\\htmltag84 <u>}", "<b><i><u>"},
        // Paragraphs: a line break outside suppressed material, nothing inside it.
        {"{\\*\\htmltag64 <p>}a\\par b\\par\r\nc", "<p>a\r\nb\r\nc"},
        {"a\\htmlrtf \\par \\htmlrtf0 b", "ab"},
        {"{\\*\\htmltag <br>\\par }x", "<br>\r\nx"},
        // Escapes for characters.
        {"\\'e4", "&#xE4;"},
        {"\\u8364?x", "&#8364;x"},
        {"\\u8364 ?x", "&#8364;x"},
        {"\\u-3?", "&#0;3?"},            // unsigned: the "-" is taken as the replacement
        {"\\u8364\\'80", "&#8364;'80"},  // a hex-escaped replacement loses its backslash only
        {"\\{a\\}", "{a}"},
        {"a\\\\b", "a\\\\b"},                    // the second backslash starts a word of its own
        {"\\\\{\\*\\htmltag <br>}", "\\{<br>"},  // so an escaped backslash before a group opens nothing
        // Words that write spacing, and whether a space behind them goes too.
        {"\\pard x", "&nbsp; x"},
        {"\\tab x\\ltrch y\\rtlch z", "   x     yz"},
        {"\\intbl x\\qc y", "  x  y"},
        {"\\cbpat2 x", "      x"},
        // Words matched as prefixes, and words skipped with their number.
        {"a\\line b", "ane b"},
        {"\\cbpat25 x", "      5 x"},
        {"\\li720 x\\sb120 y\\qr z\\fi-360 w", "xyzw"},
        {"\\plain x", " x"},
        {"\\fs24 x\\b0 y", "\\fs24 x\\b0 y"},  // unknown: written as text
        {"{\\pntext 1.\\tab}x", "x"},
        // Line breaks: an RTF pair (either order) is dropped, a lone one kept.
        {"a\r\nb\n\rc\rd\ne", "abc\rd\ne"},
        // Suppressed material, which "\htmlrtf0" also opens when met outside it.
        {"{\\htmlrtf \\b {\\i x}\\htmlrtf0 y}", "y"},
        {"a\\htmlrtf0 hidden\\htmlrtf0  b", "a b"},
        {"\\htmlrtf \\{\\htmlrtf0 x", "x"},
        // Material left open runs until fewer than nine bytes are left, which are read as text.
        {"{\\*\\htmltag0 <p>}\\htmlrtf abcdefghijkl", "<p>fghijkl"},
    };
    for (const Case& c : cases) {
        const Result r = Deencapsulate(Encapsulated(c.rtf));
        EXPECT_EQ(r.status, kStatusOk) << c.rtf;
        EXPECT_EQ(r.html, c.html) << c.rtf;
    }
}

// Only the text from the first HTML tag group on is written; before it, the body's code page, default
// and selected font are read.
TEST(DeencapsulateHtml, ThePreambleSetsTheFontButWritesNothing) {
    const Case cases[] = {
        {"{\\rtf1\\ansi\\fromhtml1 text{\\*\\htmltag0 <p>}x}", "<p>x"},
        {"{\\rtf1\\ansi\\fromhtml1 no tags at all}", ""},
        {"", ""},
        // The default font's code page, unless a font was selected.
        {"{\\rtf1\\ansi\\ansicpg1252\\deff1{\\fonttbl{\\f0\\fcharset0 A;}{\\f1\\fcharset204 B;}}"
         "{\\*\\htmltag0}\\'e4}",
         "&#x434;"},
        {"{\\rtf1\\ansi\\ansicpg1252\\deff1{\\fonttbl{\\f0\\fcharset0 A;}{\\f1\\fcharset204 B;}}\\f0 "
         "{\\*\\htmltag0}\\'e4}",
         "&#xE4;"},
        // A font table inside the HTML part replaces the one read before.
        {"{\\rtf1\\ansi\\ansicpg1252{\\*\\htmltag0}{\\fonttbl{\\f5\\fcharset204 C;}}\\f5\\'e4}", "&#x434;"},
    };
    for (const Case& c : cases) {
        const Result r = Deencapsulate(c.rtf);
        EXPECT_EQ(r.status, kStatusOk) << c.rtf;
        EXPECT_EQ(r.html, c.html) << c.rtf;
    }
}

// Which code page decodes a run of hex escapes: the current font's if it is 2 or more, else the
// language's, else the document's.
TEST(DeencapsulateHtml, HexEscapesFollowTheFontThenTheLanguageThenTheDocument) {
    const struct {
        std::string_view ansicpg;
        std::string_view rtf;
        std::string_view html;
    } cases[] = {
        {"\\ansicpg1252", "\\f1\\'e4", "&#x434;"},               // the Cyrillic font
        {"\\ansicpg1251", "\\f0\\'e4", "&#xE4;"},                // the font wins over the document
        {"\\ansicpg1252", "{\\f1\\'e4}\\'e4", "&#x434;&#xE4;"},  // a group's end restores the font
        {"\\ansicpg1252", "{\\htmlrtf \\f1 \\htmlrtf0 \\'e4}\\'e4", "&#x434;&#xE4;"},
        {"\\ansicpg1252", "\\f2\\'e4", "&#xE4;"},             // no charset: the document's
        {"\\ansicpg1251", "\\f3\\'e4", "&#x434;"},            // code page 1 is below 2
        {"\\ansicpg1252", "\\f2\\lang1049\\'e4", "&#x434;"},  // Russian
        {"\\ansicpg1252", "\\f2\\htmlrtf \\lang1049\\htmlrtf0 \\'e4", "&#x434;"},
        {"\\ansicpg1252", "\\f2\\lang1041\\'82\\'a0", "&#x3042;"},  // Japanese, one character in two
        {"\\ansicpg1252", "\\f2\\lang1250\\'b9", "&#x105;"},        // any other number is a code page
        {"\\ansicpg1251", "\\f2\\lang2057\\'e4", "&#x434;"},        // ... and one that is none falls back
        {"", "\\f2\\'e4", "&#xE4;"},                                // nothing declared: the system's
        {"\\ansicpg1252", "\\'41\\'42\\'e4", "AB&#xE4;"},
        {"\\ansicpg1252", "\\'e4\\'zz", "&#xE4;\\'zz"},
    };
    for (const auto& c : cases) {
        const Result r = Deencapsulate(Encapsulated(c.rtf, c.ansicpg));
        EXPECT_EQ(r.status, kStatusOk) << c.rtf;
        EXPECT_EQ(r.html, c.html) << c.ansicpg << " " << c.rtf;
    }
}

// Runs far longer than any buffer's first size or margin: every escape is written, and a character of
// two bytes is never split between two conversions.
TEST(DeencapsulateHtml, LongHexEscapeRunsAreWrittenWhole) {
    const struct {
        std::string_view font;
        std::string_view escape;
        std::string_view reference;
        size_t count;
    } cases[] = {
        {"", "\\'e4", "&#xE4;", 100'000},
        {"\\f2\\lang1041 ", "\\'82\\'a0", "&#x3042;", 3'000},
    };
    for (const auto& c : cases) {
        std::string rtf(c.font), expected;
        for (size_t i = 0; i < c.count; ++i) {
            rtf += c.escape;
            expected += c.reference;
        }
        const Result r = Deencapsulate(Encapsulated(rtf));
        EXPECT_EQ(r.status, kStatusOk);
        EXPECT_TRUE(r.html == expected) << c.escape << ": " << r.html.size() << " bytes";
    }
}

// A body whose font table cannot be read, and every allocation that can fail: the status, and the
// RTF left as it was.
TEST(DeencapsulateHtml, FailuresKeepTheRtf) {
    EXPECT_EQ(DeencapsulateHtml(nullptr), kStatusNullPointer);
    EXPECT_EQ(RewriteConditionalComments(nullptr), kStatusNullPointer);
    EXPECT_EQ(TrimLongDivs(nullptr), kStatusNullPointer);

    const Case cut[] = {
        {"{\\rtf1\\ansi\\fromhtml1{\\fonttbl{\\f0 Arial;}", ""},
        {"{\\rtf1\\ansi\\fromhtml1{\\fonttbl{\\f0 Arial;}\\", ""},
        {"{\\rtf1\\ansi\\fromhtml1{\\*\\htmltag0 <p>}x{\\fonttbl{\\f0 Arial;}", ""},
    };
    for (const Case& c : cut) {
        const Result r = Deencapsulate(c.rtf);
        EXPECT_EQ(r.status, kStatusUnsupported) << c.rtf;
        EXPECT_EQ(r.html, c.rtf);
    }

    std::string run;
    for (int i = 0; i < 400; ++i) run += "\\'e4";
    const std::string rtf = Encapsulated(std::string(3000, 'x') + run);
    int failures = 0;
    for (uint32_t nth = 1;; ++nth) {
        CountedString body = Counted(rtf);
        krnctlFailAllocation(nth);
        const int32_t status = DeencapsulateHtml(&body);
        krnctlFailAllocation(0);
        if (status == kStatusOk) break;
        ++failures;
        EXPECT_EQ(status, kStatusFailure) << nth;
        EXPECT_EQ(Bytes(body), rtf) << nth;
        ASSERT_LT(nth, 50u);
    }
    EXPECT_GE(failures, 4);  // the output and its growth, the font table, the long run's conversion
}

std::string Clean(int32_t (*cleanup)(CountedString*), std::string_view html) {
    CountedString body = Counted(html);
    EXPECT_EQ(cleanup(&body), kStatusOk) << html.substr(0, 80);
    return Bytes(body);
}

TEST(RewriteConditionalComments, EveryConditionLongEnoughBecomesV) {
    const Case cases[] = {
        {"<![if !supportLists]>1.<![endif]>", "<![if !V]>1.<![endif]>"},
        {"a<![if !x]>b", "a<![if !V]>b"},
        {"<![if !a]><p><![if !bbbb]>", "<![if !V]><p><![if !V]>"},
        // Too short to hold the new condition: left alone, and the next one still found.
        {"<![if]>x", "<![if]>x"},
        {"<![if ]><![if !]><![if !ab]>", "<![if ]><![if !]><![if !V]>"},
        // The condition runs to the next "]", wherever it is; without one the pass ends.
        {"<![if !a <![if !b]>", "<![if !V]>"},
        {"<![if !mso] x <![if !vml", "<![if !V] x <![if !vml"},
        {"<![if !abc", "<![if !abc"},
        {"<![IF !abc]>", "<![IF !abc]>"},
        {std::string_view("<![if !abc]>\0", 13), std::string_view("<![if !V]>\0", 11)},
    };
    for (const Case& c : cases) EXPECT_EQ(Clean(RewriteConditionalComments, c.rtf), c.html) << c.rtf;
}

TEST(TrimLongDivs, LongDivsAreCutBehindTheirFirstNbsp) {
    const std::string a(20'000, 'a');
    const std::string kept = "&nbsp;" + a.substr(0, kKeptBehindNbsp - 6);
    const struct {
        std::string html;
        std::string expected;
    } cases[] = {
        {"<div>&nbsp;" + a + "</div>", "<div>" + kept + "</div>"},
        {"x<DIV>b&NBSP;" + a + "</Div>tail", "x<DIV>b&NBSP;" + a.substr(0, 104) + "</Div>tail"},
        // Both limits: 10001 bytes between the tags is long, 10000 is not.
        {"<div>&nbsp;" + a.substr(0, kLongDivBytes - 6) + "</div>", "<div>" + kept + "</div>"},
        {"<div>&nbsp;" + a.substr(0, kLongDivBytes - 7) + "</div>",
         "<div>&nbsp;" + a.substr(0, kLongDivBytes - 7) + "</div>"},
        // An "&nbsp;" exactly 110 bytes before the end leaves nothing to cut; closer, it is left alone.
        {"<div>" + a + "&nbsp;" + a.substr(0, 104) + "</div>",
         "<div>" + a + "&nbsp;" + a.substr(0, 104) + "</div>"},
        {"<div>" + a + "&nbsp;x</div>", "<div>" + a + "&nbsp;x</div>"},
        // Without an "&nbsp;" of its own, or without an end, a div stays.
        {"<div>" + a + "</div><div>&nbsp;</div>", "<div>" + a + "</div><div>&nbsp;</div>"},
        {"<div>&nbsp;" + a, "<div>&nbsp;" + a},
        // Every pair in turn, the scan going on behind each "</div>".
        {"<div>&nbsp;" + a + "</div>-<div>&nbsp;" + a + "</div>",
         "<div>" + kept + "</div>-<div>" + kept + "</div>"},
        {"<div><div>&nbsp;" + a + "</div></div>", "<div><div>" + kept + "</div></div>"},
        {"<div>&nbsp;" + a + "</div>" + std::string(1, '\0'),
         "<div>" + kept + "</div>" + std::string(1, '\0')},
    };
    for (const auto& c : cases) {
        const std::string out = Clean(TrimLongDivs, c.html);
        EXPECT_TRUE(out == c.expected) << c.html.substr(0, 40) << ": " << out.size() << " bytes";
    }
}

// The message file's path: a body marked as encapsulating HTML comes out of the decompressor as the
// tidied HTML, stored or compressed; any other body as its RTF.
TEST(DecompressRtfBuffer, HandsHtmlBodiesOnAsHtml) {
    const std::string html = "{\\rtf1\\ansi\\fromhtml1 {\\*\\htmltag0 <p><![if !supportLists]>}x}";
    const struct {
        std::string rtf;
        std::string document;
    } cases[] = {
        {html, std::string("<p><![if !V]>x\0", 15)},
        {"{\\rtf1\\ansi\\fromtext {\\*\\htmltag0 <p>}x}", ""},
        {"{\\rtf1\\ansi{\\fonttbl{\\f0\\froman A;}}\\fromhtml1 {\\*\\htmltag0 <p>}x}",
         ""},  // the first \from
        {"{\\rtf1\\ansi {\\*\\htmltag0 <p>}x}", ""},
        {"{\\rtf1\\ansi\\fromHTML1 {\\*\\htmltag0 <p>}x}", ""},
    };
    for (const auto& c : cases) {
        const std::string expected = c.document.empty() ? c.rtf : c.document;
        for (const uint32_t type : {0x75465A4Cu, 0x414C454Du}) {
            const std::string data =
                type == 0x414C454Du
                    ? testing::CompressedRtf(c.rtf, {.comp_type = type})
                    : testing::CompressedRtf(testing::RtfRuns(testing::RtfLiterals(c.rtf)),
                                             {.raw_size = static_cast<uint32_t>(c.rtf.size())});
            CountedString document;
            EXPECT_EQ(
                DecompressRtfBuffer(reinterpret_cast<const std::byte*>(data.data()), data.size(), document),
                kStatusOk)
                << c.rtf;
            EXPECT_EQ(Bytes(document), expected) << c.rtf;
        }
    }

    // A failure of the hand-on is the call's, and the document stays as it was.
    const std::string cut = "{\\rtf1\\ansi\\fromhtml1 {\\fonttbl{\\f0 A;}";
    const std::string data = testing::CompressedRtf(cut, {.comp_type = 0x414C454D});
    CountedString document = Counted("before");
    EXPECT_EQ(DecompressRtfBuffer(reinterpret_cast<const std::byte*>(data.data()), data.size(), document),
              kStatusUnsupported);
    EXPECT_EQ(Bytes(document), "before");
}

}  // namespace
}  // namespace tarn
