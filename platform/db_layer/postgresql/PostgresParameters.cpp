#include "db_layer/postgresql/PostgresParameters.h"

#include <algorithm>
#include <string_view>

#include "TansyBase/StringUtil.h"

namespace db_layer {

namespace details {
namespace {

// Decodes %41. Returns false for what is no code, and for a NUL byte.
bool Decode(std::string_view text, std::string& decoded) {
  return TansyBase::StringUtil::PercentDecode(text, decoded) && decoded.find('\0') == std::string::npos;
}

void AddIfGiven(const char* keyword, const std::string& value, PostgresParameters& parameters) {
  if (!value.empty()) {
    parameters[keyword] = value;
  }
}

// Takes one "keyword=value".
bool AddParameter(std::string_view text, PostgresParameters& parameters) {
  const auto equals = text.find('=');
  std::string keyword;
  std::string value;
  if (equals == std::string_view::npos || !Decode(text.substr(0, equals), keyword) || keyword.empty() ||
      !Decode(text.substr(equals + 1), value)) {
    return false;
  }
  parameters[keyword] = value;
  return true;
}

std::string Seconds(int milliseconds) {
  return std::to_string(std::max(2, (milliseconds + 999) / 1000));
}

}  // namespace
}  // namespace details

bool ReadPostgresParameters(const DBParam& param, PostgresParameters& parameters, std::string& error) {
  const std::size_t mark = param.database.find('?');
  details::AddIfGiven("host", param.host, parameters);
  details::AddIfGiven("port", param.port == 0 ? "" : std::to_string(param.port), parameters);
  details::AddIfGiven("user", param.user, parameters);
  details::AddIfGiven("password", param.password, parameters);
  details::AddIfGiven("dbname", param.database.substr(0, mark), parameters);
  std::string_view rest =
      mark == std::string::npos ? std::string_view() : std::string_view(param.database).substr(mark + 1);
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('&'), rest.size());
    if (!details::AddParameter(rest.substr(0, end), parameters)) {
      error = "the parameters behind the name of the database are not keyword=value";
      return false;
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return true;
}

void AddPostgresSettings(bool only_reads, bool full_durability, int timeout_ms, PostgresParameters& parameters) {
  // A server that answers at all does so soon, and whoever waits may have waited for a silent connection before.
  parameters.emplace("connect_timeout", details::Seconds(timeout_ms / 3));
  parameters.emplace("tcp_user_timeout", std::to_string(timeout_ms));
  parameters.emplace("keepalives_idle", "10");
  parameters.emplace("keepalives_interval", "5");
  parameters.emplace("keepalives_count", "3");
  parameters.emplace("fallback_application_name", "tansy");
  parameters["client_encoding"] = "SQL_ASCII";
  std::string& options = parameters["options"];
  // Names without a schema are nobody's, and texts mean what they say: a backslash is one.
  options += " -c search_path=pg_catalog -c standard_conforming_strings=on -c client_min_messages=error";
  // The server gives up before this side does, so that a statement nearly always gets an answer. A reader may take
  // long, as long as rows keep coming.
  options += " -c lock_timeout=" + std::to_string(timeout_ms / 3);
  options += " -c statement_timeout=" + std::to_string(only_reads ? 0 : timeout_ms / 2);
  options += " -c idle_in_transaction_session_timeout=" + std::to_string(2 * timeout_ms);
  if (only_reads) {
    options += " -c default_transaction_read_only=on";
  }
  if (!full_durability) {
    options += " -c synchronous_commit=off";
  }
}

}  // namespace db_layer
