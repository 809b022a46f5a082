#include "HostSystem/Files.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

namespace HostSystem {
namespace details {
namespace {

constexpr std::size_t kReadAtOnce = std::size_t{64} * 1024;

// Takes memory for what the file holds, whatever the limit.
int ReadAll(IFile& file, std::size_t limit, std::string& content) {
  std::string buffer;
  for (std::size_t done = 1; done > 0;) {
    const std::size_t begin = buffer.size();
    buffer.resize(begin + kReadAtOnce);
    if (const int error = file.ReadAt(buffer.data() + begin, kReadAtOnce, begin, done)) {
      return error;
    }
    buffer.resize(begin + done);
    if (buffer.size() > limit) {
      return EFBIG;
    }
  }
  content = std::move(buffer);
  return 0;
}

// Writes another file beside the one of this name, makes it durable and gives it the name. After a failure the file is
// as it was before.
int ReplaceIn(IFolder& folder, const std::string& name, const std::string& content) {
  const std::string temporary = name + ".new";
  folder.Remove(temporary);  // a crash may have left one
  std::unique_ptr<IFile> file;
  int error = folder.Create(temporary, file);
  if (error != 0) {
    return error;
  }
  error = file->WriteAt(content.data(), content.size(), 0);
  if (error == 0) {
    error = file->Sync();
  }
  file.reset();
  if (error == 0) {
    error = folder.Rename(temporary, name);
  }
  if (error != 0) {
    folder.Remove(temporary);
    return error;
  }
  return folder.Sync();
}

}  // namespace
}  // namespace details

int ReadExactly(IFile& file, std::uint64_t offset, std::size_t size, std::string& bytes) {
  bytes.resize(size);
  std::size_t done = 0;
  const int error = file.ReadAt(bytes.data(), size, offset, done);
  return error != 0 ? error : done < size ? EIO : 0;
}

int ReadWholeFile(const std::string& path, std::size_t limit, std::string& content) {
  std::unique_ptr<IFile> file;
  const int error = OpenFileForReading(path, file);
  return error != 0 ? error : details::ReadAll(*file, limit, content);
}

int ReplaceFile(const std::string& path, const std::string& content) {
  const details::FilePlace place = details::FindPlace(path);
  int error = 0;
  const std::unique_ptr<IFolder> folder = OpenFolder(place.folder, error);
  return folder == nullptr ? error : details::ReplaceIn(*folder, place.name, content);
}

std::string ErrorText(int error) {
  return std::generic_category().message(error);
}

}  // namespace HostSystem
