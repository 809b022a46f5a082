// Bodies in aws-chunked. The first byte chooses how chunks are signed, the second how long the body should be, the
// third how the bytes are cut into pieces.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Require.h"
#include "StorageServer/S3Server/S3ChunkDecoder.h"

namespace {

using namespace Tansy::CloudStorage::S3;

struct Outcome {
  EError error = EError::kNone;
  bool is_complete = false;
  std::string bytes;
  LowerHeaders trailer;

  bool operator==(const Outcome&) const = default;
};

Signed RequestOf(std::uint8_t form) {
  constexpr std::array kForms = {EBodyForm::kChunks, EBodyForm::kSignedChunks, EBodyForm::kSignedChunksTrailer};
  return {kForms[form % kForms.size()],
          "",
          "20130524T000000Z",
          "20130524/us-east-1/s3/aws4_request",
          SigningKey("secret", "20130524", "us-east-1"),
          std::string(64, '0')};
}

Outcome Decode(const Signed& request, std::uint64_t length, std::string_view text, std::size_t piece) {
  CChunkDecoder decoder(request, length);
  Outcome outcome;
  while (!text.empty() && outcome.error == EError::kNone) {
    const std::string_view part = text.substr(0, piece);
    text.remove_prefix(part.size());
    outcome.error = decoder.Add(part, [&outcome](std::string_view bytes) { outcome.bytes += bytes; }).error;
  }
  outcome.is_complete = outcome.error == EError::kNone && decoder.IsComplete();
  if (outcome.is_complete) {
    outcome.trailer = decoder.Trailer();
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) {
    return 0;
  }
  const Signed request = RequestOf(data[0]);
  const std::uint64_t length = data[1];
  const std::string_view text(reinterpret_cast<const char*>(data) + 3, size - 3);
  const Outcome whole = Decode(request, length, text, std::string_view::npos);
  Require(whole.bytes.size() <= length);
  Require(whole.bytes.size() <= text.size());
  Require(whole.is_complete || whole.trailer.empty());
  // It makes no difference how the bytes come.
  Require(Decode(request, length, text, 1) == whole);
  Require(Decode(request, length, text, std::size_t{data[2]} + 1) == whole);
  // Once it is complete, every further byte is one too many.
  if (whole.is_complete) {
    Require(Decode(request, length, std::string(text) + "x", std::string_view::npos).error != EError::kNone);
  }
  return 0;
}
