// The header block and the body conversion it brings, for every message of a store: each message is
// composed as the target (bodies, compressed RTF and header fields read), then given its localised
// header block, which converts an HTML body to UTF-8 where its declared character set differs. A
// second benchmark composes without the block, so the block's own share is the difference. The store
// is named by TARN_BENCH_PST (bench/run.sh passes the largest of the corpus).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/composer.h"
#include "pst/message_walk.h"
#include "pst/render/header_block.h"
#include "pst/render/message_document.h"
#include "store/ndb/database.h"

namespace {

std::u16string StorePath() {
    const char* path = std::getenv("TARN_BENCH_PST");
    return tarn::host::WideFromUtf8(path != nullptr ? path : "");
}

// Composes every message of the store, adding the block when `with_header`; the messages done.
int64_t EveryMessage(const tarn::ndb::db_ptr& db, bool with_header, benchmark::State& state) {
    int64_t done = 0;
    tarn::WalkMessages(db, [&](tarn::ndb::node_id, tarn::PstMessage& message) {
        tarn::MessageDocument entry;
        int32_t format = tarn::kBodyNone;
        if (tarn::ComposeMessage(message, entry, true, &format, nullptr) != 1) return tarn::kWalkNext;
        if (with_header && tarn::BuildLocalizedHeader(entry, format) != 1) {
            state.SkipWithError("the header block failed");
            return tarn::kWalkFinished;
        }
        benchmark::DoNotOptimize(entry.document.data());
        ++done;
        return tarn::kWalkNext;
    });
    return done;
}

void Run(benchmark::State& state, bool with_header) {
    krnctlSetLanguage(0x0409);
    const tarn::ndb::db_ptr db = tarn::ndb::open_database(StorePath());
    int64_t messages = 0;
    for (auto _ : state) messages += EveryMessage(db, with_header, state);
    state.SetItemsProcessed(messages);
    state.counters["messages"] = static_cast<double>(messages) / static_cast<double>(state.iterations());
}

void BM_ComposeWithHeaderBlock(benchmark::State& state) { Run(state, true); }
void BM_ComposeWithoutHeaderBlock(benchmark::State& state) { Run(state, false); }
BENCHMARK(BM_ComposeWithHeaderBlock)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ComposeWithoutHeaderBlock)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
