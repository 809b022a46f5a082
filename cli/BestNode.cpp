#include "BestNode.h"

#include "Failure.h"
#include "Output.h"
#include "ServerLink.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {

std::string AskBestNode(const Settings& settings, const std::string& bucket, EPatience patience) {
  // The answer does not depend on the key, but the request needs one.
  const CServerLink link(settings);
  const LinkOutcome outcome = TryPatiently(link, {.resource = "/" + bucket + "/any?bestnode"}, patience);
  if (!outcome.IsDone()) {
    throw link.FailureOf(outcome);
  }
  TansyProto::CXmlProto xml;
  if (!xml.Parse(outcome.answer.body) || !xml.Has("/BestNodeInfo/Location")) {
    throw CFailure(kExitFailed, link.Address().Url() + " answered something that names no best node",
                   "is this an object server?");
  }
  return xml.GetString("/BestNodeInfo/Location");
}

ServerAddress BestNodeAddress(const Settings& settings, const std::string& bucket, EPatience patience) {
  const std::string location = AskBestNode(settings, bucket, patience);
  ServerAddress address;
  if (!ParseServerUrl((settings.object_server.is_https ? "https://" : "http://") + location, address)) {
    throw CFailure(kExitFailed,
                   settings.object_server.Url() + " names \"" + Printable(location) + "\" as the best node",
                   "that is no address; look into the server's settings");
  }
  return address;
}

}  // namespace Tansy::Cli
