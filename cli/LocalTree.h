#ifndef TANSY_CLI_LOCAL_TREE_H
#define TANSY_CLI_LOCAL_TREE_H

#include <cstdint>
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
