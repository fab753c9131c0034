// Opens a compound file from the input, walks every entry and reads every stream in full, the way the
// message reader and tarnview use the layer. The kernel reads files by name only, so the input goes to
// a scratch file first.
#include <cstddef>
#include <cstdint>
#include <string>

#include "cfb/compound_storage.h"
#include "cfb/compound_stream.h"
#include "common/apiutils.h"
#include "kernel/tarnkrn.h"
#include "tests/fuzz/scratch_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const tarn::fuzz::ScratchInput input("cfb");
    if (!input.Write(data, size)) return 0;
    const std::u16string wide = input.wide_path();
    krn_handle handle = krnOpenFile(wide.c_str(), 0, tarn::kOpenShareMode);
    if (handle == KRN_NO_HANDLE) return 0;
    {
        tarn::cfb::CompoundStorage storage(handle);
        if (storage.open()) {
            static unsigned char buffer[1500];  // an odd size, so reads straddle blocks
            storage.directory().walk(
                [&](std::string_view entry_path, const tarn::cfb::DirectoryEntry&, size_t, size_t) {
                    auto stream = tarn::cfb::CompoundStream::open(storage, entry_path);
                    if (!stream) return;
                    uint64_t at = 0;
                    while (size_t got = stream->read(at, buffer, sizeof buffer)) at += got;
                });
            storage.find_entry("__substg1.0_0037001F");
            storage.find_entry("/__attach_version1.0_#00000000/__substg1.0_37010102");
        }
    }
    krnCloseFile(handle);
    return 0;
}
