#include "TreeFile.h"

#include <cerrno>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>

#include "Failure.h"
#include "LocalFile.h"
#include "Output.h"
#include "TansyBase/GuidUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

struct Files {
  std::mutex mutex;           // guards what follows, and every removal and renaming
  std::set<CTreeFile*> open;  // files that are being written
  bool removed = false;       // the process is about to end
};

// The list is never destroyed, because an interruption may come while the process ends.
Files& AllFiles() {
  static auto* const files = new Files;
  return *files;
}

// A device, pipe or link must not become a file, because somebody has put it there for what it is.
void RefuseSpecialFile(const std::string& path) {
  std::error_code ignored;
  const std::filesystem::file_status status = std::filesystem::symlink_status(NativePath(path), ignored);
  if (std::filesystem::is_symlink(status)) {
    throw CFailure(kExitFailed, Printable(path) + ": a link is in the way", "links are not followed; remove it");
  }
  if (std::filesystem::is_other(status)) {
    throw CFailure(kExitFailed, Printable(path) + ": a device or pipe is in the way of a file of the same name",
                   "choose another name");
  }
}

// The line that says so is printed by whoever ends the process.
CFailure Interrupted() {
  return {kExitInterrupted, "", ""};
}

}  // namespace
}  // namespace details

CTreeFile::CTreeFile(CTargetFolder& target, const std::string& name) : path_(target.PathOf(name)) {
  details::RefuseSpecialFile(path_);
  const std::size_t slash = name.rfind('/');
  folder_ = target.OpenFolder(slash == std::string::npos ? "" : name.substr(0, slash));
  name_ = name.substr(slash + 1);
  hidden_name_ = ".tansy-" + TansyBase::GuidUtil::CreateGuid() + ".part";
  details::Files& files = details::AllFiles();
  const std::lock_guard lock(files.mutex);
  if (files.removed) {
    throw details::Interrupted();
  }
  if (const int error = folder_->Create(hidden_name_, file_); error != 0) {
    throw FailureOfFile(path_, error);
  }
  files.open.insert(this);
}

CTreeFile::~CTreeFile() {
  details::Files& files = details::AllFiles();
  const std::lock_guard lock(files.mutex);
  if (files.open.erase(this) > 0) {
    file_.reset();  // some systems refuse to remove an open file
    folder_->Remove(hidden_name_);
  }
}

void CTreeFile::WriteAt(const char* data, std::size_t size, std::uint64_t offset) {
  if (const int error = file_->WriteAt(data, size, offset); error != 0) {
    throw FailureOfFile(path_, error);
  }
}

void CTreeFile::Commit() {
  int error = file_->Sync();  // before the lock, so that an interruption need not wait for it
  if (error != 0) {
    throw FailureOfFile(path_, error);
  }
  {
    details::Files& files = details::AllFiles();
    const std::lock_guard lock(files.mutex);
    if (files.removed) {
      throw details::Interrupted();
    }
    details::RefuseSpecialFile(path_);  // it may have come meanwhile
    file_.reset();                      // some systems refuse to rename an open file
    error = folder_->Rename(hidden_name_, name_);
    if (error == EISDIR || error == EEXIST || error == ENOTEMPTY) {
      throw CFailure(kExitFailed, Printable(path_) + ": a folder is in the way of a file of the same name",
                     "choose another folder");
    }
    if (error != 0) {
      throw FailureOfFile(path_, error);
    }
    files.open.erase(this);
  }
  folder_->Sync();  // the file is complete under its name even when this fails
}

void CTreeFile::RemoveAll() {
  details::Files& files = details::AllFiles();
  const std::lock_guard lock(files.mutex);
  files.removed = true;
  for (CTreeFile* const file : files.open) {
    file->folder_->Remove(file->hidden_name_);
  }
  files.open.clear();
}

}  // namespace Tansy::Cli
