#ifndef TANSY_HOST_KEY_SEAL_H
#define TANSY_HOST_KEY_SEAL_H

#include <optional>
#include <string>
#include <utility>

namespace Tansy::Host {

// Seals texts, so that the database, and copies of it, do not tell them: AES-256-GCM with a key in a file of its own,
// which only its owner may read. Whoever needs the texts elsewhere needs a copy of the file. Threads: any, for one
// object that does not change.
class CKeySeal {
 public:
  // Reads the file. Nothing when it is not there; `error` is set when it cannot be used.
  static std::optional<CKeySeal> Read(const std::string& path, std::string& error);
  // Makes the file, with a random key. Nothing when it cannot be written; `error` says why.
  static std::optional<CKeySeal> Make(const std::string& path, std::string& error);

  // `about` is not kept, but the text is given back only together with it. Throws std::bad_alloc.
  std::string Seal(const std::string& text, const std::string& about) const;
  // Nothing unless the text was sealed with this key and about this.
  std::optional<std::string> Open(const std::string& sealed, const std::string& about) const;

 private:
  explicit CKeySeal(std::string key) : key_(std::move(key)) {}

  std::string key_;  // 32 bytes
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_KEY_SEAL_H
