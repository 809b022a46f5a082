#include "RadosUrl.h"

#include <algorithm>
#include <string_view>

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::string_view kScheme = "rados://";

bool IsName(std::string_view text) {
  const auto is_allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  };
  return !text.empty() && text.size() <= 100 && std::all_of(text.begin(), text.end(), is_allowed);
}

bool IsPath(std::string_view text) {
  return !text.empty() && text.find('\0') == std::string_view::npos;
}

bool TakeParameter(std::string_view name, std::string_view value, RadosUrl& url) {
  if (name == "conf" && IsPath(value)) {
    url.conf = value;
  } else if (name == "id" && IsName(value)) {
    url.id = value;
  } else if (name == "namespace" && IsName(value)) {
    url.name_space = value;
  } else {
    return false;
  }
  return true;
}

}  // namespace
}  // namespace details

bool IsRadosUrl(const std::string& text) {
  return text.compare(0, details::kScheme.size(), details::kScheme) == 0;
}

bool ParseRadosUrl(const std::string& text, RadosUrl& url) {
  if (!IsRadosUrl(text)) {
    return false;
  }
  RadosUrl parsed;
  std::string_view rest = std::string_view(text).substr(details::kScheme.size());
  const std::size_t query = std::min(rest.find('?'), rest.size());
  parsed.pool = rest.substr(0, query);
  if (!details::IsName(parsed.pool)) {
    return false;
  }
  rest.remove_prefix(std::min(query + 1, rest.size()));
  while (!rest.empty()) {
    const std::string_view parameter = rest.substr(0, rest.find('&'));
    const std::size_t mark = parameter.find('=');
    if (mark == std::string_view::npos ||
        !details::TakeParameter(parameter.substr(0, mark), parameter.substr(mark + 1), parsed)) {
      return false;
    }
    rest.remove_prefix(std::min(parameter.size() + 1, rest.size()));
  }
  url = parsed;
  return true;
}

}  // namespace Tansy::Host
