#include "RangeFetch.h"

#include "Persistence.h"

namespace Tansy::Cli {

void FetchRange(ByteRange range, const RangeSource& source, const std::atomic<bool>* stop, const TakeBytesAt& take) {
  CPersistence persistence(stop);
  std::uint64_t at = range.begin;
  const TakeBytes take_next = [&](const char* data, std::size_t size) {
    if (stop != nullptr && *stop) {
      throw CFailure(kExitFailed, "another piece of it has failed", "");
    }
    take(data, size, at);
    at += size;
  };
  while (at < range.end) {
    const std::uint64_t asked_at = at;
    const LinkOutcome outcome = source.ask({at, range.end}, take_next);
    if (at == range.end) {
      return;
    }
    if (at > asked_at) {
      persistence.Forget();
    }
    if (!source.may_be_asked_again() || !persistence.GoesOn(outcome)) {
      throw source.failure_of(outcome);
    }
  }
}

}  // namespace Tansy::Cli
