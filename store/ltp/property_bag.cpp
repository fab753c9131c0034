#include "store/ltp/property_bag.h"

#include <unordered_set>
#include <utility>

#include "store/ndb/errors.h"

namespace tarn::ltp {

property_bag::property_bag(const node& n) {
    heap_ptr heap = heap_impl::open(n, heap_sig_pc);
    index_ = open_bth<prop_id, prop_entry>(heap, heap->root_id());
}

property_bag::property_bag(const property_bag& other) : const_property_object() {
    heap_ptr heap = heap_impl::open(other.get_node());
    index_ = open_bth<prop_id, prop_entry>(heap, heap->root_id());
}

std::vector<prop_id> property_bag::prop_list() const {
    using nonleaf = bth_nonleaf_node<prop_id, prop_entry>;
    std::vector<prop_id> ids;
    // In order, children first to last, with an explicit stack. Levels are bounded by the header, but
    // a child list that names an allocation already visited would multiply the walk: refused.
    std::unordered_set<heap_id> visited;
    std::vector<std::pair<const bth_node<prop_id, prop_entry>*, size_t>> stack{{index_.get(), 0}};
    while (!stack.empty()) {
        auto& [current, next] = stack.back();
        if (current->is_leaf()) {
            for (size_t i = 0; i < current->num_values(); ++i) ids.push_back(current->get_key(i));
            stack.pop_back();
            continue;
        }
        const auto* inner = static_cast<const nonleaf*>(current);
        if (next >= inner->num_values()) {
            stack.pop_back();
            continue;
        }
        const heap_id child = inner->get_child_id(next);
        const bth_node<prop_id, prop_entry>* child_node = inner->get_child_node(next).get();
        ++next;
        if (child != 0 && !visited.insert(child).second)
            throw ndb::database_corrupt("property index reaches one allocation twice");
        if (stack.size() >= ndb::kMaxBtreeDepth) throw ndb::database_corrupt("property index nests too deep");
        stack.emplace_back(child_node, 0);
    }
    return ids;
}

prop_type property_bag::get_prop_type(prop_id id) const { return index_->lookup(id).type; }

bool property_bag::prop_exists(prop_id id) const { return index_->find(id) != nullptr; }

uint32_t property_bag::prop_size(prop_id id) const {
    return static_cast<uint32_t>(hnid_value_size(heap(), get_value_4(id)));
}

hnid_stream_device property_bag::open_prop_stream(prop_id id) const {
    return open_hnid_stream(heap(), get_value_4(id));
}

uint8_t property_bag::get_value_1(prop_id id) const { return static_cast<uint8_t>(index_->lookup(id).id); }
uint16_t property_bag::get_value_2(prop_id id) const { return static_cast<uint16_t>(index_->lookup(id).id); }
uint32_t property_bag::get_value_4(prop_id id) const { return index_->lookup(id).id; }
uint64_t property_bag::get_value_8(prop_id id) const { return load_value_8(get_value_variable(id)); }

std::vector<std::byte> property_bag::get_value_variable(prop_id id) const {
    return read_hnid_value(heap(), get_value_4(id));
}

}  // namespace tarn::ltp
