#ifndef TANSY_HOST_CONSOLE_API_H
#define TANSY_HOST_CONSOLE_API_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ConsoleMessage.h"
#include "ConsolePlace.h"
#include "ConsoleSessions.h"
#include "Metrics.h"
#include "OnlineCheck.h"

namespace Tansy::Host {

// Where the answers of the console come from. The functions are called on any thread and must not wait.
struct ConsoleSources {
  FindConsoleKey find_key;
  std::string s3_region;
  std::function<MetricsSource()> figures;
  std::function<std::vector<std::pair<std::string, std::string>>()> settings;  // names and values, without secrets
  // Gives the last lines of the log whose number is above `number`, which becomes that of the last one.
  std::function<std::vector<std::string>(std::uint64_t& number)> log_lines;
  std::shared_ptr<COnlineCheck> check;  // null where the server cannot check itself
};

// What the console's page asks for: /console/api/... Everything is JSON, a failure is {"error": words}, and the words
// say what to do.
//
// Nobody but the page itself is answered: a request that a browser sends for another page is refused by its Origin and
// Sec-Fetch-Site headers, and one that changes something needs the session's X-CSRF-Token too.
//
// Threads: any.
class CConsoleApi {
 public:
  static constexpr std::size_t kLongestBody = std::size_t{64} * 1024;
  static constexpr std::size_t kMostLinks = 1000;  // that are signed at once

  explicit CConsoleApi(ConsoleSources sources);

  // `path` is what follows "/console/api/".
  ConsoleAnswer Answer(const ConsoleRequest& request, std::string_view path, const ConsolePlace& place);

 private:
  struct Call;
  struct Route;
  struct Routes;

  ConsoleAnswer Challenge(const Call& call);
  ConsoleAnswer SignIn(const Call& call);
  ConsoleAnswer ShowSession(const Call& call);
  ConsoleAnswer SignOut(const Call& call);
  ConsoleAnswer Sign(const Call& call);
  ConsoleAnswer ShowRequests(const Call& call);
  ConsoleAnswer ShowFigures(const Call& call);
  ConsoleAnswer ShowBuckets(const Call& call);
  ConsoleAnswer ShowSettings(const Call& call);
  ConsoleAnswer ShowLog(const Call& call);
  ConsoleAnswer StartCheck(const Call& call);
  ConsoleAnswer ShowCheck(const Call& call);

  const ConsoleSources sources_;
  CConsoleSessions sessions_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONSOLE_API_H
