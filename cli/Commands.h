// All commands of the program. Each command is one file in commands/, named in this header and listed in Commands.cpp.
#ifndef TANSY_CLI_COMMANDS_H
#define TANSY_CLI_COMMANDS_H

#include <vector>

#include "CommandSpec.h"

namespace Tansy::Cli {

CommandSpec MakeBucketCommand();
CommandSpec BucketsCommand();
CommandSpec BucketCommand();
CommandSpec RemoveBucketCommand();
CommandSpec ListCommand();
CommandSpec CopyCommand();
CommandSpec SyncCommand();
CommandSpec DiskUsageCommand();
CommandSpec FindCommand();
CommandSpec EnvCommand();
CommandSpec PutCommand();
CommandSpec GetCommand();
CommandSpec CatCommand();
CommandSpec StatCommand();
CommandSpec RemoveCommand();
CommandSpec SignCommand();
CommandSpec BestNodeCommand();
CommandSpec PartsCommand();
CommandSpec VersionCommand();
CommandSpec DoctorCommand();
CommandSpec CompletionCommand();
CommandSpec KeyAddCommand();
CommandSpec KeyListCommand();
CommandSpec KeyRemoveCommand();
CommandSpec AdminInfoCommand();
CommandSpec AdminTopCommand();
CommandSpec AdminCheckCommand();
CommandSpec AdminRepairCommand();
CommandSpec PicPutCommand();
CommandSpec PicGetCommand();
CommandSpec PicLinkCommand();
CommandSpec PicPoolsCommand();
CommandSpec PicVersionCommand();

// Gives them in the order in which help lists them.
const std::vector<CommandSpec>& AllCommands();

// Gives the options that every command takes, before or after its name.
const std::vector<OptionSpec>& GlobalOptions();

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_COMMANDS_H
