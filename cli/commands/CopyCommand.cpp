#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "CopyFiles.h"
#include "Failure.h"
#include "S3Path.h"
#include "TransferOptions.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunCopy(const CommandCall& call) {
  std::vector<std::string> sources = call.Arguments("SOURCE");
  if (sources.size() < 2) {
    throw CFailure(kExitUsage, "one name is too few", "give what to copy, and where to");
  }
  const std::string target = std::move(sources.back());
  sources.pop_back();
  for (const std::string& source : sources) {
    if (!IsS3Url(target) && !IsS3Url(source)) {
      throw CFailure(kExitUsage, "neither side is on the server",
                     "begin names on the server with s3://, as in s3://BUCKET/KEY");
    }
  }
  JobsOf(call);
  ApplyRateLimit(call);
  return CopyFiles(call, sources, target);
}

}  // namespace
}  // namespace details

CommandSpec CopyCommand() {
  return {
      "",
      "cp",
      "copy files to the server, from it, or on it",
      "Copies files and objects. Names on the server begin with s3://. A target on the server that is a bucket or ends "
      "with a slash is a folder, and so is the target of several things. With -r the files in a folder are copied, "
      "with the folders in between as parts of their names; links and devices are left out. Large files go in parts of "
      "8 MiB, and come in ranges, several at a time. What has its right name is always whole: an object is replaced in "
      "one step, a local file is written under a hidden name first. A file that changes while it is read is not put. "
      "When one of several fails, the others are still copied. --resume goes on with an upload that was broken off: "
      "what the server has of it is not sent again.",
      {{.name = "SOURCE",
        .help = "local files or s3://BUCKET/KEY; the last word is the target",
        .many = true,
        .complete = EComplete::kFiles,
        .behind = " TARGET"}},
      WithTransferOptions({{"-r", nullptr, "folders with all that is in them"},
                           {"--resume", nullptr, "go on with uploads that were broken off"}}),
      {{"tansy cp cat.jpg s3://photos/2026/cat.jpg", "put a file under a name with slashes"},
       {"tansy cp *.jpg s3://photos/2026/", "several into a folder"},
       {"tansy cp -r pictures s3://photos/all", "a folder with all that is in it"},
       {"tansy cp -r s3://photos/2026 here", "a folder back"},
       {"tansy cp --resume film.mp4 s3://films/film.mp4", "in as many goes as it takes"},
       {"tansy cp s3://photos/a.jpg s3://backup/a.jpg", "on the server"}},
      details::RunCopy};
}

}  // namespace Tansy::Cli
