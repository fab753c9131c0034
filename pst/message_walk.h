// Numbering a store's messages and finding the one an index names. Folders come from the node
// B-tree in node-id order, whatever their place in the folder tree; messages in a folder come in the
// row order of its contents table. Nothing of the walk is kept between calls.
#ifndef TARN_PST_MESSAGE_WALK_H_
#define TARN_PST_MESSAGE_WALK_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/kernel_memory.h"
#include "pst/filter_data.h"
#include "pst/message_model.h"
#include "pst/render/message_document.h"
#include "store/ndb/database.h"

namespace tarn {

constexpr uint32_t kNidTypeMask = 0x1F;
constexpr uint32_t kNidTypeNormalFolder = 0x02;
constexpr uint32_t kNidTypeContentsTable = 0x0E;

inline bool IsNormalFolder(ndb::node_id id) { return (id & kNidTypeMask) == kNidTypeNormalFolder; }
// The contents table that belongs to a folder: the same index, the table's type.
inline ndb::node_id ContentsTableOf(ndb::node_id folder) {
    return (folder & ~kNidTypeMask) | kNidTypeContentsTable;
}
constexpr ltp::prop_id kPropDisplayName = 0x3001;
constexpr ltp::prop_id kPropContentCount = 0x3602;

// Folders of this exact name (case-sensitive) hold calendar free/busy items, not pages.
inline constexpr char16_t kFreebusyFolderName[] = u"Freebusy Data";

// The counted messages and one empty MessageDocument for each. Kernel memory: the list itself from the
// allocator, the entries an array registered with the kernel as kind 5. Made by CountMessages; the
// holder destroys the entries first, then the list.
struct MessageList {
    int32_t count = 0;                     // lowered by SelectMessage to index + 1 when the target is reached
    KernelArray<MessageDocument> entries;  // as many as were counted, whatever `count` says later
};
using MessageListPtr = KernelPtr<MessageList>;

// Sums the content counts of the normal folders whose name is not "Freebusy Data" and makes the list.
// 1; -13 when the total is below 1; -1 when memory runs out (also for a total larger than the store's
// node count, which no store can hold: that would be an allocation the file cannot justify).
// Catches nothing: a folder without a name or count throws the property context's key_not_found.
// With `repairs` wanted, a folder without a count is counted by the rows of its contents table (none
// when that table cannot be read: the walk skips such a folder too), and the repair is noted.
int32_t CountMessages(const ndb::db_ptr& db, MessageListPtr* list, Repairs* repairs = nullptr);

// What a walk visitor answers for a message: a status below 1 ends the walk with it; kWalkNext goes
// on; kWalkFinished ends the walk with 1.
constexpr int32_t kWalkNext = kStatusOk;
constexpr int32_t kWalkFinished = 3;
using MessageVisitor = std::function<int32_t(ndb::node_id folder, PstMessage& message)>;

// An error the walk absorbed: it abandoned `folder` there (the folder's later messages are not
// visited), or, with no folder, it ended the whole walk (the node B-tree itself failed).
struct WalkFailure {
    std::optional<ndb::node_id> folder;
    std::string error;
};
using WalkFailureReport = std::function<void(const WalkFailure&)>;

// Visits every message of every normal folder ("Freebusy Data" too) in walk order. An error of the
// standard family thrown while a folder's messages are walked (its contents table, a message, the
// visitor) ends that folder only; one thrown outside them ends the walk, which then gives 1. Either
// way the status stays as it is, and `report` (when given) hears of it, so that a tool can say what
// it could not read. Requires: `report` does not throw.
int32_t WalkMessages(const ndb::db_ptr& db, const MessageVisitor& visit,
                     const WalkFailureReport& report = {});

// Composes every message up to the one at `index` (running index; skipped messages take none) into the
// list's entries. 1 (also when the target is never reached: its entry then has no body), or the
// composer's failure status. Only the target keeps what was composed: every message before it is read
// in full (so that its failures end the walk as they would), and its bodies are released as soon as
// its composition has given its status.
int32_t SelectMessage(const ndb::db_ptr& db, MessageList& list, int32_t index, int32_t* body_format,
                      PstFilterData* record);

}  // namespace tarn

#endif  // TARN_PST_MESSAGE_WALK_H_
