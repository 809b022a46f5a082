#include "StorageServer/S3Server/S3PostPolicy.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Common/Signature.h"
#include "TansyBase/Encrypt.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr std::string_view kFileNameMark = "${filename}";
constexpr std::size_t kMostConditions = 200;
// These need no condition.
constexpr std::array<std::string_view, 5> kFreeFields = {"awsaccesskeyid", "policy", "signature", "x-amz-signature",
                                                         "bucket"};

// Reads "2026-11-22T08:00:00.000Z"; -1 for anything else.
std::time_t ParseExpiration(const std::string& text) {
  std::string compact = text;
  if (const std::size_t dot = compact.find('.'); dot != std::string::npos) {
    const std::size_t end = compact.find_first_not_of("0123456789", dot + 1);
    compact.erase(dot, end == std::string::npos ? end : end - dot);
  }
  std::erase_if(compact, [](char c) { return c == '-' || c == ':'; });
  return ParseTimestamp(compact);
}

Failure Violated(const std::string& condition) {
  return {EError::kAccessDenied, "Invalid according to Policy: Policy Condition failed: " + condition};
}

// Compares a form with the conditions of its policy, and remembers which fields they name.
class CConditions {
 public:
  CConditions(const PostForm& form, const std::string& bucket) : form_(form), bucket_(bucket) {}

  Failure Check(const std::string& condition) {
    TansyProto::CRapidJsonProto document;
    if (!document.Parse("{\"c\":" + condition + "}")) {
      return Violated(condition);
    }
    const bool is_kept = condition.starts_with('[') ? IsListKept(document) : IsObjectKept(document, condition);
    return is_kept ? Failure() : Violated(condition);
  }

  Failure CheckThatAllAreNamed() const {
    for (const FormField& field : form_.fields) {
      const std::string name = ToLower(field.name);
      const bool is_free = std::find(kFreeFields.begin(), kFreeFields.end(), name) != kFreeFields.end();
      if (!is_free && !name.starts_with("x-ignore-") && std::find(named_.begin(), named_.end(), name) == named_.end()) {
        return {EError::kAccessDenied, "Invalid according to Policy: Extra input fields: " + field.name};
      }
    }
    return {};
  }

 private:
  std::string ValueOf(const std::string& lower_name) const {
    return lower_name == "bucket" ? bucket_ : form_.Field(lower_name);
  }

  // ["eq", "$key", "a"], ["starts-with", "$key", "a/"], ["content-length-range", 1, 100]
  bool IsListKept(const TansyProto::CRapidJsonProto& document) {
    const std::string how = ToLower(document.GetString("/c[1]"));
    if (how == "content-length-range") {
      const auto size = static_cast<std::int64_t>(form_.file.size());
      return size >= document.GetInt("/c[2]") && size <= document.GetInt("/c[3]") && document.GetInt("/c[2]") >= 0;
    }
    const std::string name = document.GetString("/c[2]");
    if (!name.starts_with('$') || !document.Has("/c[3]")) {
      return false;
    }
    const std::string lower = ToLower(std::string_view(name).substr(1));
    named_.push_back(lower);
    const std::string value = ValueOf(lower);
    const std::string wanted = document.GetString("/c[3]");
    return (how == "eq" && value == wanted) || (how == "starts-with" && value.starts_with(wanted));
  }

  // {"acl": "private"}
  bool IsObjectKept(const TansyProto::CRapidJsonProto& document, const std::string& condition) {
    const std::string member = condition.substr(std::min<std::size_t>(2, condition.size()),
                                                std::max<std::size_t>(condition.find('"', 2), 2) - 2);
    const std::string path = "/c/" + member;
    if (condition != "{\"" + member + "\":" + document.Serialize(path) + "}") {
      return false;  // it has not exactly one member
    }
    const std::string lower = ToLower(member);
    named_.push_back(lower);
    return document.GetString(path) == ValueOf(lower);
  }

  const PostForm& form_;
  const std::string& bucket_;
  std::vector<std::string> named_;
};

Failure CheckPolicySignature(const PostForm& form, const Identity& identity, bool v2) {
  const std::string& policy = form.Field("policy");
  if (policy.empty()) {
    return {EError::kAccessDenied, "A form needs a signed policy."};
  }
  if (!form.Field("x-amz-signature").empty()) {
    if (form.Field("x-amz-algorithm") != "AWS4-HMAC-SHA256") {
      return {EError::kInvalidArgument, "x-amz-algorithm must be AWS4-HMAC-SHA256."};
    }
    return CheckSignedText(policy, form.Field("x-amz-credential"), form.Field("x-amz-signature"), identity);
  }
  if (!v2 || form.Field("signature").empty()) {
    return {EError::kAccessDenied, "The policy of a form must be signed by version 4."};
  }
  if (identity.access_key.empty() || identity.secret_key.empty() ||
      form.Field("awsaccesskeyid") != identity.access_key) {
    return EError::kInvalidAccessKeyId;
  }
  const bool is_right = EqualInConstantTime(SignHmacSha1(policy, identity.secret_key), form.Field("signature"));
  return is_right ? Failure() : Failure(EError::kSignatureDoesNotMatch);
}

}  // namespace

const std::string& PostForm::Field(std::string_view lower_name) const {
  static const std::string& none = *new std::string();
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [lower_name](const FormField& field) { return ToLower(field.name) == lower_name; });
  return found != fields.end() ? found->value : none;
}

Failure ReadPostForm(PostForm& form, const std::vector<TansyNet::FormPart>& parts) {
  for (const TansyNet::FormPart& part : parts) {
    if (ToLower(part.name) == "file") {
      form.file = part.data;
      // Some browsers send the path on the user's machine.
      form.file_name = part.file_name.substr(part.file_name.find_last_of("/\\") + 1);
      const bool has_key = !form.Field("key").empty();
      return has_key ? Failure() : Failure(EError::kInvalidArgument, "A form needs a field named key before its file.");
    }
    form.fields.push_back({std::string(part.name), std::string(part.data)});
  }
  return {EError::kInvalidArgument, "A form needs exactly one file."};
}

std::string AccessKeyOfForm(const PostForm& form) {
  const bool is_v4 = !form.Field("x-amz-signature").empty();
  return is_v4 ? AccessKeyOfCredential(form.Field("x-amz-credential")) : form.Field("awsaccesskeyid");
}

Failure CheckPostPolicy(const PostForm& form, const std::string& bucket, const Identity& identity, bool v2,
                        std::time_t now) {
  if (Failure failure = CheckPolicySignature(form, identity, v2)) {
    return failure;
  }
  TansyProto::CRapidJsonProto policy;
  std::string text;
  if (!TansyBase::Encrypt::Base64Decode(form.Field("policy"), text) || !policy.Parse(text)) {
    return {EError::kInvalidArgument, "The policy is no JSON in Base64."};
  }
  const std::time_t expiration = ParseExpiration(policy.GetString("/expiration"));
  if (expiration < 0) {
    return {EError::kInvalidArgument, "The policy needs an expiration such as 2026-11-22T08:00:00Z."};
  }
  if (now > expiration) {
    return {EError::kAccessDenied, "Invalid according to Policy: Policy expired."};
  }
  CConditions conditions(form, bucket);
  for (std::size_t number = 1;; ++number) {
    const std::string condition = policy.Serialize("/conditions[" + std::to_string(number) + "]");
    if (condition.empty()) {
      return conditions.CheckThatAllAreNamed();
    }
    if (number > kMostConditions) {
      return {EError::kInvalidArgument, "The policy has too many conditions."};
    }
    if (Failure failure = conditions.Check(condition)) {
      return failure;
    }
  }
}

LowerHeaders HeadersOfForm(const PostForm& form) {
  LowerHeaders headers;
  for (const FormField& field : form.fields) {
    const std::string name = ToLower(field.name);
    headers.try_emplace(name == "acl" ? "x-amz-acl" : name, field.value);
  }
  return headers;
}

std::string KeyOfForm(const PostForm& form) {
  std::string key = form.Field("key");
  if (const std::size_t mark = key.find(kFileNameMark); mark != std::string::npos) {
    key.replace(mark, kFileNameMark.size(), form.file_name);
  }
  return key;
}

}  // namespace Tansy::CloudStorage::S3
