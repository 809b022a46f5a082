#include "Move.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <exception>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "HostDatabases.h"
#include "HostLog.h"
#include "HostSystem/Files.h"
#include "Locks.h"
#include "MoveDatabase.h"
#include "MoveFailure.h"
#include "MoveNames.h"
#include "MoveTables.h"
#include "MoveTarget.h"
#include "PrintableText.h"
#include "StartFailure.h"
#include "StoredName.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kRowsAtOnce = 256;
constexpr std::size_t kCopiers = 4;
constexpr std::uint32_t kPiece = std::uint32_t{4} << 20;
constexpr std::size_t kMostShownFindings = 20;
constexpr std::chrono::seconds kBetweenLines{5};

// Writes are held for at most this long; the last rows must be through before that.
constexpr milliseconds kLongestPause{1800};
constexpr milliseconds kLongestRows{1200};
constexpr milliseconds kPatience{400};  // for what is under way when writes are to be held
constexpr milliseconds kQuickCount{100};
constexpr int kMostTries = 50;
// With this few changes left, the next round may be the last before the switch.
constexpr std::size_t kFewChanges = 64;

constexpr const char* kUploadTable = "local_object_task";

milliseconds Since(Clock::time_point begin) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

std::string Amount(std::uint64_t bytes) {
  const char* const units[] = {"bytes", "KB", "MB", "GB", "TB"};
  double number = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (number >= 1000 && unit < 4) {
    number /= 1000;
    ++unit;
  }
  std::string text = std::to_string(number);
  return text.substr(0, text.find('.') + (unit == 0 ? 0 : 2)) + " " + units[unit];
}

enum class ECopy { kSame, kGone, kDamaged };

class CMove {
 public:
  CMove(const MoveOrder& order, MoveHost& host)
      : order_(order), host_(host), source_(host.options.database, "move-source"), target_(order, host.options) {}

  void Run() {
    tables_ = FindMoveTables(source_);
    CountAll();
    if (order_.dry_run) {
      target_.Try(totals_, host_.say);
      return;
    }
    Begin();
    CopyRows();
    CopyPictures(EPictures::kAll);
    FollowWhileItHelps();
    ExpectNoFindings();
    SwitchOver();
    LookAgain();
    LeaveSource();
  }

 private:
  enum class EPictures { kAll, kNew };

  bool MovesBytes() const { return target_.MovesBytes(); }
  bool MovesRows() const { return target_.MovesRows(); }
  IObjectStore& From() const { return host_.store->Now(); }
  IObjectStore& To() const { return *target_.Store(); }

  void ExpectGoingOn() const {
    if (host_.is_stopping()) {
      throw CMoveFailure("stopped; the same command goes on with it");
    }
  }

  void Say(const std::string& line) { host_.say("move: " + line); }

  void SayHowFar() {
    const std::lock_guard lock(progress_mutex_);
    if (Clock::now() < next_line_) {
      return;
    }
    next_line_ = Clock::now() + kBetweenLines;
    Say(std::to_string(objects_) + " of " + std::to_string(totals_.objects) + " objects, " + Amount(bytes_) + " of " +
        Amount(totals_.bytes) + " looked at");
  }

  void CountAll() {
    const auto rows = source_.Query(
        "SELECT COUNT(*) AS objects, COALESCE(SUM(size), 0) AS bytes FROM platform.local_object", {"objects", "bytes"});
    totals_.objects = std::strtoull(rows.front()[0].c_str(), nullptr, 10);
    totals_.bytes = std::strtoull(rows.front()[1].c_str(), nullptr, 10);
    if (target_.MovesBytes()) {
      From().ForEach(EContent::kPicture, [this](const StoredEntry& entry) {
        totals_.pictures += entry.is_temporary ? 0 : 1;
        totals_.picture_bytes += entry.is_temporary ? 0 : entry.size;
        return !host_.is_stopping();
      });
    }
    Say(std::to_string(totals_.objects) + " objects (" + Amount(totals_.bytes) + ")" +
        (target_.MovesBytes()
             ? ", " + std::to_string(totals_.pictures) + " pictures (" + Amount(totals_.picture_bytes) + ")"
             : ""));
  }

  // The source knows of the move before the goal is marked: a goal that nobody knows would be taken for another's.
  void Begin() {
    const std::string old_goal = source_.GetValue(kMoveGoal);
    id_ = source_.GetValue(kMoveId);
    if (!id_.empty() && old_goal != target_.Describe()) {
      throw CMoveFailure("another move has begun, to " + old_goal + ": end it first, or forget it with --cancel");
    }
    target_.Expect(id_);
    const bool goes_on = !id_.empty();
    if (!goes_on) {
      id_ = CMoveTarget::NewId();
      std::vector<std::string> statements = BeginMoveLog(source_, tables_);
      statements.push_back(CMoveDatabase::SetValue(kMoveId, id_));
      statements.push_back(CMoveDatabase::SetValue(kMoveGoal, target_.Describe()));
      source_.Run(statements);
    }
    try {
      target_.Open(host_.options, id_);
      if (MovesRows()) {
        ExpectMoveTables(tables_, target_.Database());
      }
    } catch (...) {
      if (!goes_on) {
        source_.Run(ForgetMove(source_, tables_));
      }
      throw;
    }
    Say((goes_on ? "goes on: " : "to ") + target_.Describe());
  }

  void CopyRows() {
    const std::string place = source_.GetValue(kMovePlace);  // TABLE KEY, with blanks written as in Packed
    std::vector<std::string> words = Unpacked(place);
    std::size_t first = 0;
    if (!words.empty()) {
      const auto found = std::find_if(tables_.begin(), tables_.end(),
                                      [&words](const MoveTable& table) { return table.name == words.front(); });
      first = words.front() == "-" ? tables_.size() : static_cast<std::size_t>(found - tables_.begin());
      words.erase(words.begin());
    }
    for (std::size_t i = first; i < tables_.size(); ++i) {
      CopyTable(tables_[i], i == first ? words : std::vector<std::string>());
    }
    source_.Run({CMoveDatabase::SetValue(kMovePlace, Packed({"-"}))});
  }

  void CopyTable(const MoveTable& table, std::vector<std::string> key) {
    for (;;) {
      ExpectGoingOn();
      const std::vector<CMoveDatabase::Row> rows = ReadRowsBehind(source_, table, key, kRowsAtOnce);
      if (rows.empty()) {
        return;
      }
      Apply(table, rows, {}, EBytes::kCopy);
      key.assign(rows.back().begin(), rows.back().begin() + static_cast<std::ptrdiff_t>(table.key_size));
      std::vector<std::string> place = key;
      place.insert(place.begin(), table.name);
      source_.Run({CMoveDatabase::SetValue(kMovePlace, Packed(place))});
      if (MovesBytes()) {
        To().Tidy(host_.is_stopping);
      }
    }
  }

  enum class EBytes {
    kCopy,
    kAreThere,  // all but those that a mirror has are copied; those are compared later
  };

  // Bytes come first, so that no row in the new place ever names what is not there.
  void Apply(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows,
             const std::vector<std::vector<std::string>>& gone, EBytes bytes) {
    std::vector<StoredName> names;
    if (MovesBytes() && table.url < table.columns.size() && table.name != kUploadTable) {
      names = CopyBytes(table, rows, bytes);
    }
    if (MovesRows()) {
      WriteRows(target_.Database(), table, rows, gone);
    }
    if (!names.empty()) {
      To().ForgetNew(names);
    }
  }

  std::vector<StoredName> CopyBytes(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows, EBytes bytes) {
    std::vector<StoredName> names(rows.size());
    std::vector<ECopy> results(rows.size(), ECopy::kSame);
    std::atomic<std::size_t> next{0};
    InParallel(rows.size(), [&](std::size_t i) {
      if (!ParseOwnText(rows[i][table.url], names[i])) {
        names[i] = {};
        return;
      }
      if (bytes == EBytes::kAreThere && host_.store->IsMirrored(names[i])) {
        const std::lock_guard lock(progress_mutex_);
        unseen_.push_back(names[i]);
        return;
      }
      results[i] = Copy(names[i]);
      ++objects_;
      SayHowFar();
    });
    for (std::size_t i = 0; i < rows.size(); ++i) {
      if (results[i] != ECopy::kSame) {
        NoteUnlessChanged(table, rows[i], results[i]);
      }
    }
    std::erase_if(names, [](const StoredName& name) { return name.id.empty(); });
    return names;
  }

  // Bytes that are gone belonged to a row that was removed or changed meanwhile, unless the store is damaged.
  void NoteUnlessChanged(const MoveTable& table, const CMoveDatabase::Row& row, ECopy result) {
    const std::vector<std::string> key(row.begin(), row.begin() + static_cast<std::ptrdiff_t>(table.key_size));
    const std::vector<CMoveDatabase::Row> now = ReadRowsOf(source_, table, {key});
    if (now.empty() || now.front()[table.url] != row[table.url]) {
      return;
    }
    findings_.insert((result == ECopy::kGone ? "missing " : "damaged ") + table.name + " " + Printable(key.front()) +
                     " " + Printable(row[table.url]));
  }

  void ExpectNoFindings() {
    std::size_t shown = 0;
    for (const std::string& finding : findings_) {
      if (++shown <= kMostShownFindings) {
        host_.say(finding);
      }
    }
    if (!findings_.empty() && !order_.force) {
      throw CMoveFailure(
          "the bytes of " + std::to_string(findings_.size()) +
          " rows cannot be read (tansyd --check names them all): remove those objects, or give --even-damaged");
    }
  }

  // Calls work(0), work(1) ... on a few threads, and throws what one of them has thrown.
  void InParallel(std::size_t count, const std::function<void(std::size_t)>& work) {
    std::atomic<std::size_t> next{0};
    std::mutex mutex;
    std::exception_ptr failure;
    const auto run = [&] {
      try {
        for (std::size_t i = next++; i < count; i = next++) {
          ExpectGoingOn();
          work(i);
        }
      } catch (...) {
        next = count;
        const std::lock_guard lock(mutex);
        failure = std::current_exception();
      }
    };
    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < std::min(kCopiers, count); ++i) {
      threads.emplace_back(run);
    }
    run();
    for (std::thread& thread : threads) {
      thread.join();
    }
    if (failure) {
      std::rethrow_exception(failure);
    }
  }

  // Makes the new place have the same bytes under this name, and compares them there, byte by byte.
  ECopy Copy(const StoredName& name) {
    std::uint64_t size = 0;
    std::uint64_t there = 0;
    if (const EStoreResult result = From().GetSize(name, size); result != EStoreResult::kDone) {
      return result == EStoreResult::kMissing ? ECopy::kGone : ECopy::kDamaged;
    }
    const EStoreResult found = To().GetSize(name, there);
    if (found == EStoreResult::kDone && there == size) {
      const ECopy result = Compare(name, size);
      if (result != ECopy::kDamaged) {
        return result;
      }
    }
    if (found == EStoreResult::kDone) {
      ExpectDone(To().Remove(name));
    }
    const ECopy result = To().IsPicture(name) ? CopyWhole(name) : CopyPieces(name, size);
    return result == ECopy::kSame ? CompareCopy(name, size) : result;
  }

  ECopy CompareCopy(const StoredName& name, std::uint64_t size) {
    const ECopy result = Compare(name, size);
    if (result == ECopy::kDamaged) {
      throw CMoveFailure(target_.Describe() + " gives other bytes than were written to it: " + LocationText(name));
    }
    return result;
  }

  void ExpectDone(EStoreResult result) const {
    if (result == EStoreResult::kNoSpace) {
      throw CMoveFailure(target_.DescribeStore() + " is full");
    }
    if (result != EStoreResult::kDone) {
      throw CMoveFailure(target_.DescribeStore() + " cannot be used, see the log");
    }
  }

  ECopy CopyWhole(const StoredName& name) {
    ReadBuffer bytes;
    const EStoreResult result = From().ReadWhole(name, bytes);
    if (result != EStoreResult::kDone) {
      return result == EStoreResult::kMissing ? ECopy::kGone : ECopy::kDamaged;
    }
    ExpectDone(To().SaveNamed(name, 0, bytes.data.get(), bytes.size));
    return ECopy::kSame;
  }

  ECopy CopyPieces(const StoredName& name, std::uint64_t size) {
    std::uint64_t offset = 0;
    do {
      ReadBuffer bytes;
      const EStoreResult result = From().ReadRange(name, offset, kPiece, bytes);
      if (result != EStoreResult::kDone || (bytes.size == 0 && size > offset)) {
        return result == EStoreResult::kMissing ? ECopy::kGone : ECopy::kDamaged;
      }
      ExpectDone(To().SaveNamed(name, offset, bytes.data.get(), bytes.size));
      offset += bytes.size;
    } while (offset < size);
    return ECopy::kSame;
  }

  // kDamaged: they differ.
  ECopy Compare(const StoredName& name, std::uint64_t size) {
    std::uint64_t offset = 0;
    do {
      ReadBuffer bytes;
      ReadBuffer copy;
      const EStoreResult result = From().ReadRange(name, offset, kPiece, bytes);
      if (result != EStoreResult::kDone) {
        return result == EStoreResult::kMissing ? ECopy::kGone : ECopy::kDamaged;
      }
      const EStoreResult read = To().ReadRange(name, offset, kPiece, copy);
      if (read == EStoreResult::kMissing && From().GetSize(name, size) == EStoreResult::kMissing) {
        return ECopy::kGone;  // a removal took it from both places
      }
      ExpectDone(read);
      const bool is_same = bytes.size == copy.size && (bytes.size > 0 || offset >= size) &&
                           (bytes.size == 0 || std::memcmp(bytes.data.get(), copy.data.get(), bytes.size) == 0);
      if (!is_same) {
        return ECopy::kDamaged;
      }
      offset += bytes.size;
      bytes_ += bytes.size;
    } while (offset < size);
    return ECopy::kSame;
  }

  // Pictures have no rows; those that were copied before are compared once per run.
  void CopyPictures(EPictures which) {
    if (!MovesBytes()) {
      return;
    }
    std::vector<StoredName> batch;
    const auto copy_batch = [&] {
      InParallel(batch.size(), [&](std::size_t i) { Copy(batch[i]); });
      To().ForgetNew(batch);
      batch.clear();
      SayHowFar();
    };
    const auto look = [&](const StoredEntry& entry) {
      std::uint64_t size = 0;
      const bool is_there = which == EPictures::kNew && To().GetSize(entry.name, size) == EStoreResult::kDone;
      if (!entry.is_temporary && !is_there) {
        batch.push_back(entry.name);
      }
      if (batch.size() == kRowsAtOnce) {
        copy_batch();
      }
      return !host_.is_stopping();
    };
    if (!From().ForEach(EContent::kPicture, look)) {
      throw CMoveFailure("the pictures cannot be listed, see the log");
    }
    ExpectGoingOn();
    copy_batch();
  }

  // Copies what has changed since it was copied. Returns the number of changes.
  std::size_t Follow(EBytes bytes = EBytes::kCopy) {
    ExpectGoingOn();
    const std::vector<MoveChange> changes = ReadMoveLog(source_, 2 * kRowsAtOnce);
    if (changes.empty()) {
      return 0;
    }
    for (const MoveTable& table : tables_) {
      std::set<std::vector<std::string>> keys;
      for (const MoveChange& change : changes) {
        if (change.table == table.name) {
          keys.emplace(change.key.begin(), change.key.begin() + static_cast<std::ptrdiff_t>(table.key_size));
        }
      }
      if (!keys.empty()) {
        FollowTable(table, std::move(keys), bytes);
      }
    }
    source_.Run({ForgetMoveLog(changes.back().number)});
    return changes.size();
  }

  // Follows until little is left, or until clients change as much as is copied meanwhile.
  void FollowWhileItHelps() {
    std::size_t left = CountChanges();
    while (left > kFewChanges) {
      const std::size_t before = left;
      for (std::size_t done = 0; done < before;) {
        const std::size_t count = Follow();
        done = count == 0 ? before : done + count;
      }
      left = CountChanges();
      if (left > before / 2) {
        return;
      }
    }
  }

  std::size_t CountChanges() {
    return std::strtoull(source_.Value("SELECT COUNT(*) AS value FROM platform.move_changes").c_str(), nullptr, 10);
  }

  void FollowTable(const MoveTable& table, std::set<std::vector<std::string>> keys, EBytes bytes) {
    const std::vector<CMoveDatabase::Row> rows =
        ReadRowsOf(source_, table, std::vector<std::vector<std::string>>(keys.begin(), keys.end()));
    for (const CMoveDatabase::Row& row : rows) {
      keys.erase(std::vector<std::string>(row.begin(), row.begin() + static_cast<std::ptrdiff_t>(table.key_size)));
    }
    Apply(table, rows, std::vector<std::vector<std::string>>(keys.begin(), keys.end()), bytes);
  }

  // New bytes go to both places from now on, and those that are being uploaded are copied. What goes wrong in the new
  // place ends that, and the move with it.
  void SwitchOver() {
    if (MovesBytes()) {
      BeginMirror();
    }
    try {
      CopyUploads();
      CopyPictures(EPictures::kNew);
      for (int tries = 1;; ++tries) {
        FollowWhileItHelps();
        ExpectNoFindings();
        ExpectMirror();
        if (TrySwitch()) {
          return;
        }
        if (tries == kMostTries) {
          throw CMoveFailure("writes would have to wait for more than two seconds; try again when there are fewer");
        }
      }
    } catch (...) {
      EndMirror();
      throw;
    }
  }

  void BeginMirror() {
    for (int tries = 1; !host_.store->HoldWrites(kPatience); ++tries) {
      ExpectGoingOn();
      if (tries == kMostTries) {
        throw CMoveFailure("writes that are under way do not end; try again later");
      }
    }
    host_.store->BeginMirror(target_.Store());
    for (const NewBytes& bytes : From().GetNew(0)) {
      uploads_.push_back(bytes.name);
    }
    host_.store->ReleaseWrites();
  }

  void EndMirror() {
    if (!MovesBytes() || is_switched_) {
      return;
    }
    while (!host_.store->HoldWrites(kPatience)) {
    }
    host_.store->EndMirror();
    host_.store->ReleaseWrites();
  }

  void ExpectMirror() const {
    if (MovesBytes() && host_.store->HasMirrorFailed()) {
      throw CMoveFailure(target_.DescribeStore() + " cannot be written, see the log");
    }
  }

  // What was stored before the mirror began and may have no row yet, or is still being written.
  void CopyUploads() {
    if (!MovesBytes()) {
      return;
    }
    const std::string sql = std::string("SELECT DISTINCT url FROM platform.") + kUploadTable;
    for (const CMoveDatabase::Row& row : source_.Query(sql, {"url"})) {
      StoredName name;
      if (ParseLocationText(row.front(), name)) {
        uploads_.push_back(name);
      }
    }
    InParallel(uploads_.size(), [this](std::size_t i) {
      if (From().IsPicture(uploads_[i])) {
        return;
      }
      const EStoreResult result = host_.store->CopyToMirror(uploads_[i]);
      if (result != EStoreResult::kMissing) {
        ExpectDone(result);
      }
    });
  }

  // Returns false when it would take too long; writes have gone on then.
  bool TrySwitch() {
    const CHeldWrites held(*host_.store, kPatience);
    if (!held) {
      return false;
    }
    const Clock::time_point begin = held.Begin();
    source_.Run({ForgetMoveLog(-1)});  // whatever was handed in for later is committed before this
    while (Follow(EBytes::kAreThere) > 0) {
      if (Since(begin) > kLongestRows) {
        return false;
      }
    }
    std::vector<std::string> last;
    if (MovesRows()) {
      ExpectEqualCounts();
      last = CopyMoveSequences(source_, target_.Database());
      for (const auto& statements : {CopyMoveVolumes(source_), CopyReleasedParts(source_)}) {
        last.insert(last.end(), statements.begin(), statements.end());
      }
      last.push_back(CMoveDatabase::SetValue("running_seconds", source_.GetValue("running_seconds")));
      target_.Database().Run(last);
    } else {
      source_.Run(target_.VolumeStatements());
    }
    ExpectMirror();
    if (Since(begin) > kLongestPause) {
      return false;
    }
    Switch();
    pause_ = Since(begin);
    Say("switched, writes were held for " + std::to_string(pause_.count()) + " ms");
    return true;
  }

  // Counting a large table takes long; then the log alone says that both are equal.
  void ExpectEqualCounts() {
    for (const MoveTable& table : tables_) {
      if (slow_counts_.count(table.name) > 0) {
        continue;
      }
      const Clock::time_point begin = Clock::now();
      const std::string sql = "SELECT COUNT(*) AS value FROM platform." + table.name;
      const std::string here = source_.Value(sql);
      const std::string there = target_.Database().Value(sql);
      if (Since(begin) > kQuickCount) {
        slow_counts_.insert(table.name);
      }
      if (here != there) {
        throw CMoveFailure("the table " + table.name + " has " + here + " rows in the old place and " + there +
                           " in the new one");
      }
    }
  }

  // The file is what counts: before it is there, everything is in the old place, and afterwards in the new one.
  void Switch() {
    MovedTo moved;
    moved.options = target_.Options(host_.options);
    mark_ = target_.Mark(host_.options, id_, source_.GetValue("store_id"));
    if (MovesRows() && !db_layer::Module_Switch(moved.options.database, "platform")) {
      throw CMoveFailure("the new database cannot be used: " + db_layer::LastRegisterError("platform"));
    }
    if (const int error = WriteMovedMark(mark_)) {
      if (MovesRows()) {
        db_layer::Module_Switch(host_.options.database, "platform");
      }
      throw CMoveFailure("the file that notes the move cannot be written: " + HostSystem::ErrorText(error));
    }
    is_switched_ = true;
    if (MovesBytes()) {
      old_store_ = &host_.store->Now();
      host_.store->Switch();
    }
    moved.place = target_.TakePlace();
    moved.database_lock = target_.TakeLock();
    host_.take_over(std::move(moved));
  }

  // What went to both places in the last moments is compared now.
  void LookAgain() {
    for (const StoredName& name : unseen_) {
      std::uint64_t size = 0;
      ReadBuffer bytes;
      ReadBuffer copy;
      EStoreResult result = old_store_->GetSize(name, size);
      for (std::uint64_t offset = 0; result == EStoreResult::kDone && offset < size; offset += bytes.size) {
        result = old_store_->ReadRange(name, offset, kPiece, bytes);
        if (result != EStoreResult::kDone || To().ReadRange(name, offset, kPiece, copy) != EStoreResult::kDone) {
          break;  // it was removed meanwhile
        }
        if (copy.size != bytes.size || std::memcmp(copy.data.get(), bytes.data.get(), bytes.size) != 0) {
          Say("damaged " + LocationText(name) + " in the new place; the old place has the right bytes");
          HOST_LOG(logging::kError, "[%s]%s is damaged in the new place.[%s(%d)]", LocationText(name).c_str());
          break;
        }
      }
    }
  }

  // From here on a failure changes nothing: every start does what is left to be done in the new place.
  void LeaveSource() {
    const auto try_to = [this](CMoveDatabase& database, const std::vector<std::string>& statements) {
      try {
        database.Run(statements);
      } catch (const CMoveFailure& failure) {
        Say(std::string("not everything could be noted: ") + failure.what());
      }
    };
    if (MovesRows()) {
      try_to(target_.Database(), EndStatements(mark_));
    }
    std::vector<std::string> end = ForgetMove(source_, tables_);
    if (MovesRows()) {
      end.push_back(CMoveDatabase::SetValue(kMovedTo, target_.Describe()));
    } else {
      for (std::string& statement : EndStatements(mark_)) {
        end.push_back(std::move(statement));
      }
    }
    try_to(source_, end);
    Say("done: " + target_.Describe() + "; the old place is left as it is (tansyd move --delete-old frees it)");
  }

  // Writes to both halves are held as long as this lives.
  class CHeldWrites {
   public:
    CHeldWrites(CMovableStore& store, milliseconds patience) : store_(store), begin_(Clock::now()) {
      if (!store_.HoldWrites(patience)) {
        return;
      }
      is_held_ = db_layer::Module_Hold("platform", static_cast<int>(patience.count()));
      if (!is_held_) {
        store_.ReleaseWrites();
      }
    }
    ~CHeldWrites() {
      if (is_held_) {
        db_layer::Module_Release("platform");
        store_.ReleaseWrites();
      }
    }
    CHeldWrites(const CHeldWrites&) = delete;
    CHeldWrites& operator=(const CHeldWrites&) = delete;

    explicit operator bool() const { return is_held_; }
    Clock::time_point Begin() const { return begin_; }

   private:
    CMovableStore& store_;
    const Clock::time_point begin_;
    bool is_held_ = false;
  };

  const MoveOrder& order_;
  MoveHost& host_;
  CMoveDatabase source_;
  CMoveTarget target_;
  std::vector<MoveTable> tables_;
  MoveTotals totals_;
  std::string id_;
  MovedMark mark_;
  std::set<std::string> findings_;
  std::set<std::string> slow_counts_;
  std::vector<StoredName> uploads_;
  std::vector<StoredName> unseen_;  // copied by the mirror, and not compared yet
  IObjectStore* old_store_ = nullptr;
  bool is_switched_ = false;
  milliseconds pause_{0};

  std::mutex progress_mutex_;
  Clock::time_point next_line_ = Clock::now() + kBetweenLines;
  std::atomic<std::uint64_t> objects_{0};
  std::atomic<std::uint64_t> bytes_{0};
};

}  // namespace
}  // namespace details

void RunMove(const MoveOrder& order, MoveHost& host) {
  details::CMove(order, host).Run();
}

}  // namespace Tansy::Host
