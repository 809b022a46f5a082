#include "Commands.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "Settings.h"
#include "Transfer.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunCat(const CommandCall& call) {
  Settings settings = UseSettings(call.globals);
  const ObjectUrl url = ParseObjectUrl(call.Argument("URL"), settings);
  FetchPieces(settings, url, {}, ObjectSize(settings, url), PrintBytes, [](std::uint64_t) {});
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec CatCommand() {
  return {"",
          "cat",
          "write an object to standard output",
          "Writes the bytes of an object to standard output, and nothing else.",
          {{.name = "URL", .help = "the object"}},
          {},
          {{"tansy cat /notes/todo.txt", "read it"}, {"tansy cat /backups/home.tgz | tar tz", "look into an archive"}},
          details::RunCat};
}

}  // namespace Tansy::Cli
