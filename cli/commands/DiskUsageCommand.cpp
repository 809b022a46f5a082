#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

struct Usage {
  std::uint64_t bytes = 0;
  std::uint64_t objects = 0;
};

// Counts a bucket, or a part of it, by the folders right below the one that was asked for.
std::map<std::string, Usage> Count(const CS3Link& link, const S3Path& path, Usage& total) {
  std::map<std::string, Usage> folders;
  const std::size_t cut = FolderOfKey(path.key).size();
  ListObjects(link, path, "", {.object = [&](const RemoteObject& object) {
                const std::size_t slash = object.key.find('/', cut);
                if (slash != std::string::npos) {
                  Usage& folder = folders[object.key.substr(0, slash + 1)];
                  folder.bytes += object.size;
                  ++folder.objects;
                }
                total.bytes += object.size;
                ++total.objects;
              }});
  return folders;
}

std::vector<std::string> Row(const CommandCall& call, const S3Path& path, const Usage& usage) {
  const std::string bytes = call.Has("--bytes") ? std::to_string(usage.bytes) : FormatBytes(usage.bytes);
  return {bytes, std::to_string(usage.objects), Printable(path.Url())};
}

void PrintJson(const S3Path& path, const Usage& usage) {
  PrintLine(CJsonLine().Add("url", path.Url()).Add("size", usage.bytes).Add("objects", usage.objects).Text());
}

int RunDiskUsage(const CommandCall& call) {
  const CS3Link link(UseSettings(call.globals));
  const S3Path path = ParseS3Path(call.Argument("BUCKET[/PREFIX]"));
  Usage total;
  const std::map<std::string, Usage> folders = Count(link, path, total);
  std::vector<std::vector<std::string>> rows;
  for (const auto& [key, usage] : folders) {
    if (call.globals.json) {
      PrintJson({path.bucket, key}, usage);
    } else {
      rows.push_back(Row(call, {path.bucket, key}, usage));
    }
  }
  if (call.globals.json) {
    PrintJson(path, total);
  } else {
    rows.push_back(Row(call, path, total));
  }
  PrintTable(rows);
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec DiskUsageCommand() {
  return {"",
          "du",
          "tell how much a bucket holds",
          "Counts the bytes and the objects of a bucket, or of what begins with a name: a line for each folder right "
          "below, and the sum as the last line. A line has the bytes, the number of objects, and the name.",
          {{.name = "BUCKET[/PREFIX]", .help = "what to count"}},
          {{"--bytes", nullptr, "sizes as numbers of bytes"}},
          {{"tansy du photos", "how much each folder of the bucket holds"},
           {"tansy du --bytes photos/2026/", "the same of one folder, in bytes"}},
          details::RunDiskUsage};
}

}  // namespace Tansy::Cli
