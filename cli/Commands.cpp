#include "Commands.h"

namespace Tansy::Cli {

const std::vector<CommandSpec>& AllCommands() {
  static const std::vector<CommandSpec> commands = {
      MakeBucketCommand(), RemoveBucketCommand(), BucketsCommand(),     BucketCommand(),    ListCommand(),
      PutCommand(),        GetCommand(),          CatCommand(),         StatCommand(),      RemoveCommand(),
      CopyCommand(),       SyncCommand(),         DiskUsageCommand(),   FindCommand(),      SignCommand(),
      EnvCommand(),        BestNodeCommand(),     PartsCommand(),       VersionCommand(),   DoctorCommand(),
      CompletionCommand(), KeyAddCommand(),       KeyListCommand(),     KeyRemoveCommand(), AdminInfoCommand(),
      AdminTopCommand(),   AdminCheckCommand(),   AdminRepairCommand(), PicPutCommand(),    PicGetCommand(),
      PicLinkCommand(),    PicPoolsCommand(),     PicVersionCommand()};
  return commands;
}

const std::vector<OptionSpec>& GlobalOptions() {
  static const std::vector<OptionSpec> options = {
      {"--server", "URL", "server to talk to, http://HOST:PORT, https://HOST:PORT or a name from the configuration"},
      {"--pool", "BUCKET", "bucket that uploads go to"},
      {"--data", "DIR", "data folder of a tansyd on this machine, whose address and keys are used"},
      {"--ca", "FILE", "PEM file with the certificates to trust over HTTPS, instead of the system's"},
      {"--insecure", nullptr, "trust any certificate over HTTPS"},
      {"--json", nullptr, "one JSON document per line on standard output"},
      {"--quiet", nullptr, "no progress and no texts that are only for people"},
      {"--verbose", nullptr, "show each request and its answer on standard error, signatures masked"},
  };
  return options;
}

}  // namespace Tansy::Cli
