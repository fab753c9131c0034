// Shared by the LTP tests: a store made from node descriptions and opened, and the place of a heap
// allocation inside node data (for damage before the store is written).
#ifndef TARN_TESTS_STORE_LTP_LTP_TEST_UTIL_H_
#define TARN_TESTS_STORE_LTP_LTP_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "store/ndb/database.h"
#include "tests/support/ltp_writer.h"
#include "tests/support/pst_writer.h"
#include "tests/support/test_util.h"

namespace tarn::testing {

using fixture::Bytes;
using fixture::PstLayout;

// Holds the file as long as the database.
struct OpenStore {
    std::unique_ptr<fixture::TempPstFile> file;
    std::shared_ptr<ndb::db_context> db;
    ndb::node node(uint32_t id) const { return db->lookup_node(id); }
};

inline OpenStore Open(const fixture::PstDescription& d) {
    OpenStore s;
    s.file = std::make_unique<fixture::TempPstFile>(fixture::WritePst(d).bytes);
    s.db = ndb::open_database(s.file->path());
    return s;
}

// One node (id 0x21 unless given) holding `data` and `subnodes`.
inline OpenStore OpenNode(PstLayout layout, const fixture::LtpNodeData& content, uint32_t id = 0x21,
                          fixture::PstEncoding encoding = fixture::PstEncoding::kNone) {
    fixture::PstDescription d;
    d.layout = layout;
    d.encoding = encoding;
    d.nodes.push_back({.id = id, .data = content.data, .subnodes = content.subnodes});
    return Open(d);
}

// Offset in node data of the allocation `hid` (block start plus rgibAlloc), read from the page map.
inline size_t AllocOffset(const Bytes& data, uint32_t hid, PstLayout layout) {
    const size_t block = size_t{hid >> 16} * fixture::LeafDataSize(layout);
    auto le16 = [&](size_t at) {
        return std::to_integer<size_t>(data.at(at)) | std::to_integer<size_t>(data.at(at + 1)) << 8;
    };
    const size_t map = block + le16(block);
    return block + le16(map + 4 + 2 * (((hid >> 5) & 0x7FF) - 1));
}

inline void Put(Bytes& data, size_t at, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) data.at(at + i) = static_cast<std::byte>((value >> (8 * i)) & 0xFF);
}

}  // namespace tarn::testing

#endif  // TARN_TESTS_STORE_LTP_LTP_TEST_UTIL_H_
