#include "HostSystem/Files.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

namespace HostSystem::details {

namespace {

constexpr std::size_t kReadAtOnce = std::size_t{64} * 1024;

}  // namespace

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

}  // namespace HostSystem::details
