// Node database: open the largest PST of the corpus, walk its whole node B-tree and read every node's
// data and every subnode's data (nested) in full: the most a folder walk and the message readers can
// ask of this layer. Beside it, the raw rate of the same file read whole through the kernel's read in
// 64 KiB chunks, in the same run, as the ceiling the store's reads are measured against.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>
#include <vector>

#include "bench/corpus.h"
#include "common/apiutils.h"
#include "kernel/tarnkrn.h"
#include "store/ndb/database.h"

namespace {

using namespace tarn::ndb;

const std::string& File() {
    static const std::string file = tarn::bench::LargestCorpusFile("pst", ".pst");
    return file;
}

void BM_OpenWalkAndReadAllNodes(benchmark::State& state) {
    const std::u16string wide(File().begin(), File().end());
    std::vector<std::byte> buffer;
    uint64_t data = 0, nodes = 0;
    for (auto _ : state) {
        data = nodes = 0;
        auto db = open_database(wide);
        for (const node_info& info : page_range(db->read_nbt_root())) {
            std::vector<node> stack{db->lookup_node(info.id)};
            while (!stack.empty()) {
                node n = std::move(stack.back());
                stack.pop_back();
                buffer.resize(n.size());
                if (!buffer.empty()) data += n.read(buffer, 0);
                ++nodes;
                for (const subnode_info& sub : n.subnodes()) stack.push_back(n.lookup(sub.id));
            }
        }
        benchmark::DoNotOptimize(data);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * std::filesystem::file_size(File())));
    state.counters["nodes"] = static_cast<double>(nodes);
    state.counters["data_bytes"] = static_cast<double>(data);
    state.SetLabel(std::filesystem::path(File()).filename().string());
}
BENCHMARK(BM_OpenWalkAndReadAllNodes)->Unit(benchmark::kMillisecond);

void BM_KernelReadWholeFile(benchmark::State& state) {
    const std::u16string wide(File().begin(), File().end());
    std::vector<char> chunk(64 * 1024);
    for (auto _ : state) {
        const krn_handle handle = krnOpenFile(wide.c_str(), 0, tarn::kOpenShareMode);
        if (handle == KRN_NO_HANDLE) {
            state.SkipWithError("cannot open the corpus store");
            return;
        }
        int64_t total = 0;
        while (int32_t got = krnReadFile(handle, chunk.data(), static_cast<int32_t>(chunk.size()))) {
            if (got < 0) break;
            total += got;
        }
        krnCloseFile(handle);
        benchmark::DoNotOptimize(total);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * std::filesystem::file_size(File())));
    state.SetLabel(std::filesystem::path(File()).filename().string());
}
BENCHMARK(BM_KernelReadWholeFile)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
