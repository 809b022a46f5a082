// The volumes that stored bytes can be in. A name keeps its volume when its bytes move to a store of the other kind.
#ifndef TANSY_HOST_VOLUMES_H
#define TANSY_HOST_VOLUMES_H

#include <string_view>

namespace Tansy::Host {

inline constexpr const char* kFileObjects = "fs01";
inline constexpr const char* kFilePictures = "pc01";
inline constexpr const char* kSmallBodies = "lg01";
inline constexpr const char* kPoolObjects = "rd01";
inline constexpr const char* kPoolPictures = "rp01";

inline bool IsPictureVolume(std::string_view volume) {
  return volume == kFilePictures || volume == kPoolPictures;
}
inline bool IsObjectVolume(std::string_view volume) {
  return volume == kFileObjects || volume == kSmallBodies || volume == kPoolObjects;
}

}  // namespace Tansy::Host

#endif  // TANSY_HOST_VOLUMES_H
