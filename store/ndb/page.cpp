#include "store/ndb/page.h"

#include "store/ndb/database.h"

namespace tarn::ndb {

std::shared_ptr<bt_page<node_id, node_info>> read_child_page(db_context& db, const page_info& info,
                                                             const node_id*) {
    return db.read_nbt_page(info);
}

std::shared_ptr<bt_page<block_id, block_info>> read_child_page(db_context& db, const page_info& info,
                                                               const block_id*) {
    return db.read_bbt_page(info);
}

}  // namespace tarn::ndb
