#include "Download.h"

#include <algorithm>
#include <charconv>

#include "Failure.h"
#include "Output.h"
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

// The link, URL and version must live as long as what this gives.
RangeSource SourceOf(const CServerLink& link, const ObjectUrl& url, const ObjectVersion& version) {
  const auto ask = [&](ByteRange rest, const TakeBytes& take) {
    LinkRequest request{.resource = url.Path()};
    if (rest.begin > 0 || rest.end < version.size) {
      request.range = std::to_string(rest.begin) + "-" + std::to_string(rest.end);
    }
    const std::uint64_t size = rest.end - rest.begin;
    return link.Stream(
        request, [&](const TansyNet::CHttpClientResponse& head) { CheckHead(head, version, size, url); }, take);
  };
  return {ask, [&] { return !version.tag.empty(); },
          [&](const LinkOutcome& outcome) { return link.FailureOf(outcome).About(Printable(url.Path())); }};
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
  FetchRange(range, details::SourceOf(link, url, version), nullptr,
             [&](const char* data, std::size_t size, std::uint64_t /*offset*/) { take(data, size); });
}

void FetchInPieces(const Settings& settings, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
                   CTeam& team, const TakeBytesAt& take) {
  const CServerLink link(settings);
  const RangeSource source = details::SourceOf(link, url, version);
  CTeam alone(1);
  ForEachRange(range, version.tag.empty() ? alone : team,
               [&](ByteRange piece, const std::atomic<bool>& stop) { FetchRange(piece, source, &stop, take); });
}

}  // namespace Tansy::Cli
