#ifndef TANSY_HOST_HOUSEKEEPING_H
#define TANSY_HOST_HOUSEKEEPING_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "Catalogue.h"
#include "ObjectStore.h"
#include "WriteGate.h"

namespace Tansy::Host {

struct HousekeepingRules {
  // The bytes of uploads that failed, broke off or were overwritten are kept for this time. A read that began before
  // can go on for as long.
  std::int64_t keep_failed_seconds = 300;
  // The bytes of objects that were removed without their bytes are kept for this time.
  std::int64_t keep_removed_seconds = std::int64_t{7} * 24 * 3600;
};

// Gives back stored bytes that nothing needs any more. All times are measured with clocks that nobody can set, and
// count only while a server runs.
//
// One thread uses it. Errors are logged; the next round tries again what could not be done.
class CHousekeeping {
 public:
  // Gives the location texts of the streamed uploads that are still running. Returns false when it cannot.
  using UploadsUnderWay = std::function<bool(std::vector<std::string>& locations)>;

  // `is_first` is null unless several processes share the catalogue. It says then whether this one does what has to be
  // done once, and not by every process. `batches` is null unless somebody may put another catalogue in the place of
  // this one: entries are read and changed in one piece, which passes that gate, because their ids mean nothing
  // elsewhere.
  CHousekeeping(std::shared_ptr<IObjectStore> store, const HousekeepingRules& rules, UploadsUnderWay uploads,
                std::function<bool()> is_stopping, std::function<bool()> is_first = {}, CWriteGate* batches = nullptr);
  // Notes how long the server has run, if the database allows it.
  ~CHousekeeping();
  CHousekeeping(const CHousekeeping&) = delete;
  CHousekeeping& operator=(const CHousekeeping&) = delete;

  // Does one round; it has to be called every few seconds. It ends early, within a batch, when `is_stopping` says so.
  void Run();

 private:
  void DoWhatIsDoneOnce();
  void ForgetWhatNodesLeft();
  bool IsMyTurn();
  bool FindClock();
  std::int64_t Now() const;
  void SaveClock();
  void LookAtNew();
  bool LookAtNew(std::span<const NewBytes> batch);
  bool GiveUp(std::span<const NewBytes> due, std::set<std::string>& given_up) const;
  void LookAtReleased();
  void LookAtRemoved();
  bool LookAtSomeRemoved();
  bool IsGone(const std::string& url, bool& is_gone);
  void FreeReleased(EReleased kind, std::int64_t time);
  bool FreeSomeReleased(EReleased kind, std::int64_t time);
  bool Free(const std::string& url);
  EStoreResult Remove(const StoredName& name);
  bool FreeParts(const std::string& url);
  void LookAtFirstParts();
  void CountWhatWaits();

  const std::shared_ptr<IObjectStore> store_;
  const HousekeepingRules rules_;
  const UploadsUnderWay uploads_;
  const std::function<bool()> is_stopping_;
  const std::function<bool()> is_first_;
  CWriteGate* const batches_;
  bool was_first_ = false;
  std::int64_t looked_for_gone_ = 0;  // running seconds

  std::int64_t clock_base_ = -1;  // running seconds less uptime; -1: not known yet
  bool clock_is_known_ = false;
  std::int64_t counted_ = 0;                // the same, of the last count of what waits
  std::int64_t clock_saved_ = 0;            // running seconds
  std::int64_t first_parts_seen_ = 0;       // running seconds
  std::set<std::string> dead_first_parts_;  // as of the last look
  std::size_t freed_ = 0;                   // in this round
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HOUSEKEEPING_H
