#include "MoveRows.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "MoveFailure.h"
#include "MoveNames.h"
#include "PrintableText.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr int kRowsAtOnce = 256;
constexpr std::size_t kMostShownFindings = 20;
constexpr int kMostRounds = 100;
constexpr std::chrono::milliseconds kShortRound{200};

std::vector<std::string> KeyOf(const MoveTable& table, const CMoveDatabase::Row& row) {
  return {row.begin(), row.begin() + static_cast<std::ptrdiff_t>(table.key_size)};
}

}  // namespace
}  // namespace details

void CMoveRows::CopyAll() {
  const std::string place = work_.source.GetValue(kMovePlace);  // TABLE KEY, with blanks written as in Packed
  std::vector<std::string> words = Unpacked(place);
  std::size_t first = 0;
  if (!words.empty()) {
    const auto found = std::find_if(work_.tables.begin(), work_.tables.end(),
                                    [&words](const MoveTable& table) { return table.name == words.front(); });
    first = words.front() == "-" ? work_.tables.size() : static_cast<std::size_t>(found - work_.tables.begin());
    words.erase(words.begin());
  }
  for (std::size_t i = first; i < work_.tables.size(); ++i) {
    CopyTable(work_.tables[i], i == first ? words : std::vector<std::string>());
  }
  work_.source.Run({CMoveDatabase::SetValue(kMovePlace, Packed({"-"}))});
}

void CMoveRows::CopyTable(const MoveTable& table, std::vector<std::string> key) {
  for (;;) {
    work_.ExpectGoingOn();
    const std::vector<CMoveDatabase::Row> rows = ReadRowsBehind(work_.source, table, key, details::kRowsAtOnce);
    if (rows.empty()) {
      return;
    }
    Write(table, {rows, {}}, CopyBytes(table, rows));
    key = details::KeyOf(table, rows.back());
    std::vector<std::string> place = key;
    place.insert(place.begin(), table.name);
    work_.source.Run({CMoveDatabase::SetValue(kMovePlace, Packed(place))});
    if (work_.target.MovesBytes()) {
      work_.To().Tidy(work_.host.is_stopping);
    }
  }
}

bool CMoveRows::HasBytes(const MoveTable& table) const {
  return work_.target.MovesBytes() && table.url < table.columns.size() && table.name != kUploadTable;
}

void CMoveRows::Write(const MoveTable& table, const Changes& changes, const std::vector<StoredName>& names) {
  if (work_.target.MovesRows()) {
    WriteRows(work_.target.Database(), table, changes.rows, changes.gone);
  }
  if (!names.empty()) {
    work_.To().ForgetNew(names);
  }
}

std::vector<StoredName> CMoveRows::CopyBytes(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows) {
  if (!HasBytes(table)) {
    return {};
  }
  std::vector<StoredName> names(rows.size());
  std::vector<ECopy> results(rows.size(), ECopy::kSame);
  work_.InParallel(rows.size(), [&](std::size_t i) {
    if (!ParseOwnText(rows[i][table.url], names[i])) {
      names[i] = {};
      return;
    }
    results[i] = bytes_.Copy(names[i]);
    Remember(names[i]);
    work_.NoteObject();
    work_.SayHowFar();
  });
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (results[i] != ECopy::kSame) {
      NoteUnlessChanged(table, rows[i], results[i]);
    }
  }
  std::erase_if(names, [](const StoredName& name) { return name.id.empty(); });
  return names;
}

bool CMoveRows::CompareBytes(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows,
                             const std::function<bool()>& is_over, std::atomic<std::int64_t>& room,
                             std::vector<StoredName>& names) {
  if (!HasBytes(table)) {
    return true;
  }
  names.resize(rows.size());
  std::atomic<bool> are_same{true};
  work_.InParallel(rows.size(), [&](std::size_t i) {
    if (!ParseOwnText(rows[i][table.url], names[i])) {
      names[i] = {};
    } else if (are_same && !IsRemembered(names[i])) {
      if (!is_over() && bytes_.IsSame(names[i], room)) {
        Remember(names[i]);
      } else {
        are_same = false;
      }
    }
  });
  std::erase_if(names, [](const StoredName& name) { return name.id.empty(); });
  return are_same;
}

bool CMoveRows::IsRemembered(const StoredName& name) {
  const std::lock_guard lock(remembered_mutex_);
  return remembered_.count(name.id) > 0;
}

void CMoveRows::Remember(const StoredName& name) {
  const std::lock_guard lock(remembered_mutex_);
  if (remembers_) {
    remembered_.insert(name.id);
  }
}

// Bytes that are gone belonged to a row that was removed or changed meanwhile, unless the store is damaged.
void CMoveRows::NoteUnlessChanged(const MoveTable& table, const CMoveDatabase::Row& row, ECopy result) {
  const std::vector<CMoveDatabase::Row> now = ReadRowsOf(work_.source, table, {details::KeyOf(table, row)});
  if (now.empty() || now.front()[table.url] != row[table.url]) {
    return;
  }
  findings_.insert((result == ECopy::kGone ? "missing " : "damaged ") + table.name + " " + Printable(row.front()) +
                   " " + Printable(row[table.url]));
}

void CMoveRows::ExpectNoFindings() {
  std::size_t shown = 0;
  for (const std::string& finding : findings_) {
    if (++shown <= details::kMostShownFindings) {
      work_.host.say(finding);
    }
  }
  if (!findings_.empty() && !work_.order.force) {
    throw CMoveFailure(
        "the bytes of " + std::to_string(findings_.size()) +
        " rows cannot be read (tansyd --check names them all): remove those objects, or give --even-damaged");
  }
}

// Reads the oldest changes; `count` says how many. Returns the number of the last one.
std::int64_t CMoveRows::ReadChanges(std::vector<Changes>& changes, std::size_t& count) {
  const std::vector<MoveChange> log = ReadMoveLog(work_.source, 2 * details::kRowsAtOnce);
  count = log.size();
  changes.resize(work_.tables.size());
  for (std::size_t i = 0; i < work_.tables.size(); ++i) {
    const MoveTable& table = work_.tables[i];
    std::set<std::vector<std::string>> keys;
    for (const MoveChange& change : log) {
      if (change.table == table.name) {
        keys.insert(details::KeyOf(table, change.key));
      }
    }
    changes[i].rows = ReadRowsOf(work_.source, table, {keys.begin(), keys.end()});
    for (const CMoveDatabase::Row& row : changes[i].rows) {
      keys.erase(details::KeyOf(table, row));
    }
    changes[i].gone.assign(keys.begin(), keys.end());
  }
  return log.empty() ? 0 : log.back().number;
}

std::size_t CMoveRows::Follow() {
  work_.ExpectGoingOn();
  std::vector<Changes> changes;
  std::size_t count = 0;
  const std::int64_t last = ReadChanges(changes, count);
  for (std::size_t i = 0; i < changes.size(); ++i) {
    Write(work_.tables[i], changes[i], CopyBytes(work_.tables[i], changes[i].rows));
  }
  if (count > 0) {
    work_.source.Run({ForgetMoveLog(last)});
  }
  return count;
}

bool CMoveRows::FollowHeld(const std::function<bool()>& is_over, std::atomic<std::int64_t>& room) {
  for (;;) {
    work_.ExpectGoingOn();
    std::vector<Changes> changes;
    std::size_t count = 0;
    const std::int64_t last = ReadChanges(changes, count);
    if (count == 0 || is_over()) {
      return count == 0;
    }
    std::vector<std::vector<StoredName>> names(changes.size());
    for (std::size_t i = 0; i < changes.size(); ++i) {
      if (!CompareBytes(work_.tables[i], changes[i].rows, is_over, room, names[i])) {
        return false;
      }
    }
    for (std::size_t i = 0; i < changes.size(); ++i) {
      Write(work_.tables[i], changes[i], names[i]);
    }
    work_.source.Run({ForgetMoveLog(last)});
  }
}

// A round that takes long, because much had to be copied, leaves more changes than the next one will.
void CMoveRows::FollowWhileItHelps() {
  std::size_t left = CountChanges();
  for (int rounds = 0; left > 0 && rounds < details::kMostRounds; ++rounds) {
    const std::size_t before = left;
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t done = 0; done < before;) {
      const std::size_t count = Follow();
      done = count == 0 ? before : done + count;
    }
    left = CountChanges();
    if (left > before / 2 && std::chrono::steady_clock::now() - begin < details::kShortRound) {
      return;
    }
  }
}

std::size_t CMoveRows::CountChanges() {
  return std::strtoull(work_.source.Value("SELECT COUNT(*) AS value FROM platform.move_changes").c_str(), nullptr, 10);
}

}  // namespace Tansy::Host
