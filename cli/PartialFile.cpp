#include "PartialFile.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
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

std::mutex partial_mutex;             // guards what follows, and every removal and renaming
std::set<std::string> partial_paths;  // files that are being written
bool partials_removed = false;        // the process is about to end

[[noreturn]] void Fail(const std::string& path, const std::error_code& error) {
  const bool denied = error == std::errc::permission_denied || error == std::errc::operation_not_permitted ||
                      error == std::errc::read_only_file_system;
  const bool full = error == std::errc::no_space_on_device;
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
  const std::lock_guard lock(details::partial_mutex);
  if (details::partials_removed) {
    throw CFailure(kExitInterrupted, "interrupted", "");
  }
  details::MakeEmpty(path_, target);
  details::partial_paths.insert(path_);
}

CPartialFile::~CPartialFile() {
  const std::lock_guard lock(details::partial_mutex);
  if (details::partial_paths.erase(path_) > 0) {
    std::error_code ignored;
    std::filesystem::remove(details::Utf8Path(path_), ignored);
  }
}

void CPartialFile::Commit() {
  const std::lock_guard lock(details::partial_mutex);
  if (details::partials_removed) {
    throw CFailure(kExitInterrupted, "interrupted", "");
  }
  std::error_code error;
  std::filesystem::rename(details::Utf8Path(path_), details::Utf8Path(target_), error);
  if (error) {
    details::Fail(target_, error);
  }
  details::partial_paths.erase(path_);
}

void CPartialFile::RemoveAll() {
  const std::lock_guard lock(details::partial_mutex);
  details::partials_removed = true;
  for (const std::string& path : details::partial_paths) {
    std::error_code ignored;
    std::filesystem::remove(details::Utf8Path(path), ignored);
  }
  details::partial_paths.clear();
}

}  // namespace Tansy::Cli
