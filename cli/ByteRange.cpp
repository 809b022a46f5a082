#include "ByteRange.h"

#include <algorithm>
#include <exception>
#include <mutex>

#include "Parallel.h"

namespace Tansy::Cli {

void ForEachRange(ByteRange whole, std::size_t threads,
                  const std::function<void(ByteRange piece, const std::atomic<bool>& stop)>& work) {
  const std::uint64_t size = whole.end - whole.begin;
  const std::uint64_t pieces = threads > 1 ? (size + kRangePiece - 1) / kRangePiece : 1;
  const std::uint64_t piece_size = pieces > 1 ? kRangePiece : size;
  std::atomic<std::uint64_t> next{0};
  std::atomic<bool> stop{false};
  std::mutex mutex;
  std::exception_ptr failure;  // guarded by mutex while the threads run
  RunOnThreads(static_cast<std::size_t>(std::min<std::uint64_t>(threads, pieces)), [&] {
    try {
      for (std::uint64_t number = next++; number < pieces && size > 0 && !stop; number = next++) {
        const std::uint64_t begin = whole.begin + number * piece_size;
        work({begin, std::min(begin + piece_size, whole.end)}, stop);
      }
    } catch (...) {
      const std::lock_guard lock(mutex);
      failure = failure != nullptr ? failure : std::current_exception();
      stop = true;
    }
  });
  if (failure != nullptr) {
    std::rethrow_exception(failure);
  }
}

}  // namespace Tansy::Cli
