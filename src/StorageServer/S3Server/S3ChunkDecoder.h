#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHUNK_DECODER_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHUNK_DECODER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Digest.h"
#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Signature.h"
#include "StorageServer/S3Server/S3Text.h"

namespace Tansy::CloudStorage::S3 {

// Takes the bytes of a body as they were meant, in order and in pieces of any size.
using ByteSink = std::function<void(std::string_view bytes)>;

// Decodes a body in aws-chunked, whose bytes come in pieces of any size, and checks the signatures of its chunks. It
// keeps the line that it reads and no bytes of chunks, so its memory is bounded whatever the client sends.
//
// The bytes of a chunk are handed on before its signature has come: whoever stores them must not make them visible
// before IsComplete. After a failure, nothing more may be added. One thread uses an object at a time.
class CChunkDecoder {
 public:
  // `length` is the number of bytes that the decoded body has, which clients announce. More of them are a failure at
  // the beginning of the chunk that brings them.
  CChunkDecoder(Signed request, std::uint64_t length);

  Failure Add(std::string_view bytes, const ByteSink& sink);
  // Says whether the last chunk and all that has to follow it have come.
  bool IsComplete() const { return state_ == EState::kDone; }
  // Gives the trailer's fields by lower-case name, once the body is complete. Those of a signed body are signed.
  const LowerHeaders& Trailer() const { return trailer_; }

 private:
  enum class EState { kChunkHead, kData, kDataEnd, kTrailer, kDone };

  bool IsSigned() const { return request_.body_form != EBodyForm::kChunks; }
  // Moves a line from `bytes` to line_, without its end. Returns false when the line has not come wholly.
  bool TakeLine(std::string_view& bytes);
  Failure TakeChunkHead();
  Failure TakeData(std::string_view& bytes, const ByteSink& sink);
  Failure TakeTrailerLine();
  Failure CheckTrailerSignature(std::string_view signature);
  Failure EndChunk();

  const Signed request_;
  std::uint64_t length_left_;
  EState state_ = EState::kChunkHead;
  std::string line_;
  std::uint64_t chunk_left_ = 0;
  bool is_last_chunk_ = false;
  std::string announced_;  // the signature in the head of the chunk that is being read
  std::string before_;     // the signature that the next one is made from
  CDigest chunk_digest_{EDigest::kSha256};
  std::size_t trailer_bytes_ = 0;
  bool trailer_is_signed_ = false;
  std::string trailer_text_;  // as it is signed
  LowerHeaders trailer_;
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHUNK_DECODER_H
