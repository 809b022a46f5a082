#include "TansyNet/ServerConnectionBody.h"

#include <algorithm>
#include <utility>

namespace TansyNet {
namespace details {
namespace {

// Room is made in steps as large as what came so far, but not larger than the processor's cache likes: growing a string
// clears the new bytes.
constexpr std::size_t kSmallestStep = std::size_t{4} * 1024;
constexpr std::size_t kLargestStep = std::size_t{128} * 1024;
// Memory is asked for by this factor, so that hardly a byte is copied twice while the string moves.
constexpr std::size_t kGrowth = 8;

}  // namespace
}  // namespace details

void CBodyBuffer::Start(std::size_t length, std::string storage) {
  bytes_ = std::move(storage);
  used_ = 0;
  length_ = length;
  if (bytes_.size() > length) {
    bytes_.resize(length);
  }
}

std::span<char> CBodyBuffer::Space() {
  if (used_ == bytes_.size() && used_ < length_) {
    const std::size_t step = std::clamp(used_, details::kSmallestStep, details::kLargestStep);
    const std::size_t wanted = std::min(length_, used_ + step);
    if (wanted > bytes_.capacity()) {
      bytes_.reserve(std::min(length_, std::max(wanted, used_ * details::kGrowth)));
    }
    bytes_.resize(wanted);
  }
  return {bytes_.data() + used_, bytes_.size() - used_};
}

void CBodyBuffer::Consume(std::string_view& input) {
  while (!input.empty() && !IsComplete()) {
    const std::span<char> space = Space();
    const std::size_t taken = std::min(space.size(), input.size());
    std::copy_n(input.data(), taken, space.data());
    Commit(taken);
    input.remove_prefix(taken);
  }
}

std::string CBodyBuffer::Take() {
  bytes_.resize(used_);
  used_ = 0;
  length_ = 0;
  return std::move(bytes_);
}

std::shared_ptr<const std::string> CPieceStore::Share(std::string piece) {
  auto give_back = [store = weak_from_this()](std::string* text) {
    if (const auto target = store.lock()) {
      const std::scoped_lock lock(target->mutex_);
      target->spare_.swap(*text);
    }
    delete text;
  };
  auto* const text = new std::string(std::move(piece));
  return {text, std::move(give_back)};
}

std::string CPieceStore::TakeSpare() {
  const std::scoped_lock lock(mutex_);
  return std::exchange(spare_, {});
}

}  // namespace TansyNet
