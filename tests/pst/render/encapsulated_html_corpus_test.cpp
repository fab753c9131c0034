// Every compressed-RTF body of the corpus (message files and stores), through the message file's path:
// decompressed, and recovered as HTML where it encapsulates HTML. An independent decompressor and
// de-encapsulator, run as black boxes on the same bytes, must agree on which bodies hold HTML, and on
// the sequence of tags in each.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "pst/render/compressed_rtf.h"
#include "pst/render/text_search.h"

namespace {

using namespace tarn;
namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool IsNameByte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ':' ||
           c == '-' || c == '_' || c == '.';
}

// The names of the start and end tags in `html`, in order, lower case, end tags with their "/". Tags
// inside comments count too: both sides carry the comments over.
std::vector<std::string> TagNames(std::string_view html) {
    std::vector<std::string> names;
    for (size_t at = html.find('<'); at != std::string_view::npos; at = html.find('<', at + 1)) {
        size_t p = at + 1;
        std::string name;
        if (p < html.size() && html[p] == '/') {
            name = "/";
            ++p;
        }
        if (p >= html.size() || !((html[p] >= 'a' && html[p] <= 'z') || (html[p] >= 'A' && html[p] <= 'Z')))
            continue;
        for (; p < html.size() && IsNameByte(html[p]); ++p) name += AsciiLower(html[p]);
        names.push_back(std::move(name));
    }
    return names;
}

// Where two tag sequences part, for the failure message.
std::string FirstDifference(const std::vector<std::string>& ours, const std::vector<std::string>& theirs) {
    size_t i = 0;
    while (i < ours.size() && i < theirs.size() && ours[i] == theirs[i]) ++i;
    std::ostringstream s;
    s << "tag " << i << " of " << ours.size() << " (ours) / " << theirs.size() << " (oracle): ";
    s << (i < ours.size() ? ours[i] : "(end)") << " vs " << (i < theirs.size() ? theirs[i] : "(end)");
    return s.str();
}

struct Body {
    fs::path raw;
    std::string where;
};

int Shell(const std::string& command) { return std::system(command.c_str()); }

TEST(EncapsulatedHtmlCorpus, TagSequencesMatchAnIndependentDeencapsulator) {
    const fs::path work = fs::temp_directory_path() / ("tarn-deencap-corpus-" + std::to_string(::getpid()));
    const std::string source(TARN_SOURCE_DIR);
    const fs::path corpus = fs::path(TARN_SHARED_DIR) / "corpus";
    const fs::path manifest = work / "manifest.txt";
    fs::create_directories(work);
    ASSERT_EQ(Shell("/usr/bin/python3 '" + source + "/tests/pst/render/compressed_rtf_streams.py' '" +
                    corpus.string() + "' '" + work.string() + "' > '" + manifest.string() + "'"),
              0)
        << "the corpus streams could not be read (python3-olefile, python3-pypff)";

    std::vector<Body> bodies;
    std::ifstream lines(manifest);
    for (std::string line; std::getline(lines, line);) {
        const size_t tab = line.find('\t');
        bodies.push_back({work / line.substr(0, tab), line.substr(tab + 1)});
    }
    ASSERT_FALSE(bodies.empty());

    // One run of each oracle for all bodies: decompress, then de-encapsulate what decompressed.
    std::string decompress = "node '" + source + "/tests/oracles/decompressrtf.js'";
    std::string deencapsulate = "node '" + source + "/tests/oracles/deencapsulate.js'";
    for (const Body& b : bodies) {
        decompress += " '" + b.raw.string() + "' '" + b.raw.string() + ".rtf'";
        deencapsulate += " '" + b.raw.string() + ".rtf' '" + b.raw.string() + ".html'";
    }
    ASSERT_EQ(Shell(decompress + " 2>/dev/null"), 0) << "the decompressor did not run (scripts/oracles.sh)";
    ASSERT_EQ(Shell(deencapsulate + " 2>/dev/null"), 0)
        << "the de-encapsulator did not run (scripts/oracles.sh)";

    std::map<std::string, int> html_per_file;
    for (const Body& b : bodies) {
        const std::string raw = ReadFile(b.raw);
        CountedString document;
        ASSERT_EQ(DecompressRtfBuffer(reinterpret_cast<const std::byte*>(raw.data()), raw.size(), document),
                  1)
            << b.where;
        const std::string_view ours = document.text();
        const fs::path theirs = b.raw.string() + ".html";
        const bool ours_html = !ours.starts_with("{\\rtf");
        ASSERT_EQ(ours_html, fs::exists(theirs)) << b.where << ": only one side reads the body as HTML";
        if (!ours_html) continue;
        ++html_per_file[b.where.substr(0, b.where.find_first_of(" /"))];
        const std::vector<std::string> our_tags = TagNames(ours);
        const std::vector<std::string> their_tags = TagNames(ReadFile(theirs));
        EXPECT_FALSE(our_tags.empty()) << b.where;
        EXPECT_TRUE(our_tags == their_tags) << b.where << ": " << FirstDifference(our_tags, their_tags);
    }
    fs::remove_all(work);

    // The bodies holding HTML, per file, so that a change in what is found shows.
    const std::map<std::string, int> expected = {
        {"ansi-cp932-nonunicode.msg", 1},
        {"ansi-cp932-nonunicode.pst", 1},
        {"ansi-latin1-accented-subject.msg", 1},
        {"ansi-outlook2000-pst2john-73msgs.pst", 73},
        {"ansi-post-item-blammo.msg", 1},
        {"ansi-testmessage-html-rtf.msg", 1},
        {"unicode-200-recipients.msg", 1},
        {"unicode-22-embedded-fromtext.msg", 1},
        {"unicode-attach-and-inline-cid.msg", 1},
        {"unicode-attach-and-inline.pst", 1},
        {"unicode-big-tif-attachments-2mb.msg", 1},
        {"unicode-cfbv4-4096-sectors.msg", 1},
        {"unicode-cp936-cjk-attachname-embedded.msg", 1},
        {"unicode-cyclic-pst2john-quickquick.pst", 22},
        {"unicode-cyrillic-rtf1251.msg", 1},
        {"unicode-embedded-msg-attachment.msg", 1},
        {"unicode-embedded-msgs-with-cid.msg", 1},
        {"unicode-hello-cjk.msg", 1},
        {"unicode-html-and-rtf-cid-images.msg", 1},
        {"unicode-koi8r-cyrillic-attachname.msg", 1},
        {"unicode-mscfr-test-email-cid.msg", 1},
        {"unicode-msginmsginmsg-cjk.msg", 1},
        {"unicode-msginmsginmsg.pst", 1},
        {"unicode-nocrypt-pst2john-quickquick.pst", 10},
        {"unicode-outlook2003-welcome-11-jpegs.msg", 1},
        {"unicode-permute-pst2john-quickquick.pst", 22},
        {"unicode-smime-signed.msg", 1},
    };
    EXPECT_EQ(html_per_file, expected);
}

}  // namespace
