// What commands do with whole folders: put, get, copy or remove them.
#ifndef TANSY_CLI_TREE_COPY_H
#define TANSY_CLI_TREE_COPY_H

#include <string>

#include "CommandSpec.h"
#include "S3Path.h"
#include "Settings.h"

namespace Tansy::Cli {

// All take --jobs, --resume and --dry-run from the call where the command has them, print a line about each thing done,
// and return the exit code. They throw CFailure when nothing could be begun.

// Puts the files of a folder below `remote`, which counts as a folder.
int PutFolder(const CommandCall& call, const Settings& settings, const std::string& folder, const S3Path& remote);
// Gets what is below `remote`, which counts as a folder, into a local folder, which is made when it is missing.
int GetFolder(const CommandCall& call, const Settings& settings, const S3Path& remote, const std::string& folder);
// Removes all objects below `remote`, which counts as a folder.
int RemoveFolder(const CommandCall& call, const Settings& settings, const S3Path& remote);

// Gives the last name of a path or key, without slashes: "2026" for "photos/2026/"; "" when it has none.
std::string LastName(const std::string& path);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TREE_COPY_H
