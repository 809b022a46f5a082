#include "HousekeepingThread.h"

#include <algorithm>
#include <utility>

#include "Catalogue.h"
#include "CheckRequest.h"
#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/ObjectServer.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kLookForChecksMs = 1000;
constexpr std::int64_t kLongestPeriodSeconds = 10;

}  // namespace
}  // namespace details

CHousekeepingThread::CHousekeepingThread(std::shared_ptr<IObjectStore> store, db_layer::DBParam database,
                                         const HousekeepingRules& rules, const CNodeLease* lease)
    : CSingleBaseThread("tansyd-house"),
      store_(store),
      database_(std::move(database)),
      find_others_(lease == nullptr
                       ? FindOthers()
                       : [lease](std::vector<std::string>& names) { return GetOtherNodes(lease->Name(), names); }),
      period_seconds_(std::clamp<std::int64_t>(rules.keep_failed_seconds / 2, 1, details::kLongestPeriodSeconds)),
      housekeeping_(
          std::move(store), rules, &CloudStorage::GetUploadsUnderWay, [this] { return IsStopping(); },
          lease == nullptr ? std::function<bool()>() : [lease] { return lease->IsFirst(); }, &batches_) {}

CHousekeepingThread::~CHousekeepingThread() {
  Stop();
  ForgetCheckRequests();
}

void CHousekeepingThread::Begin() {
  Start(details::kLookForChecksMs);
}

void CHousekeepingThread::SetDatabase(const db_layer::DBParam& database) {
  const std::lock_guard lock(database_mutex_);
  database_ = database;
}

void CHousekeepingThread::OnTimer() {
  db_layer::DBParam database;
  {
    const std::lock_guard lock(database_mutex_);
    database = database_;
  }
  AnswerCheckRequest(*store_, database, find_others_, [this] { return IsStopping(); });
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  if (!has_run_ || now - last_round_ >= period_seconds_) {
    has_run_ = true;
    last_round_ = now;
    housekeeping_.Run();
  }
}

}  // namespace Tansy::Host
