#include "cfb/sector_table.h"

#include "common/little_endian.h"

namespace tarn::cfb {

bool SectorTable::load(std::span<const std::byte> bytes, uint64_t block_size, uint64_t sector_limit) {
    block_size_ = block_size;
    sector_limit_ = sector_limit;
    if (!entries_.allocate(bytes.size() / 4)) return false;
    for (size_t i = 0; i < entries_.size(); ++i) entries_[i] = LoadLe32(bytes.data() + 4 * i);
    return true;
}

bool SectorTable::follow_chain(uint64_t start, SectorChain& chain) const {
    chain.reset();
    if (!in_range(start)) return true;
    // Chains are walked twice: once to measure them, once to fill an array of exactly that length.
    // The visited set is what makes a loop of any length end (a chain can hold each sector once).
    KernelArray<uint8_t> visited;
    if (!visited.allocate((entries_.size() + 7) / 8)) return false;
    auto seen = [&](uint64_t s) { return (visited[s / 8] >> (s % 8)) & 1; };
    size_t length = 0;
    for (uint64_t p = start; in_range(p) && !seen(p); p = entries_[p]) {
        visited[p / 8] |= static_cast<uint8_t>(1u << (p % 8));
        ++length;
    }
    if (!chain.allocate(length)) return false;
    uint64_t p = start;
    for (size_t i = 0; i < length; ++i, p = entries_[p]) chain[i] = static_cast<uint32_t>(p);
    return true;
}

}  // namespace tarn::cfb
