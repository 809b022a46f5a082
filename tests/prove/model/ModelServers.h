// The servers of a run on the real program, and what they keep rows and bytes in.
#ifndef TANSY_TESTS_PROVE_MODEL_MODEL_SERVERS_H
#define TANSY_TESTS_PROVE_MODEL_MODEL_SERVERS_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Backend.h"
#include "Run.h"
#include "TansydServer.h"

namespace prove {

class CModelServers {
 public:
  // One server, or `nodes` that serve one catalogue, in this folder.
  CModelServers(const std::string& folder, TansydOptions tansyd, std::size_t nodes, EDatabase database,
                EStorage storage);

  // A whole run, and a look at the space that is left.
  RunResult Run(RunOptions& options) const;
  std::string GetLogs() const;

 private:
  std::unique_ptr<CBackend> backend_;
  std::vector<std::unique_ptr<CTansydServer>> servers_;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_MODEL_SERVERS_H
