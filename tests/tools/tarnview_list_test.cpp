// tarnview list run as a program on stores made by the fixture writer: what it prints for the messages
// it can read, what it says on stderr about what it cannot, and its exit status.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/pst_writer.h"
#include "tests/support/scratch_file.h"
#include "tests/support/store_writer.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

using fixture::StoreDescription;
using fixture::StoreMessage;

struct Listed {
    int exit_status = -1;
    std::vector<std::string> lines;  // stdout, one per line
    std::string errors;              // stderr, whole
};

std::string ReadAll(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

Listed RunList(const ScratchDir& dir, const std::filesystem::path& store) {
    const auto out = dir.path() / "stdout";
    const auto err = dir.path() / "stderr";
    const std::string command =
        "'" TARNVIEW_PATH "' list '" + store.string() + "' >'" + out.string() + "' 2>'" + err.string() + "'";
    const int status = std::system(command.c_str());
    Listed listed;
    if (status != -1 && WIFEXITED(status)) listed.exit_status = WEXITSTATUS(status);
    std::istringstream lines(ReadAll(out));
    for (std::string line; std::getline(lines, line);) listed.lines.push_back(line);
    listed.errors = ReadAll(err);
    return listed;
}

StoreMessage Message(const std::string& subject, const std::string& sender) {
    StoreMessage m;
    m.subject = subject;
    m.sender_name = sender;
    const std::string html = "<p>" + subject + "</p>";
    m.html = fixture::Bytes(reinterpret_cast<const std::byte*>(html.data()),
                            reinterpret_cast<const std::byte*>(html.data()) + html.size());
    return m;
}

std::string Hex(uint32_t id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", id);
    return text;
}

TEST(TarnviewList, ADamagedFolderIsNamedOnStderrAndTheRestIsListed) {
    ScratchDir dir;
    StoreDescription store;
    store.folders = {{"Inbox", {Message("a1", "Ann"), Message("LocalFreebusy", "Ann"), Message("a2", "Ann")}},
                     {"Arch\x1B[2Jive", {Message("b1", "Bob"), Message("b2", "Bob")}},
                     {"Sent Items", {Message("c1", "Cid")}}};
    fixture::StoreMap map;
    fixture::PstImage image = fixture::WritePst(fixture::DescribeStore(store, &map));
    const auto whole = dir.Write("whole.pst", image.bytes);

    // The whole store: every message but the calendar's free/busy item, which is skipped by design and
    // is no failure.
    const Listed clean = RunList(dir, whole);
    EXPECT_EQ(clean.exit_status, 0);
    EXPECT_EQ(clean.errors, "");
    ASSERT_EQ(clean.lines.size(), 5u);

    // Archive's contents table loses its heap signature.
    const uint32_t contents = (map.folders[1] & ~0x1Fu) | 0x0E;
    image.Put8(image.Block(image.Node(contents).data_bid).address + 2, 0x00);
    const auto damaged = dir.Write("damaged.pst", image.bytes);
    const Listed listed = RunList(dir, damaged);
    EXPECT_EQ(listed.exit_status, 1);
    std::vector<std::vector<std::string>> rows;
    for (const std::string& line : listed.lines) rows.push_back(ListFields(line));
    const std::vector<std::vector<std::string>> expected_rows = {{"0", "Inbox", "a1", "Ann", ""},
                                                                 {"1", "Inbox", "a2", "Ann", ""},
                                                                 {"2", "Sent Items", "c1", "Cid", ""}};
    EXPECT_EQ(rows, expected_rows);
    // The folder's name reaches stderr with its escape sequence made visible.
    EXPECT_EQ(listed.errors, "tarnview list: " + damaged.string() + ": folder \"Arch\\x1B[2Jive\" (nid " +
                                 Hex(map.folders[1]) + "): invalid heap_sig\n");
}

TEST(TarnviewList, AFailingNodeBTreeEndsTheWalkAndSaysSo) {
    ScratchDir dir;
    StoreDescription store;
    store.folders = {{"Inbox", {Message("a1", "Ann")}}, {"Archive", {Message("b1", "Bob")}}};
    fixture::StoreMap map;
    fixture::PstDescription description = fixture::DescribeStore(store, &map);
    // Two entries per node B-tree page, and a leaf of filler nodes after every folder and its tables
    // but before the messages: damaging that leaf fails the walk only after both folders are read,
    // while the messages are still found through the pages above it.
    description.nbt_fanout = 2;
    const uint32_t first_filler = (map.folders.back() & ~0x1Fu) + 0x20 + 0x01;
    ASSERT_LT(first_filler + 0x40, map.messages[0][0]);
    const auto before = std::count_if(description.nodes.begin(), description.nodes.end(),
                                      [&](const fixture::PstNode& n) { return n.id < first_filler; });
    const uint32_t fillers = before % 2 == 0 ? 2 : 3;
    for (uint32_t i = 0; i < fillers; ++i) description.nodes.push_back({.id = first_filler + (i << 5)});
    fixture::PstImage image = fixture::WritePst(description);
    const fixture::PstPageRecord* filler_leaf = nullptr;
    for (const fixture::PstPageRecord* leaf : image.Pages(/*nbt=*/true, 0)) {
        if (image.GetId(leaf->entry_offsets[0]) == first_filler + ((fillers - 2) << 5)) filler_leaf = leaf;
    }
    ASSERT_NE(filler_leaf, nullptr);
    ASSERT_EQ(filler_leaf->entries, 2u);
    // The page type in the leaf's trailer (Unicode layout: the trailer's first byte, at 496).
    image.Put8(filler_leaf->address + 496, 0x00);
    const auto damaged = dir.Write("btree.pst", image.bytes);

    const Listed listed = RunList(dir, damaged);
    EXPECT_EQ(listed.exit_status, 1);
    ASSERT_EQ(listed.lines.size(), 2u) << listed.errors;
    EXPECT_EQ(ListFields(listed.lines[1])[2], "b1");
    const std::string expected_error = "tarnview list: " + damaged.string() + ": node b-tree: ";
    EXPECT_EQ(listed.errors.rfind(expected_error, 0), 0u) << listed.errors;
    EXPECT_NE(listed.errors.find("; the walk ended there\n"), std::string::npos) << listed.errors;
}

TEST(TarnviewList, ValuesStayOnOneLineWithTheirControlCharactersVisible) {
    ScratchDir dir;
    // Each value is the writer's own, so what the list gives back after unescaping must equal it; the
    // C1 and bidirectional controls exist only in the Unicode layout.
    const std::vector<std::pair<std::string, std::string>> values = {
        {"tab\there", "line\nfeed"},
        {"carriage\rreturn", "back\\slash \\t not a tab"},
        {"\t\r\n\\", "plain"},
        {"\x1B]0;title\x07 \x1B[2J", "del\x7F"},
        {"csi \xC2\x9B"
         "2J",
         "reversed \xE2\x80\xAEtxt.exe \xE2\x81\xA6"},
    };
    StoreDescription store;
    store.folders = {{"In\tbox\n", {}}};
    for (const auto& [subject, sender] : values)
        store.folders[0].messages.push_back(Message(subject, sender));
    for (const auto layout : {fixture::PstLayout::kUnicode, fixture::PstLayout::kAnsi}) {
        store.layout = layout;
        const auto path = dir.Write("escapes.pst", fixture::WritePst(fixture::DescribeStore(store)).bytes);
        const Listed listed = RunList(dir, path);
        EXPECT_EQ(listed.exit_status, 0) << listed.errors;
        ASSERT_EQ(listed.lines.size(), values.size());
        for (size_t i = 0; i < values.size(); ++i) {
            const std::string& line = listed.lines[i];
            for (const std::string control :
                 {"\x1B", "\x07", "\x7F", "\xC2\x9B", "\xE2\x80\xAE", "\xE2\x81\xA6"})
                EXPECT_EQ(line.find(control), std::string::npos) << line;
            const std::vector<std::string> fields = ListFields(line);
            ASSERT_EQ(fields.size(), 5u) << line;
            EXPECT_EQ(fields[0], std::to_string(i));
            EXPECT_EQ(fields[1], "In\tbox\n");
            if (layout == fixture::PstLayout::kAnsi && i == values.size() - 1) continue;
            EXPECT_EQ(fields[2], values[i].first);
            EXPECT_EQ(fields[3], values[i].second);
        }
    }
}

}  // namespace
}  // namespace tarn::testing
