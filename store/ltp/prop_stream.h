// A seekable byte source over one property value, wherever it lives: a heap allocation of the
// property's own heap, or the whole data of a subnode. Wrapped in a Boost.Iostreams stream
// (`prop_stream`) so that large values (bodies, attachments) are read piece by piece.
#ifndef TARN_STORE_LTP_PROP_STREAM_H_
#define TARN_STORE_LTP_PROP_STREAM_H_

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/positioning.hpp>
#include <boost/iostreams/stream.hpp>
#include <cstdint>
#include <ios>
#include <optional>
#include <vector>

#include "store/ltp/heap.h"

namespace tarn::ltp {

class hnid_stream_device {
  public:
    typedef char char_type;
    struct category : boost::iostreams::input_seekable, boost::iostreams::device_tag {};

    // Heap mode: the allocation `id` of `heap` (id 0 is an empty stream).
    hnid_stream_device(heap_ptr heap, heap_id id) : heap_id_(id), heap_(std::move(heap)), is_heap_(true) {}
    // Node mode: the whole data of `n`.
    explicit hnid_stream_device(const node& n) : node_(n), is_heap_(false) {}

    // Up to `n` bytes from the position; -1 at the end of the stream.
    std::streamsize read(char* buffer, std::streamsize n);
    // Origin beg, end or cur; the result is clamped to [0, size].
    std::streampos seek(boost::iostreams::stream_offset offset, std::ios_base::seekdir origin);

    // The value's size in bytes. Asked of the heap once and then remembered: a stream read in small
    // pieces would otherwise walk the heap's page map again for every piece.
    uint64_t size() const;

  private:
    int64_t pos_ = 0;
    heap_id heap_id_ = 0;
    heap_ptr heap_;
    int64_t node_pos_ = 0;
    std::optional<node> node_;
    bool is_heap_;
    mutable std::optional<uint64_t> size_;
};

using prop_stream = boost::iostreams::stream<hnid_stream_device>;

// The three ways to reach a value named by an HNID, shared by property contexts and table cells. A
// subnode id is looked up among the subnodes of the heap's node (key_not_found when absent).
// The whole value in a new buffer; a heap id of 0 is an empty value.
std::vector<std::byte> read_hnid_value(const heap_ptr& heap, hnid id);
uint64_t hnid_value_size(const heap_ptr& heap, hnid id);
hnid_stream_device open_hnid_stream(const heap_ptr& heap, hnid id);

}  // namespace tarn::ltp

#endif  // TARN_STORE_LTP_PROP_STREAM_H_
