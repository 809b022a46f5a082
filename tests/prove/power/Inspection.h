// Starts a server on what a power cut has left, and compares with what was promised.
#ifndef TANSY_TESTS_PROVE_POWER_INSPECTION_H
#define TANSY_TESTS_PROVE_POWER_INSPECTION_H

#include <cstdint>
#include <string>
#include <vector>

#include "Promises.h"
#include "support/Http.h"
#include "support/Tansyd.h"

namespace prove {

struct InspectionOptions {
  bool starts_twice = false;  // once more after the repair: that must have harmed nothing
};

// One server after another on one data folder. One thread.
class CInspection {
 public:
  // The data folder is GetDataFolder(); whoever calls fills it before each Run.
  explicit CInspection(const std::string& folder, const system_tests::Launch& launch = {});

  std::string GetDataFolder() const { return server_.Data(); }
  // Empties the data folder.
  void Clear();

  // Starts a server on the folder and looks at everything; a line per promise that was broken. Uploads that are still
  // open are completed, and new objects are written, as clients would.
  std::vector<std::string> Run(const Promises& promises, const InspectionOptions& options);
  // Starts a server in this way, looks without changing anything, and stops it.
  std::vector<std::string> RunUntilStopped(const Promises& promises, const system_tests::Launch& launch);
  // Looks at a server that runs already.
  static std::vector<std::string> Look(const system_tests::CTansyd& server, const Promises& promises);

  // What the servers have complained about since Clear.
  std::string GetErrors() const;

 private:
  bool Start(const system_tests::Launch& launch);
  void GoOn(const Promises& promises);
  void CompleteTasks(const Promises& promises);
  void WriteMore();
  void RepairSpace();
  void Expect(bool is_true, const std::string& line);
  system_tests::Reply Send(const std::string& method, const std::string& target, const std::string& body = "") const;

  const std::string folder_;
  const system_tests::Launch launch_;
  system_tests::CTansyd server_;
  std::vector<std::string> broken_;
  std::vector<std::pair<std::string, std::string>> written_;  // since the start: target and content
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_INSPECTION_H
