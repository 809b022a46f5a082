#ifndef TANSY_CLI_LOCAL_TREE_H
#define TANSY_CLI_LOCAL_TREE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Failure.h"
#include "HostSystem/Files.h"

namespace Tansy::Cli {

struct LocalEntry {
  std::string name;  // below the tree's top, "/" between the folders
  std::uint64_t size = 0;
};

// What is in a folder and in the folders below it.
struct LocalTree {
  std::vector<LocalEntry> files;     // regular files, by name in the order of bytes
  std::vector<std::string> skipped;  // links, devices and hidden files of downloads, in the order of bytes
  std::vector<CFailure> failures;    // folders that could not be read; what is in them is not known
};

// Walks through a folder in the order of the bytes of names, and holds no more of it than the folders on the way to the
// present file. It never goes through a link below its top; hidden files that a download of this program left behind
// are left out too. The top has to live as long.
class CLocalWalk {
 public:
  // Failures name the folder by `path`.
  CLocalWalk(HostSystem::IFolder& top, std::string path);

  // Gives the next regular file; nothing at the end.
  std::optional<LocalEntry> Next();
  // What was left out up to the last file given, and which folders could not be read. It has no files.
  const LocalTree& LeftOut() const { return left_out_; }

 private:
  // A folder on the way to the present file.
  struct Level {
    std::unique_ptr<HostSystem::IFolder> folder;  // null for the top
    std::string prefix;                           // of its names
    std::vector<HostSystem::FolderEntry> entries;
    std::size_t next = 0;
  };

  void Enter(std::unique_ptr<HostSystem::IFolder> folder, const std::string& prefix);
  // Takes an entry of the innermost level: a file is given, a folder is entered, anything else is left out.
  std::optional<LocalEntry> Take(const HostSystem::FolderEntry& entry);

  HostSystem::IFolder& top_;
  const std::string path_;
  std::vector<Level> levels_;
  LocalTree left_out_;
  std::string unknown_in_;  // the folder of the last failure about an entry: one says it for the whole folder
  bool has_unknown_ = false;
};

// Opens a folder to walk through. Throws CFailure when there is none at `path`, or when it cannot be opened.
std::unique_ptr<HostSystem::IFolder> OpenToWalk(const std::string& path);

// Walks through a folder, and never through a link below it. Hidden files that a download of this program left behind
// are left out too. Throws CFailure when there is no folder at `path`, or when it cannot be opened.
LocalTree WalkFolder(const std::string& path);
// Walks through a folder that is open; failures name it by `path`.
LocalTree WalkFolder(HostSystem::IFolder& top, const std::string& path);

// Says whether the walk left the name out, or a folder on its way: what is there is not known.
bool IsSkipped(const LocalTree& tree, const std::string& name);

// Says whether a name is that of a file that a download keeps its bytes in until it is complete.
bool IsOwnHiddenFile(const std::string& name);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_LOCAL_TREE_H
