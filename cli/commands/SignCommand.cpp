#include <algorithm>

#include "Commands.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "Settings.h"
#include "Signer.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunSign(const CommandCall& call) {
  Settings settings = UseSettings(call.globals);
  const ObjectUrl url = ParseObjectUrl(call.Argument("URL"), settings);
  const std::string link =
      settings.object_server.Url() + SignedObjectTarget(url.Path(), settings.access_key, settings.secret_key);
  // Keys are looked up as they arrive; a link that arrives rewritten names another object.
  const bool rewritten =
      std::any_of(link.begin(), link.end(), [](char c) { return static_cast<unsigned char>(c) > 0x7e; });
  if (rewritten && !call.globals.quiet) {
    PrintNote(
        "note: browsers rewrite the letters of this name that are not ASCII, and the server then refuses the link");
  }
  PrintLine(call.globals.json ? CJsonLine().Add("url", url.Path()).Add("link", link).Text() : link);
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec SignCommand() {
  return {"",
          "sign",
          "make a link that anybody can open",
          "Prints a link to an object that carries its own signature: a browser or curl opens it without keys. It is "
          "good for reading this object, and for as long as the server keeps its keys. Nothing is sent.",
          {{.name = "URL", .help = "the object"}},
          {},
          {{"tansy sign /photos/cat.jpg", "a link to share"},
           {"curl -o cat.jpg \"$(tansy sign /photos/cat.jpg)\"", "fetch it with another program"}},
          details::RunSign};
}

}  // namespace Tansy::Cli
