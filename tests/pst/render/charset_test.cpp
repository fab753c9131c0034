// Declared character sets: names, declarations, conversion of bodies to UTF-8 and the UTF-8 meta tag.
// Expected bytes come from the published code-page charts and the UTF-8 encoding of their characters.
#include "pst/render/charset.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "common/status.h"
#include "kernel/tarnkrn_control.h"
#include "tests/support/counted_text.h"

namespace tarn {
namespace {

using testing::Bytes;
using testing::Counted;

TEST(Charset, NamesAreMatchedInTheirOwnWays) {
    struct Case {
        std::string name;
        int32_t code;
        int32_t code_page;
    };
    const std::vector<Case> cases = {
        {"gb2312", kCharsetGb2312, 936},
        {"GB2312", kCharsetGb2312, 936},
        {"gb2312-80", kCharsetOther, 0},  // whole name only
        {"iso-2022-jp", kCharsetIso2022Jp, 0},
        {"ISO-2022-JP-2", kCharsetIso2022Jp, 0},  // a prefix is enough
        {"big5", kCharsetBig5, 950},
        {"Big5-HKSCS", kCharsetOther, 0},
        {"iso-8859-1", kCharsetLatin1, 1252},  // converted as Windows-1252
        {"ISO-8859-1", kCharsetLatin1, 1252},
        {"iso-8859-15", kCharsetOther, 0},  // not Latin-1 although it starts like it
        {"iso-8859-1x", kCharsetOther, 0},
        {"us-ascii", kCharsetUsAscii, 0},
        {"US-ASCII-7", kCharsetUsAscii, 0},
        {"utf-8", kCharsetUtf8, 0},
        {"UTF-8;", kCharsetUtf8, 0},
        {"utf8", kCharsetOther, 0},
        {"windows-1251", kCharsetWindows, 1251},
        {"WINDOWS-1252", kCharsetWindows, 1252},
        {"windows-874x", kCharsetWindows, 874},  // the digits behind the prefix
        {"windows-", kCharsetWindows, 0},
        {"windows-99999999999999", kCharsetWindows, INT32_MAX},  // saturates
        {"koi8-r", kCharsetOther, 0},
        {"", kCharsetOther, 0},
    };
    for (const Case& c : cases) {
        const CharsetCode got = CharsetFromName(c.name);
        EXPECT_EQ(got.code, c.code) << c.name;
        EXPECT_EQ(got.code_page, c.code_page) << c.name;
    }
}

TEST(Charset, FindsDeclarations) {
    struct Case {
        std::string text;
        int32_t found;
        int32_t code;
        int32_t code_page;
    };
    const std::vector<Case> cases = {
        {"<meta http-equiv=\"Content-Type\" content=\"text/html; charset=windows-1251\"", 1, kCharsetWindows,
         1251},
        {"text/plain; charset=windows-1251; format=flowed", 1, kCharsetWindows, 1251},
        {"<meta charset=\"ISO-8859-1\"", 1, kCharsetLatin1, 1252},
        {"text/html; Charset=\"big5", 1, kCharsetBig5, 950},  // no closing quote: to the end
        {"CHARSET=utf-8 \t\r\n", 1, kCharsetUtf8, 0},         // trailing white space trimmed
        {"charset=iso-8859-15", 1, kCharsetOther, 0},
        {"charset=", 1, kCharsetOther, 0},
        {"charset= utf-8", 1, kCharsetOther, 0},   // leading space is part of the name
        {"charset='utf-8'", 1, kCharsetOther, 0},  // only double quotes are skipped
        {"charset=\"\"gb2312", 1, kCharsetOther, 0},
        {"charset", 0, -1, -1},  // shorter than the parameter
        {"content=\"text/html\"", 0, -1, -1},
    };
    for (const Case& c : cases) {
        CharsetCode got{-1, -1};
        EXPECT_EQ(FindCharsetDeclaration(c.text, &got), c.found) << c.text;
        EXPECT_EQ(got.code, c.code) << c.text;
        EXPECT_EQ(got.code_page, c.code_page) << c.text;
    }
    EXPECT_EQ(FindCharsetDeclaration("charset=utf-8", nullptr), 0);
}

TEST(Charset, ConvertsDeclaredBodiesToUtf8) {
    struct Case {
        const char* what;
        std::string name;  // declared set
        bool rewrite;
        std::string body;
        std::string expected;
        int32_t code_after;
    };
    const std::vector<Case> cases = {
        {"Latin-1 is read as Windows-1252 and the quoted upper-case declaration becomes UTF-8", "iso-8859-1",
         true, "<meta charset=\"ISO-8859-1\"><p>\x93Gr\xFC\xDF\x65\x94 \x80 caf\xE9</p>",
         "<meta charset=\"UTF-8\"><p>\xE2\x80\x9CGr\xC3\xBC\xC3\x9F\x65\xE2\x80\x9D \xE2\x82\xAC "
         "caf\xC3\xA9</p>",
         kCharsetLatin1},
        {"bytes before the declaration are kept as they are", "iso-8859-1", true,
         "<title>caf\xE9</title><meta charset=iso-8859-1>caf\xE9",
         "<title>caf\xE9</title><meta charset=UTF-8>caf\xC3\xA9", kCharsetLatin1},
        {"a body without the name is converted whole", "iso-8859-1", true, "\xE9t\xE9", "\xC3\xA9t\xC3\xA9",
         kCharsetLatin1},
        {"windows-1251", "windows-1251", true,
         "<meta content=\"text/html; charset=Windows-1251;\">\xCF\xF0\xE8\xE2\xE5\xF2",
         "<meta content=\"text/html; charset=UTF-8;\">\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82",
         kCharsetWindows},
        {"gb2312 is read as 936", "gb2312", true, "charset=gb2312>\xC4\xE3\xBA\xC3",
         "charset=UTF-8>\xE4\xBD\xA0\xE5\xA5\xBD", kCharsetGb2312},
        {"big5 is read as 950", "big5", true, "charset=BIG5>\xA4\xA4\xA4\xE5",
         "charset=UTF-8>\xE4\xB8\xAD\xE6\x96\x87", kCharsetBig5},
        {"us-ascii only changes the declaration", "us-ascii", true, "charset=US-ASCII>caf\xE9",
         "charset=UTF-8>caf\xE9", kCharsetUtf8},
        {"us-ascii without the name changes nothing", "us-ascii", true, "caf\xE9", "caf\xE9", kCharsetUtf8},
        {"iso-8859-15 is not converted", "iso-8859-15", true, "charset=iso-8859-15>\xA4",
         "charset=iso-8859-15>\xA4", kCharsetOther},
        {"utf-8 is left alone", "utf-8", true, "charset=utf-8>\xE9", "charset=utf-8>\xE9", kCharsetUtf8},
        {"plain text keeps Latin-1", "iso-8859-1", false, "charset=iso-8859-1 \xE9",
         "charset=iso-8859-1 \xE9", kCharsetLatin1},
        {"plain text still decodes ISO-2022-JP", "iso-2022-jp", false, "\x1B$B$\"\x1B(B",
         std::string("\xE3\x81\x82\0", 4), kCharsetIso2022Jp},
        {"a terminating NUL stays", "windows-1252", true, std::string("charset=windows-1252>\x80\0", 23),
         std::string("charset=UTF-8>\xE2\x82\xAC\0", 18), kCharsetWindows},
        {"a declaration at the very end", "windows-1252", true, "\x80 charset=windows-1252",
         "\x80 charset=UTF-8", kCharsetWindows},
    };
    for (const Case& c : cases) {
        CountedString body = Counted(c.body);
        CharsetCode charset = CharsetFromName(c.name);
        EXPECT_EQ(ConvertToUtf8(&body, &charset, c.rewrite), kStatusOk) << c.what;
        EXPECT_EQ(Bytes(body), c.expected) << c.what;
        EXPECT_EQ(charset.code, c.code_after) << c.what;
    }

    CountedString body = Counted("x");
    CharsetCode none;
    EXPECT_EQ(ConvertToUtf8(&body, &none, true), kStatusOk);
    EXPECT_EQ(Bytes(body), "x");
}

TEST(Charset, FailedConversionsLeaveTheBodyAlone) {
    CharsetCode latin1 = CharsetFromName("iso-8859-1");
    CountedString empty;
    EXPECT_EQ(ConvertToUtf8(nullptr, &latin1, true), kStatusNullPointer);
    EXPECT_EQ(ConvertToUtf8(&empty, &latin1, true), kStatusNullPointer);
    CountedString body = Counted("a");
    EXPECT_EQ(ConvertToUtf8(&body, nullptr, true), kStatusNullPointer);

    // A code page that nothing converts.
    const std::string unknown = "charset=windows-1234>\xE9";
    body = Counted(unknown);
    CharsetCode charset = CharsetFromName("windows-1234");
    EXPECT_EQ(ConvertToUtf8(&body, &charset, true), kStatusConversionFailed);
    EXPECT_EQ(Bytes(body), unknown);

    // UTF-7 can spell an unpaired surrogate (+2AA- is U+D800), which the kernel's UTF-8 conversion refuses.
    const std::string surrogate = "charset=windows-65000>a+2AA-b";
    body = Counted(surrogate);
    charset = CharsetFromName("windows-65000");
    EXPECT_EQ(ConvertToUtf8(&body, &charset, true), kStatusConversionFailed);
    EXPECT_EQ(Bytes(body), surrogate);

    // Every allocation in turn fails; each failure is reported and leaves the body as it was.
    const std::string latin = "<meta charset=iso-8859-1>\xE9t\xE9";
    int failures = 0;
    for (uint32_t nth = 1;; ++nth) {
        body = Counted(latin);
        charset = latin1;
        krnctlFailAllocation(nth);
        const int32_t status = ConvertToUtf8(&body, &charset, true);
        krnctlFailAllocation(0);
        if (status == kStatusOk) break;
        ++failures;
        EXPECT_EQ(status, kStatusFailure) << nth;
        EXPECT_EQ(Bytes(body), latin) << nth;
        ASSERT_LT(nth, 20u);
    }
    EXPECT_GE(failures, 3);  // the output, the UTF-16 text, the UTF-8 text
    EXPECT_EQ(Bytes(body), "<meta charset=UTF-8>\xC3\xA9t\xC3\xA9");
}

TEST(Charset, EnsureUtf8MetaDeclaresUndeclaredDocuments) {
    ASSERT_EQ(kUtf8MetaTag.size(), 65u);
    struct Case {
        const char* what;
        std::string html;
        std::string expected;
    };
    const std::string tag(kUtf8MetaTag);
    const std::vector<Case> cases = {
        {"inserted behind <head>, NUL-terminated", "<html><head><title>x</title></head></html>",
         "<html><head>" + tag + "<title>x</title></head></html>" + std::string(1, '\0')},
        {"only behind the first <head>", "<head></head><head>",
         "<head>" + tag + "</head><head>" + std::string(1, '\0')},
        {"a terminated document stays terminated once", std::string("<head>\0", 7),
         "<head>" + tag + std::string(1, '\0')},
        {"any charset, even in the text, is a declaration", "<head></head><body>charset</body>",
         "<head></head><body>charset</body>"},
        {"the search for charset is case-sensitive", "<head><meta CHARSET=big5>",
         "<head>" + tag + "<meta CHARSET=big5>" + std::string(1, '\0')},
        {"so is the search for <head>", "<HEAD></HEAD>", "<HEAD></HEAD>"},
        {"a head with attributes is not found", "<head id=a></head>", "<head id=a></head>"},
        {"nothing to do in an empty document", "", ""},
    };
    for (const Case& c : cases) {
        CountedString html = Counted(c.html);
        EXPECT_EQ(EnsureUtf8Meta(&html), kStatusOk) << c.what;
        EXPECT_EQ(Bytes(html), c.expected) << c.what;
    }
    EXPECT_EQ(EnsureUtf8Meta(nullptr), kStatusNullPointer);

    CountedString html = Counted("<head>");
    krnctlFailAllocation(1);
    EXPECT_EQ(EnsureUtf8Meta(&html), kStatusFailure);
    krnctlFailAllocation(0);
    EXPECT_EQ(Bytes(html), "<head>");
}

}  // namespace
}  // namespace tarn
