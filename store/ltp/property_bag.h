// A property context: the property list of a folder, message, attachment or of the store itself, a
// BTH from property id to entry inside a heap whose client signature is 0xBC.
#ifndef TARN_STORE_LTP_PROPERTY_BAG_H_
#define TARN_STORE_LTP_PROPERTY_BAG_H_

#include <memory>
#include <vector>

#include "store/ltp/property_object.h"

namespace tarn::ltp {

class property_bag : public const_property_object {
  public:
    // Opens the node's heap (client signature 0xBC) and the property index at its root.
    explicit property_bag(const node& n);
    // A new heap over the same node, opened without the client-signature check, and a new index: the
    // copy shares no index nodes with `other`.
    property_bag(const property_bag& other);
    property_bag& operator=(const property_bag&) = delete;

    std::vector<prop_id> prop_list() const override;
    prop_type get_prop_type(prop_id id) const override;
    bool prop_exists(prop_id id) const override;
    uint32_t prop_size(prop_id id) const override;
    hnid_stream_device open_prop_stream(prop_id id) const override;
    uint8_t get_value_1(prop_id id) const override;
    uint16_t get_value_2(prop_id id) const override;
    uint32_t get_value_4(prop_id id) const override;
    uint64_t get_value_8(prop_id id) const override;
    std::vector<std::byte> get_value_variable(prop_id id) const override;

    const node& get_node() const { return heap()->get_node(); }
    const heap_ptr& heap() const { return index_->get_heap(); }

  private:
    std::shared_ptr<bth_node<prop_id, prop_entry>> index_;
};

}  // namespace tarn::ltp

#endif  // TARN_STORE_LTP_PROPERTY_BAG_H_
