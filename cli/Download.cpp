#include "Download.h"

#include <algorithm>
#include <charconv>

#include "Failure.h"
#include "Output.h"
#include "Persistence.h"
#include "ServerLink.h"

namespace Tansy::Cli {
namespace details {
namespace {

bool ParseNumber(const std::string& text, std::uint64_t& number) {
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, number);
  return error == std::errc{} && position == end;
}

[[noreturn]] void FailAsChanged(const ObjectUrl& url) {
  throw CFailure(kExitFailed, Printable(url.Path()) + ": changed while it was read", "try again");
}

// The answer must be of the version that was asked for, and have exactly the bytes that were asked for.
void CheckHead(const TansyNet::CHttpClientResponse& head, const ObjectVersion& version, std::uint64_t size,
               const ObjectUrl& url) {
  if (head.GetHeader("ETag") != version.tag || head.content_length != size) {
    FailAsChanged(url);
  }
}

}  // namespace
}  // namespace details

ByteRange ParseByteRange(const std::string& text) {
  ByteRange range;
  const std::size_t dash = text.find('-');
  const std::string end = dash == std::string::npos ? "" : text.substr(dash + 1);
  if (dash == std::string::npos || !details::ParseNumber(text.substr(0, dash), range.begin) ||
      !(end.empty() || (details::ParseNumber(end, range.end) && range.end > range.begin))) {
    throw CFailure(kExitUsage, "\"" + Printable(text) + "\" is no range",
                   "give A-B for the bytes from A up to, not including, B; or A- to the end");
  }
  return range;
}

ByteRange Within(ByteRange asked, std::uint64_t size, const ObjectUrl& url) {
  if (asked.begin > 0 && asked.begin >= size) {
    throw CFailure(kExitUsage, Printable(url.Path()) + ": has only " + std::to_string(size) + " bytes",
                   "give a range within them");
  }
  return {asked.begin, asked.end == 0 ? size : std::min(asked.end, size)};
}

void Fetch(const Settings& settings, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
           const TakeBytes& take) {
  const CServerLink link(settings);
  CPersistence persistence;
  // An empty range needs no request, and servers refuse to read an empty object.
  for (std::uint64_t at = range.begin; at < range.end;) {
    LinkRequest request{.resource = url.Path()};
    if (at > 0 || range.end < version.size) {
      request.range = std::to_string(at) + "-" + std::to_string(range.end);
    }
    const std::uint64_t asked_at = at;
    const LinkOutcome outcome = link.Stream(
        request,
        [&](const TansyNet::CHttpClientResponse& head) { details::CheckHead(head, version, range.end - at, url); },
        [&](const char* data, std::size_t size) {
          take(data, size);
          at += size;
        });
    if (outcome.IsDone()) {
      return;
    }
    if (at > asked_at) {
      persistence.Forget();
    }
    if (version.tag.empty() || !persistence.GoesOn(outcome)) {
      throw link.FailureOf(outcome).About(Printable(url.Path()));
    }
  }
}

void FetchInPieces(const Settings& settings, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
                   std::size_t getters, const TakeBytesAt& take) {
  ForEachRange(range, version.tag.empty() ? 1 : getters, [&](ByteRange piece, const std::atomic<bool>& stop) {
    std::uint64_t at = piece.begin;
    Fetch(settings, url, piece, version, [&](const char* data, std::size_t size) {
      if (stop) {
        throw CFailure(kExitFailed, Printable(url.Path()) + ": another piece of it has failed", "");
      }
      take(data, size, at);
      at += size;
    });
  });
}

}  // namespace Tansy::Cli
