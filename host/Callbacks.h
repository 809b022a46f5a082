#ifndef TANSY_HOST_CALLBACKS_H
#define TANSY_HOST_CALLBACKS_H

#include <memory>

#include "ObjectStore.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::Host {

// Puts the five storage callbacks into a server's configuration, and has the module frame its long downloads, so that
// the store keeps their files open. The callbacks are plain functions over the store, which is kept for the life of the
// process, because a callback may be running on any thread until then. A second call replaces the store.
//
// The functions of a process that shares its storage may be called on any thread, for the life of the process. Null
// ones stand for a process that is alone.
struct SharedStorage {
  // Takes the place of the store's own removal of an object's bytes.
  bool (*remove)(const StoredName& name) = nullptr;
  // Says whether bytes that have a place already may be written, because nobody else can have taken them over.
  bool (*may_write)() = nullptr;
};
void RegisterCallbacks(std::shared_ptr<IObjectStore> store, CloudStorage::StorageServerConfig& config,
                       const SharedStorage& shared = {});

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CALLBACKS_H
