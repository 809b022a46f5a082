#include "ConsoleMessage.h"

#include <algorithm>

#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualNames(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return Lower(x) == Lower(y); });
}

}  // namespace
}  // namespace details

std::string_view ConsoleRequest::Header(std::string_view name) const {
  const auto found = std::find_if(headers.begin(), headers.end(),
                                  [name](const auto& header) { return details::EqualNames(header.first, name); });
  return found == headers.end() ? std::string_view() : std::string_view(found->second);
}

ConsoleAnswer ConsoleFailure(int status, const std::string& words) {
  TansyProto::CRapidJsonProto json;
  json.SetString("/error", words);
  ConsoleAnswer answer;
  answer.status = status;
  answer.type = "application/json";
  answer.body = json.Serialize() + "\n";
  return answer;
}

}  // namespace Tansy::Host
