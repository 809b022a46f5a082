#include "TansyNet/server/BodyBuffer.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <new>
#include <utility>

namespace TansyNet {
namespace details {
namespace {

// Room is made in steps as large as what has come so far, because growing a string clears the new bytes; but a step is
// never larger than what stays in the processor's cache.
constexpr std::size_t kSmallestStep = std::size_t{4} * 1024;
constexpr std::size_t kLargestStep = std::size_t{128} * 1024;
// Memory is reserved by this factor, so that few bytes are copied twice while the string moves.
constexpr std::size_t kGrowth = 8;
// A body of which this much has come will probably come completely.
constexpr std::size_t kProof = std::size_t{64} * 1024;
// Larger bodies take so long that their memory's first use does not show.
constexpr std::size_t kLargestSpare = std::size_t{16} * 1024 * 1024;

}  // namespace
}  // namespace details

std::size_t MemoryOf(const std::string& bytes) {
  static const std::size_t own_room = std::string().capacity();
  return bytes.capacity() > own_room ? bytes.capacity() : 0;
}

std::shared_ptr<const std::string> ShareBytes(CountedBytes bytes) {
  struct Holder {
    explicit Holder(CountedBytes taken) : counted(std::move(taken)) {}
    ~Holder() { CSpareBodies::Process().Give(std::move(counted.bytes)); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    CountedBytes counted;
  };
  const auto holder = std::make_shared<Holder>(std::move(bytes));
  return {holder, &holder->counted.bytes};
}

// It is never destroyed, because bodies may outlive the end of main.
CSpareBodies& CSpareBodies::Process() noexcept {
  alignas(CSpareBodies) static std::byte room[sizeof(CSpareBodies)];
  static auto* const spares = new (room) CSpareBodies();
  return *spares;
}

std::string CSpareBodies::Take(std::size_t size) {
  const std::scoped_lock lock(mutex_);
  const auto fits = [size](const std::string& spare) { return spare.size() >= size && spare.capacity() / 2 <= size; };
  const auto found = std::find_if(spares_.rbegin(), spares_.rend(), fits);
  if (found == spares_.rend()) {
    return {};
  }
  std::string spare = std::move(*found);
  spares_.erase(std::next(found).base());
  bytes_ -= spare.capacity();
  return spare;
}

void CSpareBodies::Give(std::string bytes) noexcept {
  const CMemoryAccount& account = CMemoryAccount::Process();
  const std::uint64_t most = account.Limit() / 32;
  if (bytes.size() < details::kProof || bytes.capacity() >= std::min<std::uint64_t>(most, details::kLargestSpare)) {
    return;
  }
  const std::uint64_t room = account.IsShort(MemoryUse::kWork) ? 0 : most - bytes.capacity();
  const std::scoped_lock lock(mutex_);
  // Those that came first make room.
  while (!spares_.empty() && (bytes_ > room || spares_.size() == kMost)) {
    bytes_ -= spares_.front().capacity();
    spares_.erase(spares_.begin());
  }
  if (room > 0) {
    bytes_ += bytes.capacity();
    spares_.push_back(std::move(bytes));
  }
}

void CSpareBodies::Clear() {
  const std::scoped_lock lock(mutex_);
  spares_.clear();
  bytes_ = 0;
}

void CBodyBuffer::Start(std::size_t length, MemoryUse use, CountedBytes storage) {
  memory_ = std::move(storage);
  memory_.share.ChangeUse(use);
  used_ = 0;
  length_ = length;
  if (memory_.bytes.size() > length) {
    memory_.bytes.resize(length);
  }
}

std::size_t CBodyBuffer::Demand() const {
  const std::size_t taken = MemoryOf(memory_.bytes);
  return used_ < details::kProof ? taken : std::max(taken, length_);
}

std::span<char> CBodyBuffer::Space() {
  std::string& bytes = memory_.bytes;
  if (used_ == bytes.size() && used_ < length_) {
    const std::size_t step = std::clamp(used_, details::kSmallestStep, details::kLargestStep);
    const std::size_t wanted = std::min(length_, used_ + step);
    if (wanted > bytes.capacity() && UseSpare()) {
      return {bytes.data() + used_, bytes.size() - used_};
    }
    if (wanted > bytes.capacity()) {
      // Until a body may go on in spare memory, it reserves no more than what it then has to copy.
      const std::size_t most = used_ < details::kProof ? details::kProof : length_;
      bytes.reserve(std::min(length_, std::max(wanted, std::min(used_ * details::kGrowth, most))));
    }
    bytes.resize(wanted);
  }
  return {bytes.data() + used_, bytes.size() - used_};
}

// Goes on in memory of an earlier body, all of whose bytes are there already. Only a body that really comes does.
// The memory may be larger than the body; where there is no room for that, the body does without.
bool CBodyBuffer::UseSpare() {
  std::string spare = used_ < details::kProof ? std::string() : CSpareBodies::Process().Take(length_);
  if (spare.empty() || !memory_.share.Resize(std::max<std::uint64_t>(memory_.share.Bytes(), spare.capacity()))) {
    return false;
  }
  std::copy_n(memory_.bytes.data(), used_, spare.data());
  spare.resize(length_);
  memory_.bytes.swap(spare);
  return true;
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

CountedBytes CBodyBuffer::Take() {
  memory_.bytes.resize(used_);
  used_ = 0;
  length_ = 0;
  return std::exchange(memory_, {});
}

CPieceStore::~CPieceStore() {
  CSpareBodies::Process().Give(std::move(spare_.bytes));
}

std::shared_ptr<const std::string> CPieceStore::Share(CountedBytes piece) {
  auto give_back = [store = weak_from_this()](CountedBytes* bytes) {
    if (const auto target = store.lock()) {
      const std::scoped_lock lock(target->mutex_);
      std::swap(target->spare_, *bytes);
    }
    CSpareBodies::Process().Give(std::move(bytes->bytes));
    delete bytes;
  };
  const std::shared_ptr<CountedBytes> holder(new CountedBytes(std::move(piece)), std::move(give_back));
  return {holder, &holder->bytes};
}

CountedBytes CPieceStore::TakeSpare() {
  const std::scoped_lock lock(mutex_);
  return std::exchange(spare_, {});
}

}  // namespace TansyNet
