#include <algorithm>
#include <cstdint>
#include <string>

#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "S3Text.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Prints the entries of a listing while they come.
class CListPrinter {
 public:
  CListPrinter(const CommandCall& call, const S3Path& path)
      : call_(call), bucket_(path.bucket), cut_(FolderOfKey(path.key).size()) {}

  void Object(const RemoteObject& object) {
    ++count_;
    if (call_.globals.json) {
      PrintLine(CJsonLine()
                    .Add("url", S3Path{bucket_, object.key}.Name())
                    .Add("size", object.size)
                    .Add("modified", object.modified)
                    .Add("etag", object.tag)
                    .Text());
    } else {
      Line(ReadableTime(object.modified), std::to_string(object.size), object.key);
    }
  }

  void Folder(const std::string& prefix) {
    ++count_;
    if (call_.globals.json) {
      PrintLine(CJsonLine().Add("url", S3Path{bucket_, prefix}.Name()).Add("folder", true).Text());
    } else {
      Line("", "-", prefix);
    }
  }

  std::uint64_t Count() const { return count_; }

 private:
  // Names are those below the folder that was asked for; an object that stands for this folder has none left.
  void Line(const std::string& time, const std::string& size, const std::string& key) const {
    const std::string name = key.size() > cut_ ? Printable(key.substr(cut_)) : "./";
    const std::string columns = call_.Has("-l") ? Padded(time, 19, false) + "  " + Padded(size, 10, true) + "  " : "";
    PrintLine(columns + name);
  }

  static std::string Padded(const std::string& text, std::size_t width, bool right) {
    const std::string blanks(width - std::min(width, text.size()), ' ');
    return right ? blanks + text : text + blanks;
  }

  const CommandCall& call_;
  const std::string bucket_;
  const std::size_t cut_;
  std::uint64_t count_ = 0;
};

int ListAllBuckets(const CommandCall& call, const CS3Link& link) {
  for (const RemoteBucket& bucket : ListS3Buckets(link)) {
    if (call.globals.json) {
      PrintLine(CJsonLine().Add("url", S3Path{bucket.name, ""}.Url()).Add("created", bucket.created).Text());
    } else {
      PrintLine((call.Has("-l") ? ReadableTime(bucket.created) + "  " : "") + Printable(bucket.name));
    }
  }
  return kExitDone;
}

int RunList(const CommandCall& call) {
  const CS3Link link(UseSettings(call.globals));
  const std::string word = call.Argument("BUCKET[/PREFIX]");
  if (word.empty()) {
    return ListAllBuckets(call, link);
  }
  const S3Path path = ParseS3Path(word);
  CListPrinter printer(call, path);
  ListObjects(link, path, call.Has("-r") ? "" : "/",
              {.object = [&](const RemoteObject& object) { printer.Object(object); },
               .folder = [&](const std::string& prefix) { printer.Folder(prefix); }});
  if (printer.Count() == 0 && !path.key.empty()) {
    throw CFailure(kExitNotFound, Printable(path.Url()) + ": nothing has a name that begins so",
                   "'tansy ls " + Printable(path.bucket) + "' lists the whole bucket");
  }
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec ListCommand() {
  return {"",
          "ls",
          "list buckets, or the objects of a bucket",
          "Lists the buckets, or what is in a bucket: objects, and folders, whose names end with a slash. Behind the "
          "bucket comes the beginning of the names; a folder is given with its slash. Names are printed without the "
          "folder that was asked for.",
          {{.name = "BUCKET[/PREFIX]", .help = "what to list [the buckets]", .required = false}},
          {{"-l", nullptr, "time (UTC) and size of each too"}, {"-r", nullptr, "what is in folders too"}},
          {{"tansy ls", "list the buckets"},
           {"tansy ls photos", "what is at the top of a bucket"},
           {"tansy ls -l photos/2026/", "what is in a folder, with times and sizes"},
           {"tansy ls -r photos", "all objects"},
           {"tansy --json ls -r photos", "the same for a program: {\"url\": ..., \"size\": ..., ...}"}},
          details::RunList};
}

}  // namespace Tansy::Cli
