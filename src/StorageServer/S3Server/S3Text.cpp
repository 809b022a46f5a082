#include "StorageServer/S3Server/S3Text.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <system_error>
#include <utility>

namespace Tansy::CloudStorage::S3 {

namespace {

// Returns -1 for what is no hexadecimal digit.
int DigitOf(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string DecodeQueryText(std::string_view text) {
  std::string blanks(text);
  std::replace(blanks.begin(), blanks.end(), '+', ' ');
  return PercentDecode(blanks);
}

}  // namespace

std::string NameOfKey(std::string_view key) {
  return PercentEncode(key);
}

bool IsHex(std::string_view text, std::size_t digits) {
  return text.size() == digits && std::all_of(text.begin(), text.end(), [](char c) { return DigitOf(c) >= 0; });
}

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool EqualInConstantTime(std::string_view left, std::string_view right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

std::string ToLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return lower;
}

bool ParseDecimal(std::string_view text, std::uint64_t& value) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  return !text.empty() && error == std::errc() && rest == end;
}

Query ParseQuery(std::string_view query) {
  Query parameters;
  while (!query.empty()) {
    const std::string_view piece = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(piece.size() + 1, query.size()));
    if (piece.empty()) {
      continue;
    }
    const std::size_t equals = piece.find('=');
    QueryParameter parameter;
    parameter.name = DecodeQueryText(piece.substr(0, equals));
    if (equals != std::string_view::npos) {
      parameter.value = DecodeQueryText(piece.substr(equals + 1));
    }
    parameters.push_back(std::move(parameter));
  }
  return parameters;
}

const std::string* FindParameter(const Query& query, std::string_view name) {
  const auto found = std::find_if(query.begin(), query.end(),
                                  [name](const QueryParameter& parameter) { return parameter.name == name; });
  return found != query.end() ? &found->value : nullptr;
}

std::string ParameterOrEmpty(const Query& query, std::string_view name) {
  const std::string* const value = FindParameter(query, name);
  return value != nullptr ? *value : std::string();
}

LowerHeaders LowerNames(const TansyNet::Headers& headers) {
  LowerHeaders lower;
  for (const auto& [name, value] : headers) {
    const auto [entry, is_new] = lower.try_emplace(ToLower(name), value);
    if (!is_new) {
      entry->second += "," + value;
    }
  }
  return lower;
}

const std::string& ValueOf(const LowerHeaders& headers, std::string_view lower_name) {
  static const std::string& none = *new std::string();
  const auto found = headers.find(lower_name);
  return found != headers.end() ? found->second : none;
}

}  // namespace Tansy::CloudStorage::S3
