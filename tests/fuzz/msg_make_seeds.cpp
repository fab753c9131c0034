// Writes the message-file fuzzer's seeds, built with the fixture writers: usage msg_make_seeds DIR.
#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/msg_writer.h"

namespace {

using namespace tarn::test;

void Write(const std::string& dir, const char* name, const std::vector<uint8_t>& bytes) {
    const std::string path = dir + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return;
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

std::vector<CfbNode> Header() {
    return {UnicodeProperty("0037", u"Quarterly figures"),
            UnicodeProperty("0C1A", u"Ann Example"),
            UnicodeProperty("5D01", u"ann@example.com"),
            UnicodeProperty("004D", u"Boss"),
            UnicodeProperty("0E04", u"Bob; Carol"),
            UnicodeProperty("0E03", u"Dave"),
            PropertyStream(PropertyStreamBytes({{0x0040, 0x0039, 0x01C6BE3CADCF5880}, {0x0003, 0x0017, 2}}))};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: msg_make_seeds DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    std::vector<CfbNode> rtf = Header();
    rtf.push_back(CompressedRtfBody("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard hello\\par}"));
    rtf.push_back(UnicodeProperty("1000", u"hello"));
    Write(dir, "rtf-body-and-text", BuildMsg(rtf).bytes);

    std::vector<CfbNode> html = Header();
    html.push_back(
        StoredRtfBody("<html><head></head><body><img src=\"cid:one\"><img src=\"two.png\"></body></html>"));
    for (const uint32_t n : {0u, 1u, 3u}) {
        html.push_back(AttachmentStorage(
            n, {UnicodeProperty("3704", n == 1 ? u"two.png" : u"x.png"), UnicodeProperty("3712", u"one"),
                CfbNode::Stream(u"__substg1.0_37010102", PatternBytes(64, static_cast<uint8_t>(n)))}));
    }
    Write(dir, "stored-html-attachments", BuildMsg(html).bytes);

    Write(dir, "eight-bit-text-only",
          BuildMsg({EightBitProperty("0037", "Caf\xE9"), EightBitProperty("0C1A", "Ren\xE9"),
                    EightBitProperty("0065", "/O=ORG/CN=RENE"), EightBitProperty("1000", "plain \xE9")})
              .bytes);
}
