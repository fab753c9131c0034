#include "pst/message_model.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "common/status.h"
#include "store/ltp/prop_stream.h"
#include "store/ndb/errors.h"

namespace tarn {
namespace {

constexpr size_t kSubmitTimeBytes = 8;

}  // namespace

uint32_t PstMessage::AttachmentCount() {
    const ltp::table* attachments = AttachmentTable();
    return attachments != nullptr ? attachments->size() : 0;
}

ltp::const_table_row PstMessage::Attachment(uint32_t row) {
    const ltp::table* attachments = AttachmentTable();
    if (attachments == nullptr || row >= attachments->size()) throw std::out_of_range("attachment row");
    return (*attachments)[row];
}

const ltp::table* PstMessage::AttachmentTable() {
    if (!attachments_opened_) {
        attachments_opened_ = true;
        // A message without the subnode simply has no attachments, which is common enough that finding
        // that out must not cost an exception. A table whose own subnode lookups find nothing is taken
        // the same way.
        try {
            if (std::optional<ndb::node> table = properties_.get_node().find(kAttachmentTableSubnode))
                attachments_.emplace(*table);
        } catch (const ndb::key_not_found<ndb::node_id>&) {
        }
    }
    return attachments_ ? &*attachments_ : nullptr;
}

std::u16string ReadSubject(const ltp::const_property_object& message) {
    if (!message.prop_exists(kPropSubject)) return u"No Subject";
    std::u16string subject = message.read_wstring(kPropSubject);
    if (!subject.empty() && subject[0] == 0x0001) {
        // The marker's second unit is the prefix length; a value without it is damage.
        if (subject.size() < 2) throw std::out_of_range("subject prefix marker without its length");
        subject.erase(0, 2);
    }
    return subject;
}

void ReadStringField(const ltp::const_property_object& message, ltp::prop_id id, CountedString& slot) {
    if (!message.prop_exists(id)) return;
    const std::u16string text = message.read_wstring(id);
    // A conversion that yields nothing leaves the slot empty, which shows as no header line.
    (void)AssignUtf8(slot, text.data(), text.size());
}

void ReadHeaderFields(const ltp::const_property_object& message, MessageDocument& record) {
    ReadStringField(message, kPropSenderName, record.header[kSlotFrom]);
    ReadStringField(message, kPropDisplayTo, record.header[kSlotTo]);
    ReadStringField(message, kPropDisplayCc, record.header[kSlotCc]);
    ReadStringField(message, kPropDisplayBcc, record.header[kSlotBcc]);
    if (message.prop_exists(kPropSubmitTime)) {
        const std::vector<std::byte> value = message.get_value_variable(kPropSubmitTime);
        // Any other length is not a file time; Sent then stays empty.
        if (value.size() == kSubmitTimeBytes)
            (void)FormatSentTime(LoadLe64(value.data()), record.header[kSlotSent]);
    }
    if (message.prop_exists(kPropImportance))
        (void)ImportanceText(message.get_value_4(kPropImportance), record.header[kSlotImportance]);
}

int32_t ReadWholeStream(const ltp::const_property_object& object, ltp::prop_id id, CountedString& target) {
    ltp::hnid_stream_device device = object.open_prop_stream(id);
    const uint64_t size = device.size();
    if (size > kMaxBufferBytes) return kStatusFailure;
    if (size == 0) {
        target.Release();
        return kStatusOk;
    }
    GrowBuffer buffer;
    // Straight from the device: a value is read whole, so a stream's small buffer would only add a
    // copy and a trip through the device per few kilobytes. The device's errors leave as themselves.
    const int32_t status = AppendFromReader(
        [&device](char* into, size_t count) {
            const std::streamsize got = device.read(into, static_cast<std::streamsize>(count));
            return got < 0 ? size_t{0} : static_cast<size_t>(got);
        },
        size, buffer);
    // The size is the value's own; a stream that stops short of it without an error is damage like a
    // block that fails its check, and goes to the walk the same way rather than as a shorter body.
    if (status == kStatusShortRead) throw ndb::database_corrupt("property value ends before its stated size");
    if (status != kStatusOk) return kStatusFailure;
    buffer.MoveInto(target);
    return kStatusOk;
}

}  // namespace tarn
