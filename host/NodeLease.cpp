#include "NodeLease.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "HostDatabase.h"
#include "HostLog.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kRenewMs = 1000;
constexpr int kSilenceMs = 3000;
constexpr const char* kIsOver = "(nodes.owner = '' OR nodes.seen_at <= clock_timestamp() - interval '10 seconds')";

std::int64_t ToNumber(std::string_view text) {
  return std::strtoll(std::string(text).c_str(), nullptr, 10);
}

}  // namespace
}  // namespace details

CNodeLease::CNodeLease(const db_layer::DBParam& database, NodeIdentity identity)
    : CSingleBaseThread("tansyd-lease"),
      identity_(std::move(identity)),
      ear_(db_layer::MakeDatabaseEar(database, details::kSilenceMs)) {}

CNodeLease::~CNodeLease() {
  Stop();
}

void CNodeLease::Begin() {
  std::string holder;
  std::string error;
  const ETaken taken = Take(true, holder, error);
  if (taken == ETaken::kNo) {
    throw CStartFailure(kExitFailed, "node " + identity_.name + " runs already (" + holder +
                                         "), or did so less than ten seconds ago: every node needs a name of its own");
  }
  if (taken == ETaken::kUnknown) {
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
  const std::lock_guard lock(mutex_);
  return "name = " + QuotedText(identity_.name) + " AND owner = " + QuotedText(identity_.owner) +
         " AND epoch = " + std::to_string(epoch_);
}

// At the start the name may be free, given back, left over, or that of an earlier run on this data folder, which is
// over. Later a new lease may follow only the own one.
CNodeLease::ETaken CNodeLease::Take(bool is_first_time, std::string& holder, std::string& error) {
  const std::string name = QuotedText(identity_.name);
  const std::string owner = QuotedText(identity_.owner);
  const std::string may_follow = is_first_time
                                     ? "nodes.owner = excluded.owner OR " + std::string(details::kIsOver)
                                     : "nodes.owner = excluded.owner AND nodes.epoch = " + std::to_string(epoch_);
  const std::string sql = "INSERT INTO platform.nodes AS nodes (name, owner, address) VALUES (" + name + ", " + owner +
                          ", " + QuotedText(identity_.address) +
                          ") ON CONFLICT (name) DO UPDATE SET owner = excluded.owner, address = excluded.address, "
                          "epoch = nodes.epoch + 1, seen_at = clock_timestamp() WHERE " +
                          may_follow + " RETURNING epoch";
  std::int64_t epoch = 0;
  if (!ear_->Ask(
          sql, {"epoch"}, [&](const db_layer::IRow& row) { epoch = details::ToNumber(row.GetText(0)); }, error)) {
    return ETaken::kUnknown;
  }
  if (epoch == 0) {
    ear_->Ask(
        "SELECT owner FROM platform.nodes WHERE name = " + name, {"owner"},
        [&](const db_layer::IRow& row) { holder = row.GetText(0); }, error);
    return ETaken::kNo;
  }
  {
    const std::lock_guard lock(mutex_);
    epoch_ = epoch;
  }
  return Renew(error);
}

CNodeLease::ETaken CNodeLease::Renew(std::string& error) {
  bool is_renewed = false;
  if (!ear_->Ask(
          "UPDATE platform.nodes SET seen_at = clock_timestamp() WHERE " + IsMine() + " AND NOT " + details::kIsOver +
              " RETURNING name",
          {"name"}, [&](const db_layer::IRow&) { is_renewed = true; }, error)) {
    return ETaken::kUnknown;
  }
  std::vector<std::string> live;
  if (!ear_->Ask(
          std::string("SELECT name FROM platform.nodes WHERE NOT ") + details::kIsOver + " ORDER BY name", {"name"},
          [&](const db_layer::IRow& row) { live.emplace_back(row.GetText(0)); }, error)) {
    return ETaken::kUnknown;
  }
  const std::lock_guard lock(mutex_);
  live_ = std::move(live);
  return is_renewed ? ETaken::kYes : ETaken::kNo;
}

void CNodeLease::OnTimer() {
  std::string error;
  std::string holder;
  ETaken taken = Renew(error);
  if (taken == ETaken::kNo) {
    taken = Take(false, holder, error);
    if (taken == ETaken::kYes) {
      HOST_LOG(logging::kNotable, "[%s]node %s begins a new lease: the one before had ended.[%s(%d)]",
               identity_.name.c_str());
    }
  }
  const bool was_lost = std::exchange(is_lost_, taken != ETaken::kYes);
  if (taken == ETaken::kNo) {
    HOST_LOG(logging::kError, "[%s]another tansyd (%s) runs as node %s: nothing is written any more.[%s(%d)]",
             holder.c_str(), identity_.name.c_str());
  } else if (taken == ETaken::kUnknown && !was_lost) {
    HOST_LOG(logging::kError, "[%s]the lease of node %s cannot be renewed: %s.[%s(%d)]", identity_.name.c_str(),
             error.c_str());
  }
}

std::string CNodeLease::Prelude() const {
  const std::lock_guard lock(mutex_);
  return "SELECT platform.begin_write(" + QuotedText(identity_.name) + ", " + std::to_string(epoch_) + ")";
}

bool CNodeLease::IsFirst() const {
  const std::lock_guard lock(mutex_);
  return !live_.empty() && live_.front() == identity_.name;
}

}  // namespace Tansy::Host
