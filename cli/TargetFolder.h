#ifndef TANSY_CLI_TARGET_FOLDER_H
#define TANSY_CLI_TARGET_FOLDER_H

#include <memory>
#include <string>

#include "HostSystem/Files.h"

namespace Tansy::Cli {

// Gives the local name, below a target folder, of an object whose key has `relative` behind the prefix that was asked
// for. Keys come from the server, so whatever could lead out of the folder is refused: throws CFailure for empty names
// between slashes, ".", "..", control characters and backslashes, and for the names of this program's hidden files.
std::string LocalNameOf(const std::string& relative);

// A folder that objects are downloaded into. Nothing is ever written outside of it: names are looked up below it
// without following links. Threads: any.
class CTargetFolder {
 public:
  // Makes the folder, and those above it, when it is not there. Throws CFailure.
  explicit CTargetFolder(const std::string& path);

  // Opens a folder below this one, made when it is missing; "" is this folder itself. Throws CFailure.
  std::unique_ptr<HostSystem::IFolder> OpenFolder(const std::string& name);
  // Removes a file, and the folders above it that become empty. Throws CFailure.
  void RemoveFile(const std::string& name);

  // Gives the path of a name below this folder, for people.
  std::string PathOf(const std::string& name) const;

 private:
  int MakeFoldersFor(const std::string& name);

  const std::string path_;
  std::unique_ptr<HostSystem::IFolder> folder_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TARGET_FOLDER_H
