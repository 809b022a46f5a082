#ifndef TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_READ_H
#define TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_READ_H

#include <cstdint>

#include "TansyBase/FileUtil.h"

namespace Tansy::CloudStorage {

// What a file that has become shorter while it is read, and one too large to upload, are reported as.
inline constexpr std::uint32_t kErrorEndOfFile = 38;
inline constexpr std::uint32_t kErrorFileTooLarge = 223;

// Reads `size` bytes at the current position, all of them or it is an error. 0, or the system's error code.
inline std::uint32_t ReadExactly(TansyBase::CLocalFile& file, char* buffer, std::uint32_t size) {
  std::uint32_t done = 0;
  const std::uint32_t error = file.Read(buffer, size, done);
  return error == 0 && done < size ? kErrorEndOfFile : error;
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_READ_H
