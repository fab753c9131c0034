// tarnview export run as a program: its documents against what the entry points hand the loader for
// the same message number (fltLoad, linked into this test), its manifest's subject, sender and sent time
// against pypff (python3-pypff, run as a black box) on every corpus store, and what it does with
// writer-made stores that are damaged or carry hostile names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
// The parser includes boost/bind.hpp, which asks for its placeholders to be named.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <csignal>
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

// tarnview export into `out`, as a child process; `file_size_limit` (bytes) sets RLIMIT_FSIZE there, with
// SIGXFSZ ignored, so that a write past it fails as on a full disk.
Exported RunExport(const fs::path& out, const std::vector<std::string>& arguments,
                   rlim_t file_size_limit = 0) {
    const fs::path err = out.parent_path() / (out.filename().string() + ".stderr");
    std::vector<std::string> argv = {TARNVIEW_PATH, "export", "-o", out.string()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& a : argv) pointers.push_back(a.data());
    pointers.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDERR_FILENO);
        if (file_size_limit != 0) {
            signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{file_size_limit, file_size_limit};
            setrlimit(RLIMIT_FSIZE, &limit);
        }
        execv(pointers[0], pointers.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    Exported exported;
    if (WIFEXITED(status)) exported.exit_status = WEXITSTATUS(status);
    exported.errors = ReadAll(err);
    std::istringstream lines(ReadAll(out / "manifest.jsonl"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream one(line);
        boost::property_tree::ptree row;
        boost::property_tree::read_json(one, row);
        if (!row.get_optional<std::string>("summary")) exported.rows.push_back(row);
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
    // Odd shards take the default, repaired documents, and the entry points are asked for the same;
    // even shards the contract's.
    const bool repaired = shard % 2 == 1;
    krnctlSetRepairs(repaired);
    std::vector<std::string> arguments = {store.string(), "--attachments"};
    if (!repaired) arguments.push_back("--compat");
    const Exported exported = RunExport(dir.path() / "out", arguments);
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
        const Exported exported = RunExport(out, {path.string(), "--jobs", jobs, "--compat"});
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
        {"inv\u202e"
         "fdp.exe",
         "000008-invfdp.exe.html"},
    };
    // Attachment names and what they become; past the eighth, names an 8-bit store cannot hold.
    const std::pair<std::string, std::string> attachment_names[] = {{"../../evil.txt", "_.._evil.txt"},
                                                                    {"/etc/passwd", "_etc_passwd"},
                                                                    {"", "attachment-3"},
                                                                    {"a.txt", "a.txt"},
                                                                    {"A.TXT", "A (2).TXT"},
                                                                    {"nul.txt", "_nul.txt"},
                                                                    {"COM0.txt", "_COM0.txt"},
                                                                    {"conin$", "_conin$"},
                                                                    {"lpt\u00b9.log", "_lpt\u00b9.log"},
                                                                    {"Stra\u00dfe", "Stra\u00dfe"},
                                                                    {"STRASSE", "STRASSE (2)"},
                                                                    {"\u00c4.txt", "\u00c4.txt"},
                                                                    {"a\u0308.txt", "a\u0308 (2).txt"},
                                                                    {"x\u202e"
                                                                     "fdp.exe",
                                                                     "xfdp.exe"}};
    for (const auto layout : {fixture::PstLayout::kUnicode, fixture::PstLayout::kAnsi}) {
        SCOPED_TRACE(layout == fixture::PstLayout::kAnsi ? "ansi" : "unicode");
        const size_t named = layout == fixture::PstLayout::kAnsi ? 8 : std::size(attachment_names);
        StoreDescription store;
        store.layout = layout;
        store.folders = {{"../up", {}}, {"/etc", {}}, {"con", {}}};
        for (const Case& c : cases) store.folders[0].messages.push_back(Html(c.subject));
        StoreMessage with_attachments = Html("attached");
        std::vector<std::string> expected_attachments;
        for (size_t i = 0; i < named; ++i) {
            with_attachments.attachments.push_back(
                {attachment_names[i].first, "", AsBytes("data of " + attachment_names[i].first)});
            expected_attachments.push_back(attachment_names[i].second);
        }
        store.folders[1].messages.push_back(with_attachments);
        store.folders[2].messages.push_back(Html("device"));
        ScratchDir dir;
        const fs::path path =
            dir.Write("hostile.pst", fixture::WritePst(fixture::DescribeStore(store)).bytes);
        const fs::path out = dir.path() / "out";
        const Exported exported = RunExport(out, {path.string(), "--attachments"});
        EXPECT_EQ(exported.exit_status, 0) << exported.errors;
        ASSERT_EQ(exported.rows.size(), std::size(cases) + 2);

        for (size_t i = 0; i < std::size(cases); ++i)
            EXPECT_EQ(Get(exported.rows[i], "file"), "Top of Personal Folders/_up/" + cases[i].file);
        EXPECT_EQ(
            Get(exported.rows[std::size(cases) + 1], "file"),
            "Top of Personal Folders/_con/0000" + std::to_string(std::size(cases) + 2) + "-device.html");
        std::vector<std::string> attachments;
        for (const auto& [key, a] : exported.rows[std::size(cases)].get_child("attachments"))
            attachments.push_back(fs::path(a.get<std::string>("file")).filename().string());
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
    }
}

// Every entry under `root` by its path there: a file's bytes, "<dir>" for a folder, "<link>" for a link.
std::map<std::string, std::string> Tree(const fs::path& root) {
    std::map<std::string, std::string> tree;
    for (const fs::path& p : Everything(root)) {
        const fs::file_status status = fs::symlink_status(p);
        tree[fs::relative(p, root).string()] = fs::is_symlink(status)     ? "<link>"
                                               : fs::is_directory(status) ? "<dir>"
                                                                          : ReadAll(p);
    }
    return tree;
}

TEST(TarnviewExport, AFullDiskLeavesNoFileCutShortAndResumeCompletesTheExport) {
    ScratchDir dir;
    StoreDescription store;
    store.folders = {{"F0", {}}, {"F1", {}}};
    const size_t sizes[] = {500, 30000, 800, 40000, 600};
    for (size_t i = 0; i < std::size(sizes); ++i) {
        StoreMessage m = Html("m" + std::to_string(i) + std::string(sizes[i], 'x'));
        if (i == 2)
            m.attachments = {{"big.bin", "", AsBytes(std::string(25000, 'a'))},
                             {"small.txt", "", AsBytes("s")}};
        store.folders[i % 2].messages.push_back(m);
    }
    const fs::path path = dir.Write("store.pst", fixture::WritePst(fixture::DescribeStore(store)).bytes);
    const std::vector<std::string> arguments = {path.string(), "--attachments"};
    const fs::path whole = dir.path() / "whole";
    const Exported uninterrupted = RunExport(whole, arguments);
    ASSERT_EQ(uninterrupted.exit_status, 0);
    const auto expected = Tree(whole);

    // Every file past 16 KiB fails as on a full disk: the export stops with the reason, and what it left
    // under a final name is whole, with no temporary beside it.
    const fs::path cut = dir.path() / "cut";
    const Exported stopped = RunExport(cut, arguments, 16384);
    EXPECT_EQ(stopped.exit_status, 1);
    EXPECT_NE(stopped.errors.find("File too large"), std::string::npos) << stopped.errors;
    for (const auto& [name, bytes] : Tree(cut)) {
        if (name != "manifest.jsonl") {
            EXPECT_EQ(bytes, expected.at(name)) << name;
        }
    }
    EXPECT_EQ(RunExport(cut, {path.string()}).exit_status, 1);  // not without --resume or --force

    // --resume completes it, also from a manifest torn inside a row and past a file changed behind its back.
    for (const bool tear : {false, true}) {
        SCOPED_TRACE(tear ? "torn" : "cut");
        if (tear) {
            const std::string manifest = ReadAll(cut / "manifest.jsonl");
            std::ofstream(cut / "manifest.jsonl", std::ios::trunc) << manifest.substr(0, manifest.size() / 2);
            // Of the same size: only the checksum tells.
            const fs::path changed = cut / *Get(uninterrupted.rows[0], "file");
            const std::string same_size(fs::file_size(changed), 'z');
            std::ofstream(changed, std::ios::trunc) << same_size;
        }
        const Exported resumed = RunExport(cut, {path.string(), "--attachments", "--resume"});
        EXPECT_EQ(resumed.exit_status, 0) << resumed.errors;
        EXPECT_TRUE(Tree(cut) == expected);
    }
}

TEST(TarnviewExport, ForceReplacesLinksWithoutWritingThroughThemAndRemovesWhatItNoLongerLists) {
    ScratchDir dir;
    StoreDescription store;
    StoreMessage attached = Html("b");
    attached.attachments = {{"notes.txt", "", AsBytes("notes")}};
    store.folders = {{"Inbox", {Html("a"), attached}}};
    const fs::path path = dir.Write("store.pst", fixture::WritePst(fixture::DescribeStore(store)).bytes);
    const fs::path out = dir.path() / "out";
    const Exported first = RunExport(out, {path.string(), "--attachments"});
    ASSERT_EQ(first.rows.size(), 2u);
    const fs::path a = out / *Get(first.rows[0], "file");
    const fs::path b = out / *Get(first.rows[1], "file");
    const std::string document = ReadAll(a);
    // `a` becomes a symbolic link to a file outside, `b` a hard link shared with one.
    const fs::path outside = dir.Write("outside", "outside");
    fs::remove(a);
    fs::create_symlink(outside, a);
    std::ofstream(b, std::ios::trunc) << "changed";
    fs::create_hard_link(b, dir.path() / "hard");

    const Exported forced = RunExport(out, {path.string()});  // without --attachments this time
    EXPECT_EQ(RunExport(out, {path.string(), "--force"}).exit_status, 0);
    EXPECT_EQ(forced.exit_status, 1);
    EXPECT_EQ(ReadAll(outside), "outside");
    EXPECT_EQ(ReadAll(dir.path() / "hard"), "changed");
    EXPECT_FALSE(fs::is_symlink(fs::symlink_status(a)));
    EXPECT_EQ(ReadAll(a), document);
    EXPECT_NE(ReadAll(b), "changed");
    // The attachment and its folder were the earlier export's only.
    EXPECT_FALSE(fs::exists(out / *Get(first.rows[1].get_child("attachments").front().second, "file")));
    EXPECT_EQ(Tree(out).size(), 5u);  // the manifest, Top of Personal Folders, Inbox, two documents
}

TEST(TarnviewExport, OtherSourcesGiveTheirAttachmentsWordsForTheirStatusAndValidJsonForAnyName) {
    ScratchDir dir;
    // A name that is not UTF-8 cannot be opened; a message without header fields whose one part is of a
    // type that is not shown gives no document.
    const std::string lf_only =
        "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: application/x-none\n\nx\n--b--\n";
    const fs::path corpus = fs::path(TARN_SHARED_DIR) / "corpus";
    const std::string sources[] = {dir.Write("caf\xff.eml", lf_only).string(),
                                   dir.Write("lf.eml", lf_only).string(),
                                   (corpus / "msg" / "ansi-plain-jpeg-attached.msg").string(),
                                   (corpus / "eml" / "thunderbird-enclosed-rfc822.eml").string()};
    const fs::path out = dir.path() / "out";
    const Exported exported =
        RunExport(out, {sources[0], sources[1], sources[2], sources[3], "--attachments"});
    EXPECT_EQ(exported.exit_status, 1);
    ASSERT_EQ(exported.rows.size(), 4u);
    EXPECT_EQ(Get(exported.rows[0], "source"), (dir.path() / "caf\uFFFD.eml").string());
    for (const int i : {0, 1}) {
        const int32_t status = i == 0 ? kStatusCannotOpen : kStatusUnsupported;
        EXPECT_EQ(Get(exported.rows[i], "error"),
                  "the filter gives status " + std::to_string(status) + " (" + StatusText(status) + ")");
    }
    // The attachments, against olefile's reading of the storage and the size `tarnview parts` reports.
    const std::string olefile = tarn::testing::Run(
        "/usr/bin/python3 -c \"import olefile,sys; sys.stdout.buffer.write(olefile.OleFileIO("
        "sys.argv[1]).openstream('__attach_version1.0_#00000000/__substg1.0_37010102')"
        ".read())\" " +
        Quoted(sources[2]));
    const std::pair<std::string, std::string> expected[] = {{"test.jpg", olefile}, {"thanks.eml", ""}};
    for (const int i : {2, 3}) {
        const auto& attachments = exported.rows[i].get_child("attachments");
        ASSERT_EQ(attachments.size(), 1u);
        const std::string file = *Get(attachments.front().second, "file");
        EXPECT_EQ(fs::path(file).filename(), expected[i - 2].first);
        EXPECT_EQ(Get(attachments.front().second, "bytes"), i == 2 ? std::to_string(olefile.size()) : "2502");
        EXPECT_TRUE(i != 2 || ReadAll(out / file) == olefile);
    }
}

}  // namespace
}  // namespace tarn::testing
