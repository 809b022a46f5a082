#include "BucketList.h"
#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "ServerLink.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunBuckets(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  std::vector<std::vector<std::string>> rows;
  for (const BucketRow& bucket : ListBuckets(CServerLink(settings))) {
    if (call.globals.json) {
      PrintLine(CJsonLine().Add("name", bucket.name).Add("location", bucket.location).Add("size", bucket.size).Text());
    } else {
      rows.push_back(
          {Printable(bucket.name), Printable(bucket.location), bucket.size < 0 ? "-" : std::to_string(bucket.size)});
    }
  }
  PrintTable(rows);
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec BucketsCommand() {
  return {"",
          "buckets",
          "list the buckets",
          "Lists all buckets, one per line: name, location and the size that was set when it was made (- for none).",
          {},
          {},
          {{"tansy buckets", "list them"},
           {"tansy --json buckets", "the same for a program: {\"name\": ..., \"location\": ..., \"size\": ...}"}},
          details::RunBuckets};
}

}  // namespace Tansy::Cli
