// Property contexts: open every message (node type 4) of a store as a property bag and read every
// property it lists, fixed values from their entry and every other value whole. The figure is
// properties per second. Two stores: the largest PST of the corpus, and the store named by
// TARN_BENCH_LTP_STORE when set (bench/run.sh makes a 1 GiB one with make-store and runs pypff over
// the same file in the same run).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/corpus.h"
#include "store/ltp/property_bag.h"
#include "store/ndb/database.h"

namespace {

using namespace tarn::ltp;

bool IsInline(prop_type type) {
    return type == 0x0002 || type == 0x0003 || type == 0x0004 || type == 0x000A || type == 0x000B;
}

void ReadEveryMessageProperty(benchmark::State& state, const std::string& file) {
    const std::u16string wide(file.begin(), file.end());
    uint64_t properties = 0, bytes = 0, messages = 0;
    for (auto _ : state) {
        properties = bytes = messages = 0;
        auto db = tarn::ndb::open_database(wide);
        for (const tarn::ndb::node_info& info : tarn::ndb::page_range(db->read_nbt_root())) {
            if ((info.id & 0x1F) != 0x04) continue;
            const property_bag bag(db->lookup_node(info.id));
            ++messages;
            for (prop_id id : bag.prop_list()) {
                ++properties;
                if (IsInline(bag.get_prop_type(id))) {
                    benchmark::DoNotOptimize(bag.get_value_4(id));
                } else {
                    bytes += bag.get_value_variable(id).size();
                }
            }
        }
    }
    state.counters["properties"] = static_cast<double>(properties);
    state.counters["messages"] = static_cast<double>(messages);
    state.counters["value_bytes"] = static_cast<double>(bytes);
    state.counters["properties_per_s"] =
        benchmark::Counter(static_cast<double>(properties), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_CorpusMessageProperties(benchmark::State& state) {
    static const std::string file = tarn::bench::LargestCorpusFile("pst", ".pst");
    ReadEveryMessageProperty(state, file);
}
BENCHMARK(BM_CorpusMessageProperties)->Unit(benchmark::kMillisecond);

void BM_MadeStoreMessageProperties(benchmark::State& state) {
    const char* file = std::getenv("TARN_BENCH_LTP_STORE");
    if (file == nullptr) {
        state.SkipWithError("TARN_BENCH_LTP_STORE is not set");
        return;
    }
    ReadEveryMessageProperty(state, file);
}
BENCHMARK(BM_MadeStoreMessageProperties)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
