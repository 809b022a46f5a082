// Forms and the policies that allow them. Lines of fields ("name: value") follow one another up to an empty one, then
// the policy, which is signed here: a stranger can only change the fields, but a policy that was made by a program may
// be anything too.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Signature.h"
#include "Require.h"
#include "StorageServer/S3Server/S3PostPolicy.h"
#include "TansyBase/Encrypt.h"

namespace {

using namespace Tansy::CloudStorage::S3;

constexpr std::time_t kNow = 1793692800;          // 2026-11-03 08:00:00
constexpr std::time_t kEndOfTime = 253402300799;  // 9999-12-31 23:59:59
const Identity kIdentity = {"access-key", "secret-key", "us-east-1"};

std::string TakeLine(std::string_view& text) {
  const std::string line(text.substr(0, text.find('\n')));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

std::vector<FormField> TakeFields(std::string_view& text) {
  std::vector<FormField> fields;
  for (std::string line = TakeLine(text); !line.empty(); line = TakeLine(text)) {
    const std::size_t colon = std::min(line.find(": "), line.size());
    fields.push_back({line.substr(0, colon), line.substr(std::min(colon + 2, line.size()))});
  }
  return fields;
}

// Signs by version 4, as the one who made the form.
PostForm Sign(std::vector<FormField> fields, const std::string& policy, std::string_view file) {
  const std::string encoded = TansyBase::Encrypt::Base64Encode(policy);
  PostForm form;
  form.fields = std::move(fields);
  form.fields.push_back({"policy", encoded});
  form.fields.push_back({"x-amz-algorithm", "AWS4-HMAC-SHA256"});
  form.fields.push_back({"x-amz-credential", "access-key/20261103/us-east-1/s3/aws4_request"});
  form.fields.push_back(
      {"x-amz-signature", Tansy::CloudStorage::S3::Sign(SigningKey("secret-key", "20261103", "us-east-1"), encoded)});
  form.file = file;
  form.file_name = "a.txt";
  return form;
}

bool IsAllowed(const PostForm& form, std::time_t now = kNow) {
  return !CheckPostPolicy(form, "bucket", kIdentity, true, now);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::vector<FormField> fields = TakeFields(text);
  const std::string policy(text);
  const PostForm form = Sign(fields, policy, "file");
  (void)KeyOfForm(form);
  (void)HeadersOfForm(form);
  if (!IsAllowed(form)) {
    return 0;
  }
  // What the policy does not name is not allowed, nothing is for ever, and it holds as it was signed.
  PostForm with_more = form;
  with_more.fields.push_back({"x-amz-meta-that-no-policy-of-the-corpus-names", "x"});
  Require(policy.find("that-no-policy") != std::string::npos || !IsAllowed(with_more));
  Require(!IsAllowed(form, kEndOfTime + 1));
  PostForm changed = form;
  for (FormField& field : changed.fields) {
    if (field.name == "policy") {
      field.value = TansyBase::Encrypt::Base64Encode(policy + " ");
    }
  }
  Require(form.Field("policy") == changed.Field("policy") || !IsAllowed(changed));
  return 0;
}
