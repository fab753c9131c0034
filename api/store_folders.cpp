#include "api/store_folders.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <set>

#include "pst/message_walk.h"
#include "store/ltp/property_bag.h"
#include "store/ltp/table.h"

namespace tarn::api {

std::string FolderDisplayName(const tarn::ndb::db_ptr& db, tarn::ndb::node_id folder, uint32_t code_page) {
    try {
        const tarn::ltp::property_bag bag(db->lookup_node(folder));
        if (std::optional<std::string> name = ReadText(bag, tarn::kPropDisplayName, code_page)) return *name;
    } catch (const std::exception&) {
    }
    char text[32];
    std::snprintf(text, sizeof text, "folder 0x%x", static_cast<unsigned>(folder));
    return text;
}

std::vector<tarn::ndb::node_id> FolderChain(const tarn::ndb::db_ptr& db, tarn::ndb::node_id folder) {
    std::vector<tarn::ndb::node_id> chain{folder};
    std::set<tarn::ndb::node_id> seen{folder};
    for (tarn::ndb::node_id at = folder; static_cast<int>(chain.size()) < kMaxFolderDepth;) {
        tarn::ndb::node_id parent = 0;
        try {
            parent = db->lookup_node_info(at).parent_id;
        } catch (const std::exception&) {
            break;
        }
        if (parent == at || parent == kRootFolder || parent == 0 || !seen.insert(parent).second) break;
        chain.push_back(parent);
        at = parent;
    }
    std::erase(chain, kRootFolder);
    std::reverse(chain.begin(), chain.end());
    return chain;
}

std::vector<StoreFolder> StoreFolders(const tarn::ndb::db_ptr& db, uint32_t code_page) {
    std::vector<StoreFolder> folders;
    for (const tarn::ndb::node_info& info : tarn::ndb::page_range(db->read_nbt_root())) {
        if (!tarn::IsNormalFolder(info.id)) continue;
        StoreFolder folder{info.id, "", 0};
        for (const tarn::ndb::node_id id : FolderChain(db, info.id)) {
            if (!folder.path.empty()) folder.path += '/';
            folder.path += FolderDisplayName(db, id, code_page);
        }
        try {
            folder.messages = tarn::ltp::table(db->lookup_node(tarn::ContentsTableOf(info.id))).size();
        } catch (const std::exception&) {
            // The walk meets this folder's damage itself.
        }
        folders.push_back(std::move(folder));
    }
    return folders;
}

}  // namespace tarn::api
