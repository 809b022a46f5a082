#ifndef TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_ERRORS_H
#define TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_ERRORS_H

#include <cstdint>
#include <string>

#include "TansyBase/FileUtil.h"
#include "TansyBase/StringUtil.h"
#include "TansyCloudStorage/ClientFailure.h"

namespace Tansy::CloudStorage {

// Error numbers of the file system, as CLocalFile gives them.
inline constexpr std::uint32_t kErrorInvalidHandle = 6;
inline constexpr std::uint32_t kErrorDiskFull = 112;
// These report a file that has become shorter while it was read, and a file that is too large to upload.
inline constexpr std::uint32_t kErrorEndOfFile = 38;
inline constexpr std::uint32_t kErrorFileTooLarge = 223;

// Reads exactly `size` bytes at the current position; fewer bytes are an error. Returns 0 or the system's error code.
inline std::uint32_t ReadExactly(TansyBase::CLocalFile& file, char* buffer, std::uint32_t size) {
  std::uint32_t done = 0;
  const std::uint32_t error = file.Read(buffer, size, done);
  return error == 0 && done < size ? kErrorEndOfFile : error;
}

// Describes the failure of an operation on a local file.
inline SClientFailure FailureOfFile(const char* operation, const std::string& path, std::uint32_t error) {
  SClientFailure failure;
  failure.code = ClientError::kLocalFile;
  failure.text = TansyBase::StringUtil::str_fmt("%s file[%s] failed[%d].", operation, path.c_str(), error);
  failure.system_error = static_cast<std::int32_t>(error);
  return failure;
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_LOCAL_FILE_ERRORS_H
