#include "PartialFile.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>

#include "Failure.h"
#include "HostSystem/Files.h"
#include "LocalFile.h"
#include "TansyBase/FileUtil.h"
#include "TansyBase/GuidUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

struct Partials {
  std::mutex mutex;             // guards what follows, and every removal and renaming
  std::set<std::string> paths;  // files that are being written
  bool removed = false;         // the process is about to end
};

// The list is never destroyed, because an interruption may come while the process ends.
Partials& AllPartials() {
  static auto* const partials = new Partials;
  return *partials;
}

[[noreturn]] void Fail(const std::string& path, const std::error_code& error) {
  throw FailureOfFile(path, error.default_error_condition().value());
}

// Returns when the file is on stable storage. With a new name before that, a power failure could leave the name without
// the bytes. A folder that may not be listed cannot be opened, so it is not synced.
void SyncFile(const std::string& path, const std::string& target) {
  int error = 0;
  const auto folder = HostSystem::OpenFolder(FolderOf(path), error);
  std::unique_ptr<HostSystem::IFile> file;
  if (folder != nullptr && folder->OpenForWriting(Utf8Path(NativePath(path).filename()), file) == 0) {
    error = file->Sync();
    if (error != 0) {
      Fail(target, std::error_code(error, std::generic_category()));
    }
  }
}

void SyncFolderOf(const std::string& path) {
  int error = 0;
  if (const auto folder = HostSystem::OpenFolder(FolderOf(path), error)) {
    folder->Sync();  // the file is complete under its name even when this fails
  }
}

// Makes a new empty file; "x" refuses to open a file that another program has put there.
void MakeEmpty(const std::string& path, const std::string& target) {
  std::FILE* file = TansyBase::FileUtil::OpenFile(path, "wbx");
  if (file == nullptr) {
    Fail(target, std::error_code(errno, std::generic_category()));
  }
  std::fclose(file);
}

}  // namespace
}  // namespace details

CPartialFile::CPartialFile(const std::string& target) : target_(FollowLink(target)) {
  const std::string name = ".tansy-" + TansyBase::GuidUtil::CreateGuid() + ".part";
  path_ = Utf8Path(NativePath(target_).replace_filename(name));
  details::Partials& partials = details::AllPartials();
  const std::lock_guard lock(partials.mutex);
  if (partials.removed) {
    throw CFailure(kExitInterrupted, "", "");  // whoever ends the process says so
  }
  details::MakeEmpty(path_, target);
  partials.paths.insert(path_);
}

CPartialFile::~CPartialFile() {
  file_.reset();  // some systems refuse to remove an open file
  details::Partials& partials = details::AllPartials();
  const std::lock_guard lock(partials.mutex);
  if (partials.paths.erase(path_) > 0) {
    std::error_code ignored;
    std::filesystem::remove(NativePath(path_), ignored);
  }
}

bool CPartialFile::OpenForPieces() {
  int error = 0;
  folder_ = HostSystem::OpenFolder(FolderOf(path_), error);
  return folder_ != nullptr && folder_->OpenForWriting(Utf8Path(NativePath(path_).filename()), file_) == 0;
}

void CPartialFile::WriteAt(const char* data, std::size_t size, std::uint64_t offset) {
  if (const int error = file_->WriteAt(data, size, offset); error != 0) {
    throw FailureOfFile(target_, error);
  }
}

void CPartialFile::Commit() {
  file_.reset();                      // some systems refuse to rename an open file
  details::SyncFile(path_, target_);  // before the lock, so that an interruption need not wait for it
  details::Partials& partials = details::AllPartials();
  {
    const std::lock_guard lock(partials.mutex);
    if (partials.removed) {
      throw CFailure(kExitInterrupted, "", "");  // whoever ends the process says so
    }
    std::error_code error;
    std::filesystem::rename(NativePath(path_), NativePath(target_), error);
    if (error) {
      details::Fail(target_, error);
    }
    partials.paths.erase(path_);
  }
  details::SyncFolderOf(target_);
}

void CPartialFile::RemoveAll() {
  details::Partials& partials = details::AllPartials();
  const std::lock_guard lock(partials.mutex);
  partials.removed = true;
  for (const std::string& path : partials.paths) {
    std::error_code ignored;
    std::filesystem::remove(NativePath(path), ignored);
  }
  partials.paths.clear();
}

}  // namespace Tansy::Cli
