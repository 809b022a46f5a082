#include "MoveWork.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <thread>

#include "MoveFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kCopiers = 4;
constexpr std::chrono::seconds kBetweenLines{5};

std::string Amount(std::uint64_t bytes) {
  const char* const units[] = {"bytes", "KB", "MB", "GB", "TB"};
  auto number = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (number >= 1000 && unit < 4) {
    number /= 1000;
    ++unit;
  }
  std::string text = std::to_string(number);
  return text.substr(0, text.find('.') + (unit == 0 ? 0 : 2)) + " " + units[unit];
}

}  // namespace
}  // namespace details

CMoveWork::CMoveWork(const MoveOrder& wanted, MoveHost& of)
    : order(wanted),
      host(of),
      source(host.options.database, "move-source"),
      target(order, host.options),
      tables(FindMoveTables(source)),
      next_line_(Clock::now() + details::kBetweenLines) {}

void CMoveWork::ExpectGoingOn() const {
  if (host.is_stopping()) {
    throw CMoveFailure("stopped; the same command goes on with it");
  }
}

void CMoveWork::CountAll() {
  const auto rows = source.Query(
      "SELECT COUNT(*) AS objects, COALESCE(SUM(size), 0) AS bytes FROM platform.local_object", {"objects", "bytes"});
  totals.objects = std::strtoull(rows.front()[0].c_str(), nullptr, 10);
  totals.bytes = std::strtoull(rows.front()[1].c_str(), nullptr, 10);
  if (target.MovesBytes()) {
    From().ForEach(EContent::kPicture, [this](const StoredEntry& entry) {
      totals.pictures += entry.is_temporary ? 0 : 1;
      totals.picture_bytes += entry.is_temporary ? 0 : entry.size;
      return !host.is_stopping();
    });
  }
  Say(std::to_string(totals.objects) + " objects (" + details::Amount(totals.bytes) + ")" +
      (target.MovesBytes()
           ? ", " + std::to_string(totals.pictures) + " pictures (" + details::Amount(totals.picture_bytes) + ")"
           : ""));
}

void CMoveWork::SayHowFar() {
  const std::lock_guard lock(progress_mutex_);
  if (Clock::now() < next_line_) {
    return;
  }
  next_line_ = Clock::now() + details::kBetweenLines;
  Say(std::to_string(objects_) + " of " + std::to_string(totals.objects) + " objects, " + details::Amount(bytes_) +
      " of " + details::Amount(totals.bytes) + " looked at");
}

void CMoveWork::InParallel(std::size_t count, const std::function<void(std::size_t)>& work) const {
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::exception_ptr failure;
  const auto run = [&] {
    try {
      for (std::size_t i = next++; i < count; i = next++) {
        ExpectGoingOn();
        work(i);
      }
    } catch (...) {
      next = count;
      const std::lock_guard lock(mutex);
      failure = std::current_exception();
    }
  };
  std::vector<std::thread> threads;
  for (std::size_t i = 1; i < std::min(details::kCopiers, count); ++i) {
    threads.emplace_back(run);
  }
  run();
  for (std::thread& thread : threads) {
    thread.join();
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
}

}  // namespace Tansy::Host
