#include "TansyNet/MemoryAccount.h"

#include <utility>

namespace TansyNet {

CMemoryAccount& CMemoryAccount::Process() {
  static auto* const budget = [] {
    auto* const made = new CMemoryAccount();
    made->SetLimit(kDefaultLimit);
    return made;
  }();
  return *budget;
}

bool CMemoryAccount::TryTake(std::size_t bytes) {
  const std::uint64_t before = used_.fetch_add(bytes, std::memory_order_relaxed);
  if (before + bytes <= limit_.load(std::memory_order_relaxed)) {
    return true;
  }
  GiveBack(bytes);
  return false;
}

CMemoryShare::CMemoryShare(CMemoryShare&& other) noexcept : bytes_(std::exchange(other.bytes_, 0)) {}

CMemoryShare& CMemoryShare::operator=(CMemoryShare&& other) noexcept {
  std::swap(bytes_, other.bytes_);
  return *this;
}

CMemoryShare::~CMemoryShare() {
  CMemoryAccount::Process().GiveBack(bytes_);
}

bool CMemoryShare::Resize(std::size_t bytes) {
  CMemoryAccount& budget = CMemoryAccount::Process();
  if (bytes > bytes_ && !budget.TryTake(bytes - bytes_)) {
    return false;
  }
  if (bytes < bytes_) {
    budget.GiveBack(bytes_ - bytes);
  }
  bytes_ = bytes;
  return true;
}

}  // namespace TansyNet
