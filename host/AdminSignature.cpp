#include "AdminSignature.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "TansyNet/S3Signing.h"

namespace Tansy::Host {
namespace details {
namespace {

namespace S3Signing = TansyNet::S3Signing;

constexpr std::time_t kClockWindow = 15 * 60;
constexpr std::size_t kDateDigits = 8;

// What the Authorization header says.
struct Claim {
  std::string access_key;
  std::string date;
  std::string region;
  std::vector<std::string> signed_headers;
  std::string signature;
};

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  for (;;) {
    const std::size_t end = text.find(separator);
    pieces.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) {
      return pieces;
    }
    text.remove_prefix(end + 1);
  }
}

std::string Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(' ');
  return begin == std::string_view::npos ? "" : std::string(text.substr(begin, text.find_last_not_of(' ') - begin + 1));
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

std::map<std::string, std::string> LowerNames(const TansyNet::Headers& headers) {
  std::map<std::string, std::string> lower;
  for (const auto& [name, value] : headers) {
    lower[Lower(name)] = value;
  }
  return lower;
}

// Reads "KEY/DATE/REGION/tansy-admin/aws4_request".
bool ReadCredential(Claim& claim, const std::string& text) {
  const std::vector<std::string> parts = Split(text, '/');
  if (parts.size() != 5 || parts[3] != S3Signing::kAdminService || parts[4] != "aws4_request") {
    return false;
  }
  claim.access_key = parts[0];
  claim.date = parts[1];
  claim.region = parts[2];
  return true;
}

// Reads "AWS4-HMAC-SHA256 Credential=..., SignedHeaders=..., Signature=...".
bool ReadClaim(Claim& claim, std::string_view value) {
  const std::string algorithm = std::string(S3Signing::kAlgorithm) + " ";
  if (!value.starts_with(algorithm)) {
    return false;
  }
  std::map<std::string, std::string> fields;
  for (const std::string& piece : Split(value.substr(algorithm.size()), ',')) {
    const std::string field = Trimmed(piece);
    const std::size_t equals = std::min(field.find('='), field.size());
    fields[field.substr(0, equals)] = field.substr(std::min(equals + 1, field.size()));
  }
  claim.signed_headers = Split(fields["SignedHeaders"], ';');
  claim.signature = fields["Signature"];
  return ReadCredential(claim, fields["Credential"]);
}

bool IsCovered(const Claim& claim, const char* header) {
  return std::find(claim.signed_headers.begin(), claim.signed_headers.end(), header) != claim.signed_headers.end();
}

// Reads "20130524T000000Z"; -1 for any other text.
std::time_t TimeOf(const std::string& timestamp) {
  constexpr std::string_view kForm = "ddddddddTddddddZ";
  const auto fits = [](char c, char form) { return form == 'd' ? c >= '0' && c <= '9' : c == form; };
  if (timestamp.size() != kForm.size() || !std::equal(timestamp.begin(), timestamp.end(), kForm.begin(), fits)) {
    return -1;
  }
  const auto number = [&timestamp](std::size_t at, std::size_t digits) {
    return std::atoi(timestamp.substr(at, digits).c_str());
  };
  const std::chrono::year_month_day day{std::chrono::year(number(0, 4)),
                                        std::chrono::month(static_cast<unsigned>(number(4, 2))),
                                        std::chrono::day(static_cast<unsigned>(number(6, 2)))};
  if (!day.ok()) {
    return -1;
  }
  const std::time_t days = std::chrono::sys_days(day).time_since_epoch().count();
  return ((days * 24 + number(9, 2)) * 60 + number(11, 2)) * 60 + number(13, 2);
}

bool IsOfNow(const std::string& timestamp, std::time_t now) {
  const std::time_t signed_at = TimeOf(timestamp);
  return signed_at >= now - kClockWindow && signed_at <= now + kClockWindow;
}

std::vector<S3Signing::NameValue> QueryOf(const std::string& query) {
  std::vector<S3Signing::NameValue> parameters;
  if (query.empty()) {
    return parameters;
  }
  for (const std::string& piece : Split(query, '&')) {
    const std::size_t equals = std::min(piece.find('='), piece.size());
    parameters.emplace_back(S3Signing::PercentDecode(piece.substr(0, equals)),
                            S3Signing::PercentDecode(piece.substr(std::min(equals + 1, piece.size()))));
  }
  return parameters;
}

// Gives the signature that the request should have.
std::string RightSignature(const TansyNet::HttpServerRecv& message, const Claim& claim,
                           std::map<std::string, std::string>& headers, const std::string& secret_key) {
  const std::string path = S3Signing::PercentDecode(message.url);
  S3Signing::SignedRequest covered{message.method, path, QueryOf(message.query), {}, headers["x-amz-content-sha256"]};
  for (const std::string& name : claim.signed_headers) {
    covered.headers.emplace_back(name, headers[name]);
  }
  const std::string scope = S3Signing::Scope(claim.date, claim.region, S3Signing::kAdminService);
  const std::string text = S3Signing::StringToSign(headers["x-amz-date"], scope, S3Signing::CanonicalRequest(covered));
  return S3Signing::Sign(S3Signing::SigningKey(secret_key, claim.date, claim.region, S3Signing::kAdminService), text);
}

std::string DigestOfBody(const TansyNet::HttpServerRecv& message) {
  return S3Signing::ToHex(S3Signing::Sha256(message.body == nullptr ? std::string_view() : *message.body));
}

// The time that it takes does not tell how much of the text was right.
bool IsEqual(const std::string& left, const std::string& right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

}  // namespace
}  // namespace details

bool IsSigned(const TansyNet::HttpServerRecv& message, const CredentialPair& keys, std::time_t now) {
  std::map<std::string, std::string> headers = details::LowerNames(message.headers);
  details::Claim claim;
  if (keys.access_key.empty() || keys.secret_key.empty() || !details::ReadClaim(claim, headers["authorization"]) ||
      claim.access_key != keys.access_key) {
    return false;
  }
  const std::string timestamp = headers["x-amz-date"];
  const bool is_covered = details::IsCovered(claim, "host") && details::IsCovered(claim, "x-amz-date") &&
                          details::IsCovered(claim, "x-amz-content-sha256");
  if (!is_covered || !details::IsOfNow(timestamp, now) || claim.date != timestamp.substr(0, details::kDateDigits)) {
    return false;
  }
  // The body comes last, so that nobody without the keys makes the server read a long one.
  return details::IsEqual(claim.signature, details::RightSignature(message, claim, headers, keys.secret_key)) &&
         headers["x-amz-content-sha256"] == details::DigestOfBody(message);
}

}  // namespace Tansy::Host
