#include "NotesFolder.h"

#include <cerrno>
#include <string>

#include "NewBytesLog.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kNotesFolder = "new-bytes";

}  // namespace
}  // namespace details

std::unique_ptr<HostSystem::IFolder> OpenNotesFolder() {
  int error = HostSystem::MakeFolders(details::kNotesFolder);
  std::unique_ptr<HostSystem::IFolder> folder;
  if (error == 0) {
    folder = HostSystem::OpenFolder(details::kNotesFolder, error);
  }
  if (error != 0) {
    throw CStartFailure(kExitFailed, std::string("folder ") + details::kNotesFolder +
                                         " cannot be used: " + HostSystem::ErrorText(error));
  }
  return folder;
}

bool ReadNotesFolder(std::vector<StoredName>& names) {
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> folder = HostSystem::OpenFolder(details::kNotesFolder, error);
  if (folder == nullptr) {
    return error == ENOENT;
  }
  return CNewBytesLog::Read(*folder, names) == 0;
}

}  // namespace Tansy::Host
