// Writes the compound-file fuzzer's seeds, built with the fixture writer: usage make_cfb_seeds DIR.
#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/cfb_writer.h"

using tarn::test::BuildCfb;
using tarn::test::CfbNode;
using tarn::test::CfbOptions;
using tarn::test::PatternBytes;

namespace {

void Write(const std::string& dir, const char* name, const std::vector<uint8_t>& bytes) {
    std::string path = dir + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return;
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

CfbNode Message() {
    return CfbNode::Storage(
        u"Root Entry",
        {CfbNode::Stream(u"__substg1.0_0037001F", PatternBytes(40, 1)),
         CfbNode::Stream(u"__substg1.0_10090102", PatternBytes(4200, 2)),
         CfbNode::Stream(u"__properties_version1.0", PatternBytes(96, 3)),
         CfbNode::Stream(u"\x01"
                         u"CompObj",
                         PatternBytes(20, 4)),
         CfbNode::Storage(
             u"__attach_version1.0_#00000000",
             {CfbNode::Stream(u"__substg1.0_37010102", PatternBytes(300, 5)),
              CfbNode::Storage(u"__substg1.0_3701000D",
                               {CfbNode::Stream(u"__substg1.0_0037001F", PatternBytes(10, 6))})})});
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_cfb_seeds DIR\n");
        return 2;
    }
    std::string dir = argv[1];
    Write(dir, "message-512", BuildCfb(Message()).bytes);
    CfbOptions big;
    big.sector_shift = 12;
    Write(dir, "message-4096", BuildCfb(Message(), big).bytes);
    CfbOptions difat;
    difat.min_fat_sectors = 110;
    Write(dir, "difat-110-fat-sectors",
          BuildCfb(CfbNode::Storage(u"Root Entry", {CfbNode::Stream(u"a", PatternBytes(100, 7))}), difat)
              .bytes);
    Write(dir, "empty-root", BuildCfb(CfbNode::Storage(u"Root Entry", {})).bytes);
    return 0;
}
