#include "pst/pst.h"

#include <cstring>
#include <limits>

#include "common/apiutils.h"
#include "common/filterdata.h"
#include "common/status.h"
#include "kernel/tarnkrn.h"
#include "pst/filter_data.h"
#include "pst/hand_off.h"
#include "pst/probe.h"
#include "pst/produce.h"

namespace tarn {
namespace {

constexpr int32_t kBitsPerPixel = 24;

int32_t TempFileModeFromKernel() { return krnModeQuery() == kKernelModeInMemory ? 0 : 1; }

// The toolkit counts messages from 1; a number of INT32_MIN has no predecessor and stays as low as can be.
int32_t IndexFromMessageNumber(int32_t number) {
    return number == std::numeric_limits<int32_t>::min() ? number : number - 1;
}

// One axis of the size report: `caller_size` and `caller_resolution` are the caller's fields, `requested`
// the resolution asked for in the rendering options. Returns the size to report.
int32_t ScaleAxis(int32_t& record_size, int32_t& record_resolution, uint32_t requested,
                  int32_t& caller_resolution) {
    if (requested == 0 || requested == static_cast<uint32_t>(record_resolution) || record_resolution == 0) {
        // A record without a resolution cannot be rescaled; it reports its own.
        caller_resolution = record_resolution;
        return record_size;
    }
    // Rounded to nearest, in 64 bits without sign so that a large size times a large resolution fits.
    const uint64_t own = static_cast<uint32_t>(record_resolution);
    const uint64_t scaled =
        (static_cast<uint64_t>(static_cast<uint32_t>(record_size)) * requested + own / 2) / own;
    record_size = static_cast<int32_t>(static_cast<uint32_t>(scaled));
    record_resolution = static_cast<int32_t>(requested);
    // The caller's resolution field keeps what the caller put there.
    return record_size;
}

// Inches (or whatever unit the resolution counts per) from the caller's size field as it stands on
// entry, by integer division. Deliberately the caller's field and not the record's: callers rely on the
// figure they passed in.
double UnitsFrom(int32_t caller_size, int32_t resolution) {
    if (resolution == 0) return 0.0;
    return static_cast<double>(static_cast<uint32_t>(caller_size) / static_cast<uint32_t>(resolution));
}

// Reports the record's description in the caller's file-info record.
void FillCallerInfo(InfoRequest* request, PstFilterData* record, int32_t message_index) {
    FileInfo* out = request->file_info;
    request->message_number = message_index;
    out->format = record->reported_kind;
    out->marker_2188 = 1;
    out->marker_2208 = 1;
    out->width_units = UnitsFrom(out->width, record->x_resolution);
    out->height_units = UnitsFrom(out->height, record->y_resolution);

    int32_t page = request->load_options != nullptr ? request->load_options->page_number : 0;
    if (page < 1) page = 1;
    if (page > record->total_pages) page = record->total_pages;
    out->page_number = page;
    out->total_pages = record->total_pages;
    if (record->reported_kind == kInputPstStore) out->message_count = record->message_count;
    out->marker_1104 = 1;
    out->bits_per_pixel = kBitsPerPixel;

    out->width = ScaleAxis(record->width, record->x_resolution,
                           request->render_options[kRenderOptionXResolution], out->x_resolution);
    out->height = ScaleAxis(record->height, record->y_resolution,
                            request->render_options[kRenderOptionYResolution], out->y_resolution);
    out->loader_value_1 = record->loader_value_1;
    out->loader_value_2 = record->loader_value_2;
}

int32_t Info(InfoRequest* request) {
    if (request == nullptr || request->file_info == nullptr) return kStatusBadArgument;
    krnNoteRepairs("");  // until this call's document is made

    InputKind kind = kInputUnsupported;
    if (int32_t status = ProbeSource(request->handle, &kind); status != kStatusOk) return status;
    int32_t message_index = IndexFromMessageNumber(request->message_number);
    const bool plain_text = request->plain_text == 1;

    void* found = nullptr;
    PstFilterData* record = nullptr;
    FilterDataHolder fresh(nullptr);
    int32_t document_format = 0;
    if (FindSlotData(request->slot, &found) == kStatusOk) {
        record = static_cast<PstFilterData*>(found);
        if (record->produced_kind == kInputUnsupported || record->produced_kind != kind)
            return kStatusUnsupported;
        // The cached description stands while the caller asks for the same rendering.
        if (std::memcmp(record->render_options, request->render_options, sizeof record->render_options) ==
            0) {
            FillCallerInfo(request, record, message_index);
            return kStatusOk;
        }
        document_format = record->document_format;
    } else {
        fresh = FilterDataHolder(NewFilterData());
        record = fresh.get();
        if (record == nullptr) return kStatusFailure;
        record->temp_file_mode = TempFileModeFromKernel();
        int32_t body_format = kBodyNone;
        const int32_t status = ProduceDocument(request->file_name, record, &kind, &message_index,
                                               &body_format, plain_text, request->handle);
        if (status != kStatusOk) return status;
        krnNoteRepairs(record->repairs.MadeNames().c_str());
        document_format = ChooseDocumentFormat(body_format, plain_text);
        record->document_format = document_format;
        record->reported_kind = kind;
    }

    FileInfo info{};
    info.size = kFileInfoSize;
    info.format = document_format;
    info.flags = kInfoFlagForInfoCall;
    LoadOptions options{};
    if (request->load_options != nullptr) options = *request->load_options;
    options.size = kLoadOptionsSize;
    ExposeSlotEntry(request->slot, &options, message_index + 1);

    int32_t callback_status = kStatusOk;
    if (const int32_t status =
            HandOffInfo(record, request, &info, &options, fresh.get() != nullptr, &callback_status);
        status != kStatusOk)
        return status;
    if (callback_status != kStatusOk) {
        request->info_status = callback_status;
        return kStatusInfoCallbackFailed;
    }

    std::memcpy(record->render_options, request->render_options, sizeof record->render_options);
    // The loader's own data for this message shares the slot with our record; a slot that cannot take
    // it costs the loader its cache, not the description.
    if (info.loader_data != nullptr) {
        (void)StoreSlotData(request->slot, message_index + 1, info.loader_data, info.loader_data_size,
                            info.loader_data_count);
    }
    record->document_format = info.format;
    record->page_number = info.page_number;
    record->total_pages = info.total_pages;
    record->width = info.width;
    record->height = info.height;
    record->x_resolution = info.x_resolution;
    record->y_resolution = info.y_resolution;
    record->loader_value_1 = info.loader_value_1;
    record->loader_value_2 = info.loader_value_2;
    if (fresh.get() != nullptr) record->reported_kind = kind;
    if (request->slot != nullptr && fresh.get() != nullptr &&
        StoreSlotData(request->slot, 0, record, 0, kUseDefaultCount) == kStatusOk) {
        fresh.release();  // the slot owns it now, until fltFreeData
    }

    FillCallerInfo(request, record, message_index);
    return kStatusOk;  // a record still held by `fresh` is released here
}

int32_t Load(LoadRequest* request) {
    if (request == nullptr) return kStatusBadArgument;
    krnNoteRepairs("");  // until this call's document is made

    void* found = nullptr;
    if (FindSlotData(request->slot, &found) == kStatusOk) {
        // A cached record serves whatever message this request names: nothing is opened or composed.
        return HandOffLoad(static_cast<PstFilterData*>(found), request, 0);
    }

    KernelFileHandle source(krnOpenFile(request->file_name, 0, kOpenShareMode));
    if (!source.valid()) return kStatusCannotOpen;
    InputKind kind = kInputUnsupported;
    if (int32_t status = ProbeSource(source.get(), &kind); status != kStatusOk) return status;
    if (kind == kInputUnsupported) return kStatusUnsupported;

    FilterDataHolder fresh(NewFilterData());
    if (fresh.get() == nullptr) return kStatusFailure;
    PstFilterData* record = fresh.get();
    record->temp_file_mode = TempFileModeFromKernel();
    int32_t message_index = IndexFromMessageNumber(request->message_number);
    int32_t body_format = kBodyNone;
    const bool plain_text = request->plain_text == 1;
    const int32_t status = ProduceDocument(request->file_name, record, &kind, &message_index, &body_format,
                                           plain_text, source.get());
    if (status != kStatusOk) return status;
    krnNoteRepairs(record->repairs.MadeNames().c_str());
    record->document_format = ChooseDocumentFormat(body_format, plain_text);
    if (record->document_format == kDocumentHtml && record->temp_file_mode != 0) {
        if (const int32_t written = WriteTempHtml(record); written != kStatusOk) {
            // Deliberately unlike every other failure here: the source stays open and the record is not
            // released. Callers have long seen exactly this, and nothing is rendered from it.
            (void)source.Release();
            (void)fresh.release();
            return written;
        }
    }
    source.Close();
    return HandOffLoad(record, request, message_index);  // the fresh record is released on return
}

int32_t FreeData(void* record, int32_t keep) {
    if (record == nullptr) return kStatusBadArgument;
    if (keep != 0) return kStatusOk;
    ReleaseFilterData(record);
    return kStatusOk;
}

}  // namespace
}  // namespace tarn

// Nothing is caught here: what the store layers throw while a store is opened or counted leaves the
// entry point, and the toolkit decides what to make of it. Everything the filter holds on that path
// is owned by a holder, so the unwinding releases it.
extern "C" int32_t fltInfo(tarn::InfoRequest* request) { return tarn::Info(request); }
extern "C" int32_t fltLoad(tarn::LoadRequest* request) { return tarn::Load(request); }
extern "C" int32_t fltFreeData(void* record, int32_t keep) { return tarn::FreeData(record, keep); }
