#include "Commands.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "ObjectVersion.h"
#include "Output.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunStat(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  const ObjectUrl url = ParseObjectUrl(call.Argument("URL"), settings);
  const std::uint64_t size = AskVersion(settings, url).size;
  if (call.globals.json) {
    PrintLine(CJsonLine().Add("url", url.Path()).Add("size", size).Text());
  } else {
    PrintTable({{Printable(url.Path()), std::to_string(size)}});
  }
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec StatCommand() {
  return {"",
          "stat",
          "tell the size of an object",
          "Prints the URL of an object and its size in bytes.",
          {{.name = "URL", .help = "the object"}},
          {},
          {{"tansy stat /photos/cat.jpg", "its size"},
           {"tansy --json stat /photos/cat.jpg", "the same for a program: {\"url\": ..., \"size\": ...}"}},
          details::RunStat};
}

}  // namespace Tansy::Cli
