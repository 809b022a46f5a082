#include "StorageServer/ObjectServer/FirstPartFile.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "TansyBase/FileUtil.h"

namespace Tansy::CloudStorage::details {

using TansyBase::FileUtil;

std::string FirstPartPath(const std::string& upload_id, std::uint32_t number) {
  return FileUtil::GetCurExeDirUtf8() + "localstoragetmp" + "\\" + upload_id + "_" + std::to_string(number);
}

bool FirstPartSize(const std::string& path, std::uint64_t& size) {
  size = 0;
  if (!FileUtil::Exists(path)) {
    return false;
  }
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(FileUtil::OpenFile(path, "rb"), &std::fclose);
  if (file && std::fseek(file.get(), 0, SEEK_END) == 0) {
    size = static_cast<std::uint64_t>(std::max(std::ftell(file.get()), 0L));
  }
  return true;
}

}  // namespace Tansy::CloudStorage::details
