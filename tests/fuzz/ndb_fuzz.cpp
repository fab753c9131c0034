// Fuzz harness for the node database: opens a store from the input, walks both B-trees, and reads
// every node's data (whole and page by page) and its subnodes, nested. Any exception is a clean
// rejection; a crash, a sanitizer report, a hang or a leak is a finding.
//
// The store reads through the kernel's file functions, so the input goes to a temporary file first.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "store/ndb/database.h"
#include "tests/fuzz/scratch_input.h"

namespace {

using namespace tarn::ndb;

// Work caps per input, so that a store claiming gigabytes of data cannot turn one input into a
// minute of copying: the reader bounds its structures by the file, the harness bounds its appetite.
constexpr uint64_t kMaxBytesRead = 8u << 20;
constexpr size_t kMaxNodes = 4096;

struct Budget {
    uint64_t bytes = 0;
    size_t nodes = 0;
    bool spent() const { return bytes > kMaxBytesRead || nodes > kMaxNodes; }
};

void ReadNode(const node& n, Budget& budget) {
    ++budget.nodes;
    const size_t size = n.size();
    std::vector<std::byte> buffer(std::min<uint64_t>(size, 64 * 1024));
    for (size_t at = 0; at < size && !budget.spent(); at += buffer.size()) {
        budget.bytes += n.read(buffer, at);
    }
    const size_t pages = n.get_page_count();
    for (size_t p = 0; p < pages && !budget.spent(); ++p) {
        const size_t page_size = n.get_page_size(p);
        if (page_size == 0) continue;
        std::byte last[1];
        n.read(last, p, page_size - 1);
        budget.bytes += page_size / 64 + 1;
    }
}

void WalkStore(const std::shared_ptr<db_context>& db) {
    Budget budget;
    for (const block_info& info : page_range(db->read_bbt_root())) {
        (void)info;
        if (++budget.nodes > kMaxNodes) break;
    }
    budget.nodes = 0;
    for (const node_info& info : page_range(db->read_nbt_root())) {
        if (budget.spent()) break;
        try {
            node top = db->lookup_node(info.id);
            // Subnodes nest; an explicit stack keeps the walk off the call stack.
            std::vector<node> stack{top};
            while (!stack.empty() && !budget.spent()) {
                node current = std::move(stack.back());
                stack.pop_back();
                ReadNode(current, budget);
                for (const subnode_info& sub : current.subnodes()) {
                    if (budget.spent()) break;
                    stack.push_back(current.lookup(sub.id));
                }
            }
        } catch (const std::exception&) {
            // A damaged node ends its own walk; the next node is still read.
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const tarn::fuzz::ScratchInput input("ndb");
    if (!input.Write(data, size)) return 0;
    try {
        WalkStore(open_database(input.wide_path()));
    } catch (const std::exception&) {
    }
    return 0;
}
