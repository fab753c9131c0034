// The filter's walk of a store's messages (normal folders in node B-tree order, each folder's
// contents-table rows in order), with the reading of the messages spread over worker threads. Each
// worker opens a reader of the store of its own; what a message gives is handed back on the calling
// thread in walk order, and a store error ends the folder at the row where the sequential walk
// (tarn::WalkMessages) ends it. So the outcome is the sequential walk's whatever the number of workers;
// only the wall time differs.
//
// The calling thread reads the node B-tree and the contents tables and cuts their rows into chunks;
// workers take the chunks in order and read their messages; the calling thread then consumes the chunks
// in order, message by message. A worker reads a message more only while the results waiting stay
// under a byte budget (or the calling thread waits for that very message), and every reader, the
// calling thread's too, is reopened after so many messages, so memory stays flat however large the
// store and whatever its messages weigh.
#ifndef TARN_API_PARALLEL_WALK_H_
#define TARN_API_PARALLEL_WALK_H_

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

namespace tarn::api {

// A store error that ends a folder, or with no folder the whole walk (the node B-tree failed).
struct RowFailure {
    std::optional<tarn::ndb::node_id> folder;
    uint32_t row = 0;  // the folder's first row the walk does not visit
    std::string error;
};

struct WalkSettings {
    unsigned workers = 0;           // 0: everything on the calling thread
    size_t chunk_rows = 32;         // messages per chunk
    size_t byte_budget = 4u << 20;  // results read and not yet handed over, beyond one per worker
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

    // Walks the store; `db` (the calling thread's reader) serves where a fresh reader cannot be opened.
    void Run(const tarn::ndb::db_ptr& db, const Finish& finish, const Fail& fail) {
        Planner planner(*this, db);
        const std::vector<tarn::ndb::db_ptr> readers = OpenReaders();
        const bool inline_work = readers.empty();
        Reader inline_reader;
        // Planned chunks hold message ids only; what they give is bounded by the byte budget.
        const size_t window = inline_work ? 1 : 2 * readers.size() + 2;
        std::vector<std::thread> threads;
        const Joiner joiner{this, &threads};
        for (const tarn::ndb::db_ptr& reader : readers)
            threads.emplace_back([this, reader] { WorkerLoop(reader); });

        // The folder a store error ended, while its chunks come; 0 for none, as no folder has node id 0.
        // (Not an optional: GCC 12's optimiser takes one for uninitialised here.)
        tarn::ndb::node_id ended = 0;
        while (!stopped_) {
            PlanAhead(planner, window);
            std::unique_lock lock(mutex_);
            if (chunks_.empty()) break;
            Chunk& front = *chunks_.front();
            if (ended != 0 && front.folder != ended) ended = 0;
            if (ended != 0) {
                // The rest of a folder that a store error ended is not the walk's any more.
                Drop(lock);
                continue;
            }
            if (inline_work && front.results.empty() && !front.done) {
                lock.unlock();
                Step(ReaderFor(inline_reader, front, db), front);
                continue;
            }
            consumer_.wait(lock, [&] { return !front.results.empty() || front.done; });
            if (front.results.empty()) {
                std::optional<RowFailure> failure = std::move(front.failure);
                Drop(lock);
                if (failure) {
                    if (failure->folder) ended = *failure->folder;
                    fail(*failure);
                }
                continue;
            }
            HandOver(lock, front, finish, fail, ended);
        }
    }

  private:
    struct Chunk {
        std::optional<tarn::ndb::node_id> folder;
        uint32_t first_row = 0;
        std::vector<tarn::ndb::node_id> messages;       // the rows' message node ids, in order
        std::optional<RowFailure> failure;              // after the rows read (the planner's or the worker's)
        std::optional<RowFailure> planned;              // the planner's, until the rows before it are read
        size_t next = 0;                                // the next message to read
        uint32_t consumed = 0;                          // results handed over
        std::deque<std::pair<Result, size_t>> results;  // read and not yet handed over, with their bytes
        bool taken = false;
        bool done = false;
        bool abandoned = false;  // its folder ended: read no further
    };

    struct Reader {
        tarn::ndb::db_ptr db;
        size_t messages = 0;  // read through `db` so far
    };

    // Requires: `lock` holds the mutex. Drops the front chunk once nothing reads it any more.
    void Drop(std::unique_lock<std::mutex>& lock) {
        Chunk& front = *chunks_.front();
        front.abandoned = true;
        workers_.notify_all();
        consumer_.wait(lock, [&] { return front.done || !front.taken; });
        for (const auto& result : front.results) waiting_bytes_ -= result.second;
        chunks_.pop_front();
        lock.unlock();
        workers_.notify_all();
    }

    // Reads the node B-tree (on a reader that goes once it is read) for the normal folders, then their
    // contents tables in walk order, and cuts them into chunks, each of one folder. An error reading a
    // table or a row id ends that folder with a chunk that says so; one reading the node B-tree ends the
    // walk after the folders read before it.
    class Planner {
      public:
        Planner(ParallelWalk& walk, const tarn::ndb::db_ptr& fallback) : walk_(walk), fallback_(fallback) {}

        bool done() const { return done_; }

        std::unique_ptr<Chunk> Next() {
            auto chunk = std::make_unique<Chunk>();
            if (!started_) {
                started_ = true;
                try {
                    const tarn::ndb::db_ptr db = walk_.ReaderFor(reader_, 0, fallback_);
                    for (const tarn::ndb::node_info& info : tarn::ndb::page_range(db->read_nbt_root()))
                        if (tarn::IsNormalFolder(info.id)) folders_.push_back(info.id);
                } catch (const std::exception& e) {
                    tree_error_ = e.what();
                }
                reader_ = Reader{};
            }
            while (!contents_) {
                if (next_folder_ == folders_.size()) {
                    done_ = true;
                    if (!tree_error_) return nullptr;
                    chunk->failure = RowFailure{std::nullopt, 0, *tree_error_};
                    return chunk;
                }
                folder_ = folders_[next_folder_++];
                row_ = 0;
                chunk->folder = folder_;
                try {
                    const tarn::ndb::db_ptr& db = walk_.ReaderFor(reader_, 0, fallback_);
                    contents_.emplace(db->lookup_node(tarn::ContentsTableOf(folder_)));
                } catch (const std::exception& e) {
                    chunk->failure = RowFailure{folder_, 0, e.what()};
                    return chunk;
                }
            }
            chunk->folder = folder_;
            chunk->first_row = row_;
            try {
                const uint32_t rows = contents_->size();
                while (row_ < rows && chunk->messages.size() < walk_.settings_.chunk_rows) {
                    chunk->messages.push_back((*contents_)[row_].get_row_id());
                    ++row_;
                }
                if (row_ >= rows) contents_.reset();
            } catch (const std::exception& e) {
                chunk->failure = RowFailure{folder_, row_, e.what()};
                contents_.reset();
            }
            reader_.messages += chunk->messages.size();
            return chunk;
        }

      private:
        ParallelWalk& walk_;
        tarn::ndb::db_ptr fallback_;
        Reader reader_;
        bool started_ = false;
        bool done_ = false;
        std::vector<tarn::ndb::node_id> folders_;  // the normal folders, in node B-tree order
        size_t next_folder_ = 0;
        std::optional<std::string> tree_error_;
        std::optional<tarn::ltp::table> contents_;
        tarn::ndb::node_id folder_ = 0;
        uint32_t row_ = 0;
    };

    // Workers are joined before anything they share goes, also when the calling thread throws.
    struct Joiner {
        ParallelWalk* walk;
        std::vector<std::thread>* threads;
        ~Joiner() {
            {
                std::lock_guard lock(walk->mutex_);
                walk->stopping_ = true;
            }
            walk->workers_.notify_all();
            for (std::thread& t : *threads) t.join();
        }
    };

    // A reader for each worker. A worker whose reader cannot be opened is simply not started; with none
    // the walk runs on the calling thread.
    std::vector<tarn::ndb::db_ptr> OpenReaders() {
        std::vector<tarn::ndb::db_ptr> readers;
        for (unsigned i = 0; i < settings_.workers; ++i) {
            try {
                readers.push_back(open_());
            } catch (const std::exception&) {
                break;
            }
        }
        return readers;
    }

    // Keeps the window ahead of the consumer planned.
    void PlanAhead(Planner& planner, size_t window) {
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
            workers_.notify_all();
        }
    }

    // Hands the front chunk's next result to `finish`. Results go over one by one, so that what waits
    // is bounded by bytes, not chunks. Requires: `lock` holds mutex_ and the chunk has a result.
    void HandOver(std::unique_lock<std::mutex>& lock, Chunk& front, const Finish& finish, const Fail& fail,
                  tarn::ndb::node_id& ended) {
        Result result = std::move(front.results.front().first);
        const bool over = waiting_bytes_ >= settings_.byte_budget;
        waiting_bytes_ -= front.results.front().second;
        front.results.pop_front();
        // Workers wait only for the budget or for the front chunk to be taken up: woken for those.
        const bool wake = front.results.empty() || (over && waiting_bytes_ < settings_.byte_budget);
        const uint32_t row = front.first_row + front.consumed++;
        const tarn::ndb::node_id folder = *front.folder;
        lock.unlock();
        if (wake) workers_.notify_all();
        try {
            finish(folder, row, result);
        } catch (const std::exception& e) {
            // What the calling thread reads for a message ends its folder as the worker's would.
            lock.lock();
            Drop(lock);
            ended = folder;
            if (!stopped_) fail(RowFailure{folder, row, e.what()});
        }
    }

    // The reader for `messages` more messages, fresh when the last one has served its share. Should a
    // fresh one not open, the last one serves on, or else `fallback`.
    const tarn::ndb::db_ptr& ReaderFor(Reader& reader, size_t messages, const tarn::ndb::db_ptr& fallback) {
        if (reader.db == nullptr || reader.messages >= settings_.messages_per_reader) {
            reader.messages = 0;
            try {
                reader.db = open_();
            } catch (const std::exception&) {
                if (reader.db == nullptr) reader.db = fallback;
            }
        }
        reader.messages += messages;
        return reader.db;
    }
    const tarn::ndb::db_ptr& ReaderFor(Reader& reader, const Chunk& chunk,
                                       const tarn::ndb::db_ptr& fallback) {
        return ReaderFor(reader, chunk.messages.size(), fallback);
    }

    // Reads the chunk's next message; a throw ends the chunk at that row, and so its folder. Marks the
    // chunk done after its last message, with the worker's failure or else the planner's. Whether it is
    // done: once it is, the calling thread may drop it, and its reader must not touch it again.
    bool Step(const tarn::ndb::db_ptr& db, Chunk& chunk) {
        std::optional<RowFailure> failure;
        const size_t i = chunk.next;
        if (i < chunk.messages.size()) {
            try {
                tarn::PstMessage message(db->lookup_node(chunk.messages[i]));
                Result result = work_(*chunk.folder, message);
                const size_t bytes = weigh_(result);
                std::lock_guard lock(mutex_);
                chunk.results.emplace_back(std::move(result), bytes);
                waiting_bytes_ += bytes;
            } catch (const std::exception& e) {
                failure = RowFailure{chunk.folder, chunk.first_row + static_cast<uint32_t>(i), e.what()};
            }
        }
        bool done = false;
        {
            std::lock_guard lock(mutex_);
            if (i == 0) chunk.planned = std::move(chunk.failure), chunk.failure.reset();
            chunk.next = i + 1;
            if (failure || chunk.next >= chunk.messages.size()) {
                chunk.failure = failure ? std::move(failure) : std::move(chunk.planned);
                chunk.done = done = true;
            }
        }
        consumer_.notify_one();
        return done;
    }

    void WorkerLoop(tarn::ndb::db_ptr first) {
        Reader reader{std::move(first)};
        for (;;) {
            Chunk* chunk = nullptr;
            {
                std::unique_lock lock(mutex_);
                workers_.wait(lock, [&] {
                    if (stopping_) return true;
                    chunk = Available();
                    return chunk != nullptr;
                });
                if (stopping_) return;
                chunk->taken = true;
            }
            const tarn::ndb::db_ptr& db = ReaderFor(reader, *chunk, reader.db);
            for (;;) {
                {
                    std::unique_lock lock(mutex_);
                    // A message more only while what waits is under the budget, or when the calling
                    // thread waits for this very chunk and has taken all it gave.
                    workers_.wait(lock, [&] {
                        return stopping_ || chunk->abandoned || waiting_bytes_ < settings_.byte_budget ||
                               (chunk == chunks_.front().get() && chunk->results.empty());
                    });
                    if (stopping_ || chunk->abandoned) {
                        chunk->done = true;
                        break;
                    }
                }
                if (Step(db, *chunk)) break;
            }
            consumer_.notify_one();
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
    std::condition_variable consumer_;           // the calling thread's: a result read, a chunk done
    std::condition_variable workers_;            // the workers': a chunk planned or dropped, bytes freed
    std::deque<std::unique_ptr<Chunk>> chunks_;  // planned and not yet consumed, in order
    size_t waiting_bytes_ = 0;                   // of the results read and not yet handed over
    bool stopping_ = false;
    bool stopped_ = false;  // the calling thread's own
};

}  // namespace tarn::api

#endif  // TARN_API_PARALLEL_WALK_H_
