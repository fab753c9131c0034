// The walk that the message cursor and the export spread over threads, against the filter's own sequential
// walk on writer-made stores damaged on purpose: whatever the number of workers and the chunk size, the
// messages come back in the same order, and each store error ends the same folder at the same row.
// Small budgets and readers reopened every few messages put every path of the hand-over to work.
#include "api/parallel_walk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/toolkit_host.h"
#include "pst/composer.h"
#include "tests/support/pst_writer.h"
#include "tests/support/scratch_file.h"
#include "tests/support/store_writer.h"

namespace tarn::testing {
namespace {

using fixture::StoreDescription;
using fixture::StoreMessage;

StoreMessage Message(const std::string& subject) {
    StoreMessage m;
    m.subject = subject;
    const std::string html = "<p>" + subject + "</p>";
    m.html = fixture::Bytes(reinterpret_cast<const std::byte*>(html.data()),
                            reinterpret_cast<const std::byte*>(html.data()) + html.size());
    return m;
}

std::vector<StoreMessage> Messages(const std::string& prefix, int count) {
    std::vector<StoreMessage> out;
    for (int i = 1; i <= count; ++i) out.push_back(Message(prefix + std::to_string(i)));
    return out;
}

// One line per event: a message's subject with its folder and row, or a failure with its folder.
using Events = std::vector<std::string>;

std::string Failed(const std::optional<ndb::node_id>& folder, const std::string& error) {
    return "failed " + (folder ? std::to_string(*folder) : std::string("-")) + ": " + error;
}

// The filter's walk: rows counted per folder, as the parallel walk reports them.
Events Sequential(const ndb::db_ptr& db, const std::string& throw_on) {
    Events events;
    ndb::node_id folder_at = 0;
    uint32_t row = 0;
    WalkMessages(
        db,
        [&](ndb::node_id folder, PstMessage& message) {
            if (folder != folder_at) folder_at = folder, row = 0;
            const std::u16string subject = ReadSubject(message.properties());
            const std::string text(subject.begin(), subject.end());
            if (text == throw_on) throw std::runtime_error("refused " + text);
            events.push_back(std::to_string(folder) + "/" + std::to_string(row++) + " " + text);
            return kWalkNext;
        },
        [&](const WalkFailure& f) { events.push_back(Failed(f.folder, f.error)); });
    return events;
}

// Each result weighs kWeight bytes against a budget of kBudget; `most` is the most that were read and
// not yet handed over at any time.
constexpr size_t kWeight = 10;
constexpr size_t kBudget = 30;

Events Parallel(const ndb::db_ptr& db, const std::u16string& path, unsigned workers, size_t chunk_rows,
                const std::string& throw_on, bool throw_in_finish, size_t* most = nullptr) {
    Events events;
    std::atomic<size_t> waiting = 0;
    std::atomic<size_t> peak = 0;
    tarn::api::ParallelWalk<std::string> walk(
        {workers, chunk_rows, kBudget, 3}, [&] { return ndb::open_database(path); },
        [&](ndb::node_id, PstMessage& message) {
            const std::u16string subject = ReadSubject(message.properties());
            std::string text(subject.begin(), subject.end());
            if (!throw_in_finish && text == throw_on) throw std::runtime_error("refused " + text);
            for (size_t now = waiting += kWeight, was = peak;
                 now > was && !peak.compare_exchange_weak(was, now);) {
            }
            return text;
        },
        [](const std::string&) { return kWeight; });
    walk.Run(
        db,
        [&](ndb::node_id folder, uint32_t row, std::string& text) {
            waiting -= kWeight;
            if (throw_in_finish && text == throw_on) throw std::runtime_error("refused " + text);
            events.push_back(std::to_string(folder) + "/" + std::to_string(row) + " " + text);
        },
        [&](const tarn::api::RowFailure& f) { events.push_back(Failed(f.folder, f.error)); });
    if (most != nullptr) *most = peak;
    return events;
}

// With `measure`, on a store without damage (a result dropped with its folder never reaches `finish`),
// also what waits at most.
void ExpectSameWalk(const std::filesystem::path& store, const std::string& throw_on = "",
                    bool measure = false) {
    const std::u16string path = host::WideFromUtf8(store.string());
    const ndb::db_ptr db = ndb::open_database(path);
    const Events expected = Sequential(db, throw_on);
    for (const unsigned workers : {0u, 1u, 3u}) {
        for (const size_t chunk_rows : {1u, 2u, 5u, 32u}) {
            for (const bool in_finish : {false, true}) {
                SCOPED_TRACE(std::to_string(workers) + " workers, chunks of " + std::to_string(chunk_rows) +
                             (in_finish ? ", thrown by finish" : ""));
                size_t most = 0;
                EXPECT_EQ(Parallel(ndb::open_database(path), path, workers, chunk_rows, throw_on, in_finish,
                                   measure ? &most : nullptr),
                          expected);
                // What waits is bounded by bytes, whatever the chunks hold: the budget, and one message
                // more for each worker and for the calling thread.
                EXPECT_LE(most, kBudget + (workers + 1) * kWeight);
            }
        }
    }
}

TEST(ParallelWalk, GivesTheFiltersOrderAndEndsFoldersWhereItDoes) {
    ScratchDir dir;
    StoreDescription store;
    store.folders = {{"Inbox", Messages("a", 7)},
                     {"Archive", Messages("b", 9)},
                     {"Empty", {}},
                     {"Calendar", {Message("c1"), Message("LocalFreebusy"), Message("c3")}},
                     {"Notes", Messages("d", 4)}};
    fixture::StoreMap map;
    const fixture::PstImage whole = fixture::WritePst(fixture::DescribeStore(store, &map));
    ExpectSameWalk(dir.Write("whole.pst", whole.bytes), "", /*measure=*/true);
    // A visitor's own error ends its folder at that row; so does the message's.
    ExpectSameWalk(dir.Write("whole.pst", whole.bytes), "b4");

    // b6's property context loses its heap signature: Archive ends there, the rest goes on.
    fixture::PstImage image = whole;
    image.Put8(image.Block(image.Node(map.messages[1][5]).data_bid).address + 2, 0x00);
    // Notes' contents table too: that folder ends before its first row.
    const uint32_t contents = (map.folders[4] & ~0x1Fu) | 0x0E;
    image.Put8(image.Block(image.Node(contents).data_bid).address + 2, 0x00);
    const auto damaged = dir.Write("damaged.pst", image.bytes);
    ExpectSameWalk(damaged);
    ExpectSameWalk(damaged, "a2");

    // The events are what the writer put there, not only what both walks agree on.
    const Events events = Sequential(ndb::open_database(host::WideFromUtf8(damaged.string())), "");
    std::vector<std::string> subjects;
    for (const std::string& e : events) subjects.push_back(e.substr(e.find(' ') + 1));
    const std::vector<std::string> expected = {"a1",
                                               "a2",
                                               "a3",
                                               "a4",
                                               "a5",
                                               "a6",
                                               "a7",
                                               "b1",
                                               "b2",
                                               "b3",
                                               "b4",
                                               "b5",
                                               std::to_string(map.folders[1]) + ": invalid heap_sig",
                                               "c1",
                                               "LocalFreebusy",
                                               "c3",
                                               std::to_string(map.folders[4]) + ": invalid heap_sig"};
    EXPECT_EQ(subjects, expected);
}

}  // namespace
}  // namespace tarn::testing
