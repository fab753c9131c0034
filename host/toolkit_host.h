// The toolkit stand-in: what the toolkit gives the filter, for hosts (tarnview) and tests. It builds
// info and load requests around a per-file data slot, answers the filter's loader calls with a
// configurable description while recording each call, provides the toolkit object a load request
// points to, and releases a slot as the toolkit would.
#ifndef TARN_HOST_TOOLKIT_HOST_H_
#define TARN_HOST_TOOLKIT_HOST_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/toolkit_records.h"
#include "host/page_layout.h"
#include "kernel/tarnkrn.h"

namespace tarn::host {

// What the stand-in's loaders say about any document they are handed.
struct DocumentDescription {
    int32_t width = 816;  // a Letter page at 96 dpi
    int32_t height = 1056;
    int32_t x_resolution = 96;
    int32_t y_resolution = 96;
    int32_t pages = 1;
    int32_t loader_value_1 = 0;
    int32_t loader_value_2 = 0;
    int32_t status = 1;  // what every loader returns; set a failure to make the callbacks fail
    // Per-file data an info call hands back (owned by whoever sets it, never freed here).
    void* loader_data = nullptr;
    int32_t loader_data_size = 0;
    int32_t loader_data_count = 0;
};

enum class LoaderKind {
    kInfoByName,
    kInfoInMemory,
    kLoadByName,
    kLoadInMemory,
    kAltLoadByName,
    kAltLoadInMemory
};
const char* LoaderKindName(LoaderKind kind);

// One call of a loader callback, with copies of what it was handed.
struct LoaderCall {
    LoaderKind kind = LoaderKind::kInfoInMemory;
    std::string path;                    // the by-name kinds: the path, as UTF-8
    std::vector<std::byte> document;     // the bytes handed over, or the file's contents when by name
    bool file_readable = false;          // by name: whether the file could be read
    int32_t info_size = 0;               // info calls: the record size passed
    int32_t length = 0;                  // in-memory kinds: the length passed
    int32_t flags = 0;                   // info calls
    std::array<int32_t, 4> constants{};  // standard loads: the four constants in order
    int32_t caller_value_1 = 0;
    int32_t caller_value_2 = 0;
    int32_t alternative_value = 0;
    const void* bitmap = nullptr;
    bool had_options = false;
    LoadOptions options{};
    std::shared_ptr<FileInfo> info;  // a copy as the loader received it; null when none was passed
};

// The toolkit object of a load request: its fourth operation answers `mode`.
class ModeObject final : public ToolkitObject {
  public:
    int32_t Operation1() override { return 0; }
    int32_t Operation2() override { return 0; }
    int32_t Operation3() override { return 0; }
    int32_t LoadMode() override {
        ++mode_queries;
        return mode;
    }

    int32_t mode = 0;
    int mode_queries = 0;
};

// The loaders are plain function pointers, so they report to the one Toolkit that is active: the most
// recently constructed that still exists. Not for use from several threads at once.
class Toolkit {
  public:
    Toolkit();
    ~Toolkit();
    Toolkit(const Toolkit&) = delete;
    Toolkit& operator=(const Toolkit&) = delete;

    static Toolkit* Active();

    DocumentDescription& description() { return description_; }
    const std::vector<LoaderCall>& calls() const { return calls_; }
    void ClearCalls() { calls_.clear(); }
    void Record(LoaderCall call) { calls_.push_back(std::move(call)); }

    // With a layout, the loaders (still recording) lay out the document they are handed: an info call
    // describes its real pages (their count, and the first page's size at the description's
    // resolution), a standard load draws the requested page into `bitmap`, which must be the bitmap the
    // load is handed, at the size and resolution of the file-info record it is handed. A layout that
    // fails makes the loader return kStatusFailure, with the reason in layout_error(). Null: recording
    // alone, the description answers.
    void UseLayout(PageLayout* layout, PageBitmap* bitmap = nullptr);
    bool uses_layout() const { return layout_ != nullptr; }
    const std::string& layout_error() const { return layout_error_; }
    // The last document laid out, or null.
    const LaidOutDocument* laid_out() const { return laid_out_ ? &*laid_out_ : nullptr; }
    // The loaders' answer when a layout is in use: `call` has just been recorded.
    int32_t AnswerWithLayout(const LoaderCall& call, FileInfo* info);

  private:
    DocumentDescription description_;
    std::vector<LoaderCall> calls_;
    PageLayout* layout_ = nullptr;
    PageBitmap* bitmap_ = nullptr;
    std::string layout_error_;
    // The document behind laid_out_: the toolkit lays a document out once for its info and loads.
    std::vector<std::byte> laid_document_;
    int32_t laid_format_ = 0;
    std::optional<LaidOutDocument> laid_out_;
    Toolkit* previous_;
};

// The loader callbacks as the requests carry them.
InfoByNameFn InfoByNameLoader();
InfoInMemoryFn InfoInMemoryLoader();
LoadByNameFn LoadByNameLoader();
LoadInMemoryFn LoadInMemoryLoader();
AltLoadByNameFn AltLoadByNameLoader();
AltLoadInMemoryFn AltLoadInMemoryLoader();

// The toolkit's release of a slot: frees the "LMLT" list when the slot holds one (the entries' data
// belong to whoever stored them) and empties the slot.
void ReleaseSlotList(FilterDataSlot& slot);

// The filter's entry points, however the host reached them (linked, or looked up in the library).
struct EntryPoints {
    int32_t (*info)(InfoRequest*) = nullptr;
    int32_t (*load)(LoadRequest*) = nullptr;
    int32_t (*free_data)(void*, int32_t) = nullptr;
};

// The result of calling an entry point: its status, or the reason when something escaped it.
struct CallOutcome {
    int32_t status = 0;
    std::string error;  // one line; empty when the entry point returned
    bool returned() const { return error.empty(); }
};

CallOutcome CallInfo(const EntryPoints& entries, InfoRequest* request);
CallOutcome CallLoad(const EntryPoints& entries, LoadRequest* request);
CallOutcome CallFreeData(const EntryPoints& entries, void* record, int32_t keep);

// One source as the toolkit keeps it between calls: its name, its slot and the records its requests
// point to. Every record lives at a stable address for the session's lifetime.
class SourceSession {
  public:
    explicit SourceSession(std::u16string name);
    ~SourceSession();
    SourceSession(const SourceSession&) = delete;
    SourceSession& operator=(const SourceSession&) = delete;

    // Fills the info request afresh: the name and `handle`, the file-info record (its size set, the rest
    // zero), the slot (or none), load options asking for `page`, both info loaders, the message number
    // and the plain-text flag. Rendering options are zero; the caller may change any field afterwards.
    InfoRequest& BuildInfoRequest(krn_handle handle, int32_t message_number, bool plain_text = false,
                                  bool with_slot = true, int32_t page = 1);
    // Likewise for a load request: bitmap placeholder, caller values 0x0C and 0x10, secondary status 1,
    // the toolkit object, and the four loaders.
    LoadRequest& BuildLoadRequest(int32_t message_number, bool plain_text = false, bool with_slot = true,
                                  int32_t page = 1);

    // As the toolkit does when it forgets a source: hands the filter's datum (the slot's single datum,
    // or entry 0 of its list) to fltFreeData, then releases the list.
    CallOutcome ReleaseSlot(const EntryPoints& entries);

    const std::u16string& name() const { return name_; }
    InfoRequest& info_request() { return *info_request_; }
    LoadRequest& load_request() { return *load_request_; }
    FileInfo& file_info() { return *file_info_; }
    LoadOptions& load_options() { return *load_options_; }
    FilterDataSlot& slot() { return *slot_; }
    ModeObject& toolkit_object() { return toolkit_object_; }

  private:
    std::u16string name_;
    std::unique_ptr<InfoRequest> info_request_;
    std::unique_ptr<LoadRequest> load_request_;
    std::unique_ptr<FileInfo> file_info_;
    std::unique_ptr<LoadOptions> load_options_;
    std::unique_ptr<FilterDataSlot> slot_;
    ModeObject toolkit_object_;
    std::array<std::byte, 64> bitmap_{};
};

// UTF-8 to UTF-16 for names given on a command line (no validation beyond what decoding needs:
// malformed bytes become U+FFFD).
std::u16string WideFromUtf8(const std::string& text);
// UTF-16 to UTF-8; empty when the text holds an unpaired surrogate.
std::string Utf8FromWide(const char16_t* text);

}  // namespace tarn::host

#endif  // TARN_HOST_TOOLKIT_HOST_H_
