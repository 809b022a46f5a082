#include <algorithm>
#include <ctime>

#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "PictureLink.h"
#include "Settings.h"
#include "Signer.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunPicLink(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  std::string target = ParsePictureUrl(call.Argument("URL"), settings);
  // A link that carries a signature already gets a new one: the picture's address ends before the old signature.
  target.resize(std::min(target.size(), target.find("&AccessKeyId=")));
  if (target.find('?') == std::string::npos) {
    throw CFailure(kExitUsage, "\"" + Printable(target) + "\" is no picture URL", "give /pic?... in quotes");
  }
  const std::string link =
      PictureServer(settings).Url() +
      SignedPictureTarget(target, std::to_string(TansyBase::TimeUtil::Now()), settings.access_key, settings.secret_key);
  PrintLine(call.globals.json ? CJsonLine().Add("url", target).Add("link", link).Text() : link);
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec PicLinkCommand() {
  return {"pic",
          "link",
          "make a link that a browser can open",
          "Prints a link to a picture that carries its own signature. It is good for as long as the server keeps its "
          "keys. Nothing is sent.",
          {{.name = "URL", .help = "address that pic put printed"}},
          {},
          {{"tansy pic link '/pic?id=pc01...'", "a link to share"}},
          details::RunPicLink};
}

}  // namespace Tansy::Cli
