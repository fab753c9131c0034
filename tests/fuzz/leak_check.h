// Stops a fuzzer at the first input after which the kernel stand-in still holds something, so that a
// leak is found by the fuzzer itself and not only by the replay of committed inputs.
#ifndef TARN_TESTS_FUZZ_LEAK_CHECK_H_
#define TARN_TESTS_FUZZ_LEAK_CHECK_H_

#include <cstdio>
#include <cstdlib>
#include <string>

#include "kernel/tarnkrn_control.h"

namespace tarn::fuzz {

inline void AbortOnKernelLeak() {
    if (const size_t length = krnctlLeakReport(nullptr, 0); length != 0) {
        std::string report(length + 1, '\0');
        krnctlLeakReport(report.data(), report.size());
        std::fprintf(stderr, "kernel leak report not empty:\n%s", report.c_str());
        std::abort();
    }
}

}  // namespace tarn::fuzz

#endif  // TARN_TESTS_FUZZ_LEAK_CHECK_H_
