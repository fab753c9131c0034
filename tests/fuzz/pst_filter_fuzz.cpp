// A whole PST through the entry points, from arbitrary bytes: fltInfo for the last message with a slot
// (open, count, walk, compose, describe, cache), fltLoad of its page from the cached record, the slot's
// release, and a plain-text fltLoad of the first message without a slot. Errors the store layers throw
// while the store is opened or counted leave the entry points by design and are caught here, as the
// toolkit stand-in catches them; whatever path is taken, nothing may be left in the kernel.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "common/apiutils.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/pst.h"
#include "tests/fuzz/leak_check.h"
#include "tests/fuzz/scratch_input.h"

namespace {

const tarn::host::EntryPoints kFilter{fltInfo, fltLoad, fltFreeData};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const tarn::fuzz::ScratchInput input("pst-filter");
    if (!input.Write(data, size)) return 0;
    krnctlSetMode(tarn::kKernelModeInMemory);  // in memory: no temporary files to write for every input
    tarn::host::Toolkit toolkit;
    const std::u16string path = input.wide_path();
    {
        tarn::host::SourceSession session(path);
        tarn::KernelFileHandle handle(krnOpenFile(path.c_str(), 0, tarn::kOpenShareMode));
        tarn::InfoRequest& info = session.BuildInfoRequest(handle.get(), std::numeric_limits<int32_t>::max());
        if (tarn::host::CallInfo(kFilter, &info).status == 1)
            tarn::host::CallLoad(kFilter, &session.BuildLoadRequest(info.message_number + 1));
        session.ReleaseSlot(kFilter);
    }
    {
        tarn::host::SourceSession session(path);
        tarn::host::CallLoad(kFilter, &session.BuildLoadRequest(1, /*plain_text=*/true, /*with_slot=*/false));
    }
    tarn::fuzz::AbortOnKernelLeak();
    return 0;
}
