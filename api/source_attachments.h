// The attachments of a source that is not a PST store, for tarnview export --attachments: a message
// file's attachment storages, or an Internet message's parts that are neither its body nor inlined.
#ifndef TARN_API_SOURCE_ATTACHMENTS_H_
#define TARN_API_SOURCE_ATTACHMENTS_H_

#include <string>
#include <vector>

namespace tarn::api {

struct SourceAttachment {
    std::string name;   // as the source gives it (UTF-8 where it says so); empty when it gives none
    std::string bytes;  // the content, decoded
    bool embedded = false;
    std::string error;  // why it has no content
};

// The attachments of the message file or Internet message at `source` (UTF-8), in order. Nothing, with
// the reason in `error`, when the source cannot be read.
std::vector<SourceAttachment> ReadSourceAttachments(const std::string& source, bool message_file,
                                                    std::string* error);

}  // namespace tarn::api

#endif  // TARN_API_SOURCE_ATTACHMENTS_H_
