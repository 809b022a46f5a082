#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "ServerLink.h"
#include "Settings.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunMakeBucket(const CommandCall& call) {
  const std::string bucket = call.Argument("BUCKET");
  if (bucket.empty() || bucket.find_first_of("/?# ") != std::string::npos) {
    throw CFailure(kExitUsage, "\"" + Printable(bucket) + "\" cannot be the name of a bucket",
                   "names hold no blanks, \"/\", \"?\" and \"#\"");
  }
  TansyProto::CXmlProto xml;
  xml.SetString("/CreateBucketConfiguration/LocationConstraint", "local");
  std::string body;
  xml.Serialize(body);
  const Settings settings = UseSettings(call.globals);
  CServerLink(settings).Request("PUT", "/" + bucket, "bucket " + Printable(bucket), body,
                                "application/xml; charset=utf-8");
  if (call.globals.json) {
    PrintLine(CJsonLine().Add("name", bucket).Text());
  } else if (!call.globals.quiet) {
    PrintLine("made " + Printable(bucket));
  }
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec MakeBucketCommand() {
  return {"",
          "mb",
          "make a bucket",
          "Makes a bucket, a place for objects.",
          {{.name = "BUCKET", .help = "name of the new bucket"}},
          {},
          {{"tansy mb photos", "make the bucket photos"}},
          details::RunMakeBucket};
}

}  // namespace Tansy::Cli
