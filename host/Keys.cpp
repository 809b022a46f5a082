#include "Keys.h"

#include <algorithm>
#include <exception>
#include <string_view>
#include <utility>

#include "Catalogue.h"
#include "Credentials.h"
#include "HostLog.h"
#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/S3Server.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

// Keys that other nodes change count here after this time at the latest.
constexpr std::uint32_t kPeriodMs = 2000;
// A database that does not answer must not make the server keep requests without end.
constexpr std::size_t kMostWaiting = 100;
constexpr std::size_t kLongestName = 64;
constexpr std::size_t kLongestBucketName = 255;
constexpr std::size_t kMostBuckets = 1000;

// A sealed text belongs to its row: it does not open in another one.
std::string About(const std::string& name, const std::string& access_key) {
  return name + "\n" + access_key;
}

std::string ToText(const Key& key) {
  TansyProto::CRapidJsonProto json;
  json.SetString("/secret", key.secret_key);
  json.SetBool("/read_only", key.read_only);
  json.SetInt("/created", key.created);
  json.SetInt("/expires", key.expires);
  for (std::size_t i = 0; i < key.buckets.size(); ++i) {
    json.SetString("/buckets[" + std::to_string(i + 1) + "]", key.buckets[i]);
  }
  return json.Serialize();
}

bool FromText(Key& key, const std::string& text) {
  TansyProto::CRapidJsonProto json;
  if (!json.Parse(text)) {
    return false;
  }
  key.secret_key = json.GetString("/secret");
  key.read_only = json.GetString("/read_only") == "true";
  key.created = json.GetInt("/created", 0);
  key.expires = json.GetInt("/expires", 0);
  for (std::size_t i = 1;; ++i) {
    const std::string at = "/buckets[" + std::to_string(i) + "]";
    if (!json.Has(at)) {
      return !key.secret_key.empty();
    }
    key.buckets.push_back(json.GetString(at));
  }
}

// A key that the seal does not open has no secret, so it opens nothing either.
Key FromRow(const AccessKeyRow& row, const std::optional<CKeySeal>& seal) {
  Key key;
  key.name = row.name;
  key.access_key = row.access_key;
  const std::optional<std::string> text =
      seal.has_value() ? seal->Open(row.sealed, About(row.name, row.access_key)) : std::nullopt;
  if (!text.has_value() || !FromText(key, *text)) {
    key.secret_key.clear();
  }
  return key;
}

std::vector<Key> FromRows(const std::vector<AccessKeyRow>& rows, const std::optional<CKeySeal>& seal) {
  std::vector<Key> keys;
  keys.reserve(rows.size());
  for (const AccessKeyRow& row : rows) {
    keys.push_back(FromRow(row, seal));
  }
  return keys;
}

// Gives the name of a key that the seal does not open; empty when it opens all.
std::string FirstShut(const std::vector<Key>& keys) {
  const auto shut = std::find_if(keys.begin(), keys.end(), [](const Key& key) { return key.secret_key.empty(); });
  return shut == keys.end() ? "" : shut->name;
}

std::string CannotBeOpened(const std::string& name, const std::string& seal_path) {
  return "key " + name + " cannot be opened: " + seal_path + " is missing, or not the one that sealed it";
}

KeyOutcome RefuseBeside(const std::string& shut, const std::string& seal_path) {
  return {EKeyProblem::kFailed, CannotBeOpened(shut, seal_path) + ": bring that one here, or remove the key"};
}

bool IsName(const std::string& name) {
  const auto is_plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-_.@").find(c) != std::string_view::npos;
  };
  return !name.empty() && name.size() <= kLongestName && std::all_of(name.begin(), name.end(), is_plain);
}

bool IsBucketName(const std::string& name) {
  const auto is_plain = [](char c) {
    return static_cast<unsigned char>(c) > 0x20 && c != '/' && c != ',' && c != 0x7f;
  };
  return !name.empty() && name.size() <= kLongestBucketName && std::all_of(name.begin(), name.end(), is_plain);
}

KeyOutcome CheckNewKey(const Key& key, std::int64_t now) {
  if (!IsName(key.name)) {
    return {EKeyProblem::kWrong, "a name of a key has 1 to 64 letters, digits and characters of -_.@"};
  }
  if (key.buckets.size() > kMostBuckets || !std::all_of(key.buckets.begin(), key.buckets.end(), IsBucketName)) {
    return {EKeyProblem::kWrong, "name up to 1000 buckets as they are called"};
  }
  if (key.expires != 0 && key.expires <= now) {
    return {EKeyProblem::kWrong, "the end of the key's time has to lie in the future"};
  }
  return {};
}

}  // namespace
}  // namespace details

CKeys::CKeys(std::string seal_path, bool is_shared)
    : CSingleBaseThread("tansyd-keys"), seal_path_(std::move(seal_path)), is_shared_(is_shared) {}

CKeys::~CKeys() {
  Stop();
}

void CKeys::Begin() {
  {
    const std::lock_guard change(change_mutex_);
    Load();
  }
  Start(details::kPeriodMs);
}

bool CKeys::Post(std::function<void()> work) {
  {
    const std::lock_guard lock(mutex_);
    if (work_.size() >= details::kMostWaiting) {
      return false;
    }
    work_.push_back(std::move(work));
  }
  Wake();
  return true;
}

std::function<void()> CKeys::NextWork() {
  const std::lock_guard lock(mutex_);
  if (work_.empty()) {
    return nullptr;
  }
  std::function<void()> work = std::move(work_.front());
  work_.pop_front();
  return work;
}

// Whoever stops this waits for no more than what runs: with a database that does not answer the rest would take too
// long.
void CKeys::OnTimer() {
  while (!IsStopping()) {
    const std::function<void()> work = NextWork();
    if (!work) {
      break;
    }
    work();
  }
  const std::lock_guard change(change_mutex_);
  if (!IsStopping() && (is_shared_ || !is_loaded_)) {
    Load();
  }
}

// The file may come later than the keys, or be replaced: an operator copies it. When it cannot be read, what was read
// before goes on opening what it opens.
std::vector<Key> CKeys::Open(const std::vector<AccessKeyRow>& rows, std::string& problem) {
  std::vector<Key> keys = details::FromRows(rows, seal_);
  if (details::FirstShut(keys).empty()) {
    return keys;
  }
  if (std::optional<CKeySeal> now = CKeySeal::Read(seal_path_, problem); now.has_value()) {
    seal_ = std::move(now);
    keys = details::FromRows(rows, seal_);
  }
  const std::string shut = details::FirstShut(keys);
  if (!shut.empty() && problem.empty()) {
    problem = details::CannotBeOpened(shut, seal_path_);
  }
  return keys;
}

bool CKeys::Load() {
  std::vector<AccessKeyRow> rows;
  is_loaded_ = GetAccessKeys(rows);
  if (!is_loaded_) {
    return false;
  }
  std::string problem;
  std::map<std::string, Key> keys;
  for (Key& key : Open(rows, problem)) {
    const std::string name = key.name;
    keys.emplace(name, std::move(key));
  }
  // Keys whose seal is missing are looked at again, because the file may be brought here at any time.
  is_loaded_ = problem.empty();
  if (!problem.empty() && problem != last_problem_) {
    HOST_LOG(logging::kError, "[%s]%s.[%s(%d)]", problem.c_str());
  }
  last_problem_ = problem;
  {
    const std::lock_guard lock(mutex_);
    keys_ = std::move(keys);
  }
  Publish();
  return true;
}

void CKeys::Publish() const {
  std::vector<CloudStorage::S3Key> known;
  for (const Key& key : List()) {
    if (!key.secret_key.empty()) {
      known.push_back({key.access_key, key.secret_key, key.buckets, key.read_only, key.expires});
    }
  }
  CloudStorage::SetS3Keys(known);
}

// What the next start finds in the file has to open all keys, so it is what seals a new one.
KeyOutcome CKeys::Write(const Key& key) {
  std::vector<AccessKeyRow> rows;
  if (!GetAccessKeys(rows)) {
    return {EKeyProblem::kFailed, "the database cannot be read: see the log"};
  }
  std::string error;
  std::optional<CKeySeal> seal = CKeySeal::Read(seal_path_, error);
  if (!seal.has_value() && error.empty()) {
    if (!rows.empty()) {
      return {EKeyProblem::kFailed, seal_path_ +
                                        " is missing, which sealed the keys that there are: bring it back, copy "
                                        "it from another node, or remove these keys"};
    }
    seal = CKeySeal::Make(seal_path_, error);
  }
  if (!seal.has_value()) {
    return {EKeyProblem::kFailed, error};
  }
  if (const std::string shut = details::FirstShut(details::FromRows(rows, seal)); !shut.empty()) {
    return details::RefuseBeside(shut, seal_path_);
  }
  seal_ = std::move(seal);
  const std::string sealed = seal_->Seal(details::ToText(key), details::About(key.name, key.access_key));
  return AddAccessKey({key.name, key.access_key, sealed})
             ? KeyOutcome()
             : KeyOutcome{EKeyProblem::kFailed, "the database does not take the key: see the log"};
}

// Two nodes may make their first keys at once, each with a seal of its own. Whoever comes second sees both keys, and
// takes its own back.
KeyOutcome CKeys::KeepIfAllOpen(const std::string& name) {
  const std::string shut = Load() ? details::FirstShut(List()) : "";
  if (shut.empty()) {
    return {};
  }
  if (!RemoveAccessKey(name) || !Load()) {
    return {EKeyProblem::kFailed, "the database does not forget the key: see the log"};
  }
  return details::RefuseBeside(shut, seal_path_);
}

KeyOutcome CKeys::Add(Key& key) {
  const std::lock_guard change(change_mutex_);
  const std::int64_t now = TansyBase::TimeUtil::Now();
  if (KeyOutcome wrong = details::CheckNewKey(key, now); wrong.problem != EKeyProblem::kNone) {
    return wrong;
  }
  if (!Load()) {
    return {EKeyProblem::kFailed, "the database cannot be read: see the log"};
  }
  const std::vector<Key> all = List();
  if (std::any_of(all.begin(), all.end(), [&key](const Key& other) { return other.name == key.name; })) {
    return {EKeyProblem::kThere, "there is a key of this name already"};
  }
  const CredentialPair pair = MakeCredentials();
  key.access_key = pair.access_key;
  key.secret_key = pair.secret_key;
  key.created = now;
  const KeyOutcome outcome = Write(key);
  return outcome.problem == EKeyProblem::kNone ? KeepIfAllOpen(key.name) : outcome;
}

KeyOutcome CKeys::Remove(const std::string& name) {
  const std::lock_guard change(change_mutex_);
  if (!Load()) {
    return {EKeyProblem::kFailed, "the database cannot be read: see the log"};
  }
  const std::vector<Key> all = List();
  if (std::none_of(all.begin(), all.end(), [&name](const Key& key) { return key.name == name; })) {
    return {EKeyProblem::kMissing, "there is no key of this name"};
  }
  if (!RemoveAccessKey(name) || !Load()) {
    return {EKeyProblem::kFailed, "the database does not forget the key: see the log"};
  }
  return {};
}

std::vector<Key> CKeys::List() const {
  const std::lock_guard lock(mutex_);
  std::vector<Key> keys;
  keys.reserve(keys_.size());
  for (const auto& [name, key] : keys_) {
    keys.push_back(key);
  }
  return keys;
}

std::optional<Key> CKeys::Find(const std::string& access_key) const {
  const std::int64_t now = TansyBase::TimeUtil::Now();
  for (Key& key : List()) {
    if (key.access_key == access_key && !key.secret_key.empty() && (key.expires == 0 || now < key.expires)) {
      return std::move(key);
    }
  }
  return std::nullopt;
}

}  // namespace Tansy::Host
