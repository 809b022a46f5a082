#ifndef TANSY_HOST_CONSOLE_SESSIONS_H
#define TANSY_HOST_CONSOLE_SESSIONS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "TryLimit.h"

namespace Tansy::Host {

// A key as the console needs it: what is signed with, and what it may do.
struct ConsoleKey {
  std::string name;
  std::string secret;
  bool may_write = true;
  std::vector<std::string> buckets;  // all of them when this is empty
  bool is_operator = false;          // may see how the server is run: settings, log, requests of others
};

// Finds a key by its name. It is called on any thread and must not wait.
using FindConsoleKey = std::function<std::optional<ConsoleKey>(const std::string& name)>;

// Somebody who has signed in.
struct ConsoleSession {
  ConsoleKey key;
  std::string csrf;          // what each request that changes something has to carry
  std::int64_t expires = 0;  // seconds since 1970, however much the session is used
};

// A try to sign in: the proof is the HMAC-SHA256, in lower-case digits, of "NONCE\nKEY" under the key's secret. The
// secret itself never comes here.
struct ConsoleSignIn {
  std::string key;
  std::string nonce;
  std::string proof;
  std::string address;  // who tries
};

// Who has signed in at the console, in memory: a restart ends all sessions. Memory is bounded whatever strangers send.
// Ages are measured by TimeUtil::Uptime. Threads: any.
class CConsoleSessions {
 public:
  static constexpr std::int64_t kNonceSeconds = 60;
  static constexpr std::int64_t kLongestSession = std::int64_t{12} * 3600;
  static constexpr std::int64_t kLongestPause = 3600;
  static constexpr std::size_t kMostSessions = 256;
  static constexpr std::size_t kMostSessionsOfKey = 16;
  static constexpr std::size_t kMostNonces = 4096;  // that were used and have not ended

  // Throws std::runtime_error when the system gives no random bytes, as MakeNonce and SignIn do.
  explicit CConsoleSessions(FindConsoleKey find_key);

  // Gives a text that counts for one try to sign in, for 60 seconds. Nothing is kept for it.
  std::string MakeNonce() const;

  struct Result {
    int status = 0;                // 200, 401, or 429 after too many tries
    std::int64_t retry_after = 0;  // seconds, with 429
    std::string token;             // names the session from now on; for its owner alone
    ConsoleSession session;
  };
  Result SignIn(const ConsoleSignIn& sign_in);

  // Gives the session of a token, unless it has ended: after 12 hours, after an hour in which nobody used it, or
  // because its key is not what it was. `is_use` says that a person does something, and not a page that looks by
  // itself.
  std::optional<ConsoleSession> Find(std::string_view token, bool is_use = true);
  void End(std::string_view token);

  std::size_t Count() const;

 private:
  struct Session {
    std::string key;
    std::string secret;  // that the key had
    std::string csrf;
    std::int64_t ends = 0;     // of Uptime
    std::int64_t used = 0;     // the same
    std::int64_t expires = 0;  // since 1970
  };

  bool UseNonce(const std::string& nonce);
  void MakeRoom(const std::string& key);
  void Keep(const std::string& token, Session session);

  const FindConsoleKey find_key_;
  const std::string nonce_key_;
  CTryLimit tries_;
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::map<std::string, Session> sessions_;          // by the digest of their token
  std::map<std::string, std::int64_t> used_nonces_;  // and when they end
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONSOLE_SESSIONS_H
