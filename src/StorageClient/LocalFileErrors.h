#ifndef TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_ERRORS_H
#define TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_ERRORS_H

#include <cstdint>
#include <string>

#include "TansyBase/FileUtil.h"
#include "TansyBase/StringUtil.h"
#include "TansyCloudStorage/ClientFailure.h"

namespace Tansy::CloudStorage {

// Numbers of the file system, as CLocalFile has them.
inline constexpr std::uint32_t kErrorInvalidHandle = 6;
inline constexpr std::uint32_t kErrorDiskFull = 112;
// What a file that has become shorter while it is read, and one too large to upload, are reported as.
inline constexpr std::uint32_t kErrorEndOfFile = 38;
inline constexpr std::uint32_t kErrorFileTooLarge = 223;

// Reads `size` bytes at the current position, all of them or it is an error. 0, or the system's error code.
inline std::uint32_t ReadExactly(TansyBase::CLocalFile& file, char* buffer, std::uint32_t size) {
  std::uint32_t done = 0;
  const std::uint32_t error = file.Read(buffer, size, done);
  return error == 0 && done < size ? kErrorEndOfFile : error;
}

// What an operation on a local file failed with.
inline SClientFailure FailureOfFile(const char* operation, const std::string& path, std::uint32_t error) {
  SClientFailure failure;
  failure.code = ClientError::kLocalFile;
  failure.text = TansyBase::StringUtil::str_fmt("%s file[%s] failed[%d].", operation, path.c_str(), error);
  failure.system_error = static_cast<std::int32_t>(error);
  return failure;
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_ERRORS_H
