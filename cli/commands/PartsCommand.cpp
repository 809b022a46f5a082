#include "Commands.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "ServerLink.h"
#include "Settings.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunParts(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  const ObjectUrl url = ParseObjectUrl(call.Argument("URL"), settings);
  const std::string upload_id = call.Argument("UPLOAD-ID");
  if (upload_id.empty() || upload_id.find_first_of("&# ?") != std::string::npos) {
    throw CFailure(kExitUsage, "\"" + Printable(upload_id) + "\" is no upload id", "the server's log names them");
  }
  const CServerLink server(settings);
  const LinkOutcome outcome = server.Try({.resource = url.Path() + "?upload_id=" + upload_id});
  if (!outcome.IsDone()) {
    const CFailure failure = server.FailureOf(outcome).About("upload " + Printable(upload_id));
    throw CFailure(failure.GetExitCode(), failure.what(),
                   outcome.answer.status == 400 ? "is it this object's, and still unfinished?" : failure.GetAdvice());
  }
  TansyProto::CXmlProto xml;
  if (!xml.Parse(outcome.answer.body) || !xml.Has("/ListPartsResult")) {
    throw CFailure(kExitFailed, "upload " + Printable(upload_id) + ": the answer is no list of parts", "");
  }
  std::vector<std::vector<std::string>> rows;
  for (std::size_t i = 1;; ++i) {
    const std::string path = "/ListPartsResult/Part[" + std::to_string(i) + "]";
    if (!xml.Has(path)) {
      break;
    }
    const std::int64_t number = xml.GetInt(path + "/PartNumber");
    const std::int64_t size = xml.GetInt(path + "/PartSize");
    if (call.globals.json) {
      PrintLine(CJsonLine().Add("part", number).Add("size", size).Text());
    } else {
      rows.push_back({std::to_string(number), std::to_string(size)});
    }
  }
  PrintTable(rows);
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec PartsCommand() {
  return {"",
          "parts",
          "list the parts of an unfinished upload",
          "Lists the parts that the server has of an upload that is not finished: number and size in bytes.",
          {{.name = "URL", .help = "the object that is being uploaded"},
           {.name = "UPLOAD-ID", .help = "id that the server gave to the upload"}},
          {},
          {{"tansy parts /photos/film.mp4 0b7c9a0e-57c6-4c0e-9d0f-2f1f5d3a9f10", "its parts so far"}},
          details::RunParts};
}

}  // namespace Tansy::Cli
