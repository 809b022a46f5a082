#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_ROOM_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_ROOM_H

#include <cstdint>

#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

// Room for the file of a first part, which the host gives, for as long as this object lives. Threads: any.
class CFirstPartRoom : private TansyBase::CNoncopyable {
 public:
  // Sets whom to ask; null for both means that there is always room.
  static void SetCallbacks(RoomBeginCallback begin, RoomEndCallback end);

  explicit CFirstPartRoom(std::uint64_t bytes);
  ~CFirstPartRoom();

  // 0, or what the host said.
  int GetResult() const { return result_; }

 private:
  const std::uint64_t bytes_;
  int result_ = 0;
  RoomEndCallback end_ = nullptr;
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_ROOM_H
