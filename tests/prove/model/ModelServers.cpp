#include "ModelServers.h"

namespace prove {

CModelServers::CModelServers(const std::string& folder, TansydOptions tansyd, std::size_t nodes, EDatabase database,
                             EStorage storage)
    : backend_(std::make_unique<CBackend>(database, storage, folder + "/data", nodes > 1 ? folder + "/shared" : "")) {
  tansyd.arguments.insert(tansyd.arguments.end(), backend_->GetArguments().begin(), backend_->GetArguments().end());
  for (std::size_t node = 0; node < nodes; ++node) {
    tansyd.node = nodes > 1 ? std::string(1, static_cast<char>('a' + node)) : "";
    servers_.push_back(std::make_unique<CTansydServer>(folder, tansyd));
  }
}

RunResult CModelServers::Run(RunOptions& options) const {
  options.backend = backend_.get();
  if (servers_.size() > 1) {
    // Nodes give no other names to buckets, and a bucket with objects is not removed.
    options.features.buckets = false;
    options.features.nodes = true;
  }
  std::vector<CTansydServer*> servers;
  for (const auto& server : servers_) {
    servers.push_back(server.get());
  }
  RunResult result = RunModel({servers.begin(), servers.end()}, options);
  if (result.wrong.empty() && options.looks_at_space) {
    result.wrong = CheckSpace(servers, *backend_, result);
  }
  return result;
}

std::string CModelServers::GetLogs() const {
  std::string logs;
  for (const auto& server : servers_) {
    logs += server->GetTansyd().GetLog();
  }
  return logs;
}

}  // namespace prove
