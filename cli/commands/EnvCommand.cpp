#include "ClientSettings.h"
#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunEnv(const CommandCall& call) {
  const std::string text = ClientSettings(call.Argument("CLIENT"), UseSettings(call.globals));
  PrintBytes(text.data(), text.size());
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec EnvCommand() {
  return {
      "",
      "env",
      "print settings for other programs",
      "Prints what another program needs to use this server: address, keys and certificate. For aws, rclone and "
      "restic these are lines for a shell, for s3cmd a file. Restic keeps its backups in the bucket of --pool, without "
      "one in the bucket restic. They hold the secret key, so keep them to yourself; no "
      "secret is on a command line this way.",
      {{.name = "CLIENT", .help = "which program", .choices = {"aws", "s3cmd", "rclone", "restic"}}},
      {},
      {{"eval \"$(tansy env aws)\" && aws s3 ls", "the AWS command line"},
       {"eval \"$(tansy env rclone)\" && rclone lsd tansy:", "rclone, which calls the server tansy:"},
       {"(umask 077 && tansy env s3cmd > ~/.s3cfg) && s3cmd ls", "s3cmd, whose settings are a file"},
       {"eval \"$(tansy --pool backups env restic)\" && restic init", "restic, with a bucket to keep backups in"}},
      details::RunEnv};
}

}  // namespace Tansy::Cli
