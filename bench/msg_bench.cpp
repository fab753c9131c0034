// Every message file of the corpus composed into the document the toolkit's loader is handed
// (ProduceDocument for kind 386: open, read the streams, decompress the RTF body, add the header block),
// once as the toolkit asks by default and once in plain-text mode; one pass renders all of them.
// bench/run.sh times msgreader and msgconvert on the same files in the same run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "common/apiutils.h"
#include "host/toolkit_host.h"
#include "pst/filter_data.h"
#include "pst/produce.h"

namespace {

std::vector<std::u16string> CorpusMessages() {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(std::string(TARN_SHARED_DIR) + "/corpus/msg"))
        if (e.path().extension() == ".msg") names.push_back(e.path().string());
    std::sort(names.begin(), names.end());
    std::vector<std::u16string> wide;
    for (const std::string& name : names) wide.push_back(tarn::host::WideFromUtf8(name));
    return wide;
}

void RenderAll(benchmark::State& state, bool plain_text) {
    const std::vector<std::u16string> files = CorpusMessages();
    int64_t bytes = 0;
    int64_t documents = 0;
    for (auto _ : state) {
        for (const std::u16string& path : files) {
            tarn::FilterDataHolder record(tarn::NewFilterData());
            tarn::KernelFileHandle handle(krnOpenFile(path.c_str(), 0, tarn::kOpenShareMode));
            tarn::InputKind kind = tarn::kInputMessageFile;
            int32_t index = 0;
            int32_t body_format = tarn::kBodyNone;
            if (tarn::ProduceDocument(path.c_str(), record.get(), &kind, &index, &body_format, plain_text,
                                      handle.get()) == 1) {
                bytes += static_cast<int64_t>(record->document.length());
                ++documents;
            }
            benchmark::DoNotOptimize(record->document.data());
        }
    }
    state.counters["files"] = static_cast<double>(files.size());
    state.counters["documents"] = static_cast<double>(documents) / static_cast<double>(state.iterations());
    state.SetBytesProcessed(bytes);
}

void BM_RenderEveryCorpusMessage(benchmark::State& state) { RenderAll(state, false); }
void BM_RenderEveryCorpusMessageAsText(benchmark::State& state) { RenderAll(state, true); }
BENCHMARK(BM_RenderEveryCorpusMessage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RenderEveryCorpusMessageAsText)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
