#include "HostSystem/Files.h"

#include <memory>

namespace HostSystem::details {

int ReplaceIn(IFolder& folder, const std::string& name, const std::string& content) {
  const std::string temporary = name + ".new";
  folder.Remove(temporary);  // left over by a crash
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
