#include "StorageServer/S3Server/S3ChunkDecoder.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr std::size_t kLongestLine = 1024;
constexpr std::size_t kLongestTrailer = std::size_t{8} * 1024;
constexpr std::string_view kChunkSignature = "chunk-signature=";
constexpr std::string_view kTrailerSignature = "x-amz-trailer-signature";

Failure BadFraming(std::string words) {
  return {EError::kInvalidRequest, "The body is not valid aws-chunked: " + std::move(words)};
}

Failure WrongChunkSignature(std::string string_to_sign, std::string_view provided) {
  Failure failure(EError::kSignatureDoesNotMatch,
                  "The signature of a chunk is not the one that the server makes of it.");
  failure.details.emplace_back("StringToSign", std::move(string_to_sign));
  failure.details.emplace_back("SignatureProvided", provided);
  return failure;
}

}  // namespace

CChunkDecoder::CChunkDecoder(Signed request, std::uint64_t length)
    : request_(std::move(request)), length_left_(length), before_(request_.signature) {}

Failure CChunkDecoder::Add(std::string_view bytes, const ByteSink& sink) {
  while (!bytes.empty()) {
    Failure failure;
    if (state_ == EState::kDone) {
      return BadFraming("bytes follow its end.");
    }
    if (state_ == EState::kData) {
      failure = TakeData(bytes, sink);
    } else if (TakeLine(bytes)) {
      failure = state_ == EState::kChunkHead ? TakeChunkHead()
                : state_ == EState::kDataEnd ? EndChunk()
                                             : TakeTrailerLine();
      line_.clear();
    } else if (line_.size() > kLongestLine) {
      failure = BadFraming("a line is too long.");
    }
    if (failure) {
      return failure;
    }
  }
  return {};
}

bool CChunkDecoder::TakeLine(std::string_view& bytes) {
  const std::size_t end = bytes.substr(0, kLongestLine + 1).find('\n');
  if (end == std::string_view::npos) {
    const std::size_t taken = std::min(bytes.size(), kLongestLine + 1);
    line_.append(bytes.substr(0, taken));
    bytes.remove_prefix(taken);
    return false;
  }
  line_.append(bytes.substr(0, end));
  bytes.remove_prefix(end + 1);
  if (line_.ends_with('\r')) {
    line_.pop_back();
  }
  return line_.size() <= kLongestLine;
}

// Reads "10000;chunk-signature=..." or, where chunks are not signed, "10000".
Failure CChunkDecoder::TakeChunkHead() {
  const std::string_view head = line_;
  const std::string_view digits = Trim(head.substr(0, head.find(';')));
  const auto [rest, error] = std::from_chars(digits.data(), digits.data() + digits.size(), chunk_left_, 16);
  if (digits.empty() || error != std::errc() || rest != digits.data() + digits.size()) {
    return BadFraming("a chunk does not begin with its length.");
  }
  if (chunk_left_ > length_left_) {
    return {EError::kIncompleteBody, "The body is longer than x-amz-decoded-content-length says."};
  }
  length_left_ -= chunk_left_;
  if (IsSigned()) {
    const std::size_t mark = head.find(kChunkSignature);
    announced_ = mark == std::string_view::npos ? "" : Trim(head.substr(mark + kChunkSignature.size()));
    if (announced_.empty()) {
      return BadFraming("a chunk has no signature.");
    }
  }
  is_last_chunk_ = chunk_left_ == 0;
  if (is_last_chunk_) {
    return EndChunk();
  }
  state_ = EState::kData;
  return {};
}

Failure CChunkDecoder::TakeData(std::string_view& bytes, const ByteSink& sink) {
  const std::string_view data =
      bytes.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(chunk_left_, bytes.size())));
  bytes.remove_prefix(data.size());
  chunk_left_ -= data.size();
  if (IsSigned()) {
    chunk_digest_.Add(data);
  }
  sink(data);
  if (chunk_left_ == 0) {
    state_ = EState::kDataEnd;
  }
  return {};
}

// The line end behind a chunk has come, or the head of the last chunk, which has no bytes.
Failure CChunkDecoder::EndChunk() {
  if (!is_last_chunk_ && !line_.empty()) {
    return BadFraming("a chunk is longer than it says.");
  }
  if (IsSigned()) {
    std::string to_sign = ChunkToSign(request_, before_, ToHex(chunk_digest_.Finish()));
    before_ = Sign(request_.signing_key, to_sign);
    if (!EqualInConstantTime(before_, announced_)) {
      return WrongChunkSignature(std::move(to_sign), announced_);
    }
  }
  state_ = is_last_chunk_ ? EState::kTrailer : EState::kChunkHead;
  return {};
}

Failure CChunkDecoder::TakeTrailerLine() {
  trailer_bytes_ += line_.size() + 1;
  if (trailer_bytes_ > kLongestTrailer) {
    return BadFraming("its trailer is too long.");
  }
  if (line_.empty()) {
    // Some clients put an empty line between the trailer and its signature too.
    const bool awaits_signature = request_.body_form == EBodyForm::kSignedChunksTrailer && !trailer_is_signed_;
    state_ = awaits_signature ? EState::kTrailer : EState::kDone;
    return {};
  }
  const std::string_view line = line_;
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || request_.body_form == EBodyForm::kSignedChunks || trailer_is_signed_) {
    return BadFraming("something else than a trailer follows the last chunk.");
  }
  const std::string name = ToLower(Trim(line.substr(0, colon)));
  const std::string_view value = Trim(line.substr(colon + 1));
  if (name == kTrailerSignature) {
    return CheckTrailerSignature(value);
  }
  trailer_text_.append(name).append(":").append(value).append("\n");
  trailer_.try_emplace(name, value);
  return {};
}

Failure CChunkDecoder::CheckTrailerSignature(std::string_view signature) {
  if (request_.body_form == EBodyForm::kSignedChunksTrailer) {
    std::string to_sign = TrailerToSign(request_, before_, ToHex(DigestOf(EDigest::kSha256, trailer_text_)));
    if (!EqualInConstantTime(Sign(request_.signing_key, to_sign), signature)) {
      return WrongChunkSignature(std::move(to_sign), signature);
    }
  }
  trailer_is_signed_ = true;
  return {};
}

}  // namespace Tansy::CloudStorage::S3
