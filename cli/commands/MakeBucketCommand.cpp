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
  const CServerLink server(settings);
  const LinkOutcome outcome = server.Try(
      {.method = "PUT", .resource = "/" + bucket, .body = body, .content_type = "application/xml; charset=utf-8"});
  const bool was_there = call.Has("--exist-ok") && outcome.ErrorCode() == "BucketAlreadyExists";
  if (!outcome.IsDone() && !was_there) {
    throw server.FailureOf(outcome).About("bucket " + Printable(bucket));
  }
  if (call.globals.json) {
    PrintLine(CJsonLine().Add("name", bucket).Text());
  } else if (!call.globals.quiet) {
    PrintLine(Printable(bucket).insert(0, was_there ? "there is already " : "made "));
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
          {{"--exist-ok", nullptr, "a bucket that is there already is no failure"}},
          {{"tansy mb photos", "make the bucket photos"}, {"tansy mb --exist-ok photos", "make it unless it is there"}},
          details::RunMakeBucket};
}

}  // namespace Tansy::Cli
