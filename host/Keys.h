#ifndef TANSY_HOST_KEYS_H
#define TANSY_HOST_KEYS_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KeySeal.h"
#include "TansyBase/SingleBaseThread.h"

namespace Tansy::Host {

struct AccessKeyRow;

// A further key of the S3 server, beside the server's own pair.
struct Key {
  std::string name;  // what people call it; no other key has it
  std::string access_key;
  std::string secret_key;
  std::vector<std::string> buckets;  // those that it may use; empty: all
  bool read_only = false;
  std::int64_t created = 0;  // seconds since 1970, as is the next one
  std::int64_t expires = 0;  // 0: never
};

// Why a key was not made or removed.
enum class EKeyProblem { kNone, kWrong, kThere, kMissing, kFailed };
struct KeyOutcome {
  EKeyProblem problem = EKeyProblem::kNone;
  std::string words;  // what to do about it
};

// The further keys: in the database, sealed, for all tansyd that share it, and in the S3 server of this process, which
// is told of each change at once. Changes that others make are found within seconds.
//
// Threads: any. What reads or writes the database may wait for it, so it is best run by Post.
class CKeys final : public TansyBase::CSingleBaseThread {
 public:
  // `seal_path` is the file with the key that seals; it is made together with the first key. `is_shared`: others may
  // change the keys too.
  CKeys(std::string seal_path, bool is_shared);
  ~CKeys() override;

  // Reads the keys and begins to look for changes of others. A failure is logged, and repaired as soon as possible.
  void Begin();
  // Runs this on the own thread, in order. What still waits when Stop comes, or is posted later, is forgotten. Returns
  // false, and forgets it too, while 100 others wait.
  [[nodiscard]] bool Post(std::function<void()> work);

  // `key` comes with name, buckets, read_only and expires, and gets the rest; the secret is never shown again.
  KeyOutcome Add(Key& key);
  KeyOutcome Remove(const std::string& name);
  // Gives the keys in the order of their names. Those that cannot be opened have no secret.
  std::vector<Key> List() const;
  // Finds a key that counts now; nothing for the server's own pair.
  std::optional<Key> Find(const std::string& access_key) const;

 protected:
  void OnTimer() override;

 private:
  std::function<void()> NextWork();  // null: there is none
  bool Load();
  void Publish() const;
  KeyOutcome Write(const Key& key);
  KeyOutcome KeepIfAllOpen(const std::string& name);
  std::vector<Key> Open(const std::vector<AccessKeyRow>& rows, std::string& problem);

  const std::string seal_path_;
  const bool is_shared_;

  std::mutex change_mutex_;       // held by whoever changes the keys, while it waits for the database too
  std::optional<CKeySeal> seal_;  // guarded by change_mutex_; as it was read or made last
  bool is_loaded_ = false;        // guarded by change_mutex_
  std::string last_problem_;      // guarded by change_mutex_; what the log says already

  mutable std::mutex mutex_;         // guards what follows
  std::map<std::string, Key> keys_;  // by name
  std::deque<std::function<void()>> work_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_KEYS_H
