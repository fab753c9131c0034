#include "host/toolkit_host.h"

#include <array>
#include <cmath>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>

#include "common/filterdata.h"
#include "common/status.h"
#include "platform/unicode.h"

namespace tarn::host {
namespace {

// One per thread: a host that serves several callers at once runs a toolkit on each calling thread.
thread_local Toolkit* g_active = nullptr;

constexpr int32_t kCallerValue1 = 0x0C;
constexpr int32_t kCallerValue2 = 0x10;

std::shared_ptr<FileInfo> CopyInfo(const FileInfo* info) {
    return info != nullptr ? std::make_shared<FileInfo>(*info) : nullptr;
}

void CopyOptions(LoaderCall& call, const LoadOptions* options) {
    call.had_options = options != nullptr;
    if (options != nullptr) call.options = *options;
}

void CopyBytes(LoaderCall& call, const void* document, int32_t length) {
    call.length = length;
    if (document != nullptr && length > 0) {
        const auto* bytes = static_cast<const std::byte*>(document);
        call.document.assign(bytes, bytes + length);
    }
}

void CopyFile(LoaderCall& call, const char16_t* path) {
    call.path = Utf8FromWide(path);
    std::ifstream in(call.path, std::ios::binary);
    call.file_readable = static_cast<bool>(in);
    if (!in) return;
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    call.document.resize(bytes.size());
    if (!bytes.empty()) std::memcpy(call.document.data(), bytes.data(), bytes.size());
}

// An info call answers with the description, as the toolkit's loader would after laying the document out.
int32_t Describe(Toolkit& toolkit, FileInfo* info) {
    const DocumentDescription& d = toolkit.description();
    if (d.status != kStatusOk || info == nullptr) return d.status;
    info->width = d.width;
    info->height = d.height;
    info->x_resolution = d.x_resolution;
    info->y_resolution = d.y_resolution;
    info->page_number = 1;
    info->total_pages = d.pages;
    info->loader_value_1 = d.loader_value_1;
    info->loader_value_2 = d.loader_value_2;
    info->loader_data = d.loader_data;
    info->loader_data_size = d.loader_data_size;
    info->loader_data_count = d.loader_data_count;
    return kStatusOk;
}

// Every loader has the same shape: take the active toolkit, record a copy of what the loader was handed
// (`fill` copies what only this loader takes), then answer as the toolkit's loader would: an info call
// with the description, a load with the configured status.
template <typename Fill>
int32_t RecordCall(LoaderKind kind, const LoadOptions* options, FileInfo* info, Fill&& fill) {
    Toolkit* toolkit = Toolkit::Active();
    if (toolkit == nullptr) return kStatusFailure;
    LoaderCall call;
    call.kind = kind;
    fill(call);
    CopyOptions(call, options);
    call.info = CopyInfo(info);
    toolkit->Record(std::move(call));
    if (toolkit->uses_layout()) return toolkit->AnswerWithLayout(toolkit->calls().back(), info);
    const bool info_call = kind == LoaderKind::kInfoByName || kind == LoaderKind::kInfoInMemory;
    return info_call ? Describe(*toolkit, info) : toolkit->description().status;
}

// What a standard load takes besides the document: the bitmap, the four constants and the caller's values.
void CopyStandardLoad(LoaderCall& call, const void* bitmap, std::array<int32_t, 4> constants, int32_t value_1,
                      int32_t value_2) {
    call.bitmap = bitmap;
    call.constants = constants;
    call.caller_value_1 = value_1;
    call.caller_value_2 = value_2;
}

int32_t InfoByName(const char16_t* path, FileInfo* info, int32_t info_size, int32_t flags,
                   LoadOptions* options) {
    return RecordCall(LoaderKind::kInfoByName, options, info, [&](LoaderCall& call) {
        CopyFile(call, path);
        call.info_size = info_size;
        call.flags = flags;
    });
}

int32_t InfoInMemory(const void* document, FileInfo* info, int32_t info_size, int32_t length, int32_t flags,
                     LoadOptions* options) {
    return RecordCall(LoaderKind::kInfoInMemory, options, info, [&](LoaderCall& call) {
        CopyBytes(call, document, length);
        call.info_size = info_size;
        call.flags = flags;
    });
}

int32_t LoadByName(const char16_t* path, void* bitmap, int32_t c216, int32_t c24, int32_t c1, int32_t c32,
                   int32_t caller_value_1, int32_t caller_value_2, LoadOptions* options, FileInfo* info) {
    return RecordCall(LoaderKind::kLoadByName, options, info, [&](LoaderCall& call) {
        CopyFile(call, path);
        CopyStandardLoad(call, bitmap, {c216, c24, c1, c32}, caller_value_1, caller_value_2);
    });
}

int32_t LoadInMemory(const void* document, void* bitmap, int32_t c216, int32_t c24, int32_t c1, int32_t c32,
                     int32_t caller_value_1, int32_t caller_value_2, int32_t length, LoadOptions* options,
                     FileInfo* info) {
    return RecordCall(LoaderKind::kLoadInMemory, options, info, [&](LoaderCall& call) {
        CopyBytes(call, document, length);
        CopyStandardLoad(call, bitmap, {c216, c24, c1, c32}, caller_value_1, caller_value_2);
    });
}

int32_t AltLoadByName(const char16_t* path, int32_t alternative_value, LoadOptions* options, FileInfo* info) {
    return RecordCall(LoaderKind::kAltLoadByName, options, info, [&](LoaderCall& call) {
        CopyFile(call, path);
        call.alternative_value = alternative_value;
    });
}

int32_t AltLoadInMemory(const void* document, int32_t alternative_value, int32_t length, LoadOptions* options,
                        FileInfo* info) {
    return RecordCall(LoaderKind::kAltLoadInMemory, options, info, [&](LoaderCall& call) {
        CopyBytes(call, document, length);
        call.alternative_value = alternative_value;
    });
}

// Runs `call` and turns anything that escapes the filter into one line: a bad source must never end
// the host.
template <typename Call>
CallOutcome Guarded(const char* entry_name, Call&& call) {
    CallOutcome outcome;
    try {
        outcome.status = call();
    } catch (const std::exception& e) {
        outcome.error = std::string(entry_name) + ": uncaught exception: " + e.what();
    } catch (...) {
        outcome.error = std::string(entry_name) + ": uncaught exception of unknown type";
    }
    return outcome;
}

}  // namespace

const char* LoaderKindName(LoaderKind kind) {
    // In the order of the enumeration.
    static constexpr const char* kNames[] = {
        "info by name",   "info in memory",           "load by name",
        "load in memory", "alternative load by name", "alternative load in memory"};
    const auto i = static_cast<size_t>(kind);
    return i < std::size(kNames) ? kNames[i] : "unknown loader";
}

Toolkit::Toolkit() : previous_(g_active) { g_active = this; }

Toolkit::~Toolkit() {
    if (g_active == this) g_active = previous_;
}

Toolkit* Toolkit::Active() { return g_active; }

void Toolkit::UseLayout(PageLayout* layout, PageBitmap* bitmap) {
    layout_ = layout;
    bitmap_ = bitmap;
}

int32_t Toolkit::AnswerWithLayout(const LoaderCall& call, FileInfo* info) {
    layout_error_.clear();
    const DocumentDescription& d = description_;
    if (call.info == nullptr || info == nullptr) {
        layout_error_ = "the loader was handed no file-info record";
        return kStatusFailure;
    }
    const int32_t format = call.info->format;
    if (!laid_out_ || laid_format_ != format || laid_document_ != call.document) {
        laid_out_.reset();
        LaidOutDocument laid;
        if (!layout_->Lay(call.document, format, &laid, &layout_error_)) return kStatusFailure;
        laid_out_ = std::move(laid);
        laid_document_ = call.document;
        laid_format_ = format;
    }
    // Pixels of a page at a resolution, to the nearest pixel, from its size in points.
    const auto pixels = [](double points, int32_t dpi) {
        return static_cast<int32_t>(std::lround(points * dpi / 72.0));
    };
    switch (call.kind) {
        case LoaderKind::kInfoByName:
        case LoaderKind::kInfoInMemory: {
            const int32_t status = Describe(*this, info);
            if (status != kStatusOk) return status;
            info->width = pixels(laid_out_->width_points, d.x_resolution);
            info->height = pixels(laid_out_->height_points, d.y_resolution);
            info->total_pages = laid_out_->pages;
            return kStatusOk;
        }
        case LoaderKind::kLoadByName:
        case LoaderKind::kLoadInMemory: {
            if (call.bitmap == nullptr || call.bitmap != bitmap_) {
                layout_error_ = "the load was handed a bitmap the host did not give";
                return kStatusFailure;
            }
            const int32_t page = call.had_options ? call.options.page_number : 1;
            const int32_t dpi = call.info->x_resolution > 0 ? call.info->x_resolution : d.x_resolution;
            const int32_t width =
                call.info->width > 0 ? call.info->width : pixels(laid_out_->width_points, dpi);
            const int32_t height =
                call.info->height > 0 ? call.info->height : pixels(laid_out_->height_points, dpi);
            return layout_->Rasterise(*laid_out_, page, dpi, width, height, bitmap_, &layout_error_)
                       ? kStatusOk
                       : kStatusFailure;
        }
        default:  // the alternative loads draw into no bitmap of ours
            return d.status;
    }
}

InfoByNameFn InfoByNameLoader() { return InfoByName; }
InfoInMemoryFn InfoInMemoryLoader() { return InfoInMemory; }
LoadByNameFn LoadByNameLoader() { return LoadByName; }
LoadInMemoryFn LoadInMemoryLoader() { return LoadInMemory; }
AltLoadByNameFn AltLoadByNameLoader() { return AltLoadByName; }
AltLoadInMemoryFn AltLoadInMemoryLoader() { return AltLoadInMemory; }

void ReleaseSlotList(FilterDataSlot& slot) {
    if (slot.data != nullptr && slot.count == kSlotHoldsList) {
        const auto* list = static_cast<const FilterDataList*>(slot.data);
        if (list->tag == kFilterDataListTag) krnFree(slot.data, __FILE__, __LINE__);
    }
    slot.data = nullptr;
    slot.size = 0;
    slot.count = 0;
}

CallOutcome CallInfo(const EntryPoints& entries, InfoRequest* request) {
    return Guarded("fltInfo", [&] { return entries.info(request); });
}

CallOutcome CallLoad(const EntryPoints& entries, LoadRequest* request) {
    return Guarded("fltLoad", [&] { return entries.load(request); });
}

CallOutcome CallFreeData(const EntryPoints& entries, void* record, int32_t keep) {
    return Guarded("fltFreeData", [&] { return entries.free_data(record, keep); });
}

SourceSession::SourceSession(std::u16string name)
    : name_(std::move(name)),
      info_request_(std::make_unique<InfoRequest>()),
      load_request_(std::make_unique<LoadRequest>()),
      file_info_(std::make_unique<FileInfo>()),
      load_options_(std::make_unique<LoadOptions>()),
      slot_(std::make_unique<FilterDataSlot>()) {}

SourceSession::~SourceSession() = default;

InfoRequest& SourceSession::BuildInfoRequest(krn_handle handle, int32_t message_number, bool plain_text,
                                             bool with_slot, int32_t page) {
    *info_request_ = InfoRequest{};
    *file_info_ = FileInfo{};
    file_info_->size = kFileInfoSize;
    *load_options_ = LoadOptions{};
    load_options_->size = kLoadOptionsSize;
    load_options_->page_number = page;

    InfoRequest& r = *info_request_;
    r.file_name = name_.c_str();
    r.handle = handle;
    r.file_info = file_info_.get();
    r.slot = with_slot ? slot_.get() : nullptr;
    r.load_options = load_options_.get();
    r.info_by_name = InfoByName;
    r.info_in_memory = InfoInMemory;
    r.message_number = message_number;
    r.plain_text = plain_text ? 1 : 0;
    return r;
}

LoadRequest& SourceSession::BuildLoadRequest(int32_t message_number, bool plain_text, bool with_slot,
                                             int32_t page) {
    *load_request_ = LoadRequest{};
    file_info_->size = kFileInfoSize;
    load_options_->size = kLoadOptionsSize;
    load_options_->page_number = page;

    LoadRequest& r = *load_request_;
    r.file_name = name_.c_str();
    r.bitmap = bitmap_.data();
    r.caller_value_1 = kCallerValue1;
    r.caller_value_2 = kCallerValue2;
    r.file_info = file_info_.get();
    r.slot = with_slot ? slot_.get() : nullptr;
    r.load_options = load_options_.get();
    r.secondary_status = kStatusOk;
    r.message_number = message_number;
    r.plain_text = plain_text ? 1 : 0;
    r.toolkit_object = &toolkit_object_;
    r.load_by_name = LoadByName;
    r.load_in_memory = LoadInMemory;
    r.alt_load_by_name = AltLoadByName;
    r.alt_load_in_memory = AltLoadInMemory;
    return r;
}

CallOutcome SourceSession::ReleaseSlot(const EntryPoints& entries) {
    FilterDataSlot& slot = *slot_;
    void* datum = slot.data;
    if (datum != nullptr && slot.count == kSlotHoldsList) {
        const auto* list = static_cast<const FilterDataList*>(datum);
        datum =
            list->tag == kFilterDataListTag && list->entry_count > 0 ? ListEntries(list)[0].data : nullptr;
    }
    CallOutcome outcome{kStatusOk, {}};
    if (datum != nullptr) outcome = CallFreeData(entries, datum, 0);
    ReleaseSlotList(slot);
    return outcome;
}

std::u16string WideFromUtf8(const std::string& text) { return platform::Utf16FromUtf8(text); }

std::string Utf8FromWide(const char16_t* text) {
    if (text == nullptr) return {};
    return platform::Utf8FromUtf16(text).value_or(std::string());
}

}  // namespace tarn::host
