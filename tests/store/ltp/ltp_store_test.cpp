// Whole message stores from the store writer: our reader finds every folder, table, message,
// body and attachment the writer put there; and two independent readers run as black boxes, readpst
// (pst-utils) and pffexport (pff-tools), see the same folders, subjects, bodies and attachments.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "store/ltp/property_bag.h"
#include "store/ltp/table.h"
#include "tests/store/ltp/ltp_test_util.h"
#include "tests/support/scratch_file.h"
#include "tests/support/store_writer.h"

namespace {

using namespace tarn::ltp;
using namespace tarn::fixture;
namespace fs = std::filesystem;

// A compressed-RTF stream ("LZFu") of literals only: a control byte of 0 before every eight literal
// bytes, then one dictionary reference to the current write position, which ends the stream. The
// CRC covers everything after the 16-byte header.
constexpr char kRtfText[] = "{\\rtf1\\ansi\\deff0 Hello RTF body}";

Bytes CompressedRtf(const std::string& rtf) {
    Bytes data;
    size_t i = 0;
    for (; i + 8 <= rtf.size(); i += 8) {
        data.push_back(std::byte{0});
        for (size_t k = 0; k < 8; ++k) data.push_back(static_cast<std::byte>(rtf[i + k]));
    }
    const size_t left = rtf.size() - i;
    data.push_back(static_cast<std::byte>(1u << left));  // the end reference follows the last literals
    for (size_t k = 0; k < left; ++k) data.push_back(static_cast<std::byte>(rtf[i + k]));
    const uint16_t end = static_cast<uint16_t>(((207 + rtf.size()) % 4096) << 4);
    data.push_back(static_cast<std::byte>(end >> 8));
    data.push_back(static_cast<std::byte>(end & 0xFF));
    Bytes out = Le(data.size() + 12, 4);
    for (uint64_t v :
         {uint64_t{rtf.size()}, uint64_t{0x75465A4C}, uint64_t{PstCrc(data.data(), data.size())}}) {
        const Bytes b = Le(v, 4);
        out.insert(out.end(), b.begin(), b.end());
    }
    out.insert(out.end(), data.begin(), data.end());
    return out;
}

std::string BodyText(size_t i) {
    std::string text = "Body of message " + std::to_string(i) + "\r\nsecond line\r\n";
    // Message 2's body needs more than one data block (an XBLOCK under its subnode).
    for (size_t k = 0; k < (i == 2 ? 900 : 3); ++k) text += "line " + std::to_string(k) + " of the body\r\n";
    return text;
}

StoreDescription Sample(PstLayout layout) {
    const bool unicode = layout == PstLayout::kUnicode;
    StoreDescription d;
    d.layout = layout;
    d.encoding = unicode ? PstEncoding::kCyclic : PstEncoding::kPermute;
    const std::vector<std::pair<std::string, size_t>> folders = {
        {"Inbox", 4}, {"Archive 2019", 3}, {"Empty", 0}};
    size_t i = 0;
    for (const auto& [name, count] : folders) {
        StoreFolder folder{name, {}};
        for (size_t k = 0; k < count; ++k, ++i) {
            StoreMessage m;
            m.subject = "Message " + std::to_string(i) + (unicode ? " caf\xC3\xA9 \xE2\x98\x95" : " plain");
            m.sender_name = "Sender " + std::to_string(i);
            m.display_to = "To " + std::to_string(i) + "; Another";
            if (i % 2 == 0) m.display_cc = "Cc " + std::to_string(i);
            if (i == 3) m.display_bcc = "Hidden";
            m.submit_time = 0x01D5C0DE00000000ull + i * 864000000000ull;
            m.importance = static_cast<uint32_t>(i % 3);
            m.body = StoreText(layout, BodyText(i));
            if (i != 1)
                m.html = ToBytes("<html><body><p>Message " + std::to_string(i) + "</p></body></html>");
            if (i == 3) m.rtf_compressed = CompressedRtf(kRtfText);
            if (i == 1)
                m.attachments.push_back({"report final.txt", "REPORT~1.TXT", PatternBytes(20000, 11)});
            if (i == 5) {
                m.attachments.push_back({"a.bin", "A.BIN", ToBytes("first attachment")});
                m.attachments.push_back({"b.bin", "B.BIN", PatternBytes(3000, 12)});
            }
            folder.messages.push_back(m);
        }
        d.folders.push_back(folder);
    }
    return d;
}

std::u16string Expected16(PstLayout layout, const std::string& utf8) {
    if (layout == PstLayout::kUnicode) return Utf8ToUtf16(utf8);
    return std::u16string(utf8.begin(), utf8.end());  // ASCII in the ANSI sample
}

std::vector<std::byte> Drain(hnid_stream_device device) {
    prop_stream in(device);
    std::vector<std::byte> all;
    char piece[4096];
    while (in.read(piece, sizeof piece) || in.gcount() > 0) {
        const auto* b = reinterpret_cast<const std::byte*>(piece);
        all.insert(all.end(), b, b + in.gcount());
    }
    return all;
}

TEST(StoreWriterTest, OurReaderFindsEverythingThatWasWritten) {
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        SCOPED_TRACE(static_cast<int>(layout));
        const StoreDescription d = Sample(layout);
        StoreMap map;
        auto store = tarn::testing::Open(DescribeStore(d, &map));

        const property_bag top(store.node(map.ipm_subtree));
        EXPECT_EQ(top.read_wstring(0x3001), u"Top of Personal Folders");
        const table hierarchy(store.node((map.ipm_subtree & ~0x1Fu) | 0x0D));
        ASSERT_EQ(hierarchy.size(), d.folders.size());
        for (size_t f = 0; f < d.folders.size(); ++f) {
            SCOPED_TRACE(d.folders[f].name);
            EXPECT_EQ(hierarchy[static_cast<uint32_t>(f)].get_row_id(), map.folders[f]);
            EXPECT_EQ(hierarchy[static_cast<uint32_t>(f)].read_wstring(0x3001),
                      Expected16(layout, d.folders[f].name));
            const property_bag folder(store.node(map.folders[f]));
            EXPECT_EQ(folder.read_wstring(0x3001), Expected16(layout, d.folders[f].name));
            EXPECT_EQ(folder.get_value_4(0x3602), d.folders[f].messages.size());
            const table contents(store.node((map.folders[f] & ~0x1Fu) | 0x0E));
            ASSERT_EQ(contents.size(), d.folders[f].messages.size());
            for (uint32_t r = 0; r < contents.size(); ++r) {
                const StoreMessage& m = d.folders[f].messages[r];
                const uint32_t id = map.messages[f][r];
                EXPECT_EQ(contents[r].get_row_id(), id);
                EXPECT_EQ(contents.lookup_row(id), r);
                EXPECT_EQ(contents[r].read_wstring(0x0037), Expected16(layout, *m.subject));

                const property_bag message(store.node(id));
                EXPECT_EQ(message.read_wstring(0x0037), Expected16(layout, *m.subject));
                EXPECT_EQ(message.read_wstring(0x0C1A), Expected16(layout, *m.sender_name));
                EXPECT_EQ(message.read_wstring(0x0E04), Expected16(layout, *m.display_to));
                EXPECT_EQ(message.prop_exists(0x0E03), m.display_cc.has_value());
                EXPECT_EQ(message.prop_exists(0x0E02), m.display_bcc.has_value());
                EXPECT_EQ(message.get_value_8(0x0039), *m.submit_time);
                EXPECT_EQ(message.get_value_4(0x0017), *m.importance);
                EXPECT_EQ(Drain(message.open_prop_stream(0x1000)), *m.body);
                EXPECT_EQ(message.prop_exists(0x1013), m.html.has_value());
                EXPECT_EQ(message.prop_exists(0x1009), m.rtf_compressed.has_value());
                if (m.html) {
                    EXPECT_EQ(message.get_value_variable(0x1013), *m.html);
                }
                if (m.rtf_compressed) {
                    EXPECT_EQ(message.get_value_variable(0x1009), *m.rtf_compressed);
                }

                const tarn::ndb::node node = store.node(id);
                if (m.attachments.empty()) {
                    EXPECT_THROW(node.lookup(kAttachmentTableSubnode), key_not_found<uint32_t>);
                    continue;
                }
                const table attachments(node.lookup(kAttachmentTableSubnode));
                ASSERT_EQ(attachments.size(), m.attachments.size());
                for (uint32_t a = 0; a < attachments.size(); ++a) {
                    EXPECT_EQ(attachments[a].read_wstring(0x3707),
                              Expected16(layout, m.attachments[a].long_name));
                    const property_bag attachment(node.lookup(attachments[a].get_row_id()));
                    EXPECT_EQ(attachment.read_wstring(0x3707),
                              Expected16(layout, m.attachments[a].long_name));
                    EXPECT_EQ(attachment.read_wstring(0x3704),
                              Expected16(layout, m.attachments[a].short_name));
                    EXPECT_EQ(Drain(attachment.open_prop_stream(0x3701)), m.attachments[a].data);
                }
            }
        }
    }
}

// ---- Black-box readers ------------------------------------------------------------------------

bool HaveTool(const char* name) {
    return std::system((std::string("command -v ") + name + " >/dev/null 2>&1").c_str()) == 0;
}

std::string Unhex(const std::string& hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

std::string Lf(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i)
        if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) out.push_back(text[i]);
    return out;
}

std::string Read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// What a reader reports of one message, comparable with the writer's description.
struct Seen {
    std::string subject, plain, html, attachments, rtf;
    bool operator<(const Seen& o) const { return subject < o.subject; }
    bool operator==(const Seen& o) const = default;
};
using FolderView = std::map<std::string, std::vector<Seen>>;

std::string Join(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    std::string out;
    for (const std::string& n : names) out += (out.empty() ? "" : ";") + n;
    return out;
}

void PrintTo(const Seen& s, std::ostream* os) {
    *os << "{" << s.subject << " | " << s.plain.size() << " plain bytes | " << s.html << " | "
        << s.attachments << " | " << s.rtf << "}";
}

// The writer's side: subjects, the text the plain bodies were made from, HTML, attachment names
// (sorted: the tools list them in different orders). Neither tool makes anything for a folder without
// messages. pffexport also exports a message's RTF body, decompressed, with a terminating zero.
FolderView Model(const StoreDescription& d, bool with_rtf) {
    FolderView model;
    size_t i = 0;
    for (const StoreFolder& f : d.folders) {
        for (const StoreMessage& m : f.messages) {
            Seen s{*m.subject, Lf(BodyText(i++)), "", ""};
            if (m.html)
                s.html = Lf(std::string(reinterpret_cast<const char*>(m.html->data()), m.html->size()));
            std::vector<std::string> names;
            for (const StoreAttachment& a : m.attachments) names.push_back(a.long_name);
            s.attachments = Join(names);
            if (m.rtf_compressed && with_rtf) s.rtf = std::string(kRtfText, sizeof kRtfText);
            model[f.name].push_back(s);
        }
        if (!f.messages.empty()) std::sort(model[f.name].begin(), model[f.name].end());
    }
    return model;
}

class OracleTest : public ::testing::TestWithParam<PstLayout> {};

TEST_P(OracleTest, ReadpstSeesTheSameFoldersSubjectsBodiesAndAttachments) {
    if (!HaveTool("readpst") || !HaveTool("python3"))
        GTEST_SKIP() << "readpst (pst-utils) or python3 is not installed";
    const StoreDescription d = Sample(GetParam());
    tarn::testing::ScratchDir dir;
    const fs::path pst = dir.Write("sample.pst", WritePst(DescribeStore(d)).bytes);
    fs::create_directory(dir.path() / "out");
    // -e: one .eml per message in a folder tree; -b: no RTF body attachments; -8: UTF-8 bodies.
    // -j 0: one process. By default readpst forks a process per folder, and a child reopening its
    // inherited stream of the store first seeks the descriptor it still shares with its parent; under
    // load the parent then now and then reads a block from the wrong offset (about one run in 150).
    const std::string run =
        "readpst -j 0 -q -D -b -8 -e -o '" + (dir.path() / "out").string() + "' '" + pst.string() +
        "' >/dev/null 2>&1 && python3 '" TARN_SOURCE_DIR "/tests/store/ltp/eml_digest.py' '" +
        (dir.path() / "out").string() + "' > '" + (dir.path() / "digest.txt").string() + "'";
    ASSERT_EQ(std::system(run.c_str()), 0) << run;
    FolderView seen;
    std::istringstream lines(Read(dir.path() / "digest.txt"));
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        std::istringstream cut(line);
        for (std::string field; std::getline(cut, field, '\t');) fields.push_back(field);
        fields.resize(5);
        const std::string folder = fs::path(fields[0]).filename().string();
        std::vector<std::string> names;
        std::istringstream list(Unhex(fields[4]));
        for (std::string name; std::getline(list, name, ';');) names.push_back(name);
        seen[folder].push_back({Unhex(fields[1]), Unhex(fields[2]), Unhex(fields[3]), Join(names), ""});
    }
    for (auto& [folder, messages] : seen) std::sort(messages.begin(), messages.end());
    EXPECT_EQ(seen, Model(d, false));
}

TEST_P(OracleTest, PffexportSeesTheSameFoldersSubjectsBodiesAndAttachments) {
    if (!HaveTool("pffexport")) GTEST_SKIP() << "pffexport (pff-tools) is not installed";
    const StoreDescription d = Sample(GetParam());
    tarn::testing::ScratchDir dir;
    const fs::path pst = dir.Write("sample.pst", WritePst(DescribeStore(d)).bytes);
    const fs::path out = dir.path() / "out";
    const std::string run =
        "pffexport -q -f all -m items -t '" + out.string() + "' '" + pst.string() + "' >/dev/null 2>&1";
    ASSERT_EQ(std::system(run.c_str()), 0) << run;
    FolderView seen;
    const fs::path top = out.string() + ".export/Top of Personal Folders";
    ASSERT_TRUE(fs::is_directory(top));
    for (const auto& folder : fs::directory_iterator(top)) {
        for (const auto& item : fs::directory_iterator(folder.path())) {
            Seen s;
            std::istringstream headers(Read(item.path() / "OutlookHeaders.txt"));
            for (std::string line; std::getline(headers, line);) {
                if (line.rfind("Subject:", 0) == 0)
                    s.subject = line.substr(std::min(line.size(), line.find_first_not_of('\t', 8)));
            }
            if (fs::exists(item.path() / "Message.txt")) s.plain = Lf(Read(item.path() / "Message.txt"));
            if (fs::exists(item.path() / "Message.rtf")) s.rtf = Read(item.path() / "Message.rtf");
            if (fs::exists(item.path() / "Message.html")) s.html = Lf(Read(item.path() / "Message.html"));
            std::vector<std::string> names;
            if (fs::exists(item.path() / "Attachments")) {
                for (const auto& a : fs::directory_iterator(item.path() / "Attachments"))
                    names.push_back(a.path().filename().string());
            }
            // Files are named "N_name", N counted from 1 in attachment order.
            for (std::string& n : names) n = n.substr(n.find('_') + 1);
            s.attachments = Join(names);
            seen[folder.path().filename().string()].push_back(s);
        }
    }
    for (auto& [folder, messages] : seen) std::sort(messages.begin(), messages.end());
    EXPECT_EQ(seen, Model(d, true));
}

INSTANTIATE_TEST_SUITE_P(BothLayouts, OracleTest, ::testing::Values(PstLayout::kAnsi, PstLayout::kUnicode),
                         [](const ::testing::TestParamInfo<PstLayout>& info) {
                             return info.param == PstLayout::kAnsi ? std::string("Ansi")
                                                                   : std::string("Unicode");
                         });

}  // namespace
