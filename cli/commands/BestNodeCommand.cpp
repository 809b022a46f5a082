#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "ServerLink.h"
#include "Settings.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunBestNode(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  // The answer does not depend on the key, but the request needs one.
  const TansyNet::CHttpClientResponse answer =
      CServerLink(settings).Request("GET", "/" + ChooseBucket(settings) + "/any?bestnode", "best node");
  TansyProto::CXmlProto xml;
  if (!xml.Parse(answer.body) || !xml.Has("/BestNodeInfo/Location")) {
    throw CFailure(kExitFailed, "best node: the answer names none", "is this an object server?");
  }
  const std::string location = xml.GetString("/BestNodeInfo/Location");
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
