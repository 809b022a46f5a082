#include "LocalFile.h"

#include <cerrno>
#include <system_error>

#include "HostSystem/Files.h"
#include "Output.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

StdioFile Open(const std::string& path, const char* mode) {
  StdioFile file(TansyBase::FileUtil::OpenFile(path, mode));
  if (file == nullptr) {
    throw FailureOfFile(path, errno);
  }
  return file;
}

}  // namespace
}  // namespace details

std::filesystem::path NativePath(const std::string& path) {
  return {std::u8string(path.begin(), path.end())};
}

std::string Utf8Path(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

std::string FolderOf(const std::string& path) {
  const std::filesystem::path parent = NativePath(path).parent_path();
  return parent.empty() ? "." : Utf8Path(parent);
}

std::string PathIn(const std::string& folder, const std::string& name) {
  return folder + (folder.ends_with('/') ? "" : "/") + name;
}

std::string FollowLink(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::is_symlink(NativePath(path), error)) {
    return path;
  }
  const std::filesystem::path real = std::filesystem::weakly_canonical(NativePath(path), error);
  if (error) {
    throw FailureOfFile(path, error.default_error_condition().value());
  }
  return Utf8Path(real);
}

bool IsFolder(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_directory(NativePath(path), ignored);
}

bool IsSpecialFile(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_other(NativePath(path), ignored);
}

CFailure FailureOfFile(const std::string& path, int error) {
  const std::string what = Printable(path) + ": " + HostSystem::ErrorText(error);
  if (error == EACCES || error == EPERM || error == EROFS) {
    return {kExitDenied, what, "check its permissions"};
  }
  if (error == ENOENT || error == ENOTDIR) {
    return {kExitNotFound, what, "check the path"};
  }
  if (HostSystem::IsNoSpace(error)) {
    return {kExitNoSpace, what, "make room, or choose another folder"};
  }
  return {kExitFailed, what, ""};
}

std::uint64_t LocalFileSize(const std::string& path) {
  std::error_code error;
  const std::filesystem::path native = NativePath(path);
  const std::filesystem::file_status status = std::filesystem::status(native, error);
  if (!std::filesystem::exists(status)) {
    throw FailureOfFile(path, error ? error.value() : ENOENT);
  }
  if (std::filesystem::is_directory(status)) {
    throw CFailure(kExitUsage, Printable(path) + ": is a folder", "name the files in it");
  }
  if (!std::filesystem::is_regular_file(status)) {
    throw CFailure(kExitUsage, Printable(path) + ": is no regular file", "pipe it into 'tansy put -'");
  }
  const std::uint64_t size = std::filesystem::file_size(native, error);
  if (error) {
    throw FailureOfFile(path, error.value());
  }
  if (size > kLargestObject) {
    throw CFailure(kExitFailed, Printable(path) + ": is too large", "objects are smaller than 4 GiB");
  }
  return size;
}

StdioFile OpenForReading(const std::string& path) {
  return details::Open(path, "rb");
}

StdioFile OpenForWriting(const std::string& path) {
  StdioFile file = details::Open(path, "wb");
  // Pieces are large, so a buffer would only delay the report that the disk is full.
  std::setvbuf(file.get(), nullptr, _IONBF, 0);
  return file;
}

void WriteTo(std::FILE* file, const std::string& path, const char* data, std::size_t size) {
  if (std::fwrite(data, 1, size, file) != size) {
    throw FailureOfFile(path, errno);
  }
}

}  // namespace Tansy::Cli
