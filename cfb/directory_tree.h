// The directory of a compound file: an array of 128-byte entries, each a storage or a stream, whose
// sibling links form one binary search tree per storage.
#ifndef TARN_CFB_DIRECTORY_TREE_H_
#define TARN_CFB_DIRECTORY_TREE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cfb/format.h"
#include "common/kernel_memory.h"

namespace tarn::cfb {

// A name field holds 32 UTF-16 units; we keep one byte of each.
inline constexpr size_t kMaxNameBytes = format::kNameFieldBytes / 2;

enum class EntryType : uint8_t {
    Invalid = 0,
    Storage = format::kTypeStorage,
    Stream = format::kTypeStream,
    Root = format::kTypeRoot
};

struct DirectoryEntry {
    bool valid = false;
    bool is_directory = false;  // every type except a stream, so invalid entries count as storages
    EntryType type = EntryType::Invalid;
    uint8_t name_length = 0;
    // Deliberately the low byte of each UTF-16 unit, up to the first zero low byte: lookups compare
    // these bytes, so "__substg1.0_0037001F" matches and non-Latin names are only approximated.
    char name_bytes[kMaxNameBytes] = {};
    uint64_t size = 0;  // the low 32 bits of the stream size
    uint64_t start_sector = 0;
    uint64_t left_sibling = kNoSibling;
    uint64_t right_sibling = kNoSibling;
    uint64_t child = kNoSibling;

    static constexpr uint64_t kNoSibling = format::kNoEntry;

    std::string_view name() const { return {name_bytes, name_length}; }
};

// Decodes one 128-byte on-disk entry.
DirectoryEntry parse_directory_entry(std::span<const std::byte, format::kDirectoryEntrySize> bytes);

// Orders names as the sibling trees are searched: the shorter name is smaller, names of one length
// compare as unsigned bytes. Case-sensitive on purpose (the format's own order folds case); a file
// whose trees rely on case folding has lookups fail rather than match the wrong entry.
int compare_entry_names(std::string_view a, std::string_view b);

class DirectoryTree {
  public:
    // Holds the single valid root entry "Root Entry" until `load` replaces it. Needs no memory: an
    // allocation failure leaves an empty tree.
    DirectoryTree();

    // Replaces the entries by those in `bytes` (one per whole 128 bytes). False when memory runs out.
    bool load(std::span<const std::byte> bytes);

    size_t size() const { return loaded_ ? entries_.size() : 1; }
    // Requires: i < size().
    const DirectoryEntry& entry(size_t i) const { return loaded_ ? entries_[i] : unloaded_root_; }

    // Binary search of the sibling tree whose top is `first`. The number of steps is capped at the
    // entry count: a search that visits more entries than exist is going round a loop.
    std::optional<size_t> find_sibling(uint64_t first, std::string_view name) const;

    // find_sibling(first, name) for each of `names` at once: the names travel down the tree together and
    // part where the comparisons send them different ways, so a tree shaped like one long chain is
    // walked once, not once per name. Requires: `names` ascending in compare_entry_names order.
    std::vector<std::optional<size_t>> find_siblings(uint64_t first,
                                                     std::span<const std::string> names) const;

    // The entry named `name` among the children of entry `parent`, or none.
    std::optional<size_t> find_child(size_t parent, std::string_view name) const;

    // Resolves "/"-separated `path` from the root: "/" alone is the root, one leading "/" is
    // dropped, empty pieces are looked up as empty names.
    std::optional<size_t> find_index(std::string_view path) const;

    // Calls `visit` for every entry reachable from the root (not for the root itself), a storage
    // before its contents and siblings in tree order, with the entry's "/"-joined path and its depth
    // (1 for the root's children). Each entry is visited once even when links loop or are shared;
    // storages nested deeper than kMaxWalkDepth are listed but not entered. False when memory runs out.
    using Visitor =
        std::function<void(std::string_view path, const DirectoryEntry& entry, size_t index, size_t depth)>;
    bool walk(const Visitor& visit) const;

    // Real messages nest a few storages per embedded message; this is far beyond any of them and
    // bounds the path buffer of a walk.
    static constexpr size_t kMaxWalkDepth = 256;

  private:
    KernelArray<DirectoryEntry> entries_;
    DirectoryEntry unloaded_root_;
    bool loaded_ = false;
};

}  // namespace tarn::cfb

#endif  // TARN_CFB_DIRECTORY_TREE_H_
