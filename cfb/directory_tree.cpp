#include "cfb/directory_tree.h"

#include <algorithm>
#include <cstring>

#include "common/little_endian.h"

namespace tarn::cfb {

DirectoryEntry parse_directory_entry(std::span<const std::byte, format::kDirectoryEntrySize> bytes) {
    const std::byte* p = bytes.data();
    DirectoryEntry e;
    uint64_t name_field_length = LoadLe16(p + format::kNameLengthOffset);
    size_t limit = static_cast<size_t>(std::min<uint64_t>(name_field_length, format::kNameFieldBytes));
    for (size_t j = 0; j < limit; j += 2) {
        uint8_t low = LoadLe8(p + format::kNameOffset + j);
        if (low == 0) break;
        e.name_bytes[e.name_length++] = static_cast<char>(low);
    }
    // Names such as "\x01CompObj" and "\x05SummaryInformation" are looked up without their leading
    // control character, so the first character goes whenever the entry's first byte is below 32.
    if (LoadLe8(p + format::kNameOffset) < 32 && e.name_length > 0) {
        std::memmove(e.name_bytes, e.name_bytes + 1, e.name_length - 1);
        e.name_bytes[--e.name_length] = 0;
    }
    uint8_t type = LoadLe8(p + format::kObjectTypeOffset);
    if (type == format::kTypeStorage || type == format::kTypeStream || type == format::kTypeRoot)
        e.type = static_cast<EntryType>(type);
    e.valid = e.type != EntryType::Invalid && name_field_length != 0;
    e.is_directory = type != format::kTypeStream;
    e.left_sibling = LoadLe32(p + format::kLeftSiblingOffset);
    e.right_sibling = LoadLe32(p + format::kRightSiblingOffset);
    e.child = LoadLe32(p + format::kChildOffset);
    e.start_sector = LoadLe32(p + format::kStartSectorOffset);
    // The high half is not read: version 3 files may leave garbage there, and no stream in a message
    // comes near 4 GiB.
    e.size = LoadLe32(p + format::kStreamSizeOffset);
    return e;
}

int compare_entry_names(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    int c = a.empty() ? 0 : std::memcmp(a.data(), b.data(), a.size());
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

DirectoryTree::DirectoryTree() {
    static constexpr std::string_view kRootName = "Root Entry";
    unloaded_root_.valid = true;
    unloaded_root_.is_directory = true;
    unloaded_root_.type = EntryType::Root;
    std::memcpy(unloaded_root_.name_bytes, kRootName.data(), kRootName.size());
    unloaded_root_.name_length = static_cast<uint8_t>(kRootName.size());
}

bool DirectoryTree::load(std::span<const std::byte> bytes) {
    size_t count = bytes.size() / format::kDirectoryEntrySize;
    if (!entries_.allocate(count)) {
        loaded_ = true;  // an empty tree: every lookup fails
        return false;
    }
    for (size_t i = 0; i < count; ++i)
        entries_[i] = parse_directory_entry(
            bytes.subspan(i * format::kDirectoryEntrySize).first<format::kDirectoryEntrySize>());
    loaded_ = true;
    return true;
}

std::optional<size_t> DirectoryTree::find_sibling(uint64_t first, std::string_view name) const {
    uint64_t i = first;
    for (size_t steps = 0; steps < size(); ++steps) {
        if (i >= size() || !entry(i).valid) return std::nullopt;
        int c = compare_entry_names(entry(i).name(), name);
        if (c == 0) return static_cast<size_t>(i);
        i = c < 0 ? entry(i).right_sibling : entry(i).left_sibling;
        // Sibling 0 would be the root, which is never anyone's sibling: it means "none" here.
        if (i == 0) return std::nullopt;
    }
    return std::nullopt;
}

std::vector<std::optional<size_t>> DirectoryTree::find_siblings(uint64_t first,
                                                                std::span<const std::string> names) const {
    std::vector<std::optional<size_t>> found(names.size());
    // names[begin, end) have come the same way to entry `at`, having looked at `steps` entries before it.
    struct Group {
        uint64_t at;
        size_t begin;
        size_t end;
        size_t steps;
    };
    std::vector<Group> pending;
    if (!names.empty()) pending.push_back({first, 0, names.size(), 0});
    const auto less = [](std::string_view a, std::string_view b) { return compare_entry_names(a, b) < 0; };
    while (!pending.empty()) {
        const Group g = pending.back();
        pending.pop_back();
        // The bounds of find_sibling: a search that has looked at as many entries as exist is in a loop.
        if (g.steps >= size() || g.at >= size() || !entry(g.at).valid) continue;
        const DirectoryEntry& e = entry(g.at);
        const auto from = names.begin() + static_cast<std::ptrdiff_t>(g.begin);
        const auto to = names.begin() + static_cast<std::ptrdiff_t>(g.end);
        const size_t low = static_cast<size_t>(std::lower_bound(from, to, e.name(), less) - names.begin());
        const size_t high = static_cast<size_t>(std::upper_bound(from, to, e.name(), less) - names.begin());
        for (size_t i = low; i < high; ++i) found[i] = static_cast<size_t>(g.at);
        if (g.begin < low && e.left_sibling != 0)
            pending.push_back({e.left_sibling, g.begin, low, g.steps + 1});
        if (high < g.end && e.right_sibling != 0)
            pending.push_back({e.right_sibling, high, g.end, g.steps + 1});
    }
    return found;
}

std::optional<size_t> DirectoryTree::find_child(size_t parent, std::string_view name) const {
    if (parent >= size()) return std::nullopt;
    const DirectoryEntry& e = entry(parent);
    if (!e.valid || e.child >= size()) return std::nullopt;
    return find_sibling(e.child, name);
}

std::optional<size_t> DirectoryTree::find_index(std::string_view path) const {
    if (size() == 0) return std::nullopt;
    if (path == "/") return 0;
    if (!path.empty() && path.front() == '/') path.remove_prefix(1);
    size_t current = 0;
    while (true) {
        size_t slash = path.find('/');
        std::string_view piece = path.substr(0, slash);
        auto next = find_child(current, piece);
        if (!next) return std::nullopt;
        current = *next;
        if (slash == std::string_view::npos) return current;
        path.remove_prefix(slash + 1);
    }
}

bool DirectoryTree::walk(const Visitor& visit) const {
    size_t count = size();
    if (count == 0) return true;
    // An explicit stack instead of recursion, so that the depth of the file's trees never becomes
    // the depth of ours. A "tree" item stands for a whole sibling subtree still to be listed in order;
    // an "emit" item for one entry to report, after which its own children are listed.
    struct Item {
        uint64_t index;
        uint32_t depth;
        bool emit;
    };
    KernelArray<Item> stack;
    KernelArray<uint8_t> visited;
    KernelArray<char> path;
    KernelArray<size_t> path_end;
    size_t depth_cap = std::min(count, kMaxWalkDepth);
    if (!stack.allocate(2 * count + 1) || !visited.allocate(count) ||
        !path.allocate((depth_cap + 1) * (kMaxNameBytes + 1)) || !path_end.allocate(depth_cap + 1))
        return false;
    size_t top = 0;
    // Each index is pushed as a tree at most once (marked when pushed) and emitted at most once, which
    // is what bounds the stack at twice the entry count.
    auto push_tree = [&](uint64_t index, uint32_t depth) {
        if (index >= count || visited[index]) return;
        visited[index] = 1;
        stack[top++] = Item{index, depth, false};
    };
    visited[0] = 1;
    if (!entry(0).valid) return true;
    push_tree(entry(0).child, 1);
    while (top > 0) {
        Item item = stack[--top];
        const DirectoryEntry& e = entry(item.index);
        if (!item.emit) {
            if (!e.valid) continue;  // an invalid entry ends its branch, as it ends a lookup
            push_tree(e.right_sibling, item.depth);
            stack[top++] = Item{item.index, item.depth, true};
            push_tree(e.left_sibling, item.depth);
            continue;
        }
        size_t begin = item.depth == 1 ? 0 : path_end[item.depth - 1] + 1;
        if (item.depth > 1) path[begin - 1] = '/';
        std::memcpy(&path[begin], e.name_bytes, e.name_length);
        path_end[item.depth] = begin + e.name_length;
        visit(std::string_view(path.data(), path_end[item.depth]), e, item.index, item.depth);
        if (e.is_directory && item.depth < depth_cap) push_tree(e.child, item.depth + 1);
    }
    return true;
}

}  // namespace tarn::cfb
