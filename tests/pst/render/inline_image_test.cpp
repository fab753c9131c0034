// Finding an image's reference in an HTML body, putting the image in its place (as a data URI or a
// file name), the data URI's capacity rule, and the blanking of noise in HTML bodies.
//
// Expected base64 comes from Boost's encoder (an implementation independent of ours) and from the
// published examples of the base64 standard.
#include "pst/render/inline_image.h"

#include <gtest/gtest.h>

#include <boost/beast/core/detail/base64.hpp>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/status.h"
#include "tests/support/counted_text.h"

namespace tarn {
namespace {

using testing::Bytes;
using testing::Counted;

std::vector<std::byte> Image(size_t size, uint32_t seed = 7) {
    std::mt19937 random(seed);
    std::vector<std::byte> bytes(size);
    for (std::byte& b : bytes) b = static_cast<std::byte>(random());
    return bytes;
}

// The data URI as Boost encodes the bytes, without the final NUL.
std::string OracleUri(const std::vector<std::byte>& bytes) {
    namespace b64 = boost::beast::detail::base64;
    std::string out(b64::encoded_size(bytes.size()), '\0');
    out.resize(b64::encode(out.data(), bytes.data(), bytes.size()));
    return "data:image;base64," + out;
}

// Every "@" of `pattern` replaced by `with`.
std::string Expand(std::string_view pattern, std::string_view with) {
    std::string out;
    for (const char c : pattern) {
        if (c == '@')
            out.append(with);
        else
            out.push_back(c);
    }
    return out;
}

TEST(FindImageReference, PrefersTheCidFormThenTheFileName) {
    struct Case {
        const char* html;
        const char* file_name;
        const char* content_id;
        int32_t status;
        const char* reference;
    };
    const Case cases[] = {
        {"<img src=\"cid:logo.png\">", "logo.png", "logo.png", kStatusOk, "cid:logo.png"},
        // The id is not used by the body, the file name is.
        {"<img src=\"logo.png\">", "logo.png", "other@x", kStatusOk, "logo.png"},
        {"<img src=\"logo.png\">", "logo.png", "", kStatusOk, "logo.png"},
        // Matched as bytes: "cid:" and the id's case must agree.
        {"<img src=\"CID:logo.png\">", "", "logo.png", kStatusNotPresent, ""},
        {"<img src=\"cid:Logo.png\">", "", "logo.png", kStatusNotPresent, ""},
        {"<img src=\"cid:logo.png\">", "", "", kStatusNotPresent, ""},
        {"", "logo.png", "logo.png", kStatusNotPresent, ""},
        {"<p>no images</p>", "logo.png", "logo.png", kStatusNotPresent, ""},
        // A bare id in the body is not a "cid:" reference.
        {"<img src=\"abc@example\">", "", "abc@example", kStatusNotPresent, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.html);
        std::string reference;
        EXPECT_EQ(FindImageReference(c.html, c.file_name, c.content_id, &reference), c.status);
        if (c.status == kStatusOk) {
            EXPECT_EQ(reference, c.reference);
        }
    }
}

TEST(EncodeDataUri, EncodesWhatFitsEighteenPlusOnePointFourTimesTheSize) {
    // Published examples first; the short ones do not fit the capacity, so are refused with 0.
    struct Example {
        const char* bytes;
        int32_t status;
        const char* uri;
    };
    const Example examples[] = {
        {"f", 0, ""},
        {"fo", 0, ""},  // 2 bytes: kept from being inlined on purpose
        {"foo", kStatusOk, "data:image;base64,Zm9v"},
        {"foob", 0, ""},
        {"fooba", 0, ""},
        {"foobar", kStatusOk, "data:image;base64,Zm9vYmFy"},
    };
    for (const Example& e : examples) {
        SCOPED_TRACE(e.bytes);
        GrowBuffer out;
        out.Init(0, 0);
        EXPECT_EQ(EncodeDataUri(reinterpret_cast<const std::byte*>(e.bytes), std::strlen(e.bytes), &out),
                  e.status);
        if (e.status == kStatusOk) {
            EXPECT_EQ(out.view(), std::string(e.uri) + '\0');
        }
    }

    // Every size up to 200 against the rule and Boost's encoding; 20 and 26 fit exactly, 17 misses by one.
    for (size_t size = 1; size <= 200; ++size) {
        SCOPED_TRACE(size);
        const std::vector<std::byte> image = Image(size, static_cast<uint32_t>(size));
        const std::string expected = OracleUri(image);
        const bool fits = expected.size() <= 18 + size * 14 / 10;
        GrowBuffer out;
        out.Init(0, 0);
        ASSERT_EQ(EncodeDataUri(image.data(), size, &out), fits ? kStatusOk : 0);
        if (fits) {
            EXPECT_EQ(out.view(), expected + '\0');
        }
        if (size == 20 || size == 26) {
            EXPECT_TRUE(fits);
        }
        if (size == 17) {
            EXPECT_FALSE(fits);
        }
    }

    GrowBuffer out;
    const std::byte one{1};
    EXPECT_EQ(EncodeDataUri(nullptr, 30, &out), kStatusBadArgument);
    EXPECT_EQ(EncodeDataUri(&one, 0, &out), kStatusBadArgument);
}

// Records what it is asked to write and answers with names of its own, or with a refusal.
class RecordingWriter : public ImageFileWriter {
  public:
    explicit RecordingWriter(int32_t answer = kStatusOk) : answer_(answer) {}
    int32_t Write(const std::byte* data, size_t size, std::string* name) override {
        written.emplace_back(data, data + size);
        *name = "img" + std::to_string(written.size());
        return answer_;
    }
    std::vector<std::vector<std::byte>> written;

  private:
    int32_t answer_;
};

TEST(InlineImage, ReplacesTheWholeQuotedValueOfEveryUseOutsideVmlImageData) {
    struct Case {
        const char* name;
        std::string html;
        const char* reference;
        std::string expected;  // "@" stands for the replacement
        int32_t count;
    };
    const Case cases[] = {
        {"twice", "<img src=\"cid:a.png\"><p>x</p><img src=\"cid:a.png\">", "cid:a.png",
         "<img src=\"@\"><p>x</p><img src=\"@\">", 2},
        {"value widened to its quotes", "<img alt=\"a\" src=\"x cid:a.png y\" width=\"3\">", "cid:a.png",
         "<img alt=\"a\" src=\"@\" width=\"3\">", 1},
        {"vml fallback kept, any case",
         "<V:ImageData src=\"cid:a.png\" o:title=\"\"/><img src=\"cid:a.png\">", "cid:a.png",
         "<V:ImageData src=\"cid:a.png\" o:title=\"\"/><img src=\"@\">", 1},
        {"only vml", "<v:imagedata src=\"cid:a.png\"/>", "cid:a.png", "<v:imagedata src=\"cid:a.png\"/>", 0},
        {"unquoted use", "<img src=cid:a.png>", "cid:a.png", "<img src=@>", 1},
        // Unquoted after a replaced value: the earlier closing quote does not open this one's value.
        {"unquoted after quoted", "<img src=\"cid:a.png\"><img src=cid:a.png>", "cid:a.png",
         "<img src=\"@\"><img src=@>", 2},
        // The quotes of another attribute of the tag do not make the use quoted.
        {"unquoted beside quoted", "<img alt=\"a\" src=cid:a.png width=\"3\">", "cid:a.png",
         "<img alt=\"a\" src=@ width=\"3\">", 1},
        {"no closing quote", "<img src=\"cid:a.png", "cid:a.png", "<img src=\"@", 1},
        {"adjacent uses in one value", "<img src=\"cid:a.pngcid:a.png\">", "cid:a.png", "<img src=\"@\">", 1},
        {"terminated string keeps its NUL", std::string("<img src=\"a.png\">\0", 17), "a.png",
         std::string("<img src=\"@\">\0", 13), 1},
        {"not used", "<img src=\"cid:b.png\">", "cid:a.png", "<img src=\"cid:b.png\">", 0},
    };
    const std::vector<std::byte> image = Image(300);
    const std::string uri = OracleUri(image);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CountedString html = Counted(c.html);
        int32_t count = -1;
        ASSERT_EQ(InlineImage(&html, c.reference, image.data(), image.size(), nullptr, &count), kStatusOk);
        EXPECT_EQ(Bytes(html), Expand(c.expected, uri));
        EXPECT_EQ(count, c.count);

        // With a file writer the file's name takes the place; one file per image, however many uses.
        RecordingWriter files;
        CountedString html2 = Counted(c.html);
        ASSERT_EQ(InlineImage(&html2, c.reference, image.data(), image.size(), &files, &count), kStatusOk);
        EXPECT_EQ(Bytes(html2), Expand(c.expected, "img1"));
        EXPECT_EQ(count, c.count);
        EXPECT_LE(files.written.size(), 1u);
        for (const auto& written : files.written) EXPECT_EQ(written, image);
    }
}

TEST(InlineImage, FailuresLeaveTheBodyAsItWas) {
    const std::string body = "<img src=\"cid:a\"><img src=\"cid:a\">";
    const std::vector<std::byte> tiny = Image(2);
    const std::vector<std::byte> image = Image(100);
    RecordingWriter refusing(-5);
    struct Case {
        const char* name;
        const std::byte* data;
        size_t size;
        ImageFileWriter* files;
        int32_t status;
    };
    const Case cases[] = {
        {"two-byte image", tiny.data(), tiny.size(), nullptr, 0},
        {"null image", nullptr, 100, nullptr, kStatusBadArgument},
        {"empty image", image.data(), 0, nullptr, kStatusBadArgument},
        {"writer refuses", image.data(), image.size(), &refusing, -5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CountedString html = Counted(body);
        int32_t count = -1;
        EXPECT_EQ(InlineImage(&html, "cid:a", c.data, c.size, c.files, &count), c.status);
        EXPECT_EQ(Bytes(html), body);
        EXPECT_EQ(count, 0);
    }
    int32_t count = -1;
    EXPECT_EQ(InlineImage(nullptr, "cid:a", image.data(), image.size(), nullptr, &count), kStatusNullPointer);
}

// One image as a caller hands it over: the names its reference is looked for by, and its size.
struct Attached {
    std::string file_name;
    std::string content_id;
    size_t size;
};

// Puts the images into `body` one by one with FindImageReference and InlineImage, and through one
// ImageInliner; every status, reference, count and file written, and the final bytes, must agree.
// `raw` hands each file name to Inline as it is, without looking it up first.
void ExpectInlinerMatchesImageByImage(const std::string& body, const std::vector<Attached>& images,
                                      bool to_files, bool raw = false) {
    CountedString expected = Counted(body);
    CountedString actual = Counted(body);
    RecordingWriter expected_files;
    RecordingWriter actual_files;
    ImageInliner inliner(&actual, to_files ? &actual_files : nullptr);
    for (size_t i = 0; i < images.size(); ++i) {
        const Attached& image = images[i];
        SCOPED_TRACE(::testing::Message() << "image " << i << " \"" << image.file_name << "\" <"
                                          << image.content_id << "> of " << image.size);
        std::string reference = image.file_name;
        if (!raw) {
            std::string found;
            const int32_t status =
                FindImageReference(expected.text(), image.file_name, image.content_id, &reference);
            ASSERT_EQ(inliner.Find(image.file_name, image.content_id, &found), status);
            if (status != kStatusOk) continue;
            ASSERT_EQ(found, reference);
        }
        const std::vector<std::byte> bytes = Image(image.size, static_cast<uint32_t>(i));
        int32_t expected_count = -1;
        int32_t actual_count = -1;
        ASSERT_EQ(inliner.Inline(reference, bytes.data(), bytes.size(), &actual_count),
                  InlineImage(&expected, reference, bytes.data(), bytes.size(),
                              to_files ? &expected_files : nullptr, &expected_count));
        ASSERT_EQ(actual_count, expected_count);
    }
    ASSERT_EQ(inliner.Finish(), kStatusOk);
    EXPECT_EQ(Bytes(actual), Bytes(expected));
    EXPECT_EQ(actual_files.written, expected_files.written);
}

TEST(ImageInliner, GivesWhatInliningImageByImageGives) {
    std::string many;
    std::vector<Attached> many_images;
    for (int i = 0; i < 300; ++i) {
        many += "<img src=\"cid:i" + std::to_string(i) + "\">";
        many_images.push_back({"i" + std::to_string(i) + ".png", "i" + std::to_string(i), 9});
    }
    struct Case {
        const char* name;
        std::string body;
        std::vector<Attached> images;
    };
    const Case cases[] = {
        {"a name inside a longer one, the shorter first",
         "<img src=\"12.jpg\"><img src=\"2.jpg\">",
         {{"2.jpg", "", 30}, {"12.jpg", "", 30}}},
        {"the longer first",
         "<img src=\"cid:1.jpg\"><img src=\"cid:12.jpg\">",
         {{"", "12.jpg", 30}, {"", "1.jpg", 30}}},
        {"vml kept",
         "<v:imagedata src=\"cid:a.png\"/><img src=\"cid:a.png\"><V:IMAGEDATA src=\"cid:a.png\">",
         {{"a.png", "a.png", 30}, {"a.png", "a.png", 30}}},
        {"uses outside quotes",
         "<img src=cid:a.png><img src=\"cid:b.png\"><p>b.png</p>",
         {{"", "b.png", 30}, {"a.png", "a.png", 30}, {"b.png", "", 30}}},
        {"found inside an inserted data URI",
         "<img src=\"cid:x\"><img src=\"image\"><p>base64</p>",
         {{"", "x", 30}, {"image", "", 30}, {"base64", "", 30}, {"A", "", 30}}},
        {"a value that never closes", "<img src=\"cid:b\"><img src=\"cid:a", {{"", "b", 30}, {"", "a", 30}}},
        {"a value holding a tag", "<img alt=\"<b>cid:a\" src=\"cid:b\">", {{"", "a", 30}, {"", "b", 30}}},
        {"a tag's start replaced",
         "<img alt=\"cid:a <v:imagedata x\" src=\"cid:b\">",
         {{"", "a", 30}, {"", "b", 30}}},
        {"a quote in the id", "<img src=\"cid:a\"><img src=\"cid:a\"b\">", {{"", "a", 30}, {"", "a\"b", 30}}},
        {"empty names, too small, empty",
         "<img src=\"cid:a\"><img src=\"b\">",
         {{"", "", 30}, {"", "a", 2}, {"b", "", 0}, {"b", "a", 30}}},
        {"a terminated body", std::string("<img src=\"cid:a\">\0", 18), {{"", "a", 30}}},
        {"many", many, many_images},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ExpectInlinerMatchesImageByImage(c.body, c.images, false);
        ExpectInlinerMatchesImageByImage(c.body, c.images, true);
    }

    // Random bodies of the pieces that matter and images named from overlapping names.
    const char* const pieces[] = {"<img src=\"",
                                  "\"",
                                  "<v:imagedata ",
                                  "<",
                                  ">",
                                  " ",
                                  "cid:",
                                  "a",
                                  "b",
                                  "1",
                                  "2",
                                  ".png",
                                  "image",
                                  "=",
                                  "AAAA",
                                  "data:image;base64,",
                                  "img1",
                                  "\0"};
    const char* const names[] = {"",     "a",   "b",  "1.png", "2.png", "12.png", "a.png", "image",
                                 "AAAA", "b\"", "<a", "1",     ".png",  "img",    "cid:a"};
    const size_t sizes[] = {0, 2, 3, 9, 30};
    std::mt19937 random(20261124);
    for (int round = 0; round < 3000; ++round) {
        SCOPED_TRACE(round);
        std::string body;
        for (size_t n = random() % 40; n > 0; --n) {
            const char* piece = pieces[random() % std::size(pieces)];
            body += *piece == '\0' ? std::string(1, '\0') : std::string(piece);
        }
        std::vector<Attached> images(1 + random() % 8);
        for (Attached& image : images)
            image = {names[random() % std::size(names)], names[random() % std::size(names)],
                     sizes[random() % std::size(sizes)]};
        ExpectInlinerMatchesImageByImage(body, images, random() % 2 == 0, random() % 5 == 0);
        if (::testing::Test::HasFatalFailure()) return;
    }
}

// CTest also runs this case under an allocation limit of 64 MiB: the 100,000 uses would take some
// 140 GB, so the refusal must come before anything of that size is asked for.
TEST(InlineImageCeiling, ManyUsesOfALargeImageEndInAStatusAndKeepTheBody) {
    std::string body;
    for (int i = 0; i < 100000; ++i) body += "<img src=\"cid:big\">";
    const std::vector<std::byte> image = Image(1 << 20);
    CountedString html = Counted(body);
    int32_t count = -1;
    EXPECT_EQ(InlineImage(&html, "cid:big", image.data(), image.size(), nullptr, &count), kStatusFailure);
    EXPECT_EQ(Bytes(html), body);
    EXPECT_EQ(count, 0);

    // Twenty uses (some 28 MiB) stay under the ceiling and are all made.
    const std::string some = body.substr(0, 20 * std::strlen("<img src=\"cid:big\">"));
    CountedString html2 = Counted(some);
    ASSERT_EQ(InlineImage(&html2, "cid:big", image.data(), image.size(), nullptr, &count), kStatusOk);
    EXPECT_EQ(count, 20);
    const std::string uri = OracleUri(image);
    EXPECT_EQ(html2.size(), 20 * (std::strlen("<img src=\"\">") + uri.size()));
    EXPECT_EQ(Bytes(html2).substr(10, uri.size()), uri);
}

TEST(StripHtmlNoise, BlanksDivValueRunsAndControlCharacterReferencesInPlace) {
    struct Case {
        std::string html;
        std::string expected;
    };
    const Case cases[] = {
        // Line ends stay; 20 (kept coarse on purpose) and the control characters go.
        {"a&#13;b", "a&#13;b"},
        {"a&#20;b", "a     b"},
        {"a&#10;&#3;&#9;b", "a&#10;&#3;&#9;b"},
        {"&#2;&#11;&#12;&#14;&#19;&#31;", std::string(29, ' ')},
        {"&#1;&#30;", std::string(9, ' ')},
        {"&#32;&#39;&#4;", "&#32;&#39;&#4;"},
        // The ";" must come within four bytes of the "&".
        {"&#200;&#1234;", "&#200;&#1234;"},
        {"&#x1F;&#;", "&#x1F;&#;"},
        {"&#25", "&#25"},
        // The div value runs up to the quote that closes the tag.
        {"x<div>&nbsp;value=\"/a/b\">y", "x" + std::string(24, ' ') + "y"},
        {"<div>&nbsp;value=\"a\">y", "<div>&nbsp;value=\"a\">y"},
        {"<div>&nbsp;value=\"/open", "<div>&nbsp;value=\"/open"},
        {"<DIV>&nbsp;value=\"/a\">", "<DIV>&nbsp;value=\"/a\">"},
        {std::string("&#20;\0", 6), std::string("     \0", 6)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.html);
        CountedString html = Counted(c.html);
        StripHtmlNoise(&html);
        EXPECT_EQ(Bytes(html), c.expected);
    }
    StripHtmlNoise(nullptr);
}

}  // namespace
}  // namespace tarn
