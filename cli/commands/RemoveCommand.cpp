#include "Commands.h"
#include "Failure.h"
#include "ModuleClient.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "Parallel.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

std::string Remove(const CommandCall& call, Settings settings, const std::string& text) {
  const ObjectUrl url = ParseObjectUrl(text, settings);
  CloudStorage::CObjectClient client = MakeObjectClient(settings, url.bucket);
  if (!(call.Has("--bytes") ? client.RemoveObjectFileByUrl(url.Path()) : client.RemoveFileByUrl(url.Path()))) {
    throw FailureOfClient(client, settings.object_server.Url()).About(Printable(url.Path()));
  }
  if (call.globals.json) {
    return CJsonLine().Add("url", url.Path()).Add("removed", true).Text();
  }
  return call.globals.quiet ? "" : "removed " + Printable(url.Path());
}

int RunRemove(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  return ForEach(call.Arguments("URL"), [&](const std::string& text) { return Remove(call, settings, text); });
}

}  // namespace
}  // namespace details

CommandSpec RemoveCommand() {
  return {"",
          "rm",
          "remove objects",
          "Removes objects. Their bytes stay with the server until it tidies up; --bytes frees them at once.",
          {{.name = "URL", .help = "an object", .many = true}},
          {{"--bytes", nullptr, "free the stored bytes too"}},
          {{"tansy rm /photos/cat.jpg", "remove one object"},
           {"tansy rm --bytes /photos/a.jpg /photos/b.jpg", "remove two and free what they occupied"}},
          details::RunRemove};
}

}  // namespace Tansy::Cli
