// The MIME decoders against published examples: the base64 test vectors of the base64 standard, the
// encoded-word examples of the encoded-word standard, and quoted-printable and header lines written by
// hand from the format's rules. Where this reader differs from the standards by design, the case says so.
#include "pst/render/mime_decode.h"

#include <gtest/gtest.h>

#include <string>

#include "common/status.h"

namespace tarn {
namespace {

std::string Bytes(const GrowBuffer& buffer) { return std::string(buffer.view()); }

TEST(DecodeQuotedPrintable, Table) {
    struct Case {
        const char* name;
        std::string in;
        bool underscore;
        std::string out;
        const char* repaired = nullptr;  // when repairs are wanted, if not `out`
    } cases[] = {
        {"plain", "hello", false, "hello"},
        {"escape upper", "a=3Db", false, "a=b"},
        {"escape lower", "caf=c3=a9", false, "caf\xC3\xA9"},
        {"soft break", "soft=\r\nbreak", false, "softbreak"},
        // A bare LF after "=" is no soft break: the "=" stays and the line break with it. Repaired, it is.
        {"bare LF is no soft break", "soft=\nbreak", false, "soft=\nbreak", "softbreak"},
        {"CR alone", "a=\rb", false, "a=\rb"},
        {"both digits invalid", "=zz", false, "=zz"},
        {"one digit invalid", "=4G", false, "=4G"},
        {"equals at end", "end=", false, "end="},
        {"equals and one byte at end", "end=4", false, "end=4"},
        {"underscore kept", "a_b", false, "a_b"},
        {"underscore as space", "a_b", true, "a b"},
        {"NUL byte", "a=00b", false, std::string("a\0b", 3)},
        {"empty", "", false, ""},
    };
    for (const Case& c : cases) {
        for (const bool wanted : {false, true}) {
            GrowBuffer out;
            ASSERT_EQ(out.Init(0, 0), kStatusOk);
            Repairs repairs(wanted);
            EXPECT_EQ(DecodeQuotedPrintable(c.in, &out, c.underscore, &repairs), kStatusOk) << c.name;
            EXPECT_EQ(Bytes(out), wanted && c.repaired ? c.repaired : c.out) << c.name << wanted;
        }
    }
    EXPECT_EQ(DecodeQuotedPrintable("x", nullptr, false), kStatusNullPointer);
}

TEST(DecodeBase64, Table) {
    struct Case {
        const char* name;
        std::string in;
        std::string out;
    } cases[] = {
        // The standard's vectors of eight letters and more.
        {"foob", "Zm9vYg==", "foob"},
        {"fooba", "Zm9vYmE=", "fooba"},
        {"foobar", "Zm9vYmFy", "foobar"},
        // Fewer than five letters decode to nothing, a whole group among them: deliberate.
        {"lone group", "Zm9v", ""},
        {"lone padded group", "Zg==", ""},
        {"four letters and junk", "Zm9v!!", ""},
        {"line breaks", "Zm9v\r\nYmFy\r\n", "foobar"},
        {"junk between", "Zm9v*Ym Fy", "foobar"},
        {"stops at padding", "Zm9vYmFy=Zm9v", "foobar"},
        {"unpadded tail of two", "Zm9vYg", "foob"},
        {"unpadded tail of three", "Zm9vYmE", "fooba"},
        {"one letter left over", "Zm9vY", "foo"},
        {"binary", "/+8A", ""},
        {"binary long", "AP/+7w==", std::string("\x00\xFF\xFE\xEF", 4)},
    };
    for (const Case& c : cases) {
        GrowBuffer out;
        ASSERT_EQ(out.Init(0, 0), kStatusOk);
        EXPECT_EQ(DecodeBase64(c.in, &out), kStatusOk) << c.name;
        EXPECT_EQ(Bytes(out), c.out) << c.name;
    }
    EXPECT_EQ(DecodeBase64("Zm9vYmFy", nullptr), kStatusBadArgument);
}

TEST(FindHeaderField, UnfoldsAndMatchesAtLineStarts) {
    const std::string block =
        "Received: from a\r\n\tby b\r\n"
        "Reply-To: not@this\r\n"
        "subject: Folded\r\n over two lines\r\n"
        "To: first@x\r\n"
        "To: second@x\r\n"
        "Cc:no-space\r\n"
        "Bcc:  two-spaces\r\n"
        "X-Tabbed: a\n\tb\n c\n"
        "Empty:\r\n"
        "Last: no break";
    struct Case {
        const char* name;
        bool found;
        std::string value;
    } cases[] = {
        {"Subject:", true, "Folded over two lines"},
        {"To:", true, "first@x"},  // the first line, never Reply-To
        {"Received:", true, "from a\tby b"},
        {"CC:", true, "no-space"},
        {"Bcc:", true, " two-spaces"},  // one space skipped, the second kept
        {"X-Tabbed:", true, "a\tb c"},
        {"Empty:", true, ""},
        {"Last:", true, "no break"},
        {"From:", false, ""},
        {"Reply-To:", true, "not@this"},
    };
    for (const Case& c : cases) {
        std::string value = "untouched";
        EXPECT_EQ(FindHeaderField(block, c.name, &value), c.found) << c.name;
        if (c.found) {
            EXPECT_EQ(value, c.value) << c.name;
        }
    }
}

TEST(DecodeEncodedWords, Table) {
    struct Case {
        const char* name;
        std::string in;
        std::string out;
        const char* repaired = nullptr;  // when repairs are wanted, if not `out`
    } cases[] = {
        {"no words", "plain text", "plain text"},
        {"Q word", "=?ISO-8859-1?Q?a?=", "a"},
        {"Q word then text", "=?ISO-8859-1?Q?a?= b", "a b"},
        // The standard drops white space between adjacent words; the contract keeps it.
        {"space between words kept", "=?ISO-8859-1?Q?a?= \r\n\t=?ISO-8859-1?Q?b?=", "a \r\n\tb", "ab"},
        {"adjacent words", "=?ISO-8859-1?Q?a?==?ISO-8859-1?Q?b?=", "ab"},
        {"underscore", "=?US-ASCII?Q?Keith_Moore?= <moore@cs.utk.edu>", "Keith Moore <moore@cs.utk.edu>"},
        {"Latin-1 to UTF-8", "=?ISO-8859-1?Q?Andr=E9?= Pirard", "Andr\xC3\xA9 Pirard"},
        // Converted as Windows-1252: 0x80 is the euro sign.
        {"Latin-1 as Windows-1252", "=?iso-8859-1?Q?=80?=", "\xE2\x82\xAC"},
        {"B word", "=?ISO-8859-1?B?SWYgeW91IGNhbiByZWFkIHRoaXMgeW8=?=", "If you can read this yo"},
        {"UTF-8 B", "=?utf-8?B?Y2Fmw6k=?=", "caf\xC3\xA9"},
        {"windows-1251 B", "=?windows-1251?B?z/Do4uXy?=", "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82"},
        {"ISO-2022-JP B", "=?ISO-2022-JP?B?GyRCJEYkOSRIGyhC?=", "\xE3\x81\xA6\xE3\x81\x99\xE3\x81\xA8"},
        // A set that is not converted keeps the bytes it decodes to.
        {"iso-8859-2 kept raw", "=?iso-8859-2?Q?=B1?=", "\xB1", "\xC4\x85"},
        {"language behind the set", "=?iso-8859-2*pl?Q?=B1?=", "\xB1", "\xC4\x85"},
        // Code page 31 has no converter: the word keeps its bytes and the value goes on.
        {"no converter", "=?windows-31j?Q?=82=A0?= x", "\x82\xA0 x", "\xE3\x81\x82 x"},
        {"no set of that name", "=?x-none?Q?=82?=", "\x82"},
        // Deliberate: only an upper-case letter names the encoding.
        {"lower-case q undecoded", "=?utf-8?q?caf=C3=A9?=", "=?utf-8?q?caf=C3=A9?=", "caf\xC3\xA9"},
        {"lower-case b undecoded", "=?utf-8?b?Y2Fmw6k=?=", "=?utf-8?b?Y2Fmw6k=?=", "caf\xC3\xA9"},
        {"unknown letter", "=?utf-8?X?abc?=", "=?utf-8?X?abc?="},
        {"never closes", "=?utf-8?Q?abc", "=?utf-8?Q?abc"},
        {"no letter", "=?utf-8?", "=?utf-8?"},
        {"lone opener", "a =? b", "a =? b"},
        {"bad word then good", "=?x?q?a?= =?utf-8?Q?b?=", "=?x?q?a?= b", "ab"},
        // Four base64 letters decode to nothing, so the word vanishes.
        {"short B word", "[=?utf-8?B?QUJD?=]", "[]"},
    };
    for (const Case& c : cases) {
        for (const bool wanted : {false, true}) {
            GrowBuffer out;
            ASSERT_EQ(out.Init(0, 0), kStatusOk);
            Repairs repairs(wanted);
            EXPECT_EQ(DecodeEncodedWords(c.in, &out, &repairs), kStatusOk) << c.name;
            EXPECT_EQ(Bytes(out), wanted && c.repaired ? c.repaired : c.out) << c.name << wanted;
        }
    }
    EXPECT_EQ(DecodeEncodedWords("x", nullptr), kStatusNullPointer);
}

}  // namespace
}  // namespace tarn
