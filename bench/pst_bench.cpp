// The filter's whole road for one PST message, as the toolkit drives it: fltInfo for the last message
// of a store (open, count, walk every message up to the last, compose, describe through the loader),
// then fltLoad of its page from the cached record, then fltFreeData. The store is named by
// TARN_BENCH_PST (bench/run.sh passes the largest of the corpus).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <limits>
#include <string>

#include "common/apiutils.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/pst.h"

namespace {

const tarn::host::EntryPoints kFilter{fltInfo, fltLoad, fltFreeData};

std::u16string StorePath() {
    const char* path = std::getenv("TARN_BENCH_PST");
    return tarn::host::WideFromUtf8(path != nullptr ? path : "");
}

void BM_InfoAndLoadLastMessage(benchmark::State& state) {
    const std::u16string path = StorePath();
    // HTML in memory: the temporary file is the kernel's cost, not the filter's.
    krnctlSetMode(tarn::kKernelModeInMemory);
    tarn::host::Toolkit toolkit;
    for (auto _ : state) {
        tarn::host::SourceSession session(path);
        tarn::KernelFileHandle handle(krnOpenFile(path.c_str(), 0, tarn::kOpenShareMode));
        tarn::InfoRequest& info = session.BuildInfoRequest(handle.get(), std::numeric_limits<int32_t>::max());
        if (fltInfo(&info) != 1) {
            state.SkipWithError("fltInfo failed");
            break;
        }
        if (fltLoad(&session.BuildLoadRequest(info.message_number + 1)) != 1) {
            state.SkipWithError("fltLoad failed");
            break;
        }
        session.ReleaseSlot(kFilter);
        toolkit.ClearCalls();
        state.counters["message"] = info.message_number + 1;
    }
}
BENCHMARK(BM_InfoAndLoadLastMessage)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
