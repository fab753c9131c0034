// A PST message as the composer reads it: the properties behind the header fields and the bodies, and
// its attachments. This is where the store's types meet the render code's MessageDocument.
//
// The store layers throw; everything here lets their errors through to the walk, which decides what
// a failure ends (a folder). Only the formatting helpers return statuses.
#ifndef TARN_PST_MESSAGE_MODEL_H_
#define TARN_PST_MESSAGE_MODEL_H_

#include <cstdint>
#include <optional>
#include <string>

#include "pst/render/header_labels.h"
#include "pst/render/message_document.h"
#include "store/ltp/property_bag.h"
#include "store/ltp/table.h"
#include "store/ndb/node.h"

namespace tarn {

// Property ids the message model reads.
constexpr ltp::prop_id kPropSubject = 0x0037;
constexpr ltp::prop_id kPropSenderName = 0x0C1A;
constexpr ltp::prop_id kPropDisplayTo = 0x0E04;
constexpr ltp::prop_id kPropDisplayCc = 0x0E03;
constexpr ltp::prop_id kPropDisplayBcc = 0x0E02;
constexpr ltp::prop_id kPropSubmitTime = 0x0039;
constexpr ltp::prop_id kPropImportance = 0x0017;
constexpr ltp::prop_id kPropBody = 0x1000;
constexpr ltp::prop_id kPropHtmlBody = 0x1013;
constexpr ltp::prop_id kPropRtfCompressed = 0x1009;
constexpr ltp::prop_id kPropAttachLongName = 0x3707;
constexpr ltp::prop_id kPropAttachShortName = 0x3704;
constexpr ltp::prop_id kPropAttachData = 0x3701;
constexpr ndb::node_id kAttachmentTableSubnode = 0x671;
constexpr ndb::node_id kRecipientTableSubnode = 0x692;

// One message node: its property context, and its attachment table opened on first use and kept.
class PstMessage {
  public:
    explicit PstMessage(const ndb::node& n) : properties_(n) {}

    const ltp::property_bag& properties() const { return properties_; }
    // 0 when the message has no attachment subnode.
    uint32_t AttachmentCount();
    // Attachment `row` of the table in table order. Requires: row < AttachmentCount().
    ltp::const_table_row Attachment(uint32_t row);

  private:
    const ltp::table* AttachmentTable();

    ltp::property_bag properties_;
    bool attachments_opened_ = false;
    std::optional<ltp::table> attachments_;
};

// The subject: "No Subject" when absent; a value that starts with U+0001 loses its first two units
// (a prefix marker and its length; a one-unit value of that kind throws std::out_of_range, as a
// damaged property would); otherwise the value as it stands, even empty.
std::u16string ReadSubject(const ltp::const_property_object& message);

// If the property exists, its text as UTF-8 in `slot`; a missing property leaves the slot untouched.
void ReadStringField(const ltp::const_property_object& message, ltp::prop_id id, CountedString& slot);

// From, To, Cc, Bcc, Sent and Importance of the message into the record's header slots (the Subject
// slot is the composer's, which has the subject already).
void ReadHeaderFields(const ltp::const_property_object& message, MessageDocument& record);

// The whole value of a stream property into `target` (kernel memory), its length the stream's size.
// 1, or -1 when memory runs out. A store error while the value is read leaves as itself, and a value
// that ends before its size throws database_corrupt: neither becomes a shorter body.
int32_t ReadWholeStream(const ltp::const_property_object& object, ltp::prop_id id, CountedString& target);

}  // namespace tarn

#endif  // TARN_PST_MESSAGE_MODEL_H_
