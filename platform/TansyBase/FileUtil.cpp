#include "TansyBase/FileUtil.h"

#include "TansyBase/ProgramFolder.h"

namespace TansyBase {
namespace {

std::string& GivenFolder() {
  static std::string folder;
  return folder;
}

}  // namespace

std::string FileUtil::GetCurExeDirUtf8() {
  return GivenFolder().empty() ? ProgramFolder() : GivenFolder();
}

void FileUtil::SetCurExeDirUtf8(const std::string& folder) {
  GivenFolder() = folder;
}

}  // namespace TansyBase
