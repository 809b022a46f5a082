#include <algorithm>
#include <cstdint>

#include "Commands.h"
#include "Duration.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "Settings.h"
#include "Signer.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunSign(const CommandCall& call) {
  const std::int64_t expires =
      call.Has("--expires") ? TansyBase::TimeUtil::Now() + ParseDuration(call.Option("--expires")) : 0;
  const Settings settings = UseSettings(call.globals);
  const ObjectUrl url = ParseObjectUrl(call.Argument("URL"), settings);
  const std::string link =
      settings.object_server.Url() + SignedObjectTarget(url.Path(), expires, settings.access_key, settings.secret_key);
  if (!call.globals.quiet && !call.globals.json) {
    PrintNote(expires == 0
                  ? "note: this link does not end while the server keeps its keys; --expires 7d makes one that does"
                  : "note: this link ends " + TansyBase::TimeUtil::TimeT2StrUTCDatetime(expires) + " UTC");
  }
  // The server looks keys up as they arrive, so a link that is rewritten on its way names another object.
  const bool rewritten =
      std::any_of(link.begin(), link.end(), [](char c) { return static_cast<unsigned char>(c) > 0x7e; });
  if (rewritten && !call.globals.quiet) {
    PrintNote(
        "note: browsers rewrite the letters of this name that are not ASCII, and the server then refuses the link");
  }
  PrintLine(call.globals.json ? CJsonLine().Add("url", url.Path()).Add("link", link).Add("expires", expires).Text()
                              : link);
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec SignCommand() {
  return {
      "",
      "sign",
      "make a link that anybody can open",
      "Prints a link to an object that carries its own signature: a browser or curl opens it without keys. It is "
      "good for reading this object. With --expires it ends after that time; without, it is good for as long as the "
      "server keeps its keys. Nothing is sent.",
      {{.name = "URL", .help = "the object"}},
      {{"--expires", "DURATION", "let the link end after a time such as 90s, 15m, 2h, 7d or 4w"}},
      {{"tansy sign --expires 7d /photos/cat.jpg", "a link to share for a week"},
       {"tansy sign /photos/cat.jpg", "one that does not end"},
       {"curl -o cat.jpg \"$(tansy sign /photos/cat.jpg)\"", "fetch it with another program"}},
      details::RunSign};
}

}  // namespace Tansy::Cli
