#include "db_layer/ConnectionPool.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "TansyBase/MessageLoop.h"

namespace db_layer {

namespace details {
namespace {

// Removes the password, because drivers pass on what a server said, and servers quote what they were sent.
std::string CleanError(std::string text, const std::string& password) {
  for (std::size_t at = 0; !password.empty() && (at = text.find(password, at)) != std::string::npos; at += 3) {
    text.replace(at, password.size(), "***");
  }
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
  return text;
}

}  // namespace
}  // namespace details

CConnectionPool::CConnectionPool(DBParam param, std::shared_ptr<IDriver> driver)
    : param_(std::move(param)), driver_(std::move(driver)) {}

bool CConnectionPool::Fill(std::string& error) {
  std::unique_lock lock(mutex_);
  while (!closed_ && open_ < CountWanted()) {
    Lease lease = OpenOne(lock, error);
    if (!lease.connection) {
      return false;
    }
    lock.unlock();
    Return(std::move(lease));
    lock.lock();
  }
  return !closed_;
}

CConnectionPool::Lease CConnectionPool::Take(std::chrono::milliseconds wait, std::string& error) {
  std::unique_lock lock(mutex_);
  const bool comes_first = queue_.empty() || holder_ == std::this_thread::get_id();
  const bool has_turn = (comes_first && HasRoom()) || WaitForTurn(lock, wait);
  if (closed_ || !has_turn) {
    error = closed_ ? "the module is not registered any more" : "all connections are in use";
    return {};
  }
  if (auto connection = TakeIdle()) {
    return {std::move(connection), generation_};
  }
  return OpenOne(lock, error);
}

bool CConnectionPool::HasRoom() const {
  return !IsHeldByAnother() && (!idle_.empty() || open_ < CountAllowed());
}

bool CConnectionPool::IsHeldByAnother() const {
  return holder_ != std::thread::id() && holder_ != std::this_thread::get_id();
}

// Returns false when the time is over, or the pool is closed.
bool CConnectionPool::WaitForTurn(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds wait) {
  const TansyBase::CBlockingScope blocking;  // those who have the connections wait for the disk, most likely
  const std::uint64_t ticket = next_ticket_++;
  queue_.push_back(ticket);
  const bool has_turn =
      changed_.wait_for(lock, wait, [this, ticket] { return closed_ || (queue_.front() == ticket && HasRoom()); });
  std::erase(queue_, ticket);
  // The next caller in line may get its turn now as well, for example because this one gave up.
  changed_.notify_all();
  return has_turn && !closed_;
}

// Takes an idle connection that still works. Broken ones are closed, which makes room.
std::unique_ptr<CConnect> CConnectionPool::TakeIdle() {
  while (!idle_.empty()) {
    auto connection = std::move(idle_.back().connection);
    idle_.pop_back();
    if (connection->IsHealthy()) {
      return connection;
    }
    --open_;
  }
  return nullptr;
}

// The connection is opened without the lock, because a database that is slow to answer must not delay those who give
// connections back.
CConnectionPool::Lease CConnectionPool::OpenOne(std::unique_lock<std::mutex>& lock, std::string& error) {
  const DBParam param = param_;
  const auto driver = driver_;
  const std::uint64_t generation = generation_;
  idle_.reserve(open_ + 1);
  ++open_;
  lock.unlock();
  Lease lease = Open(param, *driver, generation, error);
  lock.lock();
  if (!lease.connection) {
    --open_;
    changed_.notify_all();
  }
  return lease;
}

CConnectionPool::Lease CConnectionPool::Open(const DBParam& param, IDriver& driver, std::uint64_t generation,
                                             std::string& error) noexcept {
  Lease lease;
  lease.generation = generation;
  try {
    lease.connection = driver.Open(param, error);
    if (!lease.connection) {
      error = details::CleanError(std::move(error), param.password);
    }
  } catch (const std::exception&) {
    error = "out of memory";
  }
  return lease;
}

void CConnectionPool::Return(Lease lease) noexcept {
  const bool is_healthy = lease.connection->IsHealthy();
  {
    const std::lock_guard lock(mutex_);
    if (is_healthy && !closed_ && lease.generation == generation_) {
      idle_.push_back({std::move(lease.connection), Clock::now()});
      changed_.notify_all();
    }
  }
  CloseOne(std::move(lease.connection));
  while (auto unused = TakeUnused()) {
    CloseOne(std::move(unused));
  }
}

// Null closes nothing. A connection is closed before it is counted as gone, so that a caller who waits for the last one
// finds the database closed.
void CConnectionPool::CloseOne(std::unique_ptr<CConnect> connection) noexcept {
  if (!connection) {
    return;
  }
  connection.reset();
  const std::lock_guard lock(mutex_);
  --open_;
  changed_.notify_all();
}

std::unique_ptr<CConnect> CConnectionPool::TakeUnused() noexcept {
  const std::lock_guard lock(mutex_);
  const auto limit = Clock::now() - kKeepUnused;
  if (open_ <= CountWanted() || idle_.empty() || idle_.front().since >= limit) {
    return nullptr;
  }
  auto connection = std::move(idle_.front().connection);
  idle_.erase(idle_.begin());
  return connection;
}

std::size_t CConnectionPool::CountWaiting() const {
  const std::lock_guard lock(mutex_);
  return queue_.size();
}

DBParam CConnectionPool::GetParam() const {
  const std::lock_guard lock(mutex_);
  return param_;
}

void CConnectionPool::Reset(const DBParam& param, std::shared_ptr<IDriver> driver) {
  std::vector<Idle> old;
  DBParam fresh = param;
  {
    const std::lock_guard lock(mutex_);
    std::swap(param_, fresh);
    driver_ = std::move(driver);
    ++generation_;
    old.swap(idle_);
    open_ -= old.size();
    changed_.notify_all();
  }
}

bool CConnectionPool::Hold(std::chrono::milliseconds wait) {
  std::unique_lock lock(mutex_);
  holder_ = std::this_thread::get_id();
  if (changed_.wait_for(lock, wait, [this] { return open_ == idle_.size(); })) {
    return true;
  }
  holder_ = {};
  changed_.notify_all();
  return false;
}

void CConnectionPool::Release() {
  const std::lock_guard lock(mutex_);
  holder_ = {};
  changed_.notify_all();
}

void CConnectionPool::Close(std::chrono::milliseconds wait) noexcept {
  std::vector<Idle> idle;
  std::unique_lock lock(mutex_);
  closed_ = true;
  idle.swap(idle_);
  open_ -= idle.size();
  changed_.notify_all();
  lock.unlock();
  idle.clear();
  lock.lock();
  changed_.wait_for(lock, wait, [this] { return open_ == 0; });
}

std::size_t CConnectionPool::CountAllowed() const {
  return static_cast<std::size_t>(std::max(1, param_.max_connections));
}

std::size_t CConnectionPool::CountWanted() const {
  return std::min(CountAllowed(), static_cast<std::size_t>(std::max(1, param_.min_connections)));
}

}  // namespace db_layer
