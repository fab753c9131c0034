// Writes the node database fuzzer's seed stores with the fixture writer: small stores of both layouts
// and all three encodings that between them hold every structure the reader knows (deep B-trees,
// XBLOCK trees, both levels of subnode trees, nested subnodes). Usage: ndb_make_seeds DIR
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/pst_writer.h"

namespace {

using namespace tarn::fixture;

void Save(const std::string& dir, const std::string& name, const PstDescription& d) {
    if (SaveFile(dir + "/" + name, WritePst(d).bytes)) return;
    std::fprintf(stderr, "ndb_make_seeds: %s/%s: cannot write\n", dir.c_str(), name.c_str());
    std::exit(1);
}

PstDescription Base(PstLayout layout, PstEncoding encoding) {
    PstDescription d;
    d.layout = layout;
    d.encoding = encoding;
    d.nodes.push_back({.id = 0x21, .data = ToBytes("root")});
    d.nodes.push_back({.id = 0x122, .parent = 0x122, .data = PatternBytes(200, 1)});
    PstNode message{.id = 0x200024, .parent = 0x122, .data = PatternBytes(300, 2)};
    message.subnodes.push_back({.id = 0x671, .data = PatternBytes(40, 3)});
    message.subnodes.push_back(
        {.id = 0x692, .data = PatternBytes(50, 4), .subnodes = {{.id = 0x1F, .data = ToBytes("embedded")}}});
    d.nodes.push_back(message);
    return d;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: ndb_make_seeds DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        const std::string l = layout == PstLayout::kAnsi ? "ansi" : "unicode";
        Save(dir, l + "-plain", Base(layout, PstEncoding::kNone));
        Save(dir, l + "-permute", Base(layout, PstEncoding::kPermute));
        Save(dir, l + "-cyclic", Base(layout, PstEncoding::kCyclic));

        PstDescription deep = Base(layout, PstEncoding::kNone);
        deep.nbt_fanout = 2;
        deep.bbt_fanout = 2;
        for (uint32_t i = 0; i < 12; ++i)
            deep.nodes.push_back({.id = 0x8022 + 0x20 * i, .data = PatternBytes(i + 1, i)});
        Save(dir, l + "-deep-btrees", deep);

        PstDescription xblock = Base(layout, PstEncoding::kPermute);
        xblock.nodes.push_back({.id = 0x8024, .data = PatternBytes(17000, 5)});
        Save(dir, l + "-xblock", xblock);

        PstDescription sub = Base(layout, PstEncoding::kCyclic);
        sub.subnode_fanout = 2;
        PstNode many{.id = 0x8044};
        for (uint32_t i = 0; i < 7; ++i)
            many.subnodes.push_back({.id = 0x3F + 0x20 * i, .data = PatternBytes(10, i)});
        sub.nodes.push_back(many);
        Save(dir, l + "-siblock", sub);
    }
    return 0;
}
