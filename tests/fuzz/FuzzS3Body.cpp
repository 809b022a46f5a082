// Bodies with the headers that say what they should be. The first byte chooses what the signature says about the body,
// the second how the bytes are cut into pieces; lines of headers follow up to an empty one, then the body.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Require.h"
#include "StorageServer/S3Server/S3Body.h"
#include "TansyBase/Encrypt.h"

namespace {

using namespace Tansy::CloudStorage::S3;

std::string TakeLine(std::string_view& text) {
  const std::string line(text.substr(0, text.find('\n')));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

LowerHeaders TakeHeaderLines(std::string_view& text) {
  LowerHeaders headers;
  for (std::string line = TakeLine(text); !line.empty(); line = TakeLine(text)) {
    const std::size_t colon = std::min(line.find(':'), line.size());
    headers[ToLower(line.substr(0, colon))] = Trim(std::string_view(line).substr(std::min(colon + 1, line.size())));
  }
  return headers;
}

Signed RequestOf(std::uint8_t form, std::string_view body) {
  constexpr std::array kForms = {EBodyForm::kPlain, EBodyForm::kPlainWithDigest, EBodyForm::kChunks,
                                 EBodyForm::kSignedChunks, EBodyForm::kSignedChunksTrailer};
  return {kForms[form % kForms.size()],
          ToHex(DigestOf(EDigest::kSha256, body.substr(0, form))),
          "20130524T000000Z",
          "20130524/us-east-1/s3/aws4_request",
          SigningKey("secret", "20130524", "us-east-1"),
          std::string(64, '0')};
}

struct Outcome {
  EError error = EError::kNone;
  std::string bytes;
  std::string md5;

  bool operator==(const Outcome&) const = default;
};

Outcome Receive(const Signed& request, const LowerHeaders& headers, std::string_view text, std::size_t piece) {
  CBody body;
  Outcome outcome;
  outcome.error = body.Begin(request, headers).error;
  while (!text.empty() && outcome.error == EError::kNone) {
    const std::string_view part = text.substr(0, piece);
    text.remove_prefix(part.size());
    outcome.error = body.Add(part, [&outcome](std::string_view bytes) { outcome.bytes += bytes; }).error;
  }
  if (outcome.error == EError::kNone) {
    outcome.error = body.End().error;
  }
  if (outcome.error == EError::kNone) {
    Require(body.Size() == outcome.bytes.size());
    outcome.md5 = body.Md5();
    if (const auto named = body.NamedChecksum()) {
      Require(named->value == TansyBase::Encrypt::Base64Encode(DigestOf(named->kind, outcome.bytes)));
    }
  }
  return outcome;
}

// Whatever a body that was taken says about itself is true.
void CheckClaims(const LowerHeaders& claims, const std::string& bytes) {
  for (const auto& [name, value] : claims) {
    if (const auto kind = ChecksumKind(name)) {
      Require(value == TansyBase::Encrypt::Base64Encode(DigestOf(*kind, bytes)));
    }
  }
}

LowerHeaders TrailerOf(const Signed& request, std::string_view text) {
  CChunkDecoder decoder(request, text.size());
  const Failure failure = decoder.Add(text, [](std::string_view) {});
  return failure ? LowerHeaders() : decoder.Trailer();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  std::string_view text(reinterpret_cast<const char*>(data) + 2, size - 2);
  const LowerHeaders headers = TakeHeaderLines(text);
  const Signed request = RequestOf(data[0], text);
  const Outcome whole = Receive(request, headers, text, std::string_view::npos);
  // It makes no difference how the bytes come.
  Require(Receive(request, headers, text, 1).error == whole.error);
  Require(Receive(request, headers, text, std::size_t{data[1]} + 1).error == whole.error);
  if (whole.error != EError::kNone) {
    return 0;
  }
  Require(whole.md5 == ToHex(DigestOf(EDigest::kMd5, whole.bytes)));
  CheckClaims(headers, whole.bytes);
  if (request.body_form != EBodyForm::kPlain && request.body_form != EBodyForm::kPlainWithDigest) {
    CheckClaims(TrailerOf(request, text), whole.bytes);
  }
  return 0;
}
