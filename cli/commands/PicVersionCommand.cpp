#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "PictureLink.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunPicVersion(const CommandCall& call) {
  const auto json = RequestPictureInfo(UseSettings(call.globals), "/Quorvane/Version", "version");
  if (!json.Has("/MajorVersion")) {
    throw CFailure(kExitFailed, "version: there is none in the answer", "is this a picture server?");
  }
  const std::string version = json.GetString("/MajorVersion") + "." + json.GetString("/MinorVersion") + "." +
                              json.GetString("/RevisionVersion");
  PrintLine(call.globals.json ? CJsonLine().Add("version", version).Text() : Printable(version));
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec PicVersionCommand() {
  return {"pic",
          "version",
          "tell the version of the picture protocol",
          "Prints the version of the picture protocol that the server speaks.",
          {},
          {},
          {{"tansy pic version", "print it"}},
          details::RunPicVersion};
}

}  // namespace Tansy::Cli
