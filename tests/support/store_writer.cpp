#include "tests/support/store_writer.h"

#include <utility>

#include "platform/unicode.h"

namespace tarn::fixture {
namespace {

constexpr uint16_t kLong = 0x0003;
constexpr uint16_t kBoolean = 0x000B;
constexpr uint16_t kSysTime = 0x0040;
constexpr uint16_t kBinary = 0x0102;

constexpr uint32_t kMessageStore = 0x21;
constexpr uint32_t kNameToIdMap = 0x61;
constexpr uint32_t kFirstFolderIndex = 0x401;  // 0x8022, the top of the personal folders
constexpr uint32_t kFirstMessageIndex = 0x10001;

uint32_t Nid(uint32_t index, uint32_t type) { return (index << 5) | type; }

// A fixed provider id: the store's record key and the middle of every entry id it hands out.
Bytes ProviderUid() {
    Bytes uid;
    for (int i = 0; i < 16; ++i) uid.push_back(static_cast<std::byte>(0x10 + i * 7));
    return uid;
}

Bytes EntryId(uint32_t nid) {
    Bytes id(4, std::byte{0});
    const Bytes uid = ProviderUid();
    id.insert(id.end(), uid.begin(), uid.end());
    const Bytes n = Le(nid, 4);
    id.insert(id.end(), n.begin(), n.end());
    return id;
}

class Builder {
  public:
    Builder(StoreDescription& d, StoreMap& map, bool consume) : d_(d), map_(map), consume_(consume) {
        string_type_ = d.layout == PstLayout::kUnicode ? 0x001F : 0x001E;
    }

    PstDescription Build() {
        PstDescription out;
        out.layout = d_.layout;
        out.encoding = d_.encoding;
        map_.ipm_subtree = Nid(kFirstFolderIndex, 2);
        nodes_ = &out.nodes;

        AddPc(kMessageStore, 0,
              {
                  {0x0FF9, kBinary, ProviderUid()},
                  {0x3001, string_type_, Text(d_.display_name)},
                  {0x35DF, kLong, Le(0x89, 4)},
                  {0x35E0, kBinary, EntryId(map_.ipm_subtree)},
                  {0x67FF, kLong, Le(0, 4)},
              });
        // A name-to-id map of one numeric name (0x8501 in the common property set, its GUID the first
        // of the GUID stream), so that readers that insist on non-empty streams accept it.
        const Bytes common_guid = {std::byte{0x08}, std::byte{0x20}, std::byte{0x06}, std::byte{0x00},
                                   std::byte{0x00}, std::byte{0x00}, std::byte{0x00}, std::byte{0x00},
                                   std::byte{0xC0}, std::byte{0x00}, std::byte{0x00}, std::byte{0x00},
                                   std::byte{0x00}, std::byte{0x00}, std::byte{0x00}, std::byte{0x46}};
        Bytes entry = Le(0x8501, 4);
        const Bytes guid_and_index = Le(3 << 1, 2), property_index = Le(0, 2);
        entry.insert(entry.end(), guid_and_index.begin(), guid_and_index.end());
        entry.insert(entry.end(), property_index.begin(), property_index.end());
        AddPc(kNameToIdMap, 0,
              {{0x0001, kLong, Le(251, 4)},
               {0x0002, kBinary, common_guid},
               {0x0003, kBinary, entry},
               {0x0004, kBinary, Le(0, 4)},
               {0x1000 + (0x8501 ^ (3 << 1)) % 251, kBinary, entry}});

        // The root folder holds the top of the personal folders, which holds every described folder.
        uint32_t index = kFirstFolderIndex;
        for (size_t f = 0; f < d_.folders.size(); ++f) map_.folders.push_back(Nid(++index, 2));
        AddFolder(map_.root_folder, map_.root_folder, "",
                  {{map_.ipm_subtree, "Top of Personal Folders", 0, !d_.folders.empty()}}, {});
        std::vector<Child> children;
        for (size_t f = 0; f < d_.folders.size(); ++f)
            children.push_back({map_.folders[f], d_.folders[f].name,
                                static_cast<uint32_t>(d_.folders[f].messages.size()), false});
        AddFolder(map_.ipm_subtree, map_.root_folder, "Top of Personal Folders", children, {});

        uint32_t message_index = kFirstMessageIndex;
        for (size_t f = 0; f < d_.folders.size(); ++f) {
            std::vector<uint32_t> ids;
            for (size_t k = 0; k < d_.folders[f].messages.size(); ++k) ids.push_back(Nid(message_index++, 4));
            map_.messages.push_back(ids);
            // The folder's tables first: they read the messages' sizes, which consuming empties.
            AddFolder(map_.folders[f], map_.ipm_subtree, d_.folders[f].name, {}, &d_.folders[f].messages);
            for (size_t k = 0; k < ids.size(); ++k)
                AddMessage(ids[k], map_.folders[f], d_.folders[f].messages[k]);
        }
        return out;
    }

  private:
    struct Child {
        uint32_t id;
        std::string name;
        uint32_t count;
        bool has_subfolders;
    };

    Bytes Text(const std::string& utf8) const { return StoreText(d_.layout, utf8); }

    void AddPc(uint32_t id, uint32_t parent, std::vector<PcProperty> props) {
        uint32_t next = 0x100;
        LtpNodeData pc = WritePropertyContext(d_.layout, std::move(props), {.next_subnode = &next});
        nodes_->push_back(
            {.id = id, .parent = parent, .data = std::move(pc.data), .subnodes = std::move(pc.subnodes)});
    }

    void AddTable(uint32_t id, uint32_t parent, const std::vector<TcColumn>& columns,
                  const std::vector<TcRow>& rows) {
        uint32_t next = 0x100;
        LtpNodeData tc = WriteTableContext(d_.layout, columns, rows, {.next_subnode = &next});
        nodes_->push_back(
            {.id = id, .parent = parent, .data = std::move(tc.data), .subnodes = std::move(tc.subnodes)});
    }

    std::vector<TcColumn> ContentsColumns() const {
        return {{0x001A, string_type_}, {0x0037, string_type_}, {0x0C1A, string_type_},
                {0x0E04, string_type_}, {0x0039, kSysTime},     {0x0E06, kSysTime},
                {0x0017, kLong},        {0x0E07, kLong},        {0x0E08, kLong},
                {0x0E1B, kBoolean}};
    }

    // A folder's property context and its hierarchy, contents and associated contents tables.
    void AddFolder(uint32_t id, uint32_t parent, const std::string& name, const std::vector<Child>& children,
                   const std::vector<StoreMessage>* messages) {
        const uint32_t count = messages ? static_cast<uint32_t>(messages->size()) : 0;
        AddPc(id, parent,
              {
                  {0x3001, string_type_, Text(name)},
                  {0x3602, kLong, Le(count, 4)},
                  {0x3603, kLong, Le(0, 4)},
                  {0x360A, kBoolean, Le(children.empty() ? 0 : 1, 1)},
                  {0x3613, string_type_, Text("IPF.Note")},
              });
        std::vector<TcRow> hierarchy;
        for (const Child& c : children) {
            hierarchy.push_back({c.id,
                                 {{0x3001, Text(c.name)},
                                  {0x3602, Le(c.count, 4)},
                                  {0x3603, Le(0, 4)},
                                  {0x360A, Le(c.has_subfolders ? 1 : 0, 1)}}});
        }
        AddTable((id & ~0x1Fu) | 0x0D, 0,
                 {{0x3001, string_type_}, {0x3602, kLong}, {0x3603, kLong}, {0x360A, kBoolean}}, hierarchy);
        std::vector<TcRow> contents;
        for (size_t i = 0; messages && i < messages->size(); ++i) {
            const StoreMessage& m = (*messages)[i];
            TcRow row{map_.messages.back()[i], {}};
            row.cells.push_back({0x001A, Text(m.message_class)});
            if (m.subject) row.cells.push_back({0x0037, Text(*m.subject)});
            if (m.sender_name) row.cells.push_back({0x0C1A, Text(*m.sender_name)});
            if (m.display_to) row.cells.push_back({0x0E04, Text(*m.display_to)});
            if (m.submit_time) {
                row.cells.push_back({0x0039, Le(*m.submit_time, 8)});
                row.cells.push_back({0x0E06, Le(*m.submit_time, 8)});
            }
            row.cells.push_back({0x0017, Le(m.importance.value_or(1), 4)});
            row.cells.push_back({0x0E07, Le(1, 4)});
            row.cells.push_back({0x0E08, Le(MessageSize(m), 4)});
            row.cells.push_back({0x0E1B, Le(m.attachments.empty() ? 0 : 1, 1)});
            contents.push_back(std::move(row));
        }
        AddTable((id & ~0x1Fu) | 0x0E, 0, ContentsColumns(), contents);
        AddTable((id & ~0x1Fu) | 0x0F, 0, ContentsColumns(), {});
    }

    static uint32_t MessageSize(const StoreMessage& m) {
        size_t size = 256;
        for (const auto* b : {&m.body, &m.html, &m.rtf_compressed})
            if (*b) size += (*b)->size();
        for (const StoreAttachment& a : m.attachments) size += a.data.size();
        return static_cast<uint32_t>(size);
    }

    void AddMessage(uint32_t id, uint32_t folder, StoreMessage& m) {
        uint32_t next = 0x100;
        const uint32_t size = MessageSize(m);
        std::vector<PcProperty> props = {
            {0x001A, string_type_, Text(m.message_class)},
            {0x0E07, kLong, Le(1, 4)},
            {0x0E08, kLong, Le(size, 4)},
            {0x0E1B, kBoolean, Le(m.attachments.empty() ? 0 : 1, 1)},
            {0x0017, kLong, Le(m.importance.value_or(1), 4)},
        };
        if (m.subject) props.push_back({0x0037, string_type_, Text(*m.subject)});
        if (m.sender_name) {
            props.push_back({0x0042, string_type_, Text(*m.sender_name)});
            props.push_back({0x0C1A, string_type_, Text(*m.sender_name)});
        }
        if (m.display_to) props.push_back({0x0E04, string_type_, Text(*m.display_to)});
        if (m.display_cc) props.push_back({0x0E03, string_type_, Text(*m.display_cc)});
        if (m.display_bcc) props.push_back({0x0E02, string_type_, Text(*m.display_bcc)});
        if (m.submit_time) {
            props.push_back({0x0039, kSysTime, Le(*m.submit_time, 8)});
            props.push_back({0x0E06, kSysTime, Le(*m.submit_time, 8)});
        }
        if (m.body) props.push_back({0x1000, string_type_, Take(*m.body)});
        if (m.html) {
            props.push_back({0x1013, kBinary, Take(*m.html)});
            props.push_back({0x3FDE, kLong, Le(65001, 4)});
        }
        if (m.rtf_compressed) props.push_back({0x1009, kBinary, Take(*m.rtf_compressed)});
        LtpNodeData pc = WritePropertyContext(d_.layout, std::move(props), {.next_subnode = &next});

        // Recipient table: columns only (the display properties carry the names).
        LtpNodeData recipients = WriteTableContext(
            d_.layout,
            {{0x0C15, kLong}, {0x3001, string_type_}, {0x3002, string_type_}, {0x3003, string_type_}}, {});
        pc.subnodes.push_back({.id = kRecipientTableSubnode,
                               .data = std::move(recipients.data),
                               .subnodes = std::move(recipients.subnodes)});

        if (!m.attachments.empty()) {
            std::vector<TcRow> rows;
            for (size_t a = 0; a < m.attachments.size(); ++a) {
                StoreAttachment& at = m.attachments[a];
                const size_t data_size = at.data.size();
                const uint32_t aid = Nid(0x400 + static_cast<uint32_t>(a), 5);
                uint32_t inner = 0x100;
                std::vector<PcProperty> properties = {
                    {0x0E20, kLong, Le(data_size, 4)},           {0x3701, kBinary, Take(at.data)},
                    {0x3704, string_type_, Text(at.short_name)}, {0x3705, kLong, Le(1, 4)},
                    {0x3707, string_type_, Text(at.long_name)},  {0x370B, kLong, Le(0xFFFFFFFF, 4)},
                };
                std::vector<TcCell> cells = {{0x0E20, Le(data_size, 4)},
                                             {0x3704, Text(at.short_name)},
                                             {0x3705, Le(1, 4)},
                                             {0x3707, Text(at.long_name)},
                                             {0x370B, Le(0xFFFFFFFF, 4)}};
                if (at.omit_long_name) {
                    properties.erase(properties.begin() + 4);
                    cells.erase(cells.begin() + 3);
                }
                LtpNodeData apc =
                    WritePropertyContext(d_.layout, std::move(properties), {.next_subnode = &inner});
                pc.subnodes.push_back(
                    {.id = aid, .data = std::move(apc.data), .subnodes = std::move(apc.subnodes)});
                rows.push_back({aid, std::move(cells)});
            }
            LtpNodeData table = WriteTableContext(d_.layout,
                                                  {{0x0E20, kLong},
                                                   {0x3704, string_type_},
                                                   {0x3705, kLong},
                                                   {0x3707, string_type_},
                                                   {0x370B, kLong}},
                                                  rows, {.next_subnode = &next});
            pc.subnodes.push_back({.id = kAttachmentTableSubnode,
                                   .data = std::move(table.data),
                                   .subnodes = std::move(table.subnodes)});
        }
        nodes_->push_back(
            {.id = id, .parent = folder, .data = std::move(pc.data), .subnodes = std::move(pc.subnodes)});
    }

    // Moves a value out of the description when consuming it, else copies it.
    Bytes Take(Bytes& value) const { return consume_ ? std::move(value) : value; }

    StoreDescription& d_;
    StoreMap& map_;
    bool consume_;
    uint16_t string_type_;
    std::vector<PstNode>* nodes_ = nullptr;
};

}  // namespace

std::u16string Utf8ToUtf16(const std::string& utf8) { return platform::Utf16FromUtf8(utf8); }

Bytes StoreText(PstLayout layout, const std::string& utf8) {
    if (utf8.empty()) return {};
    if (layout == PstLayout::kUnicode) return Utf16(std::u16string_view(Utf8ToUtf16(utf8)));
    return ToBytes(utf8);
}

PstDescription DescribeStore(const StoreDescription& store, StoreMap* map) {
    StoreMap local;
    StoreMap& m = map ? *map : local;
    m = StoreMap{};
    // Not consuming: the description is only read.
    return Builder(const_cast<StoreDescription&>(store), m, false).Build();
}

PstDescription DescribeStore(StoreDescription&& store, StoreMap* map) {
    StoreMap local;
    StoreMap& m = map ? *map : local;
    m = StoreMap{};
    return Builder(store, m, true).Build();
}

}  // namespace tarn::fixture
