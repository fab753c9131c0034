// Reading an RTF body's font table, and the fonts added for code pages.
#include "pst/render/rtf_fonts.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "kernel/tarnkrn_control.h"

namespace tarn {
namespace {

struct Font {
    int32_t number;
    uint32_t code_page;
    int32_t charset;
    std::string face;
    bool operator==(const Font&) const = default;
};

std::vector<Font> Entries(const RtfFontTable& table) {
    std::vector<Font> fonts;
    for (const RtfFont& f : table.entries())
        fonts.push_back({f.number, f.code_page, f.charset, std::string(f.face_name())});
    return fonts;
}

std::string TableText(const RtfFontTable& table) { return std::string(table.text.view()); }

// Parses `rtf` from `start`; the status and how many bytes were consumed.
std::pair<int32_t, size_t> Parse(RtfFontTable& table, const std::string& rtf, size_t start = 0) {
    const char* position = rtf.data() + start;
    const int32_t status = ParseFontTable(table, position, rtf.data() + rtf.size());
    return {status, static_cast<size_t>(position - rtf.data()) - start};
}

TEST(RtfFontTable, ReadsEntriesAsWordWritesThem) {
    struct Case {
        const char* name;
        std::string rtf;
        std::vector<Font> fonts;
        int32_t next;
    };
    const Case cases[] = {
        {"typical",
         R"({\fonttbl{\f0\fswiss\fcharset0 Arial;}{\f1\fmodern\fcharset128\fprq1{\*\panose 020b0609070205080204}MS Gothic{\*\falt ?l?r ?S?V?b?N};}{\f2\fnil\fcharset134 SimSun;}})",
         {{0, 1252, 0, "Arial"}, {1, 932, 128, "MS Gothic"}, {2, 936, 134, "SimSun"}},
         3},
        {"names with spaces, quotes and escaped braces",
         R"({\fonttbl{\f3\froman Times New Roman;}{\f4 "Odd; \{name\}";}{\f5 Sym\{bol;}})",
         {{3, 0, 0, "Times New Roman"}, {4, 0, 0, "Odd; \\{name\\}"}, {5, 0, 0, "Sym"}},
         6},
        {"charsets by the table's rows, code pages directly",
         R"({\fonttbl{\f0\fcharset1 A;}{\f1\fcharset77 B;}{\f2\fcharset3 C;}{\f3\fcharset-5 D;}{\f4\fcpg1251 E;}{\f5\fcharset255 F;}{\f6\fcharset256 G;}})",
         {{0, 0, 1, "A"},
          {1, 10000, 77, "B"},
          {2, 0, 3, "C"},
          {3, 0, -5, "D"},
          {4, 1251, 0, "E"},
          {5, 850, 255, "F"},
          {6, 0, 256, "G"}},
         7},
        {"the real code-page word is not ours", R"({\fonttbl{\f0\cpg1251 A;}})", {{0, 0, 0, "A"}}, 1},
        {"numbers saturate",
         R"({\fonttbl{\f99999999999999999999\fcharset-99999999999999 Big;}})",
         {{INT32_MAX, 0, INT32_MIN, "Big"}},
         INT32_MAX},
        {"an entry without a number or a name", R"({\fonttbl{\fswiss;}})", {{0, 0, 0, ""}}, 1},
        {"entries out of order: the next number follows the last",
         R"({\fonttbl{\f7 A;}{\f2 B;}})",
         {{7, 0, 0, "A"}, {2, 0, 0, "B"}},
         3},
        {"old style without entry groups", R"({\fonttbl\f0\fswiss Arial;})", {}, 0},
        {"empty", R"({\fonttbl})", {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        RtfFontTable table;
        const std::string rtf = c.rtf + R"({\colortbl;})";
        auto [status, used] = Parse(table, rtf);
        EXPECT_EQ(status, 1);
        EXPECT_EQ(used, c.rtf.size());  // behind the closing brace, nothing further
        EXPECT_EQ(Entries(table), c.fonts);
        EXPECT_EQ(table.next_font_number, c.next);
        EXPECT_EQ(TableText(table), c.rtf);
        EXPECT_FALSE(table.changed);
    }
}

TEST(RtfFontTable, StartsInsideTheGroupWhereTheSearchLands) {
    const std::string rtf = R"({\rtf1\ansi{\fonttbl{\f0\froman Times;}}\pard x})";
    const size_t at = rtf.find("\\fonttbl");
    RtfFontTable table;
    auto [status, used] = Parse(table, rtf, at);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(rtf.substr(at + used), "\\pard x}");
    EXPECT_EQ(TableText(table), R"(\fonttbl{\f0\froman Times;}})");
    EXPECT_EQ(Entries(table), (std::vector<Font>{{0, 0, 0, "Times"}}));
}

TEST(RtfFontTable, DamagedTablesFailWithoutReadingPastTheEnd) {
    const std::string good = R"({\fonttbl{\f0\fswiss\fcharset0 Arial;}{\f1 "Quoted";}})";
    // Every truncation is a group that never closes, or a backslash at the very end.
    for (size_t length = 0; length < good.size(); ++length) {
        const std::string cut = good.substr(0, length);
        RtfFontTable table;
        // A copy of exactly `length` bytes, so that the sanitizer sees any read beyond it.
        std::vector<char> bytes(cut.begin(), cut.end());
        const char* position = bytes.data();
        EXPECT_EQ(ParseFontTable(table, position, bytes.data() + bytes.size()), -9) << length;
        EXPECT_EQ(position, bytes.data());
        EXPECT_TRUE(table.entries().empty());
    }
    RtfFontTable table;
    EXPECT_EQ(Parse(table, R"({\fonttbl{\f0 A;}\)").first, -9);
    EXPECT_EQ(Parse(table, R"({\fonttbl{\f0 "A;}})").first, -9);  // the quote swallows the rest
}

TEST(RtfFontTable, RunningOutOfMemoryLeavesItEmpty) {
    const std::string rtf = R"({\fonttbl{\f0 A;}{\f1 B;}{\f2 C;}})";
    int failures = 0;
    for (uint32_t nth = 1;; ++nth) {
        RtfFontTable table;
        krnctlFailAllocation(nth);
        auto [status, used] = Parse(table, rtf);
        krnctlFailAllocation(0);
        if (status == 1) {
            EXPECT_EQ(Entries(table).size(), 3u);
            break;
        }
        ++failures;
        EXPECT_EQ(status, -1) << nth;
        EXPECT_TRUE(table.entries().empty());
        EXPECT_EQ(table.text.length(), 0u);
    }
    EXPECT_GE(failures, 4);  // every entry, its face and the text were each made to fail
}

TEST(RtfFontTable, FontsForCodePagesAreFoundOrAdded) {
    RtfFontTable table;
    ASSERT_EQ(Parse(table, R"({\fonttbl{\f0\froman Times;}{\f4\fcharset238 Arial CE;}})").first, 1);
    table.document_code_page = 1252;
    struct Case {
        uint32_t code_page;
        int32_t number;
        const char* added;  // what the table text gains, or null
    };
    const Case cases[] = {
        {1252, 0, nullptr},  // the font without a charset stands for the document's code page
        {1250, 4, nullptr},
        {932, 5, R"({\f5 \swiss \fcharset128 MS Gothic})"},
        {932, 5, nullptr},
        {1256, 6, R"({\f6 \swiss \fcharset178 Arial})"},
        {1251, 7, R"({\f7 \swiss \fcharset204 Arial})"},
        {42, 8, R"({\f8 \nil \fcharset2 Symbol})"},
        {1253, 9, R"({\f9 \swiss \fcharset161 Batang})"},  // Greek gets Batang: deliberate
        {874, 10, R"({\f10 \swiss \fcharset222 Batang})"},
        {1361, 11, R"({\f11 \swiss \fcharset82 Batang})"},  // the first row of that code page
        {936, 12, R"({\f12 \swiss \fcharset134 Batang})"},
        {12345, -13, nullptr},
    };
    std::string text = TableText(table);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code_page);
        EXPECT_EQ(FontForCodePage(table, c.code_page), c.number);
        if (c.added != nullptr) text.insert(text.size() - 1, c.added);
        EXPECT_EQ(TableText(table), text);
    }
    EXPECT_TRUE(table.changed);
    ASSERT_NE(FontByNumber(table, 6), nullptr);
    EXPECT_EQ(FontByNumber(table, 6)->code_page, 1256u);
    EXPECT_EQ(FontByNumber(table, 6)->face_name(), "Arial");
    EXPECT_EQ(FontByNumber(table, 13), nullptr);
}

TEST(RtfFontTable, ABodyWithoutTableGetsTheFormFeedText) {
    // The first byte is a form feed where "\f" was meant; kept as it is.
    RtfFontTable table;
    EXPECT_EQ(FontForCodePage(table, 1252), 0);
    EXPECT_EQ(FontForCodePage(table, 949), 1);
    EXPECT_EQ(TableText(table),
              std::string("\x0C"
                          "onttbl{\\f0 \\swiss \\fcharset0 Arial}{\\f1 \\swiss \\fcharset129 Batang}}"));
    EXPECT_EQ(AddFont(table, 0, 0, "", "Gulim"), 2);
    EXPECT_TRUE(TableText(table).ends_with("{\\f2 \\ \\fcharset0 Gulim}}")) << TableText(table);
}

}  // namespace
}  // namespace tarn
