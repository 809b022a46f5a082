#include "S3Download.h"

#include <atomic>
#include <string>

#include "ByteRange.h"
#include "Failure.h"
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

// The link, path and object must live as long as what this gives.
RangeSource SourceOf(const CS3Link& link, const S3Path& path, const RemoteObject& object) {
  const auto ask = [&](ByteRange rest, const TakeBytes& take) {
    S3Request request{.path = path, .headers = {{"if-match", "\"" + object.tag + "\""}}};
    if (rest.begin > 0 || rest.end < object.size) {
      request.headers["range"] = "bytes=" + std::to_string(rest.begin) + "-" + std::to_string(rest.end - 1);
    }
    const std::uint64_t size = rest.end - rest.begin;
    LinkOutcome outcome = link.Stream(
        request,
        [&](const TansyNet::CHttpClientResponse& head) {
          if (head.content_length != size) {
            throw Changed();
          }
        },
        take);
    if (IsOfAnotherVersion(outcome)) {
      throw Changed();
    }
    return outcome;
  };
  return {ask, [&] { return link.IsReached(); }, [&](const LinkOutcome& outcome) { return link.FailureOf(outcome); }};
}

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

void DownloadFromS3(const CS3Link& link, const S3Path& path, const RemoteObject& object, CTeam& team,
                    const TakeBytesAt& take) {
  const RangeSource source = details::SourceOf(link, path, object);
  ForEachRange({0, object.size}, team,
               [&](ByteRange piece, const std::atomic<bool>& stop) { FetchRange(piece, source, &stop, take); });
}

}  // namespace Tansy::Cli
