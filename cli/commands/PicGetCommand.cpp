#include <memory>

#include "Commands.h"
#include "Failure.h"
#include "LocalFile.h"
#include "Output.h"
#include "PartialFile.h"
#include "PictureLink.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunPicGet(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  const std::string target = ParsePictureUrl(call.Argument("URL"), settings);
  CloudStorage::CPictureClient client = MakePictureClient(settings, "1");
  char* data = nullptr;
  std::uint32_t size = 0;
  if (!client.DownloadPicture(&data, size, target)) {
    throw FailureOfPictureClient(client, settings.picture_server).About(Printable(target));
  }
  const std::unique_ptr<char[]> owner(data);
  const std::string file = call.Argument("FILE").empty() ? "picture.jpg" : call.Argument("FILE");
  if (file == "-") {
    PrintBytes(data, size);
    return kExitDone;
  }
  CPartialFile partial(file);
  WriteTo(OpenForWriting(partial.Path()).get(), file, data, size);
  partial.Commit();
  if (call.globals.json) {
    PrintLine(CJsonLine().Add("url", target).Add("file", file).Add("size", std::uint64_t{size}).Text());
  } else if (!call.globals.quiet) {
    PrintLine(Printable(file));
  }
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec PicGetCommand() {
  return {"pic",
          "get",
          "download a picture",
          "Downloads a picture and prints the name of the local file. The file \"-\" is standard output.",
          {{.name = "URL", .help = "address that pic put printed"},
           {.name = "FILE",
            .help = "local file, or - for standard output [picture.jpg]",
            .required = false,
            .complete = EComplete::kFiles}},
          {},
          {{"tansy pic get '/pic?id=pc01...' cat.jpg", "download to cat.jpg"}},
          details::RunPicGet};
}

}  // namespace Tansy::Cli
