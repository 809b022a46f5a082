#include "Commands.h"
#include "Failure.h"
#include "Output.h"
#include "PictureLink.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunPicPools(const CommandCall& call) {
  const auto json = RequestPictureInfo(UseSettings(call.globals), "/Quorvane/PoolList", "pools");
  std::vector<std::vector<std::string>> rows;
  for (std::size_t i = 1;; ++i) {
    const std::string path = "/List[" + std::to_string(i) + "]";
    if (!json.Has(path + "/PoolID")) {
      break;
    }
    const std::string id = json.GetString(path + "/PoolID");
    const std::string name = json.GetString(path + "/PoolName");
    if (call.globals.json) {
      PrintLine(CJsonLine()
                    .Add("id", id)
                    .Add("name", name)
                    .Add("size", json.GetInt(path + "/Size"))
                    .Add("free", json.GetInt(path + "/FreeSize"))
                    .Text());
    } else {
      rows.push_back({Printable(id), Printable(name)});
    }
  }
  PrintTable(rows);
  return kExitDone;
}

}  // namespace
}  // namespace details

CommandSpec PicPoolsCommand() {
  return {"pic", "pools", "list the picture server's pools",  "Lists the pools of the picture server: id and name.",
          {},    {},      {{"tansy pic pools", "list them"}}, details::RunPicPools};
}

}  // namespace Tansy::Cli
