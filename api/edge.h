// The public functions' one catch-all: whatever escapes the work below reaches the caller as a
// tarnpst::Error naming the file, never as another exception and never as a crash.
#ifndef TARN_API_EDGE_H_
#define TARN_API_EDGE_H_

#include <exception>
#include <new>
#include <string>
#include <utility>

#include "tarnpst/tarnpst.h"

namespace tarn::api {

template <typename Work>
auto AtEdge(const std::string& subject, Work&& work) -> decltype(work()) {
    try {
        return std::forward<Work>(work)();
    } catch (const tarnpst::Error&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw tarnpst::Error(tarnpst::kStatusFailure, subject + ": out of memory");
    } catch (const std::exception& e) {
        throw tarnpst::Error(tarnpst::kStatusFailure, subject + ": " + e.what());
    } catch (...) {
        throw tarnpst::Error(tarnpst::kStatusFailure, subject + ": an unknown failure");
    }
}

}  // namespace tarn::api

#endif  // TARN_API_EDGE_H_
