#ifndef TANSY_DB_LAYER_FOLDER_SYNC_H
#define TANSY_DB_LAYER_FOLDER_SYNC_H

#include <string>

namespace db_layer {

// Makes the folder entry of a file (UTF-8 path) survive a power failure. Returns true also where the system keeps
// entries durable by itself or offers no way to ask for it.
bool SyncFolderOf(const std::string& file_path);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_FOLDER_SYNC_H
