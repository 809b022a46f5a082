#ifndef TANSY_HOST_STORE_ROOM_H
#define TANSY_HOST_STORE_ROOM_H

#include <cstdint>
#include <mutex>
#include <utility>

#include "HostSystem/Files.h"

namespace Tansy::Host {

// Keeps the last room of a file system free of stored bytes: an eighth of it, but no more than 96 MiB. The catalogue,
// which usually lies on the same one, needs room to write down removals: on a disk that is full to the last byte,
// nobody could remove anything to get room again. Its write-ahead log takes up to 64 MiB.
//
// Where the system does not tell how much room there is, everything fits. Threads: any.
class CStoreRoom {
 public:
  // `folder` lies on the file system and must outlive this object.
  explicit CStoreRoom(HostSystem::IFolder& folder) : folder_(folder) {}

  // Says whether bytes that will be written now fit. They are counted until End, which follows when they do.
  bool Begin(std::uint64_t bytes);
  void End(std::uint64_t bytes);

  // The same for as long as this object lives. It is false when the bytes do not fit.
  class CClaim {
   public:
    CClaim(CStoreRoom& room, std::uint64_t bytes) : room_(room), bytes_(bytes), fits_(room.Begin(bytes)) {}
    ~CClaim() {
      if (fits_) {
        room_.End(bytes_);
      }
    }
    CClaim(const CClaim&) = delete;
    CClaim& operator=(const CClaim&) = delete;
    explicit operator bool() const { return fits_; }

   private:
    CStoreRoom& room_;
    const std::uint64_t bytes_;
    const bool fits_;
  };

  // Says whether there is little room left, so that every gap counts.
  bool IsShort();

 private:
  void Look();

  HostSystem::IFolder& folder_;
  std::mutex mutex_;             // guards what follows
  std::int64_t looked_at_ = -1;  // uptime
  std::uint64_t reserve_ = 0;    // bytes that stay free
  std::uint64_t spare_ = 0;      // bytes that may be taken, as of the last look
  std::uint64_t under_way_ = 0;  // bytes that are claimed
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_STORE_ROOM_H
