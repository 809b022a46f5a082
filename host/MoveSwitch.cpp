#include "MoveSwitch.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "HostSystem/Files.h"
#include "MoveCounts.h"
#include "MoveFailure.h"
#include "MoveNames.h"
#include "MoveTables.h"
#include "StartFailure.h"
#include "db_layer/DbLayer.h"
#include "logging/Logging.h"

namespace Tansy::Host {
namespace details {
namespace {

using std::chrono::milliseconds;

// Writes are held for at most this long at a time, and the file that notes the move is written after that at the
// latest. A client waits for its own write as well, and all of it should be below two seconds.
constexpr milliseconds kLongestPause{1500};
constexpr milliseconds kPatience{400};  // for what is under way when writes are to be held
constexpr milliseconds kShortestPause{100};
constexpr milliseconds kAllHolds{20000};
constexpr int kMostTries = 50;
constexpr std::int64_t kMostHeldBytes = std::int64_t{32} << 20;  // to be compared meanwhile
constexpr milliseconds kForHousekeeping{60000};
constexpr milliseconds kLookAgain{1000};

class CReleaseAtTheEnd {
 public:
  explicit CReleaseAtTheEnd(CMovableStore& store) : store_(store) {}
  ~CReleaseAtTheEnd() { store_.ReleaseWrites(); }
  CReleaseAtTheEnd(const CReleaseAtTheEnd&) = delete;
  CReleaseAtTheEnd& operator=(const CReleaseAtTheEnd&) = delete;

 private:
  CMovableStore& store_;
};

}  // namespace
}  // namespace details

using std::chrono::milliseconds;

void CMoveSwitch::Run() {
  if (work_.target.MovesRows()) {
    ExpectEqualCounts(work_.source, work_.target.Database(), work_.tables);
  }
  SwitchOver();
  LeaveSource();
}

// New bytes go to both places from now on, and those that are being uploaded are copied. What goes wrong in the new
// place ends that, and the move with it.
void CMoveSwitch::SwitchOver() {
  try {
    BeginMirror();
    rows_.RememberBytes();
    CopyUploads();
    bytes_.CopyPictures(EPictures::kNew);
    for (int tries = 1;; ++tries) {
      if (Try()) {
        return;
      }
      if (tries == details::kMostTries || all_holds_ > details::kAllHolds) {
        throw CMoveFailure("writes would have to wait for more than two seconds; try again when there are fewer");
      }
    }
  } catch (...) {
    work_.host.store->EndMirror();
    throw;
  }
}

// Whoever waited for held writes gets its turn before they are held again.
void CMoveSwitch::Pause(milliseconds held) {
  all_holds_ += held;
  const auto end = std::chrono::steady_clock::now() + std::max(held, details::kShortestPause);
  while (std::chrono::steady_clock::now() < end) {
    work_.ExpectGoingOn();
    std::this_thread::sleep_for(details::kShortestPause);
  }
}

void CMoveSwitch::BeginMirror() {
  if (!work_.target.MovesBytes()) {
    return;
  }
  auto mirror = std::make_unique<CStoreMirror>(work_.target.Store());
  for (int tries = 1; !work_.host.store->HoldWrites(details::kPatience); ++tries) {
    Pause(details::kPatience);
    if (tries == details::kMostTries) {
      throw CMoveFailure("writes that are under way do not end; try again later");
    }
  }
  {
    const details::CReleaseAtTheEnd held(*work_.host.store);
    work_.host.store->BeginMirror(std::move(mirror));
    for (const NewBytes& bytes : work_.From().GetNew(0)) {
      uploads_.push_back(bytes.name);
    }
  }
  work_.Say("new bytes go to both places");
}

void CMoveSwitch::ExpectMirror() const {
  if (work_.target.MovesBytes() && work_.host.store->HasMirrorFailed()) {
    throw CMoveFailure(work_.target.DescribeStore() + " cannot be written, see the log");
  }
}

// What was stored before the mirror began and may have no row yet, or is still being written.
void CMoveSwitch::CopyUploads() {
  if (!work_.target.MovesBytes()) {
    return;
  }
  const std::string sql = std::string("SELECT DISTINCT url FROM platform.") + kUploadTable;
  for (const CMoveDatabase::Row& row : work_.source.Query(sql, {"url"})) {
    StoredName name;
    if (ParseLocationText(row.front(), name)) {
      uploads_.push_back(name);
    }
  }
  work_.InParallel(uploads_.size(), [this](std::size_t i) {
    if (work_.From().IsPicture(uploads_[i])) {
      return;
    }
    const EStoreResult result = work_.host.store->CopyToMirror(uploads_[i]);
    if (result != EStoreResult::kMissing) {
      bytes_.ExpectDone(result);
    }
  });
}

void CMoveSwitch::CopyMirroredPictures() {
  if (!work_.target.MovesBytes()) {
    return;
  }
  std::vector<StoredName> pictures = work_.host.store->TakeMirroredPictures();
  pictures.insert(pictures.end(), uncompared_.begin(), uncompared_.end());
  bytes_.CopyPictures(pictures);
  uncompared_.clear();
}

// Notes about bytes that wait for their end are copied, as far as the new place has these bytes.
void CMoveSwitch::CopyReleased() {
  if (!work_.target.MovesRows()) {
    return;
  }
  const auto which = work_.target.MovesBytes() ? EReleasedOf::kParts : EReleasedOf::kAll;
  std::vector<std::string> statements;
  do {
    statements = CopyReleasedBytes(work_.source, which, last_released_);
    work_.target.Database().Run(statements);
  } while (!statements.empty());
}

// Housekeeping forgets no notes between the two looks at them, because the number of a forgotten note is used again.
bool CMoveSwitch::Try() {
  const CHeldHousekeeping housekeeping(work_.host.housekeeping, details::kForHousekeeping);
  last_released_ = -1;
  CopyReleased();
  rows_.FollowWhileItHelps();
  rows_.ExpectNoFindings();
  CopyMirroredPictures();
  ExpectMirror();
  return housekeeping && TrySwitch();
}

// Returns false when it would take too long; writes have gone on then.
bool CMoveSwitch::TrySwitch() {
  bool is_switched = false;
  milliseconds lasted{0};
  {
    CHeldWrites held(*work_.host.store, details::kPatience, details::kLongestPause);
    is_switched = held && SwitchHeld(held);
    lasted = held.Lasted();
  }
  if (!is_switched) {
    Pause(lasted);
  } else {
    work_.Say("switched, writes were held for " + std::to_string(lasted.count()) + " ms");
  }
  return is_switched;
}

bool CMoveSwitch::SwitchHeld(CHeldWrites& held) {
  work_.source.Run({ForgetMoveLog(-1)});  // whatever was handed in for later is committed before this
  std::atomic<std::int64_t> room{details::kMostHeldBytes};
  if (!work_.host.store->WaitForMirror(details::kPatience) ||
      !rows_.FollowHeld([&held] { return held.IsOver(); }, room) || !ComparePictures(held, room)) {
    return false;
  }
  WriteLastRows();
  ExpectMirror();
  if (!held.Keep()) {
    return false;
  }
  Switch();
  held.LetGo();
  has_ended_ = EndInNewPlace();
  return true;
}

// Pictures that are not the same stay for the next try.
bool CMoveSwitch::ComparePictures(const CHeldWrites& held, std::atomic<std::int64_t>& room) {
  const std::vector<StoredName> pictures = work_.host.store->TakeMirroredPictures();
  std::atomic<bool> are_same{true};
  work_.InParallel(pictures.size(), [&](std::size_t i) {
    if (are_same && (held.IsOver() || !bytes_.IsSame(pictures[i], room))) {
      are_same = false;
    }
  });
  if (!are_same) {
    uncompared_.insert(uncompared_.end(), pictures.begin(), pictures.end());
  }
  return are_same;
}

void CMoveSwitch::WriteLastRows() {
  if (!work_.target.MovesRows()) {
    work_.source.Run(work_.target.VolumeStatements());
    return;
  }
  CopyReleased();
  std::vector<std::string> last = CopyMoveSequences(work_.source, work_.target.Database());
  for (std::string& statement : CopyMoveVolumes(work_.source)) {
    last.push_back(std::move(statement));
  }
  last.push_back(CMoveDatabase::SetValue("running_seconds", work_.source.GetValue("running_seconds")));
  work_.target.Database().Run(last);
}

// When nobody can say which place counts, the only way to lose nothing is to write nothing: the process ends, and what
// the next start reads counts.
int CMoveSwitch::WriteMarkOrEnd() const {
  try {
    return WriteMovedMark(mark_);
  } catch (const CMarkInDoubt& doubt) {
    work_.Say(std::string(doubt.what()) + "; tansyd ends here, and the next start finds out");
    logging::SetSink(nullptr);
    std::_Exit(kExitFailed);
  }
}

// The file is what counts: before it is there, everything is in the old place, and afterwards in the new one.
void CMoveSwitch::Switch() {
  MovedTo moved;
  moved.options = work_.target.Options(work_.host.options);
  mark_ = work_.target.Mark(work_.host.options, work_.id, work_.source.GetValue("store_id"));
  if (work_.target.MovesRows() && !db_layer::Module_Switch(moved.options.database, "platform")) {
    throw CMoveFailure("the new database cannot be used: " + db_layer::LastRegisterError("platform"));
  }
  if (const int error = WriteMarkOrEnd()) {
    if (work_.target.MovesRows()) {
      db_layer::Module_Switch(work_.host.options.database, "platform");
    }
    throw CMoveFailure("the file that notes the move cannot be written: " + HostSystem::ErrorText(error));
  }
  if (work_.target.MovesBytes()) {
    work_.host.store->Switch();
  }
  moved.place = work_.target.TakePlace();
  moved.database_lock = work_.target.TakeLock();
  work_.host.take_over(std::move(moved));
}

// Until this is done, the new catalogue compares no parts of uploads with their objects.
bool CMoveSwitch::EndInNewPlace() {
  try {
    if (work_.target.MovesRows()) {
      work_.target.Database().Run(EndStatements(mark_));
    }
    return true;
  } catch (const CMoveFailure& failure) {
    work_.Say(std::string("its end cannot be noted yet: ") + failure.what());
    return false;
  }
}

// From here on a failure changes nothing: every start does what is left to be done.
void CMoveSwitch::LeaveSource() {
  while (!has_ended_ && !work_.host.is_stopping()) {
    std::this_thread::sleep_for(details::kLookAgain);
    has_ended_ = EndInNewPlace();
  }
  try {
    if (work_.target.MovesRows()) {
      work_.source.Run(LeaveStatements(work_.source, work_.tables, mark_));
      work_.target.Database().Run({CMoveDatabase::DropValue(kMoveLeaves)});
    } else {
      std::vector<std::string> end = ForgetMove(work_.source, work_.tables);
      end.push_back(CMoveDatabase::SetValue("store_id", mark_.store_id));
      work_.source.Run(end);
    }
  } catch (const CMoveFailure& failure) {
    work_.Say(std::string("not everything could be noted, the next start does it: ") + failure.what());
  }
  work_.Say("done: " + work_.target.Describe() +
            "; the old place is left as it is (tansyd move --delete-old frees it)");
}

}  // namespace Tansy::Host
