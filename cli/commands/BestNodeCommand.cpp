#include "BestNode.h"
#include "BucketList.h"
#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunBestNode(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  const std::string location = AskBestNode(settings, ChooseBucket(settings));
  PrintLine(call.globals.json ? CJsonLine().Add("location", location).Text() : Printable(location));
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec BestNodeCommand() {
  return {"",
          "bestnode",
          "ask which address uploads should go to",
          "Prints the address and port that the server wants uploads from here to use.",
          {},
          {},
          {{"tansy --pool photos bestnode", "ask for uploads to the bucket photos"}},
          details::RunBestNode};
}

}  // namespace Tansy::Cli
