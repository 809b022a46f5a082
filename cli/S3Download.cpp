#include "S3Download.h"

#include <atomic>
#include <string>

#include "ByteRange.h"
#include "Failure.h"
#include "Persistence.h"
#include "S3Text.h"

namespace Tansy::Cli {
namespace details {
namespace {

CFailure Changed() {
  return {kExitFailed, "changed while it was read", "try again"};
}

bool IsOfAnotherVersion(const LinkOutcome& outcome) {
  return outcome.IsAnswered() && (outcome.answer.status == 412 || outcome.answer.status == 404);
}

// Fetches pieces of one object.
class CPieceGetter {
 public:
  CPieceGetter(const CS3Link& link, const S3Path& path, const RemoteObject& object, const TakeBytesAt& take)
      : link_(link), path_(path), object_(object), take_(take) {}

  void Get(ByteRange piece, const std::atomic<bool>& stop) const {
    CPersistence persistence(&stop);
    for (std::uint64_t at = piece.begin; at < piece.end;) {
      const std::uint64_t asked_at = at;
      const LinkOutcome outcome = GetOnce(at, piece.end);
      if (at == piece.end) {
        return;
      }
      if (IsOfAnotherVersion(outcome)) {
        throw Changed();
      }
      if (at > asked_at) {
        persistence.Forget();
      }
      if (!link_.IsReached() || !persistence.GoesOn(outcome)) {
        throw link_.FailureOf(outcome);
      }
    }
  }

 private:
  // Moves `at` forward by what has come.
  LinkOutcome GetOnce(std::uint64_t& at, std::uint64_t end) const {
    S3Request request{.path = path_, .headers = {{"if-match", "\"" + object_.tag + "\""}}};
    if (at > 0 || end < object_.size) {
      request.headers["range"] = "bytes=" + std::to_string(at) + "-" + std::to_string(end - 1);
    }
    const std::uint64_t expected = end - at;
    return link_.Stream(
        request,
        [&](const TansyNet::CHttpClientResponse& head) {
          if (head.content_length != expected) {
            throw Changed();
          }
        },
        [&](const char* data, std::size_t size) {
          take_(data, size, at);
          at += size;
        });
  }

  const CS3Link& link_;
  const S3Path& path_;
  const RemoteObject& object_;
  const TakeBytesAt& take_;
};

}  // namespace
}  // namespace details

std::optional<RemoteObject> FindS3Object(const CS3Link& link, const S3Path& path) {
  const LinkOutcome outcome = link.TryPatiently({.method = "HEAD", .path = path});
  if (outcome.IsAnswered() && outcome.answer.status == 404) {
    return std::nullopt;
  }
  if (!IsDone(outcome)) {
    throw link.FailureOf(outcome);
  }
  return RemoteObject{path.key, outcome.answer.content_length, WithoutQuotes(outcome.answer.GetHeader("ETag")),
                      outcome.answer.GetHeader("Last-Modified")};
}

void DownloadFromS3(const CS3Link& link, const S3Path& path, const RemoteObject& object, std::size_t getters,
                    const TakeBytesAt& take) {
  const details::CPieceGetter getter(link, path, object, take);
  ForEachRange({0, object.size}, getters,
               [&](ByteRange piece, const std::atomic<bool>& stop) { getter.Get(piece, stop); });
}

}  // namespace Tansy::Cli
