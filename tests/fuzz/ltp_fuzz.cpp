// Fuzz harness for heaps, BTHs, property and table contexts: opens a store from the input and, for
// every node of the node B-tree, opens folders, messages and the store's own objects as property bags
// and reads every property (fixed, whole, and through a stream), opens every table and reads every
// cell of every row, and does the same for a message's attachment and recipient tables and its
// attachments. Any exception is a clean rejection; a crash, a sanitizer report, a hang or a leak is
// a finding.
//
// The store reads through the kernel's file functions, so the input goes to a temporary file first.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "store/ltp/property_bag.h"
#include "store/ltp/table.h"
#include "store/ndb/database.h"
#include "tests/fuzz/scratch_input.h"

namespace {

using namespace tarn::ltp;
using tarn::ndb::db_context;
using tarn::ndb::node_info;

// Work caps per input: the reader bounds its structures by the file, the harness bounds its appetite.
constexpr uint64_t kMaxBytesRead = 8u << 20;
constexpr size_t kMaxObjects = 2048;
constexpr size_t kMaxCells = 1u << 16;

struct Budget {
    uint64_t bytes = 0;
    size_t objects = 0;
    size_t cells = 0;
    bool spent() const { return bytes > kMaxBytesRead || objects > kMaxObjects || cells > kMaxCells; }
};

bool IsFixed(prop_type type) {
    return type == 0x0002 || type == 0x0003 || type == 0x0004 || type == 0x000A || type == 0x000B;
}

// One property, every way it can be read; each failure is the property's own.
void ReadProperty(const const_property_object& object, prop_id id, Budget& budget) {
    ++budget.cells;
    try {
        const prop_type type = object.get_prop_type(id);
        (void)object.get_value_1(id);
        (void)object.get_value_2(id);
        (void)object.get_value_4(id);
        if (IsFixed(type)) return;
        const uint32_t size = object.prop_size(id);
        if (budget.bytes + size > kMaxBytesRead) {
            budget.bytes += size;
            return;
        }
        budget.bytes += 2 * uint64_t{size};
        (void)object.read_wstring(id);
        (void)object.get_value_8(id);
    } catch (const std::exception&) {
    }
    try {
        prop_stream in(object.open_prop_stream(id));
        char piece[4096];
        in.seekg(-3, std::ios_base::end);
        in.clear();
        in.seekg(0);
        while (!budget.spent() && (in.read(piece, sizeof piece) || in.gcount() > 0))
            budget.bytes += sizeof piece;
    } catch (const std::exception&) {
    }
}

void ReadObject(const const_property_object& object, Budget& budget) {
    ++budget.objects;
    for (prop_id id : object.prop_list()) {
        if (budget.spent()) return;
        ReadProperty(object, id, budget);
    }
    (void)object.prop_exists(0x0037);
}

void ReadTable(const table& t, Budget& budget) {
    ++budget.objects;
    const std::vector<prop_id> columns = t.get_impl()->column_list();
    const uint32_t rows = t.size();
    for (uint32_t r = 0; r < rows && !budget.spent(); ++r) {
        try {
            const const_table_row row = t[r];
            (void)t.lookup_row(row.get_row_id());
        } catch (const std::exception&) {
        }
        for (prop_id id : columns) {
            if (budget.spent()) return;
            try {
                const const_table_row row = t[r];
                if (row.prop_exists(id)) ReadProperty(row, id, budget);
                (void)row.get_value_8(id);
            } catch (const std::exception&) {
            }
        }
    }
}

// A message's attachment (0x671) and recipient (0x692) tables, and each attachment's property bag.
void ReadMessageParts(const tarn::ndb::node& message, Budget& budget) {
    for (node_id sub : {node_id{0x671}, node_id{0x692}}) {
        try {
            const table t(message.lookup(sub));
            ReadTable(t, budget);
            if (sub != 0x671) continue;
            for (uint32_t r = 0; r < t.size() && !budget.spent(); ++r) {
                try {
                    ReadObject(property_bag(message.lookup(t[r].get_row_id())), budget);
                } catch (const std::exception&) {
                }
            }
        } catch (const std::exception&) {
        }
    }
}

void WalkStore(const std::shared_ptr<db_context>& db) {
    Budget budget;
    for (const node_info& info : tarn::ndb::page_range(db->read_nbt_root())) {
        if (budget.spent()) break;
        try {
            const unsigned type = info.id & 0x1F;
            const tarn::ndb::node n = db->lookup_node(info.id);
            if (type == 0x01 || type == 0x02 || type == 0x03 || type == 0x04 || type == 0x08) {
                const property_bag bag(n);
                ReadObject(bag, budget);
                ReadObject(property_bag(bag), budget);
                if (type == 0x04 || type == 0x08) ReadMessageParts(n, budget);
            } else if (type >= 0x0D && type <= 0x12) {
                ReadTable(table(n), budget);
            }
        } catch (const std::exception&) {
            // A damaged object ends its own reading; the next node is still read.
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const tarn::fuzz::ScratchInput input("ltp");
    if (!input.Write(data, size)) return 0;
    try {
        WalkStore(tarn::ndb::open_database(input.wide_path()));
    } catch (const std::exception&) {
    }
    return 0;
}
