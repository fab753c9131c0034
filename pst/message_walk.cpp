#include "pst/message_walk.h"

#include <exception>
#include <limits>
#include <string>

#include "common/status.h"
#include "pst/composer.h"
#include "store/ltp/property_bag.h"
#include "store/ltp/table.h"

namespace tarn {
namespace {

// The messages of one folder. Errors propagate to WalkMessages, which ends the folder there.
int32_t WalkFolder(const ndb::db_ptr& db, ndb::node_id folder, const MessageVisitor& visit) {
    const ltp::table contents(db->lookup_node(ContentsTableOf(folder)));
    for (uint32_t row = 0; row < contents.size(); ++row) {
        PstMessage message(db->lookup_node(contents[row].get_row_id()));
        const int32_t result = visit(folder, message);
        if (result != kWalkNext) return result;
    }
    return kWalkNext;
}

// Releases the bodies of a message composed before the target when its composition ends, whether it
// gave a status or threw.
class BodyRelease {
  public:
    explicit BodyRelease(MessageDocument* entry) : entry_(entry) {}
    BodyRelease(const BodyRelease&) = delete;
    BodyRelease& operator=(const BodyRelease&) = delete;
    ~BodyRelease() {
        if (entry_ != nullptr) ReleaseComposedBodies(*entry_);
    }

  private:
    MessageDocument* entry_;
};

}  // namespace

namespace {

int64_t RowsOfContentsTable(const ndb::db_ptr& db, ndb::node_id folder) {
    try {
        return ltp::table(db->lookup_node(ContentsTableOf(folder))).size();
    } catch (const std::exception&) {
        return 0;
    }
}

}  // namespace

int32_t CountMessages(const ndb::db_ptr& db, MessageListPtr* list, Repairs* repairs) {
    int64_t total = 0;
    uint64_t nodes = 0;
    for (const ndb::node_info& info : ndb::page_range(db->read_nbt_root())) {
        ++nodes;
        if (!IsNormalFolder(info.id)) continue;
        const ltp::property_bag folder(db->lookup_node(info.id));
        if (folder.read_wstring(kPropDisplayName) == kFreebusyFolderName) continue;
        if (repairs != nullptr && !folder.prop_exists(kPropContentCount) &&
            repairs->Make(Repair::kWalkedCounts)) {
            total += RowsOfContentsTable(db, info.id);
            continue;
        }
        // A signed count, summed wide: a damaged folder may say -1, and many may overflow 32 bits.
        total += static_cast<int32_t>(folder.get_value_4(kPropContentCount));
    }
    if (total < 1) return kStatusBadArgument;
    // Ours, not the format's: every message is a node of its own, so a total above the node count (or
    // beyond what the list's count can hold) is damage, refused before it allocates.
    if (static_cast<uint64_t>(total) > nodes || total > std::numeric_limits<int32_t>::max())
        return kStatusFailure;

    MessageListPtr made = MakeKernelObject<MessageList>(KernelRegistry::kNone);
    if (made == nullptr) return kStatusFailure;
    if (!made->entries.allocate(static_cast<size_t>(total))) return kStatusFailure;
    made->count = static_cast<int32_t>(total);
    *list = std::move(made);
    return kStatusOk;
}

int32_t WalkMessages(const ndb::db_ptr& db, const MessageVisitor& visit, const WalkFailureReport& report) {
    try {
        for (const ndb::node_info& info : ndb::page_range(db->read_nbt_root())) {
            if (!IsNormalFolder(info.id)) continue;
            int32_t result = kWalkNext;
            try {
                result = WalkFolder(db, info.id, visit);
            } catch (const std::exception& e) {
                // A damaged folder costs only its own messages; the next folder is read as usual.
                if (report) report({info.id, e.what()});
                continue;
            }
            if (result == kWalkFinished) return kStatusOk;
            if (result < kStatusOk) return result;
        }
    } catch (const std::exception& e) {
        // The node B-tree itself failed: what was walked stands, and the caller finds what it found.
        if (report) report({std::nullopt, e.what()});
    }
    return kStatusOk;
}

int32_t SelectMessage(const ndb::db_ptr& db, MessageList& list, int32_t index, int32_t* body_format,
                      PstFilterData* record) {
    int32_t running = 0;
    return WalkMessages(db, [&](ndb::node_id, PstMessage& message) {
        // Folders that were not counted are walked too; past the list there is nothing to compose into,
        // and the target, which lies within it, has been passed already.
        if (running < 0 || running >= list.count) return kWalkFinished;
        const bool target = running == index;
        MessageDocument& entry = list.entries[running];
        // A message before the target is composed in full only for the status it gives (a malformed
        // RTF body ends the walk there); its bodies go as soon as it has given it, so that memory stays
        // flat however far the target lies. Each gets buffers of its own; none are kept for the next.
        const BodyRelease release(target ? nullptr : &entry);
        const int32_t result = ComposeMessage(message, entry, target, body_format, record);
        if (result < kStatusOk) return result;
        if (result == kStatusNotPresent) return kWalkNext;
        if (target) {
            list.count = index + 1;
            return kWalkFinished;
        }
        ++running;
        return kWalkNext;
    });
}

}  // namespace tarn
