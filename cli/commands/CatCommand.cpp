#include "Commands.h"
#include "Download.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "ObjectVersion.h"
#include "Output.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunCat(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  const ObjectUrl url = ParseObjectUrl(call.Argument("URL"), settings);
  const ObjectVersion version = AskVersion(settings, url);
  Fetch(settings, url, {0, version.size}, version, PrintBytes);
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec CatCommand() {
  return {"",
          "cat",
          "write an object to standard output",
          "Writes the bytes of an object to standard output, and nothing else. They are all of one version: when the "
          "object "
          "is replaced meanwhile, the command fails.",
          {{.name = "URL", .help = "the object"}},
          {},
          {{"tansy cat /notes/todo.txt", "read it"}, {"tansy cat /backups/home.tgz | tar tz", "look into an archive"}},
          details::RunCat};
}

}  // namespace Tansy::Cli
