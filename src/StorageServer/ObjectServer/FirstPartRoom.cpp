#include "StorageServer/ObjectServer/FirstPartRoom.h"

#include <mutex>

namespace Tansy::CloudStorage::details {

namespace {

// The two are changed and read together.
struct Callbacks {
  RoomBeginCallback begin = nullptr;
  RoomEndCallback end = nullptr;
};

std::mutex g_mutex;
Callbacks g_callbacks;  // guarded by g_mutex

}  // namespace

void CFirstPartRoom::SetCallbacks(RoomBeginCallback begin, RoomEndCallback end) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_callbacks = {begin, end};
}

CFirstPartRoom::CFirstPartRoom(std::uint64_t bytes) : bytes_(bytes) {
  Callbacks callbacks;
  {
    const std::lock_guard<std::mutex> lock(g_mutex);
    callbacks = g_callbacks;
  }
  if (callbacks.begin != nullptr) {
    result_ = callbacks.begin(bytes);
    end_ = result_ == 0 ? callbacks.end : nullptr;
  }
}

CFirstPartRoom::~CFirstPartRoom() {
  if (end_ != nullptr) {
    end_(bytes_);
  }
}

}  // namespace Tansy::CloudStorage::details
