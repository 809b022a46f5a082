#ifndef TANSY_CLI_CLIENT_SETTINGS_H
#define TANSY_CLI_CLIENT_SETTINGS_H

#include <string>

#include "Settings.h"

namespace Tansy::Cli {

// Gives the settings with which another program ("aws", "s3cmd", "rclone" or "restic") uses the S3 door of this server:
// lines for a shell, or for s3cmd a file. Throws CFailure with kExitUsage when no S3 door is known.
std::string ClientSettings(const std::string& client, const Settings& settings);

// Writes a text as one word of a shell.
std::string ShellWord(const std::string& text);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_CLIENT_SETTINGS_H
