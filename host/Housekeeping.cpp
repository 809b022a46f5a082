#include "Housekeeping.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Catalogue.h"
#include "FirstParts.h"
#include "HostLog.h"
#include "HousekeepingCounts.h"
#include "RemovalHold.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr int kAtOnce = 100;
// Stored bytes get their row within moments, so an earlier look for that row would be in vain. On a slow disk the row
// may take a second or two, and it must not be refused however short the grace is.
constexpr std::int64_t kRowSeconds = 5;
constexpr std::int64_t kFirstPartSeconds = 60;
constexpr std::int64_t kSaveClockSeconds = 3600;
constexpr std::int64_t kGoneSeconds = 60;
constexpr std::int64_t kCountSeconds = 60;
// The longest time from the last byte of an upload to its row, including the wait for the database.
constexpr std::int64_t kLongestRequestSeconds = 300;
// The time for which given-up bytes are remembered. It is much longer than the longest request, to be safe.
constexpr std::int64_t kGivenUpSeconds = std::int64_t{6} * 3600;

std::vector<std::string> Urls(std::span<const NewBytes> batch) {
  std::vector<std::string> urls;
  urls.reserve(batch.size());
  std::transform(batch.begin(), batch.end(), std::back_inserter(urls),
                 [](const NewBytes& bytes) { return LocationText(bytes.name); });
  return urls;
}

void Count(HousekeepingCounts::Stored& stored, std::uint64_t size) {
  ++stored.pieces;
  stored.bytes += size;
}

std::unique_ptr<CWriteGate::CPass> PassOf(CWriteGate* gate) {
  return gate == nullptr ? nullptr : std::make_unique<CWriteGate::CPass>(*gate);
}

}  // namespace
}  // namespace details

CHousekeeping::CHousekeeping(std::shared_ptr<IObjectStore> store, const HousekeepingRules& rules,
                             UploadsUnderWay uploads, std::function<bool()> is_stopping, std::function<bool()> is_first,
                             CWriteGate* batches)
    : store_(std::move(store)),
      rules_(rules),
      uploads_(std::move(uploads)),
      is_stopping_(std::move(is_stopping)),
      is_first_(std::move(is_first)),
      batches_(batches) {}

CHousekeeping::~CHousekeeping() {
  if (clock_is_known_ && (!is_first_ || was_first_)) {
    SaveClock();
  }
}

void CHousekeeping::Run() {
  const bool is_my_turn = IsMyTurn();
  if (!FindClock()) {
    return;
  }
  freed_ = 0;
  LookAtNew();
  LookAtFirstParts();
  if (is_my_turn) {
    DoWhatIsDoneOnce();
  }
  CountWhatWaits();
  store_->Tidy(is_stopping_);
  HousekeepingCounts::OfProcess().rounds += is_stopping_() ? 0 : 1;
  if (freed_ > 0) {
    HOST_LOG(logging::kNotable, "[%s]freed the bytes of %zu uploads that nothing refers to.[%s(%d)]", freed_);
  }
}

void CHousekeeping::DoWhatIsDoneOnce() {
  if (is_first_ && (looked_for_gone_ == 0 || Now() - looked_for_gone_ >= details::kGoneSeconds)) {
    looked_for_gone_ = Now();
    ForgetWhatNodesLeft();
  }
  LookAtReleased();
  bool left = true;
  while (left && !is_stopping_() && ForgetGivenUp(Now() - details::kGivenUpSeconds, details::kAtOnce, left)) {
  }
  if (Now() - clock_saved_ >= details::kSaveClockSeconds) {
    SaveClock();
  }
}

// This comes before what may take long, because the log of changes grows with every write.
void CHousekeeping::ForgetWhatNodesLeft() {
  bool left = true;
  while (left && !is_stopping_() && TrimChanges(left)) {
  }
  ForgetUploadsOfGoneNodes();
  ForgetGoneWriters();
}

// Who takes this over goes on with the clock of who did it before.
bool CHousekeeping::IsMyTurn() {
  if (!is_first_) {
    return true;
  }
  const bool is_first = is_first_();
  if (is_first != was_first_) {
    was_first_ = is_first;
    clock_is_known_ = false;
  }
  return is_first;
}

bool CHousekeeping::FindClock() {
  if (!clock_is_known_ && GetRunningSeconds(clock_saved_)) {
    clock_base_ = clock_saved_ - TansyBase::TimeUtil::Uptime();
    clock_is_known_ = true;
  }
  return clock_is_known_;
}

std::int64_t CHousekeeping::Now() const {
  return clock_base_ + TansyBase::TimeUtil::Uptime();
}

void CHousekeeping::SaveClock() {
  // After a failure the saved clock is behind, and what waits for its time waits longer.
  const std::int64_t now = Now();
  if (SetRunningSeconds(now)) {
    clock_saved_ = now;
  }
}

void CHousekeeping::LookAtNew() {
  std::vector<std::string> locations;
  if (!uploads_(locations)) {
    return;
  }
  std::vector<StoredName> running;
  for (const std::string& location : locations) {
    StoredName name;
    if (ParseLocationText(OwnText(location), name)) {
      running.push_back(name);
    }
  }
  store_->TouchNew(running);

  const std::vector<NewBytes> all = store_->GetNew(details::kRowSeconds);
  for (std::size_t begin = 0; begin < all.size() && !is_stopping_(); begin += details::kAtOnce) {
    const std::size_t count = std::min<std::size_t>(all.size() - begin, details::kAtOnce);
    if (!LookAtNew(std::span(all).subspan(begin, count))) {
      return;
    }
  }
}

bool CHousekeeping::LookAtNew(std::span<const NewBytes> batch) {
  std::set<std::string> named;
  if (!FindNamed(details::Urls(batch), EReleasedToo::kYes, named)) {
    return false;
  }
  std::vector<StoredName> forgotten;
  std::vector<NewBytes> due;
  for (const NewBytes& bytes : batch) {
    if (named.count(LocationText(bytes.name)) > 0) {
      forgotten.push_back(bytes.name);
    } else if (bytes.failed || bytes.untouched_seconds >= rules_.keep_failed_seconds) {
      due.push_back(bytes);
    }
  }
  store_->ForgetNew(forgotten);
  std::set<std::string> given_up;
  if (!GiveUp(due, given_up)) {
    return false;
  }
  for (const NewBytes& bytes : due) {
    if (is_stopping_()) {
      return false;  // in a pool one removal may take a second; the names are looked at again after the next start
    }
    std::uint64_t size = 0;
    const bool is_given_up = given_up.count(LocationText(bytes.name)) > 0;
    const bool has_size = is_given_up && store_->GetSize(bytes.name, size) == EStoreResult::kDone;
    if (is_given_up && store_->FreeNew(bytes.name) == EStoreResult::kDone) {
      ++freed_;
      details::Count(HousekeepingCounts::OfProcess().freed_orphaned, has_size ? size : 0);
    }
  }
  return true;
}

// Picks the urls that no row names now and that no row can name from now on.
bool CHousekeeping::GiveUp(std::span<const NewBytes> due, std::set<std::string>& given_up) const {
  const EGiveUp result = GiveUpUnnamed(details::Urls(due), Now(), given_up);
  if (result != EGiveUp::kRefused) {
    return result == EGiveUp::kDone;
  }
  // On a full disk the catalogue can write neither a note nor a row. So that the disk gets room again, bytes are freed
  // after a mere look, but only those so old that no request can be left that would still write their row.
  std::vector<NewBytes> sure;
  std::copy_if(due.begin(), due.end(), std::back_inserter(sure), [](const NewBytes& bytes) {
    return bytes.failed || bytes.untouched_seconds >= details::kLongestRequestSeconds;
  });
  const std::vector<std::string> urls = details::Urls(sure);
  std::set<std::string> named;
  if (!FindNamed(urls, EReleasedToo::kNo, named)) {
    return false;
  }
  std::copy_if(urls.begin(), urls.end(), std::inserter(given_up, given_up.end()),
               [&named](const std::string& url) { return named.count(url) == 0; });
  return true;
}

void CHousekeeping::LookAtReleased() {
  bool left = true;
  while (left && !is_stopping_() && StampReleased(Now(), details::kAtOnce, left)) {
  }
  LookAtRemoved();
  FreeReleased(EReleased::kLeft, Now() - rules_.keep_failed_seconds);
  FreeReleased(EReleased::kKept, Now() - rules_.keep_removed_seconds);
}

// A removal that freed the bytes itself leaves nothing that has to wait.
void CHousekeeping::LookAtRemoved() {
  while (!is_stopping_() && LookAtSomeRemoved()) {
  }
}

bool CHousekeeping::LookAtSomeRemoved() {
  const auto pass = details::PassOf(batches_);
  std::vector<ReleasedBytes> batch;
  if (!GetReleased(EReleased::kRemovedNow, Now(), details::kAtOnce, batch) || batch.empty()) {
    return false;
  }
  std::vector<std::string> kept;
  std::vector<std::string> gone;
  for (const ReleasedBytes& bytes : batch) {
    bool is_gone = false;
    if (!IsGone(bytes.url, is_gone)) {
      return false;
    }
    (is_gone ? gone : kept).push_back(bytes.id);
  }
  return KeepReleased(kept) && ForgetReleased(gone);
}

// Parts whose bytes are all gone are forgotten too.
bool CHousekeeping::IsGone(const std::string& url, bool& is_gone) {
  std::vector<std::string> urls = {url};
  if (IsUrlOfParts(url)) {
    urls.clear();
    if (!GetParts(url, urls)) {
      return false;
    }
  }
  is_gone = std::all_of(urls.begin(), urls.end(), [this](const std::string& each) {
    StoredName name;
    std::uint64_t size = 0;
    return !ParseLocationText(each, name) || store_->GetSize(name, size) == EStoreResult::kMissing;
  });
  return !is_gone || !IsUrlOfParts(url) || ForgetParts(url);
}

void CHousekeeping::FreeReleased(EReleased kind, std::int64_t time) {
  while (!is_stopping_() && FreeSomeReleased(kind, time)) {
  }
}

bool CHousekeeping::FreeSomeReleased(EReleased kind, std::int64_t time) {
  const auto pass = details::PassOf(batches_);
  std::vector<ReleasedBytes> batch;
  if (AreRemovalsHeld() || !GetReleased(kind, time, details::kAtOnce, batch) || batch.empty()) {
    return false;
  }
  std::vector<std::string> urls;
  std::transform(batch.begin(), batch.end(), std::back_inserter(urls), [](const auto& bytes) { return bytes.url; });
  std::set<std::string> named;
  if (!FindNamed(urls, EReleasedToo::kNo, named)) {
    return false;
  }
  std::vector<std::string> done;
  std::vector<std::string> postponed;
  for (const ReleasedBytes& bytes : batch) {
    // Bytes that a task or an object names after all are released again when that task or object goes.
    const bool is_done = named.count(bytes.url) > 0 || Free(bytes.url);
    (is_done ? done : postponed).push_back(bytes.id);
  }
  // The database failed, or only entries that have to wait are left: the next round goes on.
  return ForgetReleased(done) && PostponeReleased(postponed, Now()) && !done.empty();
}

// Returns false when the bytes are still there.
bool CHousekeeping::Free(const std::string& url) {
  if (IsUrlOfParts(url)) {
    return FreeParts(url);
  }
  StoredName name;
  if (!ParseLocationText(url, name) || store_->IsPicture(name)) {
    return true;
  }
  const bool is_removed = Remove(name) == EStoreResult::kDone;
  freed_ += is_removed ? 1 : 0;
  return is_removed;
}

EStoreResult CHousekeeping::Remove(const StoredName& name) {
  std::uint64_t size = 0;
  const bool has_size = store_->GetSize(name, size) == EStoreResult::kDone;
  const EStoreResult result = store_->Remove(name);
  if (result == EStoreResult::kDone) {
    details::Count(HousekeepingCounts::OfProcess().freed_released, has_size ? size : 0);
  }
  return result;
}

// The rows go after the bytes, so that a round that was broken off is done again.
bool CHousekeeping::FreeParts(const std::string& url) {
  std::vector<std::string> urls;
  if (!GetParts(url, urls)) {
    return false;
  }
  bool is_done = true;
  for (const std::string& part : urls) {
    StoredName name;
    if (is_stopping_()) {
      return false;
    }
    if (ParseLocationText(part, name)) {
      const EStoreResult result = Remove(name);
      is_done = is_done && (result == EStoreResult::kDone || result == EStoreResult::kMissing);
    }
  }
  if (!is_done || !ForgetParts(url)) {
    return false;
  }
  ++freed_;
  return true;
}

// Every node counts, because each shows its own figures.
void CHousekeeping::CountWhatWaits() {
  HousekeepingCounts& counts = HousekeepingCounts::OfProcess();
  counts.waiting_new = store_->GetNew(0).size();
  if (counted_ != 0 && Now() - counted_ < details::kCountSeconds) {
    return;
  }
  counted_ = Now();
  std::uint64_t removed = 0;
  std::uint64_t replaced = 0;
  if (CountReleased(EReleased::kKept, HousekeepingCounts::kMostCounted, removed) &&
      CountReleased(EReleased::kLeft, HousekeepingCounts::kMostCounted, replaced)) {
    counts.waiting_removed = removed;
    counts.waiting_replaced = replaced;
  }
}

void CHousekeeping::LookAtFirstParts() {
  if (first_parts_seen_ != 0 && Now() - first_parts_seen_ < details::kFirstPartSeconds) {
    return;
  }
  first_parts_seen_ = Now();
  std::vector<DeadFirstPart> dead;
  if (!FindDeadFirstParts(&GetTaskIds, dead)) {
    return;
  }
  std::set<std::string> seen;
  for (const DeadFirstPart& part : dead) {
    // A first part must be found dead by two looks in a row. By then, whoever was writing it when its task ended is
    // done.
    if (dead_first_parts_.count(part.name) == 0) {
      seen.insert(part.name);
    } else {
      RemoveFirstPart(part.name);
    }
  }
  dead_first_parts_ = std::move(seen);
}

}  // namespace Tansy::Host
