// An Internet message from arbitrary bytes through the document step of kind 387: the MIME reader, the
// English header block and the record's document, in the contract's profile and, with the plain-text
// flag, in the repaired one; then the repaired reader once more with the part listing that tarnview
// parts prints. Whatever the bytes, every path ends in a status and leaves nothing in the
// kernel.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/apiutils.h"
#include "kernel/tarnkrn_control.h"
#include "pst/filter_data.h"
#include "pst/produce.h"
#include "pst/render/mime_reader.h"
#include "tests/fuzz/leak_check.h"
#include "tests/fuzz/scratch_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const tarn::fuzz::ScratchInput input("eml");
    if (!input.Write(data, size)) return 0;
    const std::u16string path = input.wide_path();
    for (const bool repaired : {false, true}) {
        krnctlSetRepairs(repaired ? 1 : 0);
        tarn::KernelFileHandle handle(krnOpenFile(path.c_str(), 0, tarn::kOpenShareMode));
        tarn::FilterDataHolder record(tarn::NewFilterData());
        if (handle.valid() && record != nullptr) {
            // Whatever its first bytes, the source is taken as MIME text here.
            tarn::InputKind kind = tarn::kInputMimeText;
            int32_t message_index = 5;
            int32_t body_format = tarn::kBodyNone;
            tarn::ProduceDocument(path.c_str(), record.get(), &kind, &message_index, &body_format, repaired,
                                  handle.get());
        }
    }
    krnctlSetRepairs(0);
    {
        tarn::MessageDocument record;
        record.repairs = tarn::Repairs(true);
        std::vector<tarn::MimePartReport> parts;
        tarn::MimeReadOptions options;
        options.parts = &parts;
        int32_t body_format = tarn::kBodyNone;
        tarn::ReadEmlBytes(std::string_view(reinterpret_cast<const char*>(data), size), record, &body_format,
                           options);
    }
    tarn::fuzz::AbortOnKernelLeak();
    return 0;
}
