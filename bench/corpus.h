// The corpus files the benchmarks run on.
#ifndef TARN_BENCH_CORPUS_H_
#define TARN_BENCH_CORPUS_H_

#include <cstdint>
#include <filesystem>
#include <string>

namespace tarn::bench {

// The largest file with `extension` in the corpus folder `folder` ("pst", "msg"); of equal sizes the
// first by name, as `ls -S` picks it, so that every run measures the same file.
inline std::string LargestCorpusFile(const std::string& folder, const std::string& extension) {
    std::string best;
    std::uintmax_t best_size = 0;
    for (const auto& e :
         std::filesystem::directory_iterator(std::string(TARN_SHARED_DIR) + "/corpus/" + folder)) {
        if (e.path().extension() != extension) continue;
        const auto size = e.file_size();
        if (size > best_size || (size == best_size && e.path().string() < best)) {
            best_size = size;
            best = e.path().string();
        }
    }
    return best;
}

}  // namespace tarn::bench

#endif  // TARN_BENCH_CORPUS_H_
