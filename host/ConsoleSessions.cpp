#include "ConsoleSessions.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "TansyBase/TimeUtil.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyBase::TimeUtil;
using TansyNet::S3Signing::HmacSha256;
using TansyNet::S3Signing::Sha256;
using TansyNet::S3Signing::ToHex;

constexpr std::size_t kRandomBytes = 32;
constexpr std::size_t kTokenDigits = kRandomBytes * 2;
// People mistype; ten tries are enough for that. All together are limited too, because an attacker may have many
// addresses.
constexpr CTryLimit::Rule kTriesOfEach{10, 6000};
constexpr CTryLimit::Rule kTriesOfAll{200, 200};

std::string RandomBytes() {
  std::string bytes(kRandomBytes, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("the system's random generator gives nothing");
  }
  return bytes;
}

// The time that it takes does not tell how much of the text was right.
bool IsEqual(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace
}  // namespace details

CConsoleSessions::CConsoleSessions(FindConsoleKey find_key)
    : find_key_(std::move(find_key)),
      nonce_key_(details::RandomBytes()),
      tries_(details::kTriesOfEach, details::kTriesOfAll) {}

// The text carries its own end and a seal, so that whoever asks for a million of them takes no memory.
std::string CConsoleSessions::MakeNonce() const {
  const std::string text =
      details::ToHex(details::RandomBytes()) + "-" + std::to_string(details::TimeUtil::Uptime() + kNonceSeconds);
  return text + "-" + details::ToHex(details::HmacSha256(nonce_key_, text));
}

// Returns true for a text of MakeNonce the first time, before its end.
bool CConsoleSessions::UseNonce(const std::string& nonce) {
  const std::size_t seal = nonce.rfind('-');
  const std::size_t end = nonce.find('-');
  if (seal == std::string::npos || end == seal) {
    return false;
  }
  const std::string text = nonce.substr(0, seal);
  if (!details::IsEqual(nonce.substr(seal + 1), details::ToHex(details::HmacSha256(nonce_key_, text)))) {
    return false;
  }
  std::int64_t ends = 0;
  std::from_chars(text.data() + end + 1, text.data() + text.size(), ends);
  const std::int64_t now = details::TimeUtil::Uptime();
  const std::scoped_lock lock(mutex_);
  std::erase_if(used_nonces_, [now](const auto& used) { return used.second < now; });
  return now <= ends && used_nonces_.size() < kMostNonces && used_nonces_.emplace(text, ends).second;
}

CConsoleSessions::Result CConsoleSessions::SignIn(const ConsoleSignIn& sign_in) {
  Result result;
  result.retry_after = tries_.Take(sign_in.address);
  if (result.retry_after > 0) {
    result.status = 429;
    return result;
  }
  result.status = 401;
  if (!UseNonce(sign_in.nonce)) {
    return result;
  }
  // A name that is no key's takes as long as one that is.
  const std::optional<ConsoleKey> key = find_key_(sign_in.key);
  const std::string secret = key.has_value() ? key->secret : nonce_key_;
  const std::string right = details::ToHex(details::HmacSha256(secret, sign_in.nonce + "\n" + sign_in.key));
  if (!details::IsEqual(sign_in.proof, right) || !key.has_value()) {
    return result;
  }
  tries_.GiveBack(sign_in.address);
  result.status = 200;
  result.token = details::ToHex(details::RandomBytes());
  result.session = {*key, details::ToHex(details::RandomBytes()), details::TimeUtil::Now() + kLongestSession};
  const std::int64_t now = details::TimeUtil::Uptime();
  Keep(result.token, {key->name, key->secret, result.session.csrf, now + kLongestSession, now, result.session.expires});
  return result;
}

// When there is no room, the session goes that was not used for longest: one of the same key when it has any, so that
// nobody throws others out by signing in again and again.
void CConsoleSessions::MakeRoom(const std::string& key) {
  const auto is_own = [&key](const auto& session) { return session.second.key == key; };
  const auto own = static_cast<std::size_t>(std::count_if(sessions_.begin(), sessions_.end(), is_own));
  if (own < kMostSessionsOfKey && sessions_.size() < kMostSessions) {
    return;
  }
  const auto goes_before = [&](const auto& a, const auto& b) {
    return std::tuple(!is_own(a), a.second.used) < std::tuple(!is_own(b), b.second.used);
  };
  sessions_.erase(std::min_element(sessions_.begin(), sessions_.end(), goes_before));
}

void CConsoleSessions::Keep(const std::string& token, Session session) {
  const std::scoped_lock lock(mutex_);
  MakeRoom(session.key);
  sessions_[details::Sha256(token)] = std::move(session);
}

std::optional<ConsoleSession> CConsoleSessions::Find(std::string_view token, bool is_use) {
  if (token.size() != details::kTokenDigits) {
    return std::nullopt;
  }
  const std::string digest = details::Sha256(token);
  Session found;
  {
    const std::scoped_lock lock(mutex_);
    const auto session = sessions_.find(digest);
    if (session == sessions_.end()) {
      return std::nullopt;
    }
    const std::int64_t now = details::TimeUtil::Uptime();
    if (now >= session->second.ends || now - session->second.used >= kLongestPause) {
      sessions_.erase(session);
      return std::nullopt;
    }
    session->second.used = is_use ? now : session->second.used;
    found = session->second;
  }
  std::optional<ConsoleKey> key = find_key_(found.key);
  if (!key.has_value() || key->secret != found.secret) {
    End(token);
    return std::nullopt;
  }
  return ConsoleSession{std::move(*key), std::move(found.csrf), found.expires};
}

void CConsoleSessions::End(std::string_view token) {
  const std::string digest = details::Sha256(token);
  const std::scoped_lock lock(mutex_);
  sessions_.erase(digest);
}

std::size_t CConsoleSessions::Count() const {
  const std::scoped_lock lock(mutex_);
  return sessions_.size();
}

}  // namespace Tansy::Host
