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
#include "Output.h"
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

// Never destroyed: an interruption may come while the process ends.
Partials& AllPartials() {
  static auto* const partials = new Partials;
  return *partials;
}

[[noreturn]] void Fail(const std::string& path, const std::error_code& error) {
  const bool denied = error == std::errc::permission_denied || error == std::errc::operation_not_permitted ||
                      error == std::errc::read_only_file_system;
  const bool full = HostSystem::IsNoSpace(error.default_error_condition().value());
  const bool missing = error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
  throw CFailure(denied    ? kExitDenied
                 : full    ? kExitNoSpace
                 : missing ? kExitNotFound
                           : kExitFailed,
                 Printable(path) + ": " + error.message(),
                 denied ? "check its permissions"
                 : full ? "make room, or choose another folder"
                        : "check the path");
}

std::filesystem::path Utf8Path(const std::string& path) {
  return std::filesystem::path(std::u8string(path.begin(), path.end()));
}

std::string Utf8Text(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

// Returns when the file is on stable storage: a new name before that could be there after a power cut, and the bytes
// not. A folder that may not be listed cannot be opened and goes without.
void SyncFile(const std::string& path, const std::string& target) {
  const std::filesystem::path parent = Utf8Path(path).parent_path();
  int error = 0;
  const auto folder = HostSystem::OpenFolder(parent.empty() ? "." : Utf8Text(parent), error);
  std::unique_ptr<HostSystem::IFile> file;
  if (folder != nullptr && folder->OpenForWriting(Utf8Text(Utf8Path(path).filename()), file) == 0) {
    error = file->Sync();
    if (error != 0) {
      Fail(target, std::error_code(error, std::generic_category()));
    }
  }
}

void SyncFolderOf(const std::string& path) {
  const std::filesystem::path parent = Utf8Path(path).parent_path();
  int error = 0;
  if (const auto folder = HostSystem::OpenFolder(parent.empty() ? "." : Utf8Text(parent), error)) {
    folder->Sync();  // the file is complete under its name either way
  }
}

// A new empty file; "x" refuses to open what another program has put there.
void MakeEmpty(const std::string& path, const std::string& target) {
  std::FILE* file = TansyBase::FileUtil::OpenFile(path, "wbx");
  if (file == nullptr) {
    Fail(target, std::error_code(errno, std::generic_category()));
  }
  std::fclose(file);
}

}  // namespace
}  // namespace details

CPartialFile::CPartialFile(const std::string& target) : target_(target) {
  std::error_code error;
  if (std::filesystem::is_symlink(details::Utf8Path(target), error)) {
    const std::filesystem::path real = std::filesystem::weakly_canonical(details::Utf8Path(target), error);
    if (error) {
      details::Fail(target, error);
    }
    target_ = details::Utf8Text(real);
  }
  const std::string name = ".tansy-" + TansyBase::GuidUtil::CreateGuid() + ".part";
  path_ = details::Utf8Text(details::Utf8Path(target_).replace_filename(name));
  details::Partials& partials = details::AllPartials();
  const std::lock_guard lock(partials.mutex);
  if (partials.removed) {
    throw CFailure(kExitInterrupted, "interrupted", "");
  }
  details::MakeEmpty(path_, target);
  partials.paths.insert(path_);
}

CPartialFile::~CPartialFile() {
  details::Partials& partials = details::AllPartials();
  const std::lock_guard lock(partials.mutex);
  if (partials.paths.erase(path_) > 0) {
    std::error_code ignored;
    std::filesystem::remove(details::Utf8Path(path_), ignored);
  }
}

void CPartialFile::Commit() {
  details::SyncFile(path_, target_);  // before the lock: an interruption need not wait for it
  details::Partials& partials = details::AllPartials();
  {
    const std::lock_guard lock(partials.mutex);
    if (partials.removed) {
      throw CFailure(kExitInterrupted, "interrupted", "");
    }
    std::error_code error;
    std::filesystem::rename(details::Utf8Path(path_), details::Utf8Path(target_), error);
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
    std::filesystem::remove(details::Utf8Path(path), ignored);
  }
  partials.paths.clear();
}

}  // namespace Tansy::Cli
