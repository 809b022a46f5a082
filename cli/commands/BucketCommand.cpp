#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "ServerLink.h"
#include "Settings.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunBucket(const CommandCall& call) {
  const std::string bucket = call.Argument("BUCKET");
  const Settings settings = UseSettings(call.globals);
  const TansyNet::CHttpClientResponse answer =
      CServerLink(settings).Request({.resource = "/" + bucket + "?property"}, "bucket " + Printable(bucket));
  TansyProto::CXmlProto xml;
  if (!xml.Parse(answer.body) || !xml.Has("/Bucket/Name")) {
    throw CFailure(kExitFailed, "bucket " + Printable(bucket) + ": the answer is no description of a bucket",
                   "is this an object server?");
  }
  const std::string name = xml.GetString("/Bucket/Name");
  const std::string owner = xml.GetString("/Bucket/Owner");
  const std::string location = xml.GetString("/Bucket/Location");
  if (call.globals.json) {
    PrintLine(CJsonLine().Add("name", name).Add("owner", owner).Add("location", location).Text());
  } else {
    PrintTable({{"name", Printable(name)}, {"owner", Printable(owner)}, {"location", Printable(location)}});
  }
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec BucketCommand() {
  return {"",
          "bucket",
          "describe a bucket",
          "Says what the server knows about one bucket.",
          {{.name = "BUCKET", .help = "name of the bucket"}},
          {},
          {{"tansy bucket photos", "describe the bucket photos"}},
          details::RunBucket};
}

}  // namespace Tansy::Cli
