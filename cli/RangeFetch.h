// Fetches a range of an object over connections that may break.
#ifndef TANSY_CLI_RANGE_FETCH_H
#define TANSY_CLI_RANGE_FETCH_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "ByteRange.h"
#include "Exchange.h"
#include "Failure.h"

namespace Tansy::Cli {

// Receives a piece of a download and its place in the object. Several threads call it at once, for different places.
using TakeBytesAt = std::function<void(const char* data, std::size_t size, std::uint64_t offset)>;

// Where the bytes come from.
struct RangeSource {
  // Makes one request for all of `rest`, which is not empty. May throw CFailure, when asking again is no use.
  std::function<LinkOutcome(ByteRange rest, const TakeBytes& take)> ask;
  // Says whether the rest may be asked for after a connection broke.
  std::function<bool()> may_be_asked_again;
  std::function<CFailure(const LinkOutcome& outcome)> failure_of;
};

// Asks until all bytes of the range have come: for the rest after each connection that broke, and while that may help.
// `stop` may be null; it ends the download when it becomes true. Throws CFailure.
void FetchRange(ByteRange range, const RangeSource& source, const std::atomic<bool>* stop, const TakeBytesAt& take);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_RANGE_FETCH_H
