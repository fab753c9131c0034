// Every Internet message of the corpus, per pass: the whole road through fltLoad (probe, MIME reader,
// English header block, hand-off to the loader stand-in) and the MIME reader alone over the bytes in
// memory. bench/run.sh runs npm mailparser over the same files in the same run and prints the ratio.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "common/apiutils.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/pst.h"
#include "pst/render/mime_reader.h"

namespace {

std::vector<std::string> CorpusEml() {
    std::vector<std::string> files;
    for (const auto& e : std::filesystem::directory_iterator(std::string(TARN_SHARED_DIR) + "/corpus/eml"))
        if (e.path().extension() == ".eml") files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

void BM_LoadEveryCorpusEml(benchmark::State& state) {
    const std::vector<std::string> files = CorpusEml();
    std::vector<std::u16string> paths;
    int64_t bytes = 0;
    for (const std::string& file : files) {
        paths.push_back(tarn::host::WideFromUtf8(file));
        bytes += static_cast<int64_t>(std::filesystem::file_size(file));
    }
    krnctlSetMode(tarn::kKernelModeInMemory);
    tarn::host::Toolkit toolkit;
    int documents = 0;
    for (auto _ : state) {
        documents = 0;
        for (const std::u16string& path : paths) {
            tarn::host::SourceSession session(path);
            // -9 is an answer too (a multipart of LF line ends): its reading is part of the work.
            if (fltLoad(&session.BuildLoadRequest(1, false, false)) == 1) ++documents;
        }
        toolkit.ClearCalls();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
    state.counters["files"] = static_cast<double>(paths.size());
    state.counters["documents"] = documents;
}
BENCHMARK(BM_LoadEveryCorpusEml)->Unit(benchmark::kMillisecond);

void BM_ReadEveryCorpusEmlInMemory(benchmark::State& state) {
    std::vector<std::string> messages;
    int64_t bytes = 0;
    for (const std::string& file : CorpusEml()) {
        std::ifstream in(file, std::ios::binary);
        messages.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        bytes += static_cast<int64_t>(messages.back().size());
    }
    for (auto _ : state) {
        for (const std::string& message : messages) {
            tarn::MessageDocument record;
            int32_t body_format = tarn::kBodyNone;
            benchmark::DoNotOptimize(tarn::ReadEmlBytes(message, record, &body_format));
        }
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_ReadEveryCorpusEmlInMemory)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
