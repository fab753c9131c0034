// A store message composed for export as the filter composes its target, on any thread: the document
// the loader would be handed, and the fields the manifest lists.
#ifndef TARN_API_EXPORT_COMPOSITION_H_
#define TARN_API_EXPORT_COMPOSITION_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "api/store_text.h"
#include "common/status.h"
#include "pst/filter_data.h"
#include "pst/message_model.h"
#include "store/ndb/database.h"

namespace tarn::api {

// A composed document, as the loader would be handed it.
struct Composed {
    int32_t compose_status = tarn::kStatusFailure;  // below 1 ends the filter's walk
    int32_t status = tarn::kStatusFailure;          // the filter's status for it, as its target
    bool text_fallback = false;
    bool has_document = false;
    int32_t format = 0;
};

// Composes `message` as the filter composes its target and assembles the document into `record`.
// Without `text` a message that has no HTML or RTF body gets the plain-text document the filter makes
// with the flag. Store errors propagate.
Composed ComposeDocument(tarn::PstMessage& message, bool text, tarn::PstFilterData* record);

// What `read` gives, or nothing when it throws.
std::optional<std::string> Quietly(const std::function<std::optional<std::string>()>& read);

// What a message gives the export, read and composed on a worker; the calling thread numbers it, names
// its file and writes it.
struct ComposedMessage {
    bool skipped = false;  // the filter passes it over: no index, no document
    uint32_t code_page = kDefaultCodePage;
    std::optional<std::string> unreadable_subject;  // the store error that ends the folder here
    tarn::ndb::node_id node = 0;
    std::optional<std::string> subject;
    std::optional<std::string> sender;
    std::optional<std::string> sent;
    Composed composed;
    tarn::FilterDataHolder record;
    // As the filter's target the composition threw: the error, and the status it gives as an earlier
    // message (below 1 ends the filter's walk there).
    std::optional<std::string> thrown;
    int32_t earlier_status = tarn::kStatusOk;
    bool deferred = false;  // not composed: an earlier export's row may stand for it
};

// Reads and composes one message; with `defer`, reads its header fields only. A subject that cannot be
// read ends the folder in the filter's composer too; the store's own errors in reaching the message
// propagate.
ComposedMessage ComposeForExport(tarn::PstMessage& message, bool text, bool defer = false);

}  // namespace tarn::api

#endif  // TARN_API_EXPORT_COMPOSITION_H_
