#include "StorageServer/S3Server/S3Signature.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "StorageServer/S3Server/S3Digest.h"
#include "TansyBase/HttpDate.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using TansyNet::S3Signing::kAlgorithm;
constexpr std::string_view kService = "s3";
constexpr std::string_view kScopeEnd = "aws4_request";
constexpr std::string_view kUnsignedPayload = "UNSIGNED-PAYLOAD";
constexpr std::string_view kSignatureParameter = "X-Amz-Signature";
constexpr std::time_t kClockWindow = 15 * 60;
constexpr std::uint64_t kLongestLink = std::uint64_t{7} * 24 * 3600;
constexpr std::size_t kDigestDigits = 64;

// The parts of a signature, wherever they stand.
struct Claim {
  std::string access_key;
  std::string date;  // of the scope
  std::string region;
  std::string service;
  std::string scope_end;
  std::vector<std::string> signed_headers;
  std::string signature;
  std::string timestamp;
  std::string payload;
  bool is_link = false;

  std::string Scope() const { return date + "/" + region + "/" + service + "/" + scope_end; }
};

Failure Malformed(const Claim& claim, std::string words) {
  return {claim.is_link ? EError::kAuthorizationQueryParametersError : EError::kAuthorizationHeaderMalformed,
          std::move(words)};
}

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

// Reads "ACCESSKEY/20130524/us-east-1/s3/aws4_request". An access key may hold slashes, so the end is cut off first.
bool ParseCredential(Claim& claim, std::string_view text) {
  for (std::string* const field : {&claim.scope_end, &claim.service, &claim.region, &claim.date}) {
    const std::size_t slash = text.rfind('/');
    if (slash == std::string_view::npos) {
      return false;
    }
    *field = text.substr(slash + 1);
    text = text.substr(0, slash);
  }
  claim.access_key = text;
  return true;
}

bool ParseSignedHeaders(Claim& claim, std::string_view text) {
  claim.signed_headers = Split(text, ';');
  return std::is_sorted(claim.signed_headers.begin(), claim.signed_headers.end()) &&
         std::find(claim.signed_headers.begin(), claim.signed_headers.end(), "host") != claim.signed_headers.end();
}

// Reads "AWS4-HMAC-SHA256 Credential=..., SignedHeaders=..., Signature=...". Some clients write no blank after a comma.
bool ParseAuthorizationHeader(Claim& claim, std::string_view value) {
  std::string credential;
  std::string signed_headers;
  for (const std::string& piece : Split(value.substr(kAlgorithm.size()), ',')) {
    const std::string_view part = Trim(piece);
    const std::size_t equals = part.find('=');
    if (equals == std::string_view::npos) {
      return false;
    }
    const std::string_view name = part.substr(0, equals);
    const std::string_view field = part.substr(equals + 1);
    if (name == "Credential") {
      credential = field;
    } else if (name == "SignedHeaders") {
      signed_headers = field;
    } else if (name == "Signature") {
      claim.signature = field;
    }
  }
  return !claim.signature.empty() && ParseCredential(claim, credential) && ParseSignedHeaders(claim, signed_headers);
}

std::string TimestampOf(std::time_t time) {
  std::string text = TansyBase::TimeUtil::TimeT2StrUTCDatetime(time);  // "2013-05-24 00:00:00"
  std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
  std::replace(text.begin(), text.end(), ' ', 'T');
  return text + "Z";
}

// Gives the time of a request that is signed in its header; it is empty when the request does not say it.
std::string HeaderTimestamp(const LowerHeaders& headers) {
  if (const std::string& timestamp = ValueOf(headers, "x-amz-date"); !timestamp.empty()) {
    return timestamp;
  }
  const std::time_t date = TansyBase::HttpDate::Parse(ValueOf(headers, "date"));
  return date >= 0 ? TimestampOf(date) : std::string();
}

Failure ReadHeaderClaim(Claim& claim, const RequestToSign& request) {
  const std::string& value = ValueOf(request.headers, "authorization");
  if (value.empty()) {
    return EError::kAccessDenied;
  }
  if (!value.starts_with(std::string(kAlgorithm) + " ")) {
    return {EError::kInvalidRequest, "The only way to sign a header is AWS4-HMAC-SHA256."};
  }
  if (!ParseAuthorizationHeader(claim, value)) {
    return Malformed(claim, "The Authorization header needs Credential, SignedHeaders with host, and Signature.");
  }
  claim.timestamp = HeaderTimestamp(request.headers);
  if (claim.timestamp.empty()) {
    return {EError::kAccessDenied, "A signed request needs a valid x-amz-date or Date header."};
  }
  claim.payload = ValueOf(request.headers, "x-amz-content-sha256");
  if (claim.payload.empty()) {
    return {EError::kInvalidRequest, "A signed request needs the header x-amz-content-sha256."};
  }
  return {};
}

Failure ReadLinkClaim(Claim& claim, const RequestToSign& request) {
  claim.is_link = true;
  if (ParameterOrEmpty(request.query, "X-Amz-Algorithm") != kAlgorithm) {
    return Malformed(claim, "X-Amz-Algorithm must be AWS4-HMAC-SHA256.");
  }
  claim.signature = ParameterOrEmpty(request.query, kSignatureParameter);
  claim.timestamp = ParameterOrEmpty(request.query, "X-Amz-Date");
  if (!ParseCredential(claim, ParameterOrEmpty(request.query, "X-Amz-Credential")) ||
      !ParseSignedHeaders(claim, ParameterOrEmpty(request.query, "X-Amz-SignedHeaders")) || claim.signature.empty()) {
    return Malformed(claim,
                     "A signed query needs X-Amz-Credential, X-Amz-SignedHeaders with host, and X-Amz-Signature.");
  }
  const std::string* const in_query = FindParameter(request.query, "X-Amz-Content-Sha256");
  const std::string& in_header = ValueOf(request.headers, "x-amz-content-sha256");
  claim.payload = in_query != nullptr ? *in_query : in_header;
  if (claim.payload.empty()) {
    claim.payload = kUnsignedPayload;
  }
  return {};
}

Failure CheckScope(const Claim& claim, const Identity& identity) {
  if (claim.service != kService || claim.scope_end != kScopeEnd) {
    return Malformed(claim, "The scope of the credential must end with s3/aws4_request.");
  }
  if (claim.date != claim.timestamp.substr(0, claim.date.size()) || claim.date.size() != 8) {
    return Malformed(claim, "The date of the credential is not that of the request.");
  }
  if (claim.region != identity.region) {
    Failure failure =
        Malformed(claim, "The region '" + claim.region + "' is wrong; expecting '" + identity.region + "'");
    failure.details.emplace_back("Region", identity.region);
    return failure;
  }
  if (identity.access_key.empty() || identity.secret_key.empty() || claim.access_key != identity.access_key) {
    return EError::kInvalidAccessKeyId;
  }
  return {};
}

Failure CheckLinkTime(const Claim& claim, const RequestToSign& request, std::time_t signed_at, std::time_t now) {
  std::uint64_t seconds = 0;
  if (!ParseDecimal(ParameterOrEmpty(request.query, "X-Amz-Expires"), seconds) || seconds < 1 ||
      seconds > kLongestLink) {
    return Malformed(claim, "X-Amz-Expires must be a number of seconds from 1 to 604800.");
  }
  if (signed_at > now + kClockWindow) {
    return {EError::kAccessDenied, "Request is not valid yet"};
  }
  if (now > signed_at + static_cast<std::time_t>(seconds)) {
    return {EError::kAccessDenied, "Request has expired"};
  }
  return {};
}

Failure CheckTime(const Claim& claim, const RequestToSign& request, std::time_t now) {
  const std::time_t signed_at = ParseTimestamp(claim.timestamp);
  if (signed_at < 0) {
    return Malformed(claim, "The time of the request must be written like 20130524T000000Z.");
  }
  if (claim.is_link) {
    return CheckLinkTime(claim, request, signed_at, now);
  }
  if (signed_at < now - kClockWindow || signed_at > now + kClockWindow) {
    Failure failure = EError::kRequestTimeTooSkewed;
    failure.details.emplace_back("RequestTime", claim.timestamp);
    failure.details.emplace_back("ServerTime", TimestampOf(now));
    return failure;
  }
  return {};
}

// A header of this protocol that nobody signed could have been put in by somebody on the way.
Failure CheckCoverage(const Claim& claim, const LowerHeaders& headers) {
  std::string missing;
  for (const auto& [name, value] : headers) {
    const bool must_be_signed = name.starts_with("x-amz-") && !(claim.is_link && name == "x-amz-content-sha256");
    if (must_be_signed && !std::binary_search(claim.signed_headers.begin(), claim.signed_headers.end(), name)) {
      missing += (missing.empty() ? "" : ", ") + name;
    }
  }
  if (missing.empty()) {
    return {};
  }
  Failure failure(EError::kAccessDenied, "There were headers present in the request which were not signed");
  failure.details.emplace_back("HeadersNotSigned", missing);
  return failure;
}

Failure ReadBodyForm(Signed& result, std::string_view payload) {
  constexpr std::array<std::pair<std::string_view, EBodyForm>, 4> kForms = {{
      {kUnsignedPayload, EBodyForm::kPlain},
      {"STREAMING-UNSIGNED-PAYLOAD-TRAILER", EBodyForm::kChunks},
      {"STREAMING-AWS4-HMAC-SHA256-PAYLOAD", EBodyForm::kSignedChunks},
      {"STREAMING-AWS4-HMAC-SHA256-PAYLOAD-TRAILER", EBodyForm::kSignedChunksTrailer},
  }};
  for (const auto& [name, form] : kForms) {
    if (name == payload) {
      result.body_form = form;
      return {};
    }
  }
  if (!IsHex(payload, kDigestDigits)) {
    return {EError::kInvalidArgument,
            "x-amz-content-sha256 must be UNSIGNED-PAYLOAD, a form of aws-chunked, or a SHA-256 digest."};
  }
  result.body_form = EBodyForm::kPlainWithDigest;
  result.digest = ToLower(payload);
  return {};
}

// Makes the key of a day once per thread and not for each request, because it takes four digests.
std::string KeptSigningKey(const std::string& secret_key, const std::string& date, const std::string& region) {
  struct Kept {
    std::string secret_key;
    std::string date;
    std::string region;
    std::string key;
  };
  thread_local Kept kept;
  if (kept.key.empty() || kept.secret_key != secret_key || kept.date != date || kept.region != region) {
    kept.key.clear();
    kept = {secret_key, date, region, SigningKey(secret_key, date, region)};
  }
  return kept.key;
}

Failure WrongSignature(const Claim& claim, std::string canonical_request, std::string string_to_sign) {
  Failure failure = EError::kSignatureDoesNotMatch;
  failure.details.emplace_back("AWSAccessKeyId", claim.access_key);
  failure.details.emplace_back("StringToSign", std::move(string_to_sign));
  failure.details.emplace_back("SignatureProvided", claim.signature);
  failure.details.emplace_back("CanonicalRequest", std::move(canonical_request));
  return failure;
}

}  // namespace

std::time_t ParseTimestamp(std::string_view text) {
  constexpr std::string_view kForm = "ddddddddTddddddZ";
  const auto fits = [](char c, char form) { return form == 'd' ? c >= '0' && c <= '9' : c == form; };
  if (text.size() != kForm.size() || !std::equal(text.begin(), text.end(), kForm.begin(), fits)) {
    return -1;
  }
  const auto number = [text](std::size_t begin, std::size_t digits) {
    int value = 0;
    for (const char c : text.substr(begin, digits)) {
      value = value * 10 + (c - '0');
    }
    return value;
  };
  const std::chrono::year_month_day day{std::chrono::year(number(0, 4)),
                                        std::chrono::month(static_cast<unsigned>(number(4, 2))),
                                        std::chrono::day(static_cast<unsigned>(number(6, 2)))};
  const int hour = number(9, 2);
  const int minute = number(11, 2);
  const int second = number(13, 2);
  if (!day.ok() || hour > 23 || minute > 59 || second > 60) {
    return -1;
  }
  const std::time_t days = std::chrono::sys_days(day).time_since_epoch().count();
  return days < 0 ? -1 : ((days * 24 + hour) * 60 + minute) * 60 + second;
}

std::string CanonicalRequest(const RequestToSign& request, const std::vector<std::string>& signed_headers,
                             std::string_view payload) {
  const std::string path = PercentDecode(request.path);
  TansyNet::S3Signing::SignedRequest covered{request.method, path, {}, {}, payload};
  for (const QueryParameter& parameter : request.query) {
    if (parameter.name != kSignatureParameter) {
      covered.query.emplace_back(parameter.name, parameter.value);
    }
  }
  covered.headers.reserve(signed_headers.size());
  for (const std::string& name : signed_headers) {
    covered.headers.emplace_back(name, ValueOf(request.headers, name));
  }
  return TansyNet::S3Signing::CanonicalRequest(covered);
}

std::string AccessKeyOfCredential(std::string_view credential) {
  Claim claim;
  return ParseCredential(claim, credential) ? claim.access_key : std::string();
}

std::string ClaimedAccessKey(const RequestToSign& request) {
  if (const std::string* const credential = FindParameter(request.query, "X-Amz-Credential")) {
    return AccessKeyOfCredential(*credential);
  }
  Claim claim;
  const std::string& value = ValueOf(request.headers, "authorization");
  const bool is_read = value.starts_with(std::string(kAlgorithm) + " ") && ParseAuthorizationHeader(claim, value);
  return is_read ? claim.access_key : std::string();
}

std::string ChunkToSign(const Signed& request, std::string_view before, std::string_view data_digest) {
  static const std::string& no_bytes = *new std::string(ToHex(DigestOf(EDigest::kSha256, "")));
  std::string text = "AWS4-HMAC-SHA256-PAYLOAD\n";
  text.append(request.timestamp).append("\n").append(request.scope).append("\n").append(before).append("\n");
  return text.append(no_bytes).append("\n").append(data_digest);
}

std::string TrailerToSign(const Signed& request, std::string_view before, std::string_view trailer_digest) {
  std::string text = "AWS4-HMAC-SHA256-TRAILER\n";
  text.append(request.timestamp).append("\n").append(request.scope).append("\n").append(before).append("\n");
  return text.append(trailer_digest);
}

Failure CheckSignature(Signed& result, const RequestToSign& request, const Identity& identity, std::time_t now) {
  Claim claim;
  const bool is_link = FindParameter(request.query, "X-Amz-Algorithm") != nullptr ||
                       FindParameter(request.query, kSignatureParameter) != nullptr;
  if (is_link && !ValueOf(request.headers, "authorization").empty()) {
    return {EError::kInvalidArgument, "A request has one signature: in its Authorization header or in its query."};
  }
  Failure failure = is_link ? ReadLinkClaim(claim, request) : ReadHeaderClaim(claim, request);
  if (!failure) {
    failure = CheckScope(claim, identity);
  }
  if (!failure) {
    failure = CheckTime(claim, request, now);
  }
  if (!failure) {
    failure = ReadBodyForm(result, claim.payload);
  }
  if (failure) {
    return failure;
  }
  result.timestamp = claim.timestamp;
  result.scope = claim.Scope();
  result.signing_key = KeptSigningKey(identity.secret_key, claim.date, claim.region);
  std::string canonical = CanonicalRequest(request, claim.signed_headers, claim.payload);
  std::string to_sign = StringToSign(result.timestamp, result.scope, canonical);
  result.signature = Sign(result.signing_key, to_sign);
  if (!EqualInConstantTime(result.signature, claim.signature)) {
    return WrongSignature(claim, std::move(canonical), std::move(to_sign));
  }
  return CheckCoverage(claim, request.headers);
}

Failure CheckSignedText(std::string_view text, std::string_view credential, std::string_view signature,
                        const Identity& identity) {
  Claim claim;
  claim.is_link = true;
  if (!ParseCredential(claim, credential)) {
    return Malformed(claim, "The credential must be KEY/DATE/REGION/s3/aws4_request.");
  }
  claim.timestamp = claim.date;
  if (Failure failure = CheckScope(claim, identity)) {
    return failure;
  }
  if (!EqualInConstantTime(Sign(SigningKey(identity.secret_key, claim.date, claim.region), text), signature)) {
    Failure failure = EError::kSignatureDoesNotMatch;
    failure.details.emplace_back("AWSAccessKeyId", claim.access_key);
    failure.details.emplace_back("StringToSign", text);
    failure.details.emplace_back("SignatureProvided", signature);
    return failure;
  }
  return {};
}

}  // namespace Tansy::CloudStorage::S3
