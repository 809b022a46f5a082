#include "RunningRequests.h"

#include <algorithm>
#include <cstdint>

#include "TansyNet/HttpServer.h"
#include "TansyNet/Operation.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {

std::string RunningRequestsJson() {
  constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
  TansyProto::CRapidJsonProto json;
  const auto running = TansyNet::CHttpServer::RunningRequests();
  json.SetInt("/count", static_cast<std::int64_t>(running.size()));
  constexpr std::size_t kMost = 1000;
  for (std::size_t i = 0; i < std::min(running.size(), kMost); ++i) {
    const TansyNet::RunningRequest& request = running[i];
    const std::string at = "/requests[" + std::to_string(i + 1) + "]/";
    json.SetString(at + "request", request.line);
    json.SetString(at + "service", request.operation == nullptr ? "" : request.operation->Service());
    json.SetString(at + "operation", request.operation == nullptr ? "" : request.operation->Name());
    json.SetString(at + "phase", request.phase);
    json.SetString(at + "peer", request.ip);
    json.SetInt(at + "age_ms", request.nanoseconds / kNanosecondsPerMillisecond);
    json.SetInt(at + "bytes_in", static_cast<std::int64_t>(request.bytes_in));
  }
  return json.Serialize() + "\n";
}

}  // namespace Tansy::Host
