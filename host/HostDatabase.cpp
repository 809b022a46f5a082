#include "HostDatabase.h"

#include <cstdlib>

namespace Tansy::Host {

long long IHostDatabase::QueryNumber(const std::string& sql) {
  return std::strtoll(QueryText(sql).c_str(), nullptr, 10);
}

std::string IHostDatabase::QueryText(const std::string& sql) {
  std::string text;
  bool is_first = true;
  Query(sql, {"value"}, [&](const db_layer::IRow& row) {
    if (is_first) {
      text = row.GetText(0);
      is_first = false;
    }
  });
  return text;
}

std::string QuotedText(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted.append(c == '\'' ? 2 : 1, c);
  }
  return quoted + "'";
}

}  // namespace Tansy::Host
