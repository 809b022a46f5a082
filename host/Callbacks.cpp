#include "Callbacks.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "HostLog.h"
#include "RemovalHold.h"
#include "TansyCloudStorage/ObjectServer.h"

namespace Tansy::Host {
namespace details {
namespace {

// These are results as the server understands them.
constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kNoSpace = 3;
constexpr int kServerInternalError = -16;  // a removal's result becomes the error code of the answer

constexpr int kPictureFlag = 0;

std::atomic<IObjectStore*> g_store{nullptr};
std::atomic<decltype(SharedStorage::remove)> g_remove{nullptr};
std::atomic<decltype(SharedStorage::may_write)> g_may_write{nullptr};

IObjectStore& Store() {
  return *g_store.load(std::memory_order_acquire);
}

int WriteResult(EStoreResult result) {
  if (result == EStoreResult::kDone) {
    return kDone;
  }
  return result == EStoreResult::kNoSpace ? kNoSpace : kFailed;
}

// Nothing may be thrown into the server: an exception is logged and becomes the result `failure`.
template <typename Action>
int Guarded(int failure, Action action) {
  try {
    return action();
  } catch (const std::exception& error) {
    HOST_LOG(logging::kError, "[%s]storage callback failed: %s.[%s(%d)]", error.what());
    return failure;
  }
}

int InvalidLocation(const std::string& location, int failure) {
  HOST_LOG(logging::kError, "[%s]location %s is none of this host's.[%s(%d)]", location.c_str());
  return failure;
}

int HandOver(EStoreResult result, ReadBuffer& buffer, char*& data, std::uint32_t& size) {
  if (result != EStoreResult::kDone) {
    return kFailed;
  }
  size = buffer.size;
  data = buffer.data.release();
  return kDone;
}

int SaveObject(std::string& location, const char* data, std::uint32_t size, int flag) {
  return Guarded(kFailed, [&] {
    const EContent content = flag == kPictureFlag ? EContent::kPicture : EContent::kObject;
    StoredName name;
    const EStoreResult result = Store().SaveWhole(content, data, size, name);
    if (result == EStoreResult::kDone) {
      location = content == EContent::kPicture ? PictureUrl(name) : LocationText(name);
    }
    return WriteResult(result);
  });
}

// The request path of a picture holds whatever the client put there, a ";" too. The location of an object never begins
// like such a path.
bool IsPictureRequest(const std::string& location) {
  return location.rfind("/pic?", 0) == 0;
}

bool ParseReadLocation(const std::string& location, StoredName& name) {
  const std::string_view text = IsPictureRequest(location) ? std::string_view(location) : OwnText(location);
  if (ParseLocationText(text, name)) {
    return true;
  }
  // The address of a picture leads to pictures only, so that no object can be read under the rules of the other
  // protocol.
  return ParseOwnText(text, name) && Store().IsPicture(name);
}

int ReadObject(char*& data, std::uint32_t& size, const std::string& location, int /*flag*/) {
  return Guarded(kFailed, [&] {
    StoredName name;
    if (!ParseReadLocation(location, name)) {
      return InvalidLocation(location, kFailed);
    }
    ReadBuffer buffer;
    return HandOver(Store().ReadWhole(name, buffer), buffer, data, size);
  });
}

bool MayWrite() {
  const auto may_write = g_may_write.load();
  return may_write == nullptr || may_write();
}

int StreamSave(const char* data, std::uint32_t size, std::uint32_t offset, std::string& location) {
  return Guarded(kFailed, [&] {
    StoredName name;
    const std::string_view text = OwnText(location);
    if (!text.empty() && !ParseLocationText(text, name)) {
      return InvalidLocation(location, kFailed);
    }
    if (!text.empty() && !MayWrite()) {
      HOST_LOG(logging::kError, "[%s]location %s is not written: another node may have it.[%s(%d)]", location.c_str());
      return kFailed;
    }
    const EStoreResult result = Store().SaveAt(name, offset, data, size);
    if (result == EStoreResult::kDone) {
      location = LocationText(name);
    }
    return WriteResult(result);
  });
}

int ReadRange(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location) {
  return Guarded(kFailed, [&] {
    StoredName name;
    if (!ParseReadLocation(location, name)) {
      return InvalidLocation(location, kFailed);
    }
    ReadBuffer buffer;
    return HandOver(Store().ReadRange(name, offset, size, buffer), buffer, data, size);
  });
}

int BeginRead(const std::string& location) {
  return Guarded(kFailed, [&] {
    StoredName name;
    if (!ParseReadLocation(location, name)) {
      return InvalidLocation(location, kFailed);
    }
    return Store().BeginRead(name) == EStoreResult::kDone ? kDone : kFailed;
  });
}

void EndRead(const std::string& location) {
  Guarded(kFailed, [&] {
    StoredName name;
    if (ParseReadLocation(location, name)) {
      Store().EndRead(name);
    }
    return kDone;
  });
}

bool Remove(const StoredName& name) {
  if (Store().IsPicture(name)) {
    return Store().Remove(name) == EStoreResult::kDone;
  }
  if (const auto remove = g_remove.load()) {
    return remove(name);
  }
  return AreRemovalsHeld() ? FreeWhenReleased(name) : Store().Remove(name) == EStoreResult::kDone;
}

int RemoveObject(const std::string& location) {
  return Guarded(kServerInternalError, [&] {
    StoredName name;
    // A picture is removed when its address could not be sent to the client; the text is then that address.
    if (!ParseStoragePath(location, name) && !(IsPictureRequest(location) && ParseReadLocation(location, name))) {
      return InvalidLocation(location, kServerInternalError);
    }
    return Remove(name) ? kDone : kServerInternalError;
  });
}

}  // namespace
}  // namespace details

void RegisterCallbacks(std::shared_ptr<IObjectStore> store, CloudStorage::StorageServerConfig& config,
                       const SharedStorage& shared) {
  static std::mutex mutex;
  static auto& kept = *new std::vector<std::shared_ptr<IObjectStore>>();
  {
    const std::lock_guard lock(mutex);
    details::g_store.store(store.get(), std::memory_order_release);
    kept.push_back(std::move(store));
  }
  details::g_remove = shared.remove;
  details::g_may_write = shared.may_write;
  config.save_object = &details::SaveObject;
  config.read_object = &details::ReadObject;
  config.stream_save = &details::StreamSave;
  config.read_range = &details::ReadRange;
  config.remove_object = &details::RemoveObject;
  CloudStorage::SetReadLeaseCallbacks(&details::BeginRead, &details::EndRead);
  CloudStorage::SetDownloadChunk(details::Store().DownloadChunk());
}

}  // namespace Tansy::Host
