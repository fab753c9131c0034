// Compound-file storage: open the largest message of the corpus and read every stream in full, the
// work the message reader's lookups add up to at most. bench/run.sh runs olefile on the same file in
// the same run (bench/cfb_olefile.py).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/corpus.h"
#include "cfb/compound_storage.h"
#include "cfb/compound_stream.h"
#include "common/apiutils.h"
#include "kernel/tarnkrn.h"

namespace {

void BM_OpenAndReadEveryStream(benchmark::State& state) {
    static const std::string file = tarn::bench::LargestCorpusFile("msg", ".msg");
    std::u16string wide(file.begin(), file.end());
    std::vector<char> buffer(1 << 16);
    uint64_t bytes = 0, streams = 0;
    for (auto _ : state) {
        krn_handle handle = krnOpenFile(wide.c_str(), 0, tarn::kOpenShareMode);
        if (handle == KRN_NO_HANDLE) {
            state.SkipWithError("cannot open the corpus message");
            return;
        }
        {
            tarn::cfb::CompoundStorage storage(handle);
            if (!storage.open()) {
                state.SkipWithError("the corpus message did not open");
                krnCloseFile(handle);
                return;
            }
            bytes = streams = 0;
            storage.directory().walk(
                [&](std::string_view path, const tarn::cfb::DirectoryEntry& e, size_t, size_t) {
                    if (e.is_directory) return;
                    auto stream = tarn::cfb::CompoundStream::open(storage, path);
                    if (!stream) return;
                    uint64_t at = 0;
                    while (size_t got = stream->read(at, buffer.data(), buffer.size())) at += got;
                    bytes += at;
                    ++streams;
                });
        }
        krnCloseFile(handle);
    }
    state.SetLabel(std::filesystem::path(file).filename().string() + ", " + std::to_string(streams) +
                   " streams");
    state.SetBytesProcessed(static_cast<int64_t>(bytes * state.iterations()));
}
BENCHMARK(BM_OpenAndReadEveryStream)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
