#include "DatabaseUrl.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <iterator>
#include <string_view>

#include "TansyBase/StringUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kAdvice = "give sqlite:FILE or postgresql://USER@HOST:PORT/NAME";

// Decodes %41. Returns false for what is no such code, and for control characters.
bool Decode(std::string_view text, std::string& decoded) {
  const auto is_control = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
  return TansyBase::StringUtil::PercentDecode(text, decoded) &&
         std::none_of(decoded.begin(), decoded.end(), is_control);
}

// Cuts off what stands before the first `mark`. Returns false and cuts nothing when there is none.
bool CutBefore(std::string_view& text, char mark, std::string_view& before) {
  const auto at = text.find(mark);
  if (at == std::string_view::npos) {
    return false;
  }
  before = text.substr(0, at);
  text.remove_prefix(at + 1);
  return true;
}

bool ParsePort(std::string_view text, int& port) {
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, port);
  return error == std::errc{} && position == end && port >= 1 && port <= 65535;
}

bool ParseUser(std::string_view text, db_layer::DBParam& param) {
  std::string_view user;
  if (!CutBefore(text, ':', user)) {
    return Decode(text, param.user);
  }
  return Decode(user, param.user) && Decode(text, param.password);
}

bool ParseHost(std::string_view text, db_layer::DBParam& param) {
  if (text.starts_with("[")) {
    std::string_view address;
    text.remove_prefix(1);
    if (!CutBefore(text, ']', address)) {
      return false;
    }
    param.host = address;
    return text.empty() || (text.front() == ':' && ParsePort(text.substr(1), param.port));
  }
  std::string_view host;
  if (!CutBefore(text, ':', host)) {
    return Decode(text, param.host);
  }
  return Decode(host, param.host) && ParsePort(text, param.port);
}

// A password among the parameters is taken out, because the others may be shown.
bool ParseParameters(std::string_view text, db_layer::DBParam& param) {
  constexpr std::string_view kPassword = "password=";
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('&'), text.size());
    const std::string_view parameter = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    std::string decoded;
    if (parameter.find('=') == std::string_view::npos || !Decode(parameter, decoded)) {
      return false;
    }
    if (parameter.starts_with(kPassword)) {
      param.password = decoded.substr(kPassword.size());
    } else {
      param.database += (param.database.find('?') == std::string::npos ? "?" : "&") + std::string(parameter);
    }
  }
  return true;
}

bool ParseServer(std::string_view rest, db_layer::DBParam& param) {
  std::string_view parameters;
  if (const auto mark = rest.find('?'); mark != std::string_view::npos) {
    parameters = rest.substr(mark + 1);
    rest = rest.substr(0, mark);
  }
  std::string_view place;
  if (!CutBefore(rest, '/', place) || !Decode(rest, param.database) || param.database.empty() ||
      param.database.find_first_of("?/") != std::string::npos) {
    return false;
  }
  std::string_view user;
  const auto at = place.rfind('@');
  if (at != std::string_view::npos) {
    user = place.substr(0, at);
    place.remove_prefix(at + 1);
  }
  return ParseUser(user, param) && ParseHost(place, param) && ParseParameters(parameters, param);
}

std::string Encode(const std::string& text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    if (std::isalnum(code) != 0 || c == '-' || c == '_' || c == '.') {
      encoded += c;
    } else {
      encoded += '%';
      encoded += kDigits[code >> 4];
      encoded += kDigits[code & 15];
    }
  }
  return encoded;
}

void Overwrite(char* begin, std::size_t length) {
  std::fill_n(begin, length, 'x');
}

void HidePassword(char* argument) {
  char* const address = std::strstr(argument, "://");
  if (address == nullptr || std::strstr(argument, "postgres") == nullptr) {
    return;
  }
  char* const place = address + 3;
  char* const end = place + std::strcspn(place, "/?");
  char* const at = std::find(std::make_reverse_iterator(end), std::make_reverse_iterator(place), '@').base();
  char* const colon = std::find(place, at, ':');
  if (at != place && colon != at) {
    Overwrite(colon + 1, static_cast<std::size_t>(at - colon) - 2);
  }
  constexpr std::string_view kKeyword = "password=";
  for (char* found = std::strstr(end, "password="); found != nullptr; found = std::strstr(found, "password=")) {
    found += kKeyword.size();
    Overwrite(found, std::strcspn(found, "&"));
  }
}

}  // namespace
}  // namespace details

db_layer::DBParam SqliteParam(const std::string& file) {
  db_layer::DBParam param;
  param.type = db_layer::kSqlite;
  param.database = file;
  return param;
}

std::string ParseDatabaseUrl(const std::string& url, db_layer::DBParam& param) {
  param = {};
  const std::string_view text = url;
  constexpr std::string_view kSqlite = "sqlite:";
  if (text.starts_with(kSqlite)) {
    param.type = db_layer::kSqlite;
    param.database = text.substr(kSqlite.size());
    return param.database.empty() ? details::kAdvice : "";
  }
  for (const std::string_view scheme : {"postgresql://", "postgres://"}) {
    if (text.starts_with(scheme)) {
      param.type = db_layer::kPostgresql;
      return details::ParseServer(text.substr(scheme.size()), param) ? "" : details::kAdvice;
    }
  }
  return details::kAdvice;
}

std::string DatabaseUrlOf(const db_layer::DBParam& param) {
  if (param.type != db_layer::kPostgresql) {
    return "sqlite:" + param.database;
  }
  std::string url = "postgresql://" + details::Encode(param.user);
  url += param.password.empty() ? "" : ":" + details::Encode(param.password);
  url += param.user.empty() && param.password.empty() ? "" : "@";
  url += param.host.find(':') != std::string::npos ? "[" + param.host + "]" : details::Encode(param.host);
  url += param.port == 0 ? "" : ":" + std::to_string(param.port);
  const std::size_t parameters = std::min(param.database.find('?'), param.database.size());
  return url + "/" + details::Encode(param.database.substr(0, parameters)) + param.database.substr(parameters);
}

void HidePasswords(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    details::HidePassword(argv[i]);
  }
}

}  // namespace Tansy::Host
