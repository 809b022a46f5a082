#include <cstdint>
#include <optional>
#include <string>

#include "ByteCount.h"
#include "Commands.h"
#include "Failure.h"
#include "GlobPattern.h"
#include "Output.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

// What an object must be to be found.
struct Wanted {
  std::string name = "*";
  bool with_folders = false;  // the pattern is for the whole key, not for what follows its last slash
  std::optional<std::uint64_t> least;
  std::optional<std::uint64_t> most;

  bool Fits(const RemoteObject& object) const {
    const std::string subject = with_folders ? object.key : object.key.substr(FolderOfKey(object.key).size());
    return (!least || object.size >= *least) && (!most || object.size <= *most) && FitsPattern(subject, name);
  }
};

Wanted WantedBy(const CommandCall& call) {
  Wanted wanted;
  if (call.Has("--name")) {
    wanted.name = call.Option("--name");
    wanted.with_folders = wanted.name.find('/') != std::string::npos;
  }
  if (call.Has("--larger")) {
    wanted.least = ParseByteCount("--larger", call.Option("--larger"));
  }
  if (call.Has("--smaller")) {
    wanted.most = ParseByteCount("--smaller", call.Option("--smaller"));
  }
  return wanted;
}

int RunFind(const CommandCall& call) {
  const CS3Link link(UseSettings(call.globals));
  const S3Path path = ParseS3Path(call.Argument("BUCKET[/PREFIX]"));
  const Wanted wanted = WantedBy(call);
  ListObjects(link, path, "", {.object = [&](const RemoteObject& object) {
                if (!wanted.Fits(object)) {
                  return;
                }
                const S3Path found{path.bucket, object.key};
                PrintLine(call.globals.json ? CJsonLine()
                                                  .Add("url", found.Name())
                                                  .Add("size", object.size)
                                                  .Add("modified", object.modified)
                                                  .Add("etag", object.tag)
                                                  .Text()
                                            : Printable(found.Name()));
              }});
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec FindCommand() {
  return {"",
          "find",
          "find objects by name and size",
          "Prints the whole names of the objects of a bucket, or of what begins with a name, that fit all of the "
          "options. The commands that take a URL take these names too.",
          {{.name = "BUCKET[/PREFIX]", .help = "where to look"}},
          {{"--name", "PATTERN",
            "such as '*.jpg' for the part behind the last slash, or with a slash in it for the whole key"},
           {"--larger", "SIZE", "at least so many bytes, such as 500, 64K, 10M or 1G"},
           {"--smaller", "SIZE", "at most so many bytes"}},
          {{"tansy find photos --name '*.jpg'", "all pictures"},
           {"tansy find photos/2026/ --larger 10M", "what is large in a folder"},
           {"tansy find photos --name '2025/*/*.png'", "by folder too"}},
          details::RunFind};
}

}  // namespace Tansy::Cli
