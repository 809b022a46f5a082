#include "Commands.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "Parallel.h"
#include "ServerLink.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

std::string Remove(const CommandCall& call, const Settings& settings, const std::string& text) {
  const ObjectUrl url = ParseObjectUrl(text, settings);
  CServerLink(settings).Request(
      {.method = "DELETE", .resource = url.Path() + (call.Has("--bytes") ? "?deletefile" : "")}, Printable(url.Path()));
  if (call.globals.json) {
    return CJsonLine().Add("url", url.Path()).Add("removed", true).Text();
  }
  return call.globals.quiet ? "" : "removed " + Printable(url.Path());
}

int RunRemove(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  for (const std::string& text : call.Arguments("URL")) {
    ParseObjectUrl(text, settings);  // finds a word that is no URL before anything is removed
  }
  return ForEach(call.Arguments("URL"), [&](const std::string& text) { return Remove(call, settings, text); });
}

}  // namespace
}  // namespace details

CommandSpec RemoveCommand() {
  return {
      "",
      "rm",
      "remove objects",
      "Removes objects. Their bytes stay on the server's disk for as long as its option --keep-removed says, a week "
      "when nobody says otherwise; --bytes frees them at once.",
      {{.name = "URL", .help = "an object", .many = true}},
      {{"--bytes", nullptr, "free the stored bytes too"}},
      {{"tansy rm /photos/cat.jpg", "remove one object"},
       {"tansy rm --bytes /photos/a.jpg /photos/b.jpg", "remove two and free what they occupied"}},
      details::RunRemove};
}

}  // namespace Tansy::Cli
