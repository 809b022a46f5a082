#include "PrometheusText.h"

#include <array>
#include <cstdio>

namespace Tansy::Host {
namespace details {
namespace {

void AppendEscaped(std::string& text, std::string_view value) {
  for (const char c : value) {
    if (c == '\n') {
      text += "\\n";
      continue;
    }
    if (c == '"' || c == '\\') {
      text += '\\';
    }
    text += c;
  }
}

}  // namespace
}  // namespace details

void CPrometheusText::Family(std::string_view name, std::string_view type, std::string_view help) {
  name_ = name;
  text_.append("# HELP ").append(name).append(1, ' ').append(help).append(1, '\n');
  text_.append("# TYPE ").append(name).append(1, ' ').append(type).append(1, '\n');
}

void CPrometheusText::Begin(const Labels& labels, std::string_view suffix) {
  text_.append(name_).append(suffix);
  char before = '{';
  for (const auto& [name, value] : labels) {
    text_.append(1, before).append(name).append("=\"");
    details::AppendEscaped(text_, value);
    text_ += '"';
    before = ',';
  }
  text_ += labels.empty() ? " " : "} ";
}

void CPrometheusText::Sample(double value, const Labels& labels, std::string_view suffix) {
  Begin(labels, suffix);
  std::array<char, 32> digits{};
  std::snprintf(digits.data(), digits.size(), "%.9g\n", value);
  text_ += digits.data();
}

void CPrometheusText::Sample(std::uint64_t value, const Labels& labels, std::string_view suffix) {
  Begin(labels, suffix);
  text_ += std::to_string(value) + '\n';
}

}  // namespace Tansy::Host
