// tarnview export run as a program: its documents against what the entry points hand the loader for
// the same message number (fltLoad, linked into this test), its manifest's subject, sender and sent time
// against pypff (python3-pypff, run as a black box) on every corpus store, and what it does with
// writer-made stores that are damaged or carry hostile names.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
// The parser includes boost/bind.hpp, which asks for its placeholders to be named.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "common/apiutils.h"
#include "common/status.h"
#include "kernel/tarnkrn_control.h"
#include "tests/pst/store_fixture.h"
#include "tests/support/scratch_file.h"
#include "tests/support/store_writer.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

namespace fs = std::filesystem;

std::string ReadAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

struct Exported {
    int exit_status = -1;
    std::string errors;
    std::vector<boost::property_tree::ptree> rows;  // manifest.jsonl, in order
};

Exported RunExport(const fs::path& out, const std::vector<std::string>& arguments) {
    const fs::path err = out.parent_path() / (out.filename().string() + ".stderr");
    std::string command = "'" TARNVIEW_PATH "' export";
    for (const std::string& a : arguments) command += " " + Quoted(a);
    command += " -o " + Quoted(out.string()) + " 2>" + Quoted(err.string());
    const int status = std::system(command.c_str());
    Exported exported;
    if (status != -1 && WIFEXITED(status)) exported.exit_status = WEXITSTATUS(status);
    exported.errors = ReadAll(err);
    std::istringstream lines(ReadAll(out / "manifest.jsonl"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream one(line);
        boost::property_tree::ptree row;
        boost::property_tree::read_json(one, row);
        exported.rows.push_back(row);
    }
    return exported;
}

// A manifest value as text, nothing for JSON null.
std::optional<std::string> Get(const boost::property_tree::ptree& row, const std::string& key) {
    const auto value = row.get_optional<std::string>(key);
    if (!value || *value == "null") return std::nullopt;
    return *value;
}

int IndexOf(const boost::property_tree::ptree& row) {
    const std::optional<std::string> index = Get(row, "index");
    return index ? std::stoi(*index) : 0;
}

std::string Run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    pclose(pipe);
    return out;
}

// node id -> the message as pypff reads it (tests/tools/export_pypff.py): subject, sender, sent.
std::map<std::string, boost::property_tree::ptree> ReadWithPypff(const std::string& path) {
    std::map<std::string, boost::property_tree::ptree> out;
    std::istringstream lines(
        Run("cd / && /usr/bin/python3 '" TARN_SOURCE_DIR "/tests/tools/export_pypff.py' " + Quoted(path)));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream one(line);
        boost::property_tree::ptree message;
        boost::property_tree::read_json(one, message);
        out[message.get<std::string>("node")] = message;
    }
    return out;
}

// fltInfo's message count for message 1, or 0 when it gives none.
int32_t FilterCount(const std::u16string& path) {
    host::Toolkit toolkit;
    host::SourceSession session(path);
    krnctlSetMode(kKernelModeInMemory);
    KernelFileHandle handle(krnOpenFile(path.c_str(), 0, kOpenShareMode));
    const host::CallOutcome outcome =
        host::CallInfo(kLinkedFilter, &session.BuildInfoRequest(handle.get(), 1));
    const int32_t count = outcome.status == kStatusOk ? session.file_info().message_count : 0;
    EXPECT_TRUE(session.ReleaseSlot(kLinkedFilter).returned());
    return count;
}

std::vector<fs::path> CorpusStores() {
    std::vector<fs::path> stores;
    for (const auto& entry : fs::directory_iterator(fs::path(TARN_SHARED_DIR) / "corpus" / "pst"))
        if (entry.path().extension() == ".pst") stores.push_back(entry.path());
    std::sort(stores.begin(), stores.end());
    return stores;
}

// Each corpus store in kShards cases, each checking the message numbers of one residue: one fltLoad per
// number walks every message before it, so a store of hundreds of messages takes minutes under the
// sanitizers, and the shards run beside each other. Shard 0 also checks the manifest against pypff.
constexpr int kShards = 4;
using CorpusCase = std::tuple<fs::path, int>;
class CorpusExport : public ::testing::TestWithParam<CorpusCase> {};

TEST_P(CorpusExport, EveryMessageIsTheDocumentTheEntryPointsGiveAndPypffReadsItsFields) {
    const fs::path& store = std::get<0>(GetParam());
    const int shard = std::get<1>(GetParam());
    ScratchDir dir;
    const Exported exported = RunExport(dir.path() / "out", {store.string(), "--attachments"});
    ASSERT_FALSE(exported.rows.empty()) << exported.errors;
    std::map<int, const boost::property_tree::ptree*> by_index;
    int failures = 0;
    for (const auto& row : exported.rows) {
        if (const int index = IndexOf(row); index > 0) by_index[index] = &row;
        if (Get(row, "error")) ++failures;
    }
    EXPECT_EQ(exported.exit_status, failures > 0 ? 1 : 0) << exported.errors;

    // Every number the entry points count, one fltLoad each.
    const std::u16string wide = Wide(store);
    const int32_t count = FilterCount(wide);
    for (int32_t n = 1 + shard; n <= count; n += kShards) {
        SCOPED_TRACE("message " + std::to_string(n));
        const Loaded loaded = LoadMessage(wide, n);
        const auto found = by_index.find(n);
        if (found == by_index.end()) {
            // The folders' counts may promise more than the walk finds; the filter then has no body.
            EXPECT_NE(loaded.status, kStatusOk);
            continue;
        }
        const auto& row = *found->second;
        const bool reaches = Get(row, "filter_reaches") == "true";
        if (loaded.status == kStatusOk) {
            EXPECT_TRUE(reaches);
            ASSERT_EQ(Get(row, "exported"), "true");
            EXPECT_EQ(Get(row, "format"), std::to_string(loaded.format));
            EXPECT_TRUE(ReadAll(dir.path() / "out" / *Get(row, "file")) == loaded.document);
            continue;
        }
        EXPECT_EQ(reaches ? Get(row, "status") : Get(row, "filter_status"), std::to_string(loaded.status));
        if (Get(row, "text_fallback") == "true") {
            const Loaded text = LoadMessage(wide, n, /*plain_text=*/true);
            ASSERT_EQ(text.status, kStatusOk);
            EXPECT_TRUE(ReadAll(dir.path() / "out" / *Get(row, "file")) == text.document);
        }
    }

    // The store without content counts: the filter gives no count, the export still has every
    // message that pypff finds.
    if (shard != 0) return;
    const auto pypff = ReadWithPypff(store.string());
    if (count == 0 && !pypff.empty()) {
        EXPECT_EQ(by_index.size(), pypff.size());
    }
    for (const auto& row : exported.rows) {
        const std::optional<std::string> node = Get(row, "node_id");
        if (!node) continue;
        const auto theirs = pypff.find(*node);
        ASSERT_NE(theirs, pypff.end()) << "node " << *node << " unknown to pypff";
        for (const char* field : {"subject", "sender", "sent"})
            EXPECT_EQ(Get(row, field), Get(theirs->second, field)) << field;
    }
}

INSTANTIATE_TEST_SUITE_P(Corpus, CorpusExport,
                         ::testing::Combine(::testing::ValuesIn(CorpusStores()),
                                            ::testing::Range(0, kShards)),
                         [](const ::testing::TestParamInfo<CorpusCase>& info) {
                             std::string name = std::get<0>(info.param).stem().string();
                             for (char& c : name)
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name + "_" + std::to_string(std::get<1>(info.param));
                         });

StoreMessage Html(const std::string& subject) {
    StoreMessage m;
    m.subject = subject;
    m.sender_name = "Ann";
    m.html = AsBytes("<p>" + subject + "</p>");
    return m;
}

TEST(TarnviewExport, ADamagedStoreExportsWhatItCanAndTheManifestNamesEachFailure) {
    ScratchDir dir;
    StoreDescription store;
    StoreMessage broken_rtf = Html("a2");
    broken_rtf.rtf_compressed = AsBytes("not compressed rtf at all, and short");
    StoreMessage text_only;
    text_only.subject = "c1";
    text_only.body = fixture::StoreText(store.layout, "only text");
    store.folders = {{"Inbox", {Html("a1"), broken_rtf, Html("a3")}},
                     {"Archive", {Html("b1"), Html("b2"), Html("b3")}},
                     {"Notes", {text_only}}};
    fixture::StoreMap map;
    fixture::PstImage image = fixture::WritePst(fixture::DescribeStore(store, &map));
    // b2's property context loses its heap signature: the walk of Archive ends there.
    image.Put8(image.Block(image.Node(map.messages[1][1]).data_bid).address + 2, 0x00);
    const fs::path path = dir.Write("damaged.pst", image.bytes);
    const std::u16string wide = Wide(path);

    // On one thread, and with workers that read the messages while the calling thread writes.
    for (const std::string jobs : {"1", "3"}) {
        SCOPED_TRACE("--jobs " + jobs);
        const fs::path out = dir.path() / ("out-" + jobs);
        const Exported exported = RunExport(out, {path.string(), "--jobs", jobs});
        EXPECT_EQ(exported.exit_status, 1);
        ASSERT_EQ(exported.rows.size(), 7u) << exported.errors;

        const int32_t rtf_status = LoadMessage(wide, 2).status;
        ASSERT_LT(rtf_status, 1);
        struct Expected {
            std::string subject;
            std::optional<std::string> index;
            std::optional<std::string> status;
            bool exported;
            bool error;
            bool reaches;
            uint32_t node;
        };
        const std::string walk_end = std::to_string(rtf_status);
        const Expected expected[] = {
            {"a1", "1", "1", true, false, true, map.messages[0][0]},
            {"a2", "2", walk_end, false, true, true, map.messages[0][1]},
            {"a3", "3", "1", true, false, false, map.messages[0][2]},
            {"b1", "4", "1", true, false, false, map.messages[1][0]},
            {"", std::nullopt, std::nullopt, false, true, false, map.messages[1][1]},
            {"", std::nullopt, std::nullopt, false, true, false, map.messages[1][2]},
            {"c1", "5", "-9", true, false, false, map.messages[2][0]},
        };
        for (size_t i = 0; i < std::size(expected); ++i) {
            SCOPED_TRACE("row " + std::to_string(i));
            const auto& row = exported.rows[i];
            const Expected& e = expected[i];
            if (!e.subject.empty()) {
                EXPECT_EQ(Get(row, "subject"), e.subject);
            }
            EXPECT_EQ(Get(row, "index"), e.index);
            EXPECT_EQ(Get(row, "status"), e.status);
            EXPECT_EQ(Get(row, "exported"), e.exported ? "true" : "false");
            EXPECT_EQ(Get(row, "error").has_value(), e.error) << Get(row, "error").value_or("");
            EXPECT_EQ(Get(row, "filter_reaches"), e.reaches ? "true" : "false");
            EXPECT_EQ(Get(row, "node_id"), std::to_string(e.node));
        }
        EXPECT_EQ(Get(exported.rows[4], "error"), "invalid heap_sig");
        EXPECT_EQ(Get(exported.rows[4], "folder"), "Top of Personal Folders/Archive");
        // Past the failing message the entry points give its status for every number.
        EXPECT_EQ(Get(exported.rows[2], "filter_status"), walk_end);
        EXPECT_EQ(LoadMessage(wide, 3).status, rtf_status);
        // The message with only a text body is the plain-text document the filter makes with the flag.
        EXPECT_EQ(Get(exported.rows[6], "text_fallback"), "true");
        EXPECT_EQ(Get(exported.rows[6], "format"), "316");
        const std::string text = ReadAll(out / *Get(exported.rows[6], "file"));
        EXPECT_EQ(text.substr(0, 2), "\xFF\xFE");
    }
}

// Every entry under `root`, recursively, without following links.
std::vector<fs::path> Everything(const fs::path& root) {
    std::vector<fs::path> out;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it)
        out.push_back(it->path());
    return out;
}

TEST(TarnviewExport, NoNameFromTheStoreLeavesTheOutputFolder) {
    const std::string long_subject(4000, 'x');
    struct Case {
        std::string subject;
        std::string file;  // what the message's file is called, after its index
    };
    const Case cases[] = {
        {"../x", "000001-_x.html"},
        {"/etc/x", "000002-_etc_x.html"},
        {"a\x01"
         "b\x7f\nc",
         "000003-a_b__c.html"},
        {"..", "000004-message.html"},
        {".hidden.", "000005-hidden.html"},
        {long_subject, "000006-" + std::string(64, 'x') + ".html"},
        {"a: b* <c>? | \"d\" \\", "000007-a_ b_ _c__ _ _d_ _.html"},
    };
    StoreDescription store;
    store.folders = {{"../up", {}}, {"/etc", {}}, {"con", {}}};
    for (const Case& c : cases) store.folders[0].messages.push_back(Html(c.subject));
    StoreMessage with_attachments = Html("attached");
    for (const std::string name : {"../../evil.txt", "/etc/passwd", "", "a.txt", "A.TXT", "nul.txt"})
        with_attachments.attachments.push_back({name, "", AsBytes("data of " + name)});
    store.folders[1].messages.push_back(with_attachments);
    store.folders[2].messages.push_back(Html("device"));

    for (const auto layout : {fixture::PstLayout::kUnicode, fixture::PstLayout::kAnsi}) {
        SCOPED_TRACE(layout == fixture::PstLayout::kAnsi ? "ansi" : "unicode");
        store.layout = layout;
        ScratchDir dir;
        const fs::path path =
            dir.Write("hostile.pst", fixture::WritePst(fixture::DescribeStore(store)).bytes);
        const fs::path out = dir.path() / "out";
        const Exported exported = RunExport(out, {path.string(), "--attachments"});
        EXPECT_EQ(exported.exit_status, 0) << exported.errors;
        ASSERT_EQ(exported.rows.size(), std::size(cases) + 2);

        for (size_t i = 0; i < std::size(cases); ++i)
            EXPECT_EQ(Get(exported.rows[i], "file"), "Top of Personal Folders/_up/" + cases[i].file);
        EXPECT_EQ(Get(exported.rows[std::size(cases) + 1], "file"),
                  "Top of Personal Folders/_con/000009-device.html");
        std::vector<std::string> attachments;
        for (const auto& [key, a] : exported.rows[std::size(cases)].get_child("attachments"))
            attachments.push_back(fs::path(a.get<std::string>("file")).filename().string());
        const std::vector<std::string> expected_attachments = {"_.._evil.txt", "_etc_passwd", "attachment-3",
                                                               "a.txt",        "A (2).TXT",   "_nul.txt"};
        EXPECT_EQ(attachments, expected_attachments);

        // Nothing but the store and the output folder beside each other; inside it, no link, no name of
        // more than 255 bytes, nothing hidden, and every path is below the output folder.
        std::vector<std::string> top;
        for (const auto& entry : fs::directory_iterator(dir.path())) top.push_back(entry.path().filename());
        std::sort(top.begin(), top.end());
        EXPECT_EQ(top, (std::vector<std::string>{"hostile.pst", "out", "out.stderr"}));
        const std::string inside = fs::canonical(out).string() + "/";
        for (const fs::path& p : Everything(out)) {
            EXPECT_FALSE(fs::is_symlink(fs::symlink_status(p))) << p;
            EXPECT_EQ(fs::canonical(p).string().rfind(inside, 0), 0u) << p;
            EXPECT_LE(p.filename().string().size(), 255u) << p;
            EXPECT_NE(p.filename().string()[0], '.') << p;
        }
        EXPECT_FALSE(fs::exists("/etc/x"));

        // Again into the same folder: refused without --force, and nothing is replaced.
        const auto first = fs::last_write_time(out / "manifest.jsonl");
        EXPECT_EQ(RunExport(out, {path.string()}).exit_status, 1);
        EXPECT_EQ(fs::last_write_time(out / "manifest.jsonl"), first);
        const Exported forced = RunExport(out, {path.string(), "--force"});
        EXPECT_EQ(forced.exit_status, 0) << forced.errors;
        EXPECT_EQ(forced.rows.size(), exported.rows.size());
    }
}

}  // namespace
}  // namespace tarn::testing
