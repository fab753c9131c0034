// Writes the seeds of the ltp fuzzer (tests/fuzz/seeds/ltp/) with the fixture writers: small message
// stores in both layouts and encodings, and single nodes holding a multi-level property index and a
// table whose row matrix is a subnode.
//
//   ltp_make_seeds OUT_DIR
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/ltp_writer.h"
#include "tests/support/store_writer.h"

namespace {

using namespace tarn::fixture;

void Save(const std::string& dir, const std::string& name, const Bytes& bytes) {
    if (SaveFile(dir + "/" + name, bytes)) return;
    std::fprintf(stderr, "ltp_make_seeds: %s/%s: cannot write\n", dir.c_str(), name.c_str());
    std::exit(1);
}

StoreDescription SmallStore(PstLayout layout, PstEncoding encoding) {
    StoreDescription d;
    d.layout = layout;
    d.encoding = encoding;
    for (int f = 0; f < 2; ++f) {
        StoreFolder folder{"Folder " + std::to_string(f), {}};
        for (int m = 0; m < 2; ++m) {
            StoreMessage msg;
            msg.subject = "Subject " + std::to_string(m);
            msg.sender_name = "Sender";
            msg.display_to = "To";
            msg.submit_time = 0x01D5000000000000ull;
            msg.importance = 2;
            msg.body = StoreText(layout, "Body text " + std::to_string(m));
            msg.html = ToBytes("<p>html</p>");
            if (m == 1) msg.attachments.push_back({"a.txt", "A.TXT", ToBytes("attached")});
            folder.messages.push_back(msg);
        }
        d.folders.push_back(folder);
    }
    return d;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: ltp_make_seeds OUT_DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    Save(dir, "store-unicode-none.pst",
         WritePst(DescribeStore(SmallStore(PstLayout::kUnicode, PstEncoding::kNone))).bytes);
    Save(dir, "store-ansi-permute.pst",
         WritePst(DescribeStore(SmallStore(PstLayout::kAnsi, PstEncoding::kPermute))).bytes);

    // One property context with 60 properties in a two-tier index read with the 8-byte stride, and
    // one table of 40 rows whose matrix is a subnode.
    PstDescription d;
    d.layout = PstLayout::kUnicode;
    {
        HeapWriter heap(PstLayout::kUnicode, kClientSigPc);
        std::vector<BthRecord> records;
        for (uint32_t i = 0; i < 60; ++i) {
            Bytes entry = Le(i % 2 ? 0x0003 : 0x0102, 2);
            const Bytes value = Le(i % 2 ? i : heap.Allocate(PatternBytes(i * 5, i)), 4);
            entry.insert(entry.end(), value.begin(), value.end());
            records.push_back({0x3000 + i, entry});
        }
        heap.SetRoot(WriteBth(heap, 2, 6, records,
                              {.stride = BthStride::kFixed8, .max_per_node = 16, .idx_levels = 2}));
        d.nodes.push_back({.id = 0x8022, .data = heap.Finish()});
    }
    {
        std::vector<TcRow> rows;
        for (uint32_t r = 0; r < 40; ++r)
            rows.push_back({0x200004 + 32 * r, {{0x0037, ToBytes("row")}, {0x0E08, Le(r, 4)}}});
        LtpNodeData tc = WriteTableContext(PstLayout::kUnicode, {{0x0037, 0x001E}, {0x0E08, 0x0003}}, rows,
                                           {.matrix_in_subnode = true});
        d.nodes.push_back({.id = 0x802E, .data = tc.data, .subnodes = tc.subnodes});
    }
    Save(dir, "index-and-subnode-table.pst", WritePst(d).bytes);
    return 0;
}
