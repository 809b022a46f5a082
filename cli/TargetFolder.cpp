#include "TargetFolder.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Failure.h"
#include "LocalFile.h"
#include "LocalTree.h"
#include "Output.h"

namespace Tansy::Cli {
namespace details {
namespace {

bool IsPlainPart(const std::string& part) {
  return !part.empty() && part != "." && part != "..";
}

bool HasControlOrBackslash(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '\\') {
      return true;
    }
  }
  return false;
}

CFailure FailureBelow(const std::string& path, int error) {
  if (error == ELOOP) {
    return {kExitFailed, Printable(path) + ": a link is in the way", "links are not followed; remove it"};
  }
  if (error == ENOTDIR || error == EEXIST) {
    return {kExitFailed, Printable(path) + ": a file is in the way of a folder of the same name",
            "choose another folder"};
  }
  if (error == EISDIR) {
    return {kExitFailed, Printable(path) + ": a folder is in the way of a file of the same name",
            "choose another folder"};
  }
  return FailureOfFile(path, error);
}

}  // namespace
}  // namespace details

std::string LocalNameOf(const std::string& relative) {
  bool is_plain = !details::HasControlOrBackslash(relative);
  for (std::size_t begin = 0; is_plain && begin <= relative.size();) {
    const std::size_t end = std::min(relative.find('/', begin), relative.size());
    is_plain = details::IsPlainPart(relative.substr(begin, end - begin));
    begin = end + 1;
  }
  is_plain = is_plain && !IsOwnHiddenFile(relative.substr(relative.rfind('/') + 1));
  if (!is_plain) {
    throw CFailure(kExitFailed, "\"" + Printable(relative) + "\" cannot be the name of a local file",
                   "get it by itself, under another name: tansy cp s3://BUCKET/KEY FILE");
  }
  return relative;
}

CTargetFolder::CTargetFolder(const std::string& path) : path_(path) {
  std::error_code error;
  std::filesystem::create_directories(NativePath(path), error);
  int result = 0;
  folder_ = HostSystem::OpenFolder(path, result, HostSystem::EAccess::kUsual);
  if (folder_ == nullptr) {
    throw FailureOfFile(path, error ? error.default_error_condition().value() : result);
  }
}

int CTargetFolder::MakeFoldersFor(const std::string& name) {
  for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
    const int error = folder_->MakeFolder(name.substr(0, slash));
    if (error != 0 && error != EEXIST) {
      return error;
    }
  }
  return 0;
}

std::unique_ptr<HostSystem::IFolder> CTargetFolder::OpenFolder(const std::string& name) {
  std::unique_ptr<HostSystem::IFolder> folder;
  if (name.empty()) {
    int result = 0;
    folder = HostSystem::OpenFolder(path_, result, HostSystem::EAccess::kUsual);
    if (folder == nullptr) {
      throw FailureOfFile(path_, result);
    }
    return folder;
  }
  int error = folder_->OpenFolder(name, folder);
  if (error == ENOENT) {
    error = MakeFoldersFor(name + "/");
    error = error != 0 ? error : folder_->OpenFolder(name, folder);
  }
  if (error != 0) {
    throw details::FailureBelow(PathOf(name), error);
  }
  return folder;
}

void CTargetFolder::RemoveFile(const std::string& name) {
  const int error = folder_->Remove(name);
  if (error != 0 && error != ENOENT) {
    throw details::FailureBelow(PathOf(name), error);
  }
  for (std::size_t slash = name.rfind('/'); slash != std::string::npos && slash > 0;
       slash = name.rfind('/', slash - 1)) {
    if (folder_->RemoveFolder(name.substr(0, slash)) != 0) {
      return;  // it is not empty
    }
  }
}

std::string CTargetFolder::PathOf(const std::string& name) const {
  return PathIn(path_, name);
}

}  // namespace Tansy::Cli
