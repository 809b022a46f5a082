#include "ClientRecord.h"
#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "Settings.h"
#include "TansyCloudStorage/ObjectClient.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Many servers do not tell their version, so that is no failure.
std::string ServerVersion(const CommandCall& call) {
  try {
    const Settings settings = UseSettings(call.globals);
    if (settings.object_server.is_https) {
      return "";  // the version can be asked for over plain HTTP only
    }
    CloudStorage::CObjectClient client(MakeClientRecord(settings, settings.object_server, settings.pool));
    std::string version;
    client.GetStorageVersion(version, {settings.object_server.HostText(), settings.object_server.port,
                                       settings.access_key, settings.secret_key});
    return version;
  } catch (const CFailure&) {
    return "";
  }
}

int RunVersion(const CommandCall& call) {
  const std::string server = ServerVersion(call);
  if (call.globals.json) {
    PrintLine(CJsonLine().Add("tansy", TANSY_VERSION).Add("server", server).Text());
    return kExitDone;
  }
  PrintTable({{"tansy", TANSY_VERSION}, {"server", server.empty() ? "does not tell" : Printable(server)}});
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec VersionCommand() {
  return {"",
          "version",
          "tell the versions of program and server",
          "Prints the version of this program, and the server's if the server tells it.",
          {},
          {},
          {{"tansy version", "both versions"}},
          details::RunVersion};
}

}  // namespace Tansy::Cli
