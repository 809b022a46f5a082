#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "Parallel.h"
#include "S3Link.h"
#include "S3Path.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

S3Path BucketOf(const std::string& word) {
  S3Path path = ParseS3Path(word);
  if (!path.key.empty()) {
    throw CFailure(kExitUsage, "\"" + Printable(word) + "\" is no bucket", "'tansy rm -r' removes what is below it");
  }
  return path;
}

int RunRemoveBucket(const CommandCall& call) {
  const CS3Link link(UseSettings(call.globals));
  for (const std::string& word : call.Arguments("BUCKET")) {
    BucketOf(word);  // finds a word that is no bucket before anything is removed
  }
  return ForEach(call.Arguments("BUCKET"), [&](const std::string& word) -> std::string {
    const S3Path path = BucketOf(word);
    const LinkOutcome outcome = link.Try({.method = "DELETE", .path = path});
    if (!IsDone(outcome)) {
      throw link.FailureOf(outcome).About("bucket " + Printable(path.bucket));
    }
    if (call.globals.json) {
      return CJsonLine().Add("name", path.bucket).Add("removed", true).Text();
    }
    return call.globals.quiet ? "" : "removed " + Printable(path.bucket);
  });
}

}  // namespace
}  // namespace details

CommandSpec RemoveBucketCommand() {
  return {"",
          "rb",
          "remove an empty bucket",
          "Removes buckets. A bucket that still holds objects stays as it is.",
          {{.name = "BUCKET", .help = "name of the bucket", .many = true}},
          {},
          {{"tansy rb photos", "remove the bucket photos"},
           {"tansy rm -r photos && tansy rb photos", "remove it with all that is in it"}},
          details::RunRemoveBucket};
}

}  // namespace Tansy::Cli
