#include "api/cursor.h"

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "api/parallel_walk.h"
#include "api/source_attachments.h"
#include "api/store_folders.h"
#include "api/store_text.h"
#include "common/apiutils.h"
#include "common/little_endian.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "pst/composer.h"
#include "pst/message_model.h"
#include "pst/message_walk.h"
#include "pst/msg/msg_reader.h"
#include "pst/render/header_labels.h"
#include "pst/render/message_document.h"
#include "pst/render/mime_reader.h"
#include "store/ltp/property_bag.h"
#include "store/ndb/database.h"

namespace tarn::api {
namespace {

using tarn::ndb::node_id;
using tarnpst::Message;

constexpr tarn::ltp::prop_id kPropAttachSize = 0x0E20;
constexpr tarn::ltp::prop_id kPropAttachMethod = 0x3705;
constexpr uint32_t kAttachEmbeddedMessage = 5;
// Windows file time (100 ns since 1601) of the Unix epoch.
constexpr uint64_t kFileTimeOfUnixEpoch = 116444736000000000ull;
// Messages read ahead of the caller; their fields are small, so this bounds the cursor's memory.
constexpr size_t kReadAhead = 64;

std::string Text(const tarn::CountedString& s) { return std::string(s.text()); }

// What a message gives, read on a worker: its fields, or that the filter passes it over.
struct Fields {
    bool skipped = false;
    uint32_t code_page = kDefaultCodePage;
    Message message;
};

// Each property once. Store errors propagate: they end the folder, as in the filter's walk.
Fields ReadFields(tarn::PstMessage& pst, bool attachments) {
    const tarn::ltp::property_bag& properties = pst.properties();
    Fields out;
    const std::u16string subject = tarn::ReadSubject(properties);
    // The filter gives these no page and no index.
    if (subject == tarn::kLocalFreebusySubject) {
        out.skipped = true;
        return out;
    }
    // People read the 8-bit strings of an ANSI store in the message's own code page; the filter's
    // documents keep their byte-by-byte reading.
    out.code_page = StringCodePage(properties);
    Message& m = out.message;
    m.subject = SubjectText(properties, out.code_page, subject);
    const auto text = [&](tarn::ltp::prop_id id) {
        return ReadText(properties, id, out.code_page).value_or(std::string());
    };
    m.sender = text(tarn::kPropSenderName);
    m.to = text(tarn::kPropDisplayTo);
    m.cc = text(tarn::kPropDisplayCc);
    m.bcc = text(tarn::kPropDisplayBcc);
    // The header block's own wording of the time and the importance.
    if (properties.prop_exists(tarn::kPropSubmitTime)) {
        const std::vector<std::byte> value = properties.get_value_variable(tarn::kPropSubmitTime);
        // Any other length is not a file time.
        if (value.size() == sizeof(uint64_t)) {
            const uint64_t file_time = tarn::LoadLe64(value.data());
            tarn::CountedString sent;
            (void)tarn::FormatSentTime(file_time, sent);
            m.sent_text = Text(sent);
            if (file_time >= kFileTimeOfUnixEpoch)
                m.sent = std::chrono::sys_seconds(std::chrono::seconds(
                    static_cast<int64_t>((file_time - kFileTimeOfUnixEpoch) / 10000000)));
        }
    }
    if (properties.prop_exists(tarn::kPropImportance)) {
        const uint32_t level = properties.get_value_4(tarn::kPropImportance);
        tarn::CountedString importance;
        (void)tarn::ImportanceText(level, importance);
        m.importance = Text(importance);
        m.importance_level = static_cast<int32_t>(level);
    }
    if (attachments) {
        const uint32_t count = pst.AttachmentCount();
        for (uint32_t i = 0; i < count; ++i) {
            const tarn::ltp::property_bag attachment(
                properties.get_node().lookup(pst.Attachment(i).get_row_id()));
            const uint32_t code_page = StringCodePage(attachment);
            tarnpst::Attachment a;
            a.name = ReadText(attachment, tarn::kPropAttachLongName, code_page).value_or("");
            if (a.name.empty())
                a.name = ReadText(attachment, tarn::kPropAttachShortName, code_page).value_or("");
            if (attachment.prop_exists(kPropAttachSize)) a.bytes = attachment.get_value_4(kPropAttachSize);
            a.embedded = attachment.prop_exists(kPropAttachMethod) &&
                         attachment.get_value_4(kPropAttachMethod) == kAttachEmbeddedMessage;
            m.attachments.push_back(std::move(a));
        }
    }
    return out;
}

// A store's messages: the walk runs on a thread of its own (with its workers) and hands the messages
// over through a short queue, so the caller pulls them one by one and the memory stays flat.
class StoreCursor final : public tarnpst::Cursor::Impl {
  public:
    StoreCursor(std::string path, const tarnpst::CursorOptions& options)
        : path_(std::move(path)), wide_(tarn::host::WideFromUtf8(path_)), options_(options) {
        try {
            db_ = tarn::ndb::open_database(wide_);
        } catch (const std::exception& e) {
            throw tarnpst::Error(tarnpst::kStatusUnsupported,
                                 path_ + ": not a readable PST store: " + e.what());
        }
        thread_ = std::thread([this] { Walk(); });
    }

    ~StoreCursor() override {
        {
            std::lock_guard lock(mutex_);
            cancelled_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

    bool Next(Message& out) override {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !queue_.empty() || done_; });
        if (queue_.empty()) {
            if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
            return false;
        }
        out = std::move(queue_.front());
        queue_.pop_front();
        changed_.notify_all();
        return true;
    }

  private:
    struct FolderInfo {
        std::string name;
        std::vector<std::string> path;
    };

    void Walk() {
        try {
            const unsigned jobs =
                options_.jobs != 0 ? options_.jobs : DefaultJobs(/*calling_thread_waits=*/true);
            const bool attachments = options_.attachments;
            ParallelWalk<Fields> walk(
                {WorkersFor(jobs)}, [this] { return tarn::ndb::open_database(wide_); },
                [attachments](node_id, tarn::PstMessage& message) {
                    return ReadFields(message, attachments);
                },
                [](const Fields& f) {
                    const Message& m = f.message;
                    return m.subject.size() + m.sender.size() + m.to.size() + m.cc.size() + m.bcc.size();
                });
            walk.Run(
                db_,
                [this, &walk](node_id folder, uint32_t, Fields& f) {
                    if (f.skipped) return;
                    const FolderInfo& info = Folder(folder, f.code_page);
                    f.message.number = ++running_;
                    f.message.folder = info.name;
                    f.message.folder_path = info.path;
                    std::unique_lock lock(mutex_);
                    changed_.wait(lock, [this] { return queue_.size() < kReadAhead || cancelled_; });
                    if (cancelled_) {
                        walk.Stop();
                        return;
                    }
                    queue_.push_back(std::move(f.message));
                    changed_.notify_all();
                },
                [this](const RowFailure& f) { Warn(f); });
        } catch (...) {
            std::lock_guard lock(mutex_);
            failure_ = std::current_exception();
        }
        std::lock_guard lock(mutex_);
        done_ = true;
        changed_.notify_all();
    }

    // Folders carry no code page of their own: an 8-bit name is read in the page of the folder's first
    // message (a store is written by one client in one page).
    const FolderInfo& Folder(node_id folder, uint32_t code_page) {
        auto found = folders_.find(folder);
        if (found != folders_.end()) return found->second;
        FolderInfo info;
        // A name that cannot be read is a store error of this message's: it ends the folder here.
        const tarn::ltp::property_bag bag(db_->lookup_node(folder));
        info.name = ReadText(bag, tarn::kPropDisplayName, code_page).value_or(std::string());
        for (const node_id id : FolderChain(db_, folder))
            info.path.push_back(id == folder ? info.name : ReadName(id, code_page).value_or(std::string()));
        return folders_.emplace(folder, std::move(info)).first->second;
    }

    std::optional<std::string> ReadName(node_id folder, uint32_t code_page) {
        try {
            const tarn::ltp::property_bag bag(db_->lookup_node(folder));
            return ReadText(bag, tarn::kPropDisplayName, code_page).value_or(std::string());
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }

    // What the walk could not read, one line each: `FILE: folder "NAME" (nid 0x...): ERROR`.
    void Warn(const RowFailure& f) {
        std::string line = path_;
        if (!f.folder) {
            line.append(": node b-tree: ").append(f.error).append("; the walk ended there");
        } else {
            line.append(": folder ");
            if (const std::optional<std::string> name = ReadName(*f.folder, kDefaultCodePage))
                line.append("\"").append(*name).append("\" ");
            char nid[32];
            std::snprintf(nid, sizeof nid, "(nid 0x%x): ", static_cast<unsigned>(*f.folder));
            line.append(nid).append(f.error);
        }
        std::lock_guard lock(mutex_);
        warnings.push_back(std::move(line));
    }

    std::string path_;
    std::u16string wide_;
    tarnpst::CursorOptions options_;
    tarn::ndb::db_ptr db_;
    std::map<node_id, FolderInfo> folders_;
    int32_t running_ = 0;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Message> queue_;
    bool done_ = false;
    bool cancelled_ = false;
    std::exception_ptr failure_;
    std::thread thread_;  // last: started once everything above is in place
};

// The one message of a message file or an Internet message, with the header fields its reader gives.
class SingleCursor final : public tarnpst::Cursor::Impl {
  public:
    SingleCursor(std::string path, bool message_file, const tarnpst::CursorOptions& options)
        : path_(std::move(path)), message_file_(message_file), options_(options) {}

    bool Next(Message& out) override {
        if (given_) return false;
        given_ = true;
        tarn::MessageDocument record;
        const std::u16string wide = tarn::host::WideFromUtf8(path_);
        int32_t status = tarn::kStatusOk;
        if (message_file_) {
            tarn::MsgReadOptions read;
            read.walk_attachments = false;
            status = tarn::ReadMsgMessage(record, wide.c_str(), read);
        } else {
            const tarn::KernelFileHandle handle(krnOpenFile(wide.c_str(), 0, tarn::kOpenShareMode));
            if (!handle.valid())
                throw tarnpst::Error(tarnpst::kStatusCannotOpen, path_ + ": cannot be opened");
            int32_t body_format = tarn::kBodyNone;
            status = tarn::ReadEmlMessage(handle.get(), record, &body_format);
        }
        // A message without a body still has its header fields.
        if (status != tarn::kStatusOk && status != tarn::kStatusUnsupported)
            throw tarnpst::Error(status, path_ + ": the reader gives status " + std::to_string(status) +
                                             " (" + tarn::StatusText(status) + ")");
        out = Message();
        out.number = 1;
        out.subject = Text(record.header[tarn::kSlotSubject]);
        out.sender = Text(record.header[tarn::kSlotFrom]);
        out.to = Text(record.header[tarn::kSlotTo]);
        out.cc = Text(record.header[tarn::kSlotCc]);
        out.bcc = Text(record.header[tarn::kSlotBcc]);
        out.sent_text = Text(record.header[tarn::kSlotSent]);
        out.importance = Text(record.header[tarn::kSlotImportance]);
        if (options_.attachments) {
            std::string error;
            for (SourceAttachment& a : ReadSourceAttachments(path_, message_file_, &error))
                out.attachments.push_back({std::move(a.name), a.bytes.size(), a.embedded});
            if (!error.empty()) warnings.push_back(path_ + ": attachments: " + error);
        }
        return true;
    }

  private:
    std::string path_;
    bool message_file_;
    tarnpst::CursorOptions options_;
    bool given_ = false;
};

}  // namespace

std::unique_ptr<tarnpst::Cursor::Impl> OpenStoreCursor(const std::string& path,
                                                       const tarnpst::CursorOptions& options) {
    return std::make_unique<StoreCursor>(path, options);
}

std::unique_ptr<tarnpst::Cursor::Impl> OpenSingleCursor(const std::string& path, bool message_file,
                                                        const tarnpst::CursorOptions& options) {
    return std::make_unique<SingleCursor>(path, message_file, options);
}

}  // namespace tarn::api
