#include "BackupFolder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "StartFailure.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kManifest = "MANIFEST";
constexpr const char* kUnfinishedEnd = ".unfinished";
constexpr const char* kLockFile = "backup.lock";
constexpr std::size_t kMostManifest = std::size_t{1} << 36;
// "2026-11-03T08-05-09.123Z"
constexpr std::size_t kNameLength = 24;

[[noreturn]] void Fail(const std::string& what) {
  throw CStartFailure(kExitFailed, what);
}

[[noreturn]] void FailWith(const std::string& what, int error) {
  Fail(what + ": " + HostSystem::ErrorText(error));
}

bool IsName(const std::string& name) {
  const auto fits = [](char shape, char c) { return shape == '0' ? c >= '0' && c <= '9' : c == shape; };
  constexpr std::string_view kShape = "0000-00-00T00-00-00.000Z";
  return name.size() == kNameLength && std::equal(kShape.begin(), kShape.end(), name.begin(), fits);
}

bool IsUnfinished(const std::string& name) {
  return name.ends_with(kUnfinishedEnd) && IsName(name.substr(0, kNameLength));
}

std::string NewName() {
  const auto now = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
  const long long milliseconds = now.time_since_epoch().count();
  std::string name = TansyBase::TimeUtil::TimeT2StrUTCDatetime(static_cast<std::time_t>(milliseconds / 1000));
  std::replace(name.begin(), name.end(), ' ', 'T');
  std::replace(name.begin(), name.end(), ':', '-');
  char end[8];
  std::snprintf(end, sizeof end, ".%03dZ", static_cast<int>(milliseconds % 1000));
  return name + end;
}

std::filesystem::path PathOf(const std::string& path) {
  return {std::u8string(path.begin(), path.end())};
}

// Newest first.
std::vector<std::string> NamesIn(HostSystem::IFolder& folder, const std::string& path) {
  std::vector<HostSystem::FolderEntry> entries;
  if (const int error = folder.List(entries)) {
    FailWith("folder " + path + " cannot be read", error);
  }
  std::vector<std::string> names;
  for (const HostSystem::FolderEntry& entry : entries) {
    if (entry.is_folder && IsName(entry.name)) {
      names.push_back(entry.name);
    }
  }
  std::sort(names.rbegin(), names.rend());
  return names;
}

bool ReadManifest(const std::string& backup, BackupManifest& manifest) {
  std::string text;
  return HostSystem::ReadWholeFile(backup + "/" + kManifest, kMostManifest, text) == 0 && ParseManifest(text, manifest);
}

std::string NewestIn(HostSystem::IFolder& folder, const std::string& path, BackupManifest& manifest) {
  for (const std::string& name : NamesIn(folder, path)) {
    if (ReadManifest(path + "/" + name, manifest)) {
      return name;
    }
  }
  return "";
}

}  // namespace
}  // namespace details

CBackupFolder::CBackupFolder(const std::string& path) : path_(path) {
  int error = HostSystem::MakeFolders(path_);
  if (error == 0) {
    root_ = HostSystem::OpenFolder(path_, error);
  }
  if (error == 0) {
    error = lock_.Take(path_ + "/" + details::kLockFile);
  }
  if (error == EBUSY) {
    details::Fail("another tansyd makes a backup in " + path_);
  }
  if (error != 0) {
    details::FailWith("folder " + path_ + " cannot be used", error);
  }
}

int CBackupFolder::RemoveUnfinished() {
  std::vector<HostSystem::FolderEntry> entries;
  if (const int error = root_->List(entries)) {
    details::FailWith("folder " + path_ + " cannot be read", error);
  }
  int count = 0;
  for (const HostSystem::FolderEntry& entry : entries) {
    if (entry.is_folder && details::IsUnfinished(entry.name)) {
      Remove(entry.name);
      ++count;
    }
  }
  return count;
}

std::string CBackupFolder::FindNewest(BackupManifest& manifest) const {
  return details::NewestIn(*root_, path_, manifest);
}

void CBackupFolder::Begin() {
  name_ = details::NewName() + details::kUnfinishedEnd;
  int error = root_->MakeFolder(name_);
  if (error == 0) {
    error = root_->MakeFolder(name_ + "/" + kBackupData);
  }
  if (error != 0) {
    details::FailWith("folder " + path_ + "/" + name_ + " cannot be made", error);
  }
}

void CBackupFolder::Finish(const BackupManifest& manifest) {
  std::unique_ptr<HostSystem::IFolder> folder;
  std::unique_ptr<HostSystem::IFile> file;
  const std::string text = TextOf(manifest);
  const std::string name = name_.substr(0, details::kNameLength);
  int error = root_->OpenFolder(name_, folder);
  if (error == 0) {
    error = folder->Create(details::kManifest, file);
  }
  if (error == 0) {
    error = file->WriteAt(text.data(), text.size(), 0);
  }
  if (error == 0) {
    error = file->Sync();
  }
  if (error == 0) {
    error = folder->Sync();
  }
  file.reset();
  folder.reset();
  if (error == 0) {
    error = root_->Rename(name_, name);
  }
  if (error == 0) {
    error = root_->Sync();
  }
  if (error != 0) {
    details::FailWith("backup " + path_ + "/" + name_ + " cannot be finished", error);
  }
  name_ = name;
}

void CBackupFolder::GiveUp() {
  if (details::IsUnfinished(name_)) {
    Remove(name_);
  }
}

void CBackupFolder::Remove(const std::string& name) const {
  std::error_code error;
  std::filesystem::remove_all(details::PathOf(path_ + "/" + name), error);
  if (error) {
    details::Fail("unfinished backup " + path_ + "/" + name + " cannot be removed: " + error.message());
  }
}

std::string FindBackup(const std::string& path, BackupManifest& manifest) {
  if (details::ReadManifest(path, manifest)) {
    return path;
  }
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> folder = HostSystem::OpenFolder(path, error);
  if (folder == nullptr) {
    details::FailWith("backup " + path + " cannot be read", error);
  }
  std::unique_ptr<HostSystem::IFolder> data;
  if (path.ends_with(details::kUnfinishedEnd) || folder->OpenFolder(kBackupData, data) == 0) {
    details::Fail("backup " + path + " is incomplete: its manifest is missing or not whole");
  }
  // Only what is newest counts: an older one in the place of one that is damaged would lose objects silently.
  const std::vector<std::string> names = details::NamesIn(*folder, path);
  if (names.empty()) {
    details::Fail("folder " + path + " holds no backup that was finished");
  }
  const std::string newest = path + "/" + names.front();
  if (!details::ReadManifest(newest, manifest)) {
    details::Fail("backup " + newest + " is incomplete: its manifest is missing or not whole");
  }
  return newest;
}

}  // namespace Tansy::Host
