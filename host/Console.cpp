#include "Console.h"

#include <optional>

#include "ConsolePage.h"
#include "ConsolePlace.h"

namespace Tansy::Host {
namespace details {
namespace {

void AddHeaders(ConsoleAnswer& answer, const ConsolePlace& place) {
  answer.headers["Content-Security-Policy"] = ConsolePolicy(place);
  answer.headers["Referrer-Policy"] = "no-referrer";
  answer.headers["Cross-Origin-Opener-Policy"] = "same-origin";
}

}  // namespace
}  // namespace details

ConsoleAnswer CConsole::Answer(const ConsoleRequest& request) {
  const std::optional<ConsolePlace> place =
      FindConsolePlace(request.Header("Host"), request.is_secure, options_.s3_port, options_.s3_https_port);
  if (!place.has_value()) {
    return ConsoleFailure(400, "the Host header names no host");
  }
  constexpr std::string_view kApi = kApiFolder.substr(kFolder.size());
  ConsoleAnswer answer = request.path.starts_with(kApi) ? api_.Answer(request, request.path.substr(kApi.size()), *place)
                                                        : AnswerWithPage(request, ConsoleFiles());
  details::AddHeaders(answer, *place);
  return answer;
}

}  // namespace Tansy::Host
