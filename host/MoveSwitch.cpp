#include "MoveSwitch.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "HostLog.h"
#include "HostSystem/Files.h"
#include "MoveFailure.h"
#include "MoveHold.h"
#include "MoveNames.h"
#include "MoveTables.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t kPiece = std::uint32_t{4} << 20;
// Writes are held for at most this long; the last rows must be through before that.
constexpr milliseconds kLongestPause{1800};
constexpr milliseconds kLongestRows{1200};
constexpr milliseconds kPatience{400};  // for what is under way when writes are to be held
constexpr milliseconds kQuickCount{100};
constexpr int kMostTries = 50;

}  // namespace
}  // namespace details

void CMoveSwitch::Run() {
  SwitchOver();
  LookAgain();
  LeaveSource();
}

// New bytes go to both places from now on, and those that are being uploaded are copied. What goes wrong in the new
// place ends that, and the move with it.
void CMoveSwitch::SwitchOver() {
  if (work_.target.MovesBytes()) {
    BeginMirror();
  }
  try {
    CopyUploads();
    bytes_.CopyPictures(EPictures::kNew);
    for (int tries = 1;; ++tries) {
      rows_.FollowWhileItHelps();
      rows_.ExpectNoFindings();
      ExpectMirror();
      if (TrySwitch()) {
        return;
      }
      if (tries == details::kMostTries) {
        throw CMoveFailure("writes would have to wait for more than two seconds; try again when there are fewer");
      }
    }
  } catch (...) {
    EndMirror();
    throw;
  }
}

void CMoveSwitch::BeginMirror() {
  for (int tries = 1; !work_.host.store->HoldWrites(details::kPatience); ++tries) {
    work_.ExpectGoingOn();
    if (tries == details::kMostTries) {
      throw CMoveFailure("writes that are under way do not end; try again later");
    }
  }
  work_.host.store->BeginMirror(work_.target.Store());
  for (const NewBytes& bytes : work_.From().GetNew(0)) {
    uploads_.push_back(bytes.name);
  }
  work_.host.store->ReleaseWrites();
}

void CMoveSwitch::EndMirror() {
  if (!work_.target.MovesBytes() || is_switched_) {
    return;
  }
  while (!work_.host.store->HoldWrites(details::kPatience)) {
  }
  work_.host.store->EndMirror();
  work_.host.store->ReleaseWrites();
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

// Returns false when it would take too long; writes have gone on then.
bool CMoveSwitch::TrySwitch() {
  const CHeldWrites held(*work_.host.store, details::kPatience);
  if (!held) {
    return false;
  }
  work_.source.Run({ForgetMoveLog(-1)});  // whatever was handed in for later is committed before this
  while (rows_.Follow(EBytes::kAreThere) > 0) {
    if (held.Lasts() > details::kLongestRows) {
      return false;
    }
  }
  std::vector<std::string> last;
  if (work_.target.MovesRows()) {
    ExpectEqualCounts();
    last = CopyMoveSequences(work_.source, work_.target.Database());
    for (const auto& statements : {CopyMoveVolumes(work_.source), CopyReleasedParts(work_.source)}) {
      last.insert(last.end(), statements.begin(), statements.end());
    }
    last.push_back(CMoveDatabase::SetValue("running_seconds", work_.source.GetValue("running_seconds")));
    work_.target.Database().Run(last);
  } else {
    work_.source.Run(work_.target.VolumeStatements());
  }
  ExpectMirror();
  if (held.Lasts() > details::kLongestPause) {
    return false;
  }
  Switch();
  work_.Say("switched, writes were held for " + std::to_string(held.Lasts().count()) + " ms");
  return true;
}

// Counting a large table takes long; then the log alone says that both are equal.
void CMoveSwitch::ExpectEqualCounts() {
  for (const MoveTable& table : work_.tables) {
    if (slow_counts_.count(table.name) > 0) {
      continue;
    }
    const auto begin = std::chrono::steady_clock::now();
    const std::string sql = "SELECT COUNT(*) AS value FROM platform." + table.name;
    const std::string here = work_.source.Value(sql);
    const std::string there = work_.target.Database().Value(sql);
    if (std::chrono::steady_clock::now() - begin > details::kQuickCount) {
      slow_counts_.insert(table.name);
    }
    if (here != there) {
      throw CMoveFailure("the table " + table.name + " has " + here + " rows in the old place and " + there +
                         " in the new one");
    }
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
  if (const int error = WriteMovedMark(mark_)) {
    if (work_.target.MovesRows()) {
      db_layer::Module_Switch(work_.host.options.database, "platform");
    }
    throw CMoveFailure("the file that notes the move cannot be written: " + HostSystem::ErrorText(error));
  }
  is_switched_ = true;
  if (work_.target.MovesBytes()) {
    old_store_ = &work_.host.store->Now();
    work_.host.store->Switch();
  }
  moved.place = work_.target.TakePlace();
  moved.database_lock = work_.target.TakeLock();
  work_.host.take_over(std::move(moved));
}

// What went to both places in the last moments is compared now.
void CMoveSwitch::LookAgain() {
  for (const StoredName& name : rows_.Unseen()) {
    std::uint64_t size = 0;
    ReadBuffer bytes;
    ReadBuffer copy;
    EStoreResult result = old_store_->GetSize(name, size);
    for (std::uint64_t offset = 0; result == EStoreResult::kDone && offset < size; offset += bytes.size) {
      result = old_store_->ReadRange(name, offset, details::kPiece, bytes);
      if (result != EStoreResult::kDone ||
          work_.To().ReadRange(name, offset, details::kPiece, copy) != EStoreResult::kDone) {
        break;  // it was removed meanwhile
      }
      if (copy.size != bytes.size || std::memcmp(copy.data.get(), bytes.data.get(), bytes.size) != 0) {
        work_.Say("damaged " + LocationText(name) + " in the new place; the old place has the right bytes");
        HOST_LOG(logging::kError, "[%s]%s is damaged in the new place.[%s(%d)]", LocationText(name).c_str());
        break;
      }
    }
  }
}

// From here on a failure changes nothing: every start does what is left to be done in the new place.
void CMoveSwitch::LeaveSource() {
  const auto try_to = [this](CMoveDatabase& database, const std::vector<std::string>& statements) {
    try {
      database.Run(statements);
    } catch (const CMoveFailure& failure) {
      work_.Say(std::string("not everything could be noted: ") + failure.what());
    }
  };
  if (work_.target.MovesRows()) {
    try_to(work_.target.Database(), EndStatements(mark_));
  }
  std::vector<std::string> end = ForgetMove(work_.source, work_.tables);
  if (work_.target.MovesRows()) {
    end.push_back(CMoveDatabase::SetValue(kMovedTo, work_.target.Describe()));
  } else {
    for (std::string& statement : EndStatements(mark_)) {
      end.push_back(std::move(statement));
    }
  }
  try_to(work_.source, end);
  work_.Say("done: " + work_.target.Describe() +
            "; the old place is left as it is (tansyd move --delete-old frees it)");
}

}  // namespace Tansy::Host
