#ifndef TANSY_CLI_COPY_FILES_H
#define TANSY_CLI_COPY_FILES_H

#include <string>
#include <vector>

#include "CommandSpec.h"

namespace Tansy::Cli {

// Copies local files and objects, through the S3 door. Names on the server begin with "s3://"; at least one side is
// there. Takes -r, --resume and --jobs from the call where the command has them. Prints a line about each thing copied
// and returns the exit code. Throws CFailure when nothing could be begun.
int CopyFiles(const CommandCall& call, const std::vector<std::string>& sources, const std::string& target);

// Gives the name of a local folder, also of ".", which is that of the folder it leads to.
std::string FolderName(const std::string& path);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_COPY_FILES_H
