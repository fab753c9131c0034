// A store's folders as people name them: the display names from the store's top down to a folder.
#ifndef TARN_API_STORE_FOLDERS_H_
#define TARN_API_STORE_FOLDERS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "api/store_text.h"
#include "store/ndb/database.h"

namespace tarn::api {

// The root folder, its own parent, gives no component of a path.
constexpr tarn::ndb::node_id kRootFolder = 0x122;
// Folder chains longer than this are damage (a loop the visited set has not closed yet is cut here too).
constexpr int kMaxFolderDepth = 64;

// The folder's display name in `code_page`, or "folder 0x..." when its property context cannot say.
std::string FolderDisplayName(const tarn::ndb::db_ptr& db, tarn::ndb::node_id folder, uint32_t code_page);

// The folder's ids from the top down to it: parents from the node B-tree, the root folder left out. A
// chain that loops or cannot be read ends where it does.
std::vector<tarn::ndb::node_id> FolderChain(const tarn::ndb::db_ptr& db, tarn::ndb::node_id folder);

struct StoreFolder {
    tarn::ndb::node_id id = 0;
    std::string path;      // display names from the top, "/" between them
    int64_t messages = 0;  // the rows of its contents table, as far as they can be read
};

// The store's normal folders in node B-tree order (the walk's), names read in `code_page`. Throws when
// the node B-tree cannot be read.
std::vector<StoreFolder> StoreFolders(const tarn::ndb::db_ptr& db, uint32_t code_page = kDefaultCodePage);

}  // namespace tarn::api

#endif  // TARN_API_STORE_FOLDERS_H_
