#include "NodeLease.h"

#include <cstdlib>
#include <utility>

#include "HostDatabase.h"
#include "HostLog.h"
#include "StartFailure.h"
#include "TansyBase/GuidUtil.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kRenewMs = 1000;
constexpr int kSilenceMs = 3000;
// Shorter than the lease by one second, because the clock that is asked counts whole ones.
constexpr std::int64_t kHeldSeconds = 9;
constexpr const char* kIsOver = "(nodes.owner = '' OR nodes.seen_at <= clock_timestamp() - interval '10 seconds')";
// At the start the name may be free, given back or left over, or that of an earlier run on this data folder, which is
// over because the folder is locked. What this very process has taken is its own, although the answer was lost.
constexpr const char* kMayBegin =
    "nodes.process = excluded.process OR "
    "(nodes.owner = excluded.owner AND nodes.machine_start = excluded.machine_start)";
constexpr const char* kMayGoOn = "nodes.process = excluded.process OR nodes.owner = excluded.owner AND ";

std::int64_t ToNumber(std::string_view text) {
  return std::strtoll(std::string(text).c_str(), nullptr, 10);
}

}  // namespace
}  // namespace details

CNodeLease::CNodeLease(const db_layer::DBParam& database, NodeIdentity identity)
    : CSingleBaseThread("tansyd-lease"),
      identity_(std::move(identity)),
      process_(TansyBase::GuidUtil::CreateGuid()),
      ear_(db_layer::MakeDatabaseEar(database, details::kSilenceMs)) {}

CNodeLease::~CNodeLease() {
  Stop();
}

void CNodeLease::Begin() {
  std::string error;
  const ETaken taken = Take(std::string(details::kMayBegin) + " OR " + details::kIsOver, error);
  if (taken == ETaken::kNo) {
    throw CStartFailure(kExitFailed, "node " + identity_.name + " runs already (" + HolderOfTheName() +
                                         "), or did so less than ten seconds ago: every node needs a name of its own");
  }
  if (taken == ETaken::kUnknown || LookAtOthers(error) == ETaken::kUnknown) {
    throw CStartFailure(kExitFailed, "node " + identity_.name + " cannot be entered into the database: " + error);
  }
  is_running_ = true;
  Start(details::kRenewMs);
}

void CNodeLease::End() {
  Stop();
  if (is_running_) {
    std::string ignored;
    ear_->Ask(
        "UPDATE platform.nodes SET owner = '' WHERE " + IsMine() + " RETURNING name", {"name"},
        [](const db_layer::IRow&) {}, ignored);
    is_running_ = false;
  }
}

std::string CNodeLease::IsMine() const {
  return "name = " + QuotedText(identity_.name) + " AND process = " + QuotedText(process_);
}

void CNodeLease::SetLease(std::int64_t epoch, std::int64_t asked_at) {
  epoch_ = epoch;
  const std::lock_guard lock(mutex_);
  has_lease_ = epoch != 0;
  asked_at_ = asked_at;
}

// Takes a name that nobody has, or that this process may take from whom the entry names.
CNodeLease::ETaken CNodeLease::Take(const std::string& may_follow, std::string& error) {
  const std::int64_t asked_at = TansyBase::TimeUtil::Uptime();
  const std::string sql =
      "INSERT INTO platform.nodes AS nodes (name, owner, machine_start, process, address) VALUES (" +
      QuotedText(identity_.name) + ", " + QuotedText(identity_.owner) + ", " + QuotedText(identity_.machine_start) +
      ", " + QuotedText(process_) + ", " + QuotedText(identity_.address) +
      ") ON CONFLICT (name) DO UPDATE SET owner = excluded.owner, "
      "machine_start = excluded.machine_start, process = excluded.process, "
      "address = excluded.address, epoch = nodes.epoch + 1, seen_at = clock_timestamp() WHERE " +
      may_follow + " RETURNING epoch";
  std::int64_t epoch = 0;
  if (!ear_->Ask(
          sql, {"epoch"}, [&](const db_layer::IRow& row) { epoch = details::ToNumber(row.GetText(0)); }, error)) {
    return ETaken::kUnknown;
  }
  SetLease(epoch, asked_at);
  return epoch != 0 ? ETaken::kYes : ETaken::kNo;
}

std::string CNodeLease::HolderOfTheName() {
  std::string holder;
  std::string ignored;
  ear_->Ask(
      "SELECT owner FROM platform.nodes WHERE name = " + QuotedText(identity_.name), {"owner"},
      [&](const db_layer::IRow& row) { holder = row.GetText(0); }, ignored);
  return holder;
}

// A lease that has ended begins anew as long as the entry is this process's.
CNodeLease::ETaken CNodeLease::Renew(std::string& error) {
  const std::int64_t asked_at = TansyBase::TimeUtil::Uptime();
  const std::string sql = std::string("UPDATE platform.nodes SET epoch = epoch + CASE WHEN ") + details::kIsOver +
                          " THEN 1 ELSE 0 END, seen_at = clock_timestamp() WHERE " + IsMine() + " RETURNING epoch";
  std::int64_t epoch = 0;
  if (!ear_->Ask(
          sql, {"epoch"}, [&](const db_layer::IRow& row) { epoch = details::ToNumber(row.GetText(0)); }, error)) {
    return ETaken::kUnknown;
  }
  if (epoch == 0) {
    return Take(details::kMayGoOn + std::string(details::kIsOver), error);
  }
  SetLease(epoch, asked_at);
  return ETaken::kYes;
}

// Finds out who lives, and lets nobody who stands still keep the others out.
CNodeLease::ETaken CNodeLease::LookAtOthers(std::string& error) {
  std::vector<std::string> live;
  if (!ear_->Ask(
          std::string("SELECT name FROM platform.nodes WHERE NOT ") + details::kIsOver + " ORDER BY name", {"name"},
          [&](const db_layer::IRow& row) { live.emplace_back(row.GetText(0)); }, error)) {
    return ETaken::kUnknown;
  }
  {
    const std::lock_guard lock(mutex_);
    live_ = std::move(live);
  }
  std::int64_t ended = 0;
  if (!ear_->Ask(
          "SELECT platform.end_standing_writers() AS ended", {"ended"},
          [&](const db_layer::IRow& row) { ended = details::ToNumber(row.GetText(0)); }, error)) {
    return ETaken::kUnknown;
  }
  if (ended > 0) {
    HOST_LOG(logging::kError, "[%s]a node stood still and kept the others out: its transaction was ended.[%s(%d)]");
  }
  return ETaken::kYes;
}

void CNodeLease::OnTimer() {
  std::string error;
  const std::int64_t epoch_before = epoch_;
  const ETaken taken = Renew(error);
  if (taken == ETaken::kYes && epoch_ != epoch_before) {
    HOST_LOG(logging::kNotable, "[%s]node %s begins a new lease: the one before had ended.[%s(%d)]",
             identity_.name.c_str());
  }
  const ETaken looked = taken == ETaken::kUnknown ? taken : LookAtOthers(error);
  Note(taken == ETaken::kNo ? taken : looked, error);
}

void CNodeLease::Note(ETaken taken, const std::string& error) {
  const bool was_lost = std::exchange(is_lost_, taken != ETaken::kYes);
  if (taken == ETaken::kNo) {
    HOST_LOG(logging::kError, "[%s]another tansyd (%s) runs as node %s: nothing is written any more.[%s(%d)]",
             HolderOfTheName().c_str(), identity_.name.c_str());
  } else if (taken == ETaken::kUnknown && !was_lost) {
    HOST_LOG(logging::kError, "[%s]the lease of node %s cannot be renewed: %s.[%s(%d)]", identity_.name.c_str(),
             error.c_str());
  }
}

std::string CNodeLease::Prelude() const {
  return "SELECT platform.begin_write(" + QuotedText(identity_.name) + ", " + QuotedText(process_) + ")";
}

bool CNodeLease::IsHeld() const {
  const std::lock_guard lock(mutex_);
  return has_lease_ && TansyBase::TimeUtil::Uptime() - asked_at_ < details::kHeldSeconds;
}

bool CNodeLease::IsFirst() const {
  if (!IsHeld()) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  return !live_.empty() && live_.front() == identity_.name;
}

}  // namespace Tansy::Host
