// How tarnview reaches the filter: the exported library the toolkit would load, found beside tarnview
// or named by TARNVIEW_FILTER, and looked up with dlopen so that the library itself answers.
#ifndef TARN_TOOLS_TARNVIEW_FILTER_LIBRARY_H_
#define TARN_TOOLS_TARNVIEW_FILTER_LIBRARY_H_

#include <dlfcn.h>

#include <cstdlib>
#include <string>

#include "host/toolkit_host.h"

namespace tarnview {

inline std::string FilterLibraryPath() {
    const char* path = std::getenv("TARNVIEW_FILTER");
    return path != nullptr && *path != '\0' ? path : TARN_FILTER_LIBRARY;
}

// Looks up the three entry points; the library stays loaded for the life of the process, as the
// toolkit keeps a filter it has loaded.
inline bool LoadFilter(const std::string& path, tarn::host::EntryPoints* entries, std::string* error) {
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        *error = dlerror();
        return false;
    }
    entries->info = reinterpret_cast<int32_t (*)(tarn::InfoRequest*)>(dlsym(library, "fltInfo"));
    entries->load = reinterpret_cast<int32_t (*)(tarn::LoadRequest*)>(dlsym(library, "fltLoad"));
    entries->free_data = reinterpret_cast<int32_t (*)(void*, int32_t)>(dlsym(library, "fltFreeData"));
    if (entries->info == nullptr || entries->load == nullptr || entries->free_data == nullptr) {
        *error = path + ": does not export fltInfo, fltLoad and fltFreeData";
        return false;
    }
    return true;
}

}  // namespace tarnview

#endif  // TARN_TOOLS_TARNVIEW_FILTER_LIBRARY_H_
