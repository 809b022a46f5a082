#include "TansyNet/MemoryAccount.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <new>
#include <numeric>
#include <utility>

namespace TansyNet {
namespace details {
namespace {

// The largest body that is received whole. One such body fits whatever the ceiling is, if the ceiling allows it at all.
constexpr std::uint64_t kLargestBody = std::uint64_t{64} << 20;

}  // namespace
}  // namespace details

CMemoryAccount& CMemoryAccount::Process() noexcept {
  alignas(CMemoryAccount) static std::byte room[sizeof(CMemoryAccount)];
  static auto* const account = new (room) CMemoryAccount();
  return *account;
}

void CMemoryAccount::SetLimit(std::uint64_t bytes) {
  const Lock lock(mutex_);
  limit_ = bytes;
  given_back_.notify_all();
}

std::uint64_t CMemoryAccount::Limit() const {
  const Lock lock(mutex_);
  return limit_;
}

std::uint64_t CMemoryAccount::Used() const {
  const Lock lock(mutex_);
  return Total();
}

std::uint64_t CMemoryAccount::Used(MemoryUse use) const {
  const Lock lock(mutex_);
  return UsedFor(use);
}

bool CMemoryAccount::CanEverTake(MemoryUse use, std::uint64_t bytes) const {
  const Lock lock(mutex_);
  return bytes <= PartOf(use);
}

void CMemoryAccount::BeginWait() {
  const Lock lock(mutex_);
  ++waiting_;
}

void CMemoryAccount::EndWait() {
  const Lock lock(mutex_);
  --waiting_;
}

bool CMemoryAccount::IsShort(MemoryUse use) const {
  const Lock lock(mutex_);
  return waiting_ > 0 || UsedFor(use) > PartOf(use) / 2 || Total() > limit_ / 4 * 3;
}

std::uint64_t CMemoryAccount::Total() const {
  return std::accumulate(used_.begin(), used_.end(), std::uint64_t{0});
}

std::uint64_t CMemoryAccount::PartOf(MemoryUse use) const {
  switch (use) {
    case MemoryUse::kArriving:
      return std::max(limit_ / 8, std::min(limit_ / 2, details::kLargestBody));
    case MemoryUse::kAnswers:
      return limit_ / 2;
    case MemoryUse::kWork:
      break;
  }
  return limit_;
}

bool CMemoryAccount::HasRoom(MemoryUse use, std::uint64_t bytes) const {
  return UsedFor(use) + bytes <= PartOf(use) && Total() + bytes <= limit_;
}

bool CMemoryAccount::TryTake(MemoryUse use, std::uint64_t bytes) {
  const Lock lock(mutex_);
  if (!HasRoom(use, bytes)) {
    return false;
  }
  UsedFor(use) += bytes;
  return true;
}

bool CMemoryAccount::TakeWithin(MemoryUse use, std::uint64_t bytes, std::uint32_t milliseconds) {
  Lock lock(mutex_);
  ++waiting_;
  const bool has_room = given_back_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                             [this, use, bytes] { return HasRoom(use, bytes); });
  --waiting_;
  if (has_room) {
    UsedFor(use) += bytes;
  }
  return has_room;
}

void CMemoryAccount::GiveBack(MemoryUse use, std::uint64_t bytes) {
  const Lock lock(mutex_);
  UsedFor(use) -= bytes;
  if (waiting_ > 0) {
    given_back_.notify_all();
  }
}

void CMemoryAccount::Move(MemoryUse from, MemoryUse to, std::uint64_t bytes) {
  const Lock lock(mutex_);
  UsedFor(from) -= bytes;
  UsedFor(to) += bytes;
  if (waiting_ > 0) {
    given_back_.notify_all();
  }
}

CMemoryShare::CMemoryShare(CMemoryShare&& other) noexcept : use_(other.use_), bytes_(std::exchange(other.bytes_, 0)) {}

CMemoryShare& CMemoryShare::operator=(CMemoryShare&& other) noexcept {
  std::swap(use_, other.use_);
  std::swap(bytes_, other.bytes_);
  return *this;
}

CMemoryShare::~CMemoryShare() {
  Resize(0);
}

bool CMemoryShare::Resize(std::uint64_t bytes) {
  CMemoryAccount& account = CMemoryAccount::Process();
  if (bytes > bytes_ && !account.TryTake(use_, bytes - bytes_)) {
    return false;
  }
  if (bytes < bytes_) {
    account.GiveBack(use_, bytes_ - bytes);
  }
  bytes_ = bytes;
  return true;
}

bool CMemoryShare::ResizeWithin(std::uint64_t bytes, std::uint32_t milliseconds) {
  if (Resize(bytes)) {
    return true;
  }
  if (!CMemoryAccount::Process().TakeWithin(use_, bytes - bytes_, milliseconds)) {
    return false;
  }
  bytes_ = bytes;
  return true;
}

void CMemoryShare::ChangeUse(MemoryUse use) {
  CMemoryAccount::Process().Move(std::exchange(use_, use), use, bytes_);
}

}  // namespace TansyNet
