// A message file through ProduceDocument (kind 386), from arbitrary bytes: the compound-file layer, the
// reader's streams, the compressed-RTF body, the attachment walk, the header block and the document,
// once as the toolkit asks by default and once in plain-text mode. Whatever path is taken, nothing may
// be left in the kernel.
#include <cstddef>
#include <cstdint>
#include <string>

#include "common/apiutils.h"
#include "kernel/tarnkrn_control.h"
#include "pst/filter_data.h"
#include "pst/produce.h"
#include "tests/fuzz/leak_check.h"
#include "tests/fuzz/scratch_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const tarn::fuzz::ScratchInput input("msg");
    if (!input.Write(data, size)) return 0;
    const std::u16string path = input.wide_path();
    for (const bool plain_text : {false, true}) {
        tarn::FilterDataHolder record(tarn::NewFilterData());
        if (record == nullptr) continue;
        tarn::KernelFileHandle handle(krnOpenFile(path.c_str(), 0, tarn::kOpenShareMode));
        tarn::InputKind kind = tarn::kInputMessageFile;
        int32_t message_index = 0;
        int32_t body_format = tarn::kBodyNone;
        (void)tarn::ProduceDocument(path.c_str(), record.get(), &kind, &message_index, &body_format,
                                    plain_text, handle.get());
    }
    tarn::fuzz::AbortOnKernelLeak();
    return 0;
}
