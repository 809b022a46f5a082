#include "StorageServer/ObjectServer/PackedAttributes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "Singleton.h"
#include "TansyBase/Encrypt.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage::details {

namespace {

// A packed text begins with a byte that says which of these it has; what they do not stand for follows them.
constexpr unsigned kHasDigest = 1;
constexpr unsigned kHasShared = 2;

constexpr std::size_t kDigestBytes = 16;
constexpr std::size_t kDigestLetters = 22;
constexpr std::string_view kPadding = "==";
constexpr std::string_view kTypeLine = "\n4:";
constexpr std::size_t kLongestShared = 128;

// Texts that many objects have. A text stays for ever, so there is an end to their number; clients that make up one for
// each object fill the table, and later texts stay with their objects.
class CSharedTexts : private TansyBase::CNoncopyable {
 public:
  static CSharedTexts& Instance() { return CSingleton<CSharedTexts>::Instance(); }

  // Gives nothing when there is no room for another text.
  std::optional<std::uint16_t> IndexOf(std::string_view text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = indices_.find(text);
    if (found != indices_.end()) {
      return found->second;
    }
    if (indices_.size() == texts_.size()) {
      return std::nullopt;
    }
    const auto index = static_cast<std::uint16_t>(indices_.size());
    texts_[index] = text;
    indices_.emplace(texts_[index], index);
    return index;
  }

  // Whoever has an index has it from after the text was there, and nobody changes the text.
  std::string_view TextOf(std::size_t index) const { return texts_.at(index); }

 private:
  friend class CSingleton<CSharedTexts>;
  CSharedTexts() = default;
  ~CSharedTexts() = default;

  std::mutex mutex_;  // held to add a text
  std::array<std::string, 1024> texts_;
  std::map<std::string_view, std::uint16_t> indices_;  // guarded by mutex_
};

// Gives 16 bytes, or nothing when the text is not written as this server writes digests.
std::string DigestOf(std::string_view letters) {
  std::string bytes;
  const bool is_digest = letters.size() == kDigestLetters &&
                         TansyBase::Encrypt::Base64Decode(std::string(letters).append(kPadding), bytes) &&
                         TansyBase::Encrypt::Base64Encode(bytes).starts_with(letters);
  return is_digest ? bytes : std::string();
}

std::string_view Take(std::string_view& packed, std::size_t size) {
  const std::string_view taken = packed.substr(0, size);
  packed.remove_prefix(taken.size());
  return taken;
}

}  // namespace

std::string PackAttributes(std::string_view text) {
  if (text.empty()) {
    return {};
  }
  std::string packed(1, '\0');
  unsigned has = 0;
  if (const std::string digest = DigestOf(text.substr(0, text.find('\n'))); !digest.empty()) {
    has |= kHasDigest;
    packed += digest;
    text.remove_prefix(kDigestLetters);
  }
  if (text.starts_with(kTypeLine)) {
    const std::string_view line = text.substr(0, text.find('\n', kTypeLine.size()));
    const std::optional<std::uint16_t> index =
        line.size() <= kLongestShared ? CSharedTexts::Instance().IndexOf(line) : std::nullopt;
    if (index) {
      has |= kHasShared;
      packed.append(1, static_cast<char>(*index >> 8)).append(1, static_cast<char>(*index & 0xff));
      text.remove_prefix(line.size());
    }
  }
  packed.front() = static_cast<char>(has);
  return packed.append(text);
}

std::string UnpackAttributes(std::string_view packed) {
  if (packed.empty()) {
    return {};
  }
  const auto has = static_cast<unsigned char>(Take(packed, 1).front());
  std::string text;
  if ((has & kHasDigest) != 0) {
    text = TansyBase::Encrypt::Base64Encode(Take(packed, kDigestBytes));
    text.resize(kDigestLetters);
  }
  if ((has & kHasShared) != 0) {
    const std::string_view index = Take(packed, 2);
    text += CSharedTexts::Instance().TextOf(static_cast<std::size_t>(static_cast<unsigned char>(index[0])) << 8 |
                                            static_cast<unsigned char>(index[1]));
  }
  return text.append(packed);
}

}  // namespace Tansy::CloudStorage::details
