// The filter's walk of a store's messages (normal folders in node B-tree order, each folder's
// contents-table rows in order), with the reading of the messages spread over worker threads. Each
// worker opens a reader of the store of its own; what a message gives is handed back on the calling
// thread in walk order, and a store error ends the folder at the row where the sequential walk
// (tarn::WalkMessages) ends it. So the outcome is the sequential walk's whatever the number of workers;
// only the wall time differs.
//
// The calling thread reads the node B-tree and the contents tables and cuts their rows into chunks;
// workers take the chunks in order and read their messages; the calling thread then consumes the chunks
// in order. Only a bounded window of chunks is ahead of the one consumed, and a worker takes a chunk
// beyond the next one needed only while the results waiting stay under a byte budget, so memory stays
// flat however large the store.
#ifndef TARN_TOOLS_TARNVIEW_PARALLEL_WALK_H_
#define TARN_TOOLS_TARNVIEW_PARALLEL_WALK_H_

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pst/message_model.h"
#include "pst/message_walk.h"
#include "store/ltp/table.h"
#include "store/ndb/database.h"

namespace tarnview {

// A store error that ends a folder, or with no folder the whole walk (the node B-tree failed).
struct RowFailure {
    std::optional<tarn::ndb::node_id> folder;
    uint32_t row = 0;  // the folder's first row the walk does not visit
    std::string error;
};

struct WalkSettings {
    unsigned workers = 0;           // 0: everything on the calling thread
    size_t chunk_rows = 32;         // messages per chunk
    size_t byte_budget = 4u << 20;  // results waiting beyond the next chunk needed
    // A reader keeps every b-tree page it has read. Reopened after this many messages, it keeps the
    // memory of the messages' reading to what they need, however large the store, at the cost of one
    // open (a few small reads) per so many messages.
    size_t messages_per_reader = 512;
};

// Jobs are the threads that work, the calling thread included: with one it reads every message itself;
// with N, N - 1 workers read them while the calling thread hands out chunks and writes what they give.
inline unsigned WorkersFor(unsigned jobs) { return jobs <= 1 ? 0 : jobs - 1; }

// One job per core (at most four) where the calling thread's writing is a thread's work of its own (the
// export's files); one more where it mostly waits for the workers (the list's lines).
inline unsigned DefaultJobs(bool calling_thread_waits) {
    const unsigned cores = std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
    return calling_thread_waits ? cores + 1 : cores;
}

// Result: what `work` makes of one message, movable. `work` runs on a worker (or the calling thread
// without workers) and may throw a store error, which ends the folder at that row. `weigh` gives the
// bytes a result holds. `finish` and `fail` run on the calling thread, in walk order; an error `finish`
// throws ends the folder at that row too. `fail` must not throw.
template <typename Result>
class ParallelWalk {
  public:
    using Open = std::function<tarn::ndb::db_ptr()>;
    using Work = std::function<Result(tarn::ndb::node_id folder, tarn::PstMessage& message)>;
    using Weigh = std::function<size_t(const Result&)>;
    using Finish = std::function<void(tarn::ndb::node_id folder, uint32_t row, Result& result)>;
    using Fail = std::function<void(const RowFailure&)>;

    ParallelWalk(WalkSettings settings, Open open, Work work, Weigh weigh)
        : settings_(settings), open_(std::move(open)), work_(std::move(work)), weigh_(std::move(weigh)) {
        settings_.chunk_rows = std::max<size_t>(settings_.chunk_rows, 1);
    }

    // From `finish`: the walk ends once `finish` returns, and nothing more is handed over.
    void Stop() { stopped_ = true; }

    // Walks `db` (the calling thread's reader).
    void Run(const tarn::ndb::db_ptr& db, const Finish& finish, const Fail& fail) {
        Planner planner(db, settings_.chunk_rows);
        std::vector<std::thread> threads;
        std::vector<tarn::ndb::db_ptr> readers;
        // A worker whose reader cannot be opened is simply not started; with none the walk runs here.
        for (unsigned i = 0; i < settings_.workers; ++i) {
            try {
                readers.push_back(open_());
            } catch (const std::exception&) {
                break;
            }
        }
        const bool inline_work = readers.empty();
        Reader inline_reader;
        const size_t window = inline_work ? 1 : 2 * readers.size() + 2;
        {
            // Workers are joined before anything they share goes, also when the calling thread throws.
            struct Joiner {
                ParallelWalk* walk;
                std::vector<std::thread>* threads;
                ~Joiner() {
                    {
                        std::lock_guard lock(walk->mutex_);
                        walk->stopping_ = true;
                    }
                    walk->work_ready_.notify_all();
                    for (std::thread& t : *threads) t.join();
                }
            } joiner{this, &threads};
            for (const tarn::ndb::db_ptr& reader : readers)
                threads.emplace_back([this, reader] { WorkerLoop(reader); });

            bool folder_ended = false;
            tarn::ndb::node_id ended_folder = 0;
            while (!stopped_) {
                // Keep the window ahead of the consumer planned.
                while (!planner.done()) {
                    {
                        std::lock_guard lock(mutex_);
                        if (chunks_.size() >= window) break;
                    }
                    std::unique_ptr<Chunk> chunk = planner.Next();
                    if (chunk == nullptr) break;
                    {
                        std::lock_guard lock(mutex_);
                        chunks_.push_back(std::move(chunk));
                    }
                    work_ready_.notify_all();
                }
                std::unique_ptr<Chunk> chunk;
                {
                    std::unique_lock lock(mutex_);
                    if (chunks_.empty()) break;
                    if (inline_work) {
                        Chunk& front = *chunks_.front();
                        lock.unlock();
                        Process(ReaderFor(inline_reader, front, db), front);
                        lock.lock();
                    }
                    done_.wait(lock, [&] { return chunks_.front()->done; });
                    chunk = std::move(chunks_.front());
                    chunks_.pop_front();
                    waiting_bytes_ -= chunk->bytes;
                }
                work_ready_.notify_all();
                // The rest of a folder that a store error ended is not the walk's any more. A folder's
                // chunks come one after another, so the mark holds only until another folder's.
                if (folder_ended && chunk->folder && *chunk->folder == ended_folder) continue;
                folder_ended = false;
                std::optional<RowFailure> failure = std::move(chunk->failure);
                for (size_t i = 0; i < chunk->results.size() && !stopped_; ++i) {
                    const uint32_t row = chunk->first_row + static_cast<uint32_t>(i);
                    try {
                        finish(*chunk->folder, row, chunk->results[i]);
                    } catch (const std::exception& e) {
                        // What the calling thread reads for a message ends its folder as the worker's would.
                        failure = RowFailure{chunk->folder, row, e.what()};
                        break;
                    }
                }
                if (failure && !stopped_) {
                    if (failure->folder) {
                        folder_ended = true;
                        ended_folder = *failure->folder;
                    }
                    fail(*failure);
                }
            }
        }
    }

  private:
    struct Chunk {
        std::optional<tarn::ndb::node_id> folder;
        uint32_t first_row = 0;
        std::vector<tarn::ndb::node_id> messages;  // the rows' message node ids, in order
        std::optional<RowFailure> failure;         // after the rows read (the planner's or the worker's)
        std::vector<Result> results;               // one per row read before any failure
        size_t bytes = 0;
        bool taken = false;
        bool done = false;
    };

    // Reads the node B-tree and the contents tables in walk order and cuts them into chunks, each of
    // one folder. An error reading a table or a row id ends that folder with a chunk that says so; one
    // reading the node B-tree ends the walk.
    class Planner {
      public:
        Planner(const tarn::ndb::db_ptr& db, size_t chunk_rows) : db_(db), chunk_rows_(chunk_rows) {}

        bool done() const { return done_; }

        std::unique_ptr<Chunk> Next() {
            auto chunk = std::make_unique<Chunk>();
            try {
                if (!started_) {
                    started_ = true;
                    range_.emplace(db_->read_nbt_root());
                    at_ = range_->begin();
                    end_ = range_->end();
                }
                while (!contents_) {
                    if (at_ == end_) {
                        done_ = true;
                        return nullptr;
                    }
                    const tarn::ndb::node_id id = at_->id;
                    ++at_;
                    if (!tarn::IsNormalFolder(id)) continue;
                    folder_ = id;
                    row_ = 0;
                    chunk->folder = id;
                    chunk->first_row = 0;
                    try {
                        contents_.emplace(db_->lookup_node(tarn::ContentsTableOf(id)));
                    } catch (const std::exception& e) {
                        chunk->failure = RowFailure{id, 0, e.what()};
                        return chunk;
                    }
                }
            } catch (const std::exception& e) {
                done_ = true;
                chunk->folder.reset();
                chunk->failure = RowFailure{std::nullopt, 0, e.what()};
                return chunk;
            }
            chunk->folder = folder_;
            chunk->first_row = row_;
            try {
                const uint32_t rows = contents_->size();
                while (row_ < rows && chunk->messages.size() < chunk_rows_) {
                    chunk->messages.push_back((*contents_)[row_].get_row_id());
                    ++row_;
                }
                if (row_ >= rows) contents_.reset();
            } catch (const std::exception& e) {
                chunk->failure = RowFailure{folder_, row_, e.what()};
                contents_.reset();
            }
            return chunk;
        }

      private:
        using Range = decltype(tarn::ndb::page_range(std::declval<tarn::ndb::db_ptr&>()->read_nbt_root()));
        using Iterator = decltype(std::declval<Range&>().begin());

        tarn::ndb::db_ptr db_;
        size_t chunk_rows_;
        bool started_ = false;
        bool done_ = false;
        std::optional<Range> range_;
        Iterator at_;
        Iterator end_;
        std::optional<tarn::ltp::table> contents_;
        tarn::ndb::node_id folder_ = 0;
        uint32_t row_ = 0;
    };

    struct Reader {
        tarn::ndb::db_ptr db;
        size_t messages = 0;  // read through `db` so far
    };

    // The reader for `chunk`, fresh when the last one has served its share. Should a fresh one not
    // open, the last one serves on, or else `fallback`.
    const tarn::ndb::db_ptr& ReaderFor(Reader& reader, const Chunk& chunk,
                                       const tarn::ndb::db_ptr& fallback) {
        if (reader.db == nullptr || reader.messages >= settings_.messages_per_reader) {
            reader.messages = 0;
            try {
                reader.db = open_();
            } catch (const std::exception&) {
                if (reader.db == nullptr) reader.db = fallback;
            }
        }
        reader.messages += chunk.messages.size();
        return reader.db;
    }

    // Reads the chunk's messages until one throws; that row ends the folder.
    void Process(const tarn::ndb::db_ptr& db, Chunk& chunk) {
        size_t bytes = 0;
        // A worker's failure comes before the planner's, which lies after the rows it read.
        std::optional<RowFailure> planned = std::move(chunk.failure);
        chunk.failure.reset();
        for (size_t i = 0; i < chunk.messages.size(); ++i) {
            try {
                tarn::PstMessage message(db->lookup_node(chunk.messages[i]));
                chunk.results.push_back(work_(*chunk.folder, message));
                bytes += weigh_(chunk.results.back());
            } catch (const std::exception& e) {
                chunk.failure =
                    RowFailure{chunk.folder, chunk.first_row + static_cast<uint32_t>(i), e.what()};
                break;
            }
        }
        if (!chunk.failure) chunk.failure = std::move(planned);
        std::lock_guard lock(mutex_);
        chunk.bytes = bytes;
        chunk.done = true;
        waiting_bytes_ += bytes;
        done_.notify_all();
    }

    void WorkerLoop(tarn::ndb::db_ptr first) {
        Reader reader{std::move(first)};
        for (;;) {
            Chunk* chunk = nullptr;
            {
                std::unique_lock lock(mutex_);
                work_ready_.wait(lock, [&] {
                    if (stopping_) return true;
                    chunk = Available();
                    return chunk != nullptr;
                });
                if (stopping_) return;
                chunk->taken = true;
            }
            Process(ReaderFor(reader, *chunk, reader.db), *chunk);
        }
    }

    // Requires: the mutex. The first chunk not taken, if a worker may take it now: the next one the
    // calling thread needs always, a later one while the results waiting stay under the budget.
    Chunk* Available() {
        for (size_t i = 0; i < chunks_.size(); ++i) {
            Chunk& c = *chunks_[i];
            if (c.taken) continue;
            if (i == 0 || waiting_bytes_ < settings_.byte_budget) return &c;
            return nullptr;
        }
        return nullptr;
    }

    WalkSettings settings_;
    Open open_;
    Work work_;
    Weigh weigh_;

    std::mutex mutex_;
    std::condition_variable work_ready_;
    std::condition_variable done_;
    std::deque<std::unique_ptr<Chunk>> chunks_;  // planned and not yet consumed, in order
    size_t waiting_bytes_ = 0;
    bool stopping_ = false;
    bool stopped_ = false;  // the calling thread's own
};

}  // namespace tarnview

#endif  // TARN_TOOLS_TARNVIEW_PARALLEL_WALK_H_
