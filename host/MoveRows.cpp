#include "MoveRows.h"

#include <algorithm>
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
// With this few changes left, the next round may be the last before the switch.
constexpr std::size_t kFewChanges = 64;

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
    Apply(table, rows, {}, EBytes::kCopy);
    key = details::KeyOf(table, rows.back());
    std::vector<std::string> place = key;
    place.insert(place.begin(), table.name);
    work_.source.Run({CMoveDatabase::SetValue(kMovePlace, Packed(place))});
    if (work_.target.MovesBytes()) {
      work_.To().Tidy(work_.host.is_stopping);
    }
  }
}

void CMoveRows::Apply(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows,
                      const std::vector<std::vector<std::string>>& gone, EBytes bytes) {
  std::vector<StoredName> names;
  if (work_.target.MovesBytes() && table.url < table.columns.size() && table.name != kUploadTable) {
    names = CopyBytes(table, rows, bytes);
  }
  if (work_.target.MovesRows()) {
    WriteRows(work_.target.Database(), table, rows, gone);
  }
  if (!names.empty()) {
    work_.To().ForgetNew(names);
  }
}

std::vector<StoredName> CMoveRows::CopyBytes(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows,
                                             EBytes bytes) {
  std::vector<StoredName> names(rows.size());
  std::vector<ECopy> results(rows.size(), ECopy::kSame);
  work_.InParallel(rows.size(), [&](std::size_t i) {
    if (!ParseOwnText(rows[i][table.url], names[i])) {
      names[i] = {};
      return;
    }
    if (bytes == EBytes::kAreThere && work_.host.store->IsMirrored(names[i])) {
      const std::lock_guard lock(unseen_mutex_);
      unseen_.push_back(names[i]);
      return;
    }
    results[i] = bytes_.Copy(names[i]);
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

std::size_t CMoveRows::Follow(EBytes bytes) {
  work_.ExpectGoingOn();
  const std::vector<MoveChange> changes = ReadMoveLog(work_.source, 2 * details::kRowsAtOnce);
  if (changes.empty()) {
    return 0;
  }
  for (const MoveTable& table : work_.tables) {
    std::set<std::vector<std::string>> keys;
    for (const MoveChange& change : changes) {
      if (change.table == table.name) {
        keys.insert(details::KeyOf(table, change.key));
      }
    }
    if (!keys.empty()) {
      FollowTable(table, std::move(keys), bytes);
    }
  }
  work_.source.Run({ForgetMoveLog(changes.back().number)});
  return changes.size();
}

void CMoveRows::FollowWhileItHelps() {
  std::size_t left = CountChanges();
  while (left > details::kFewChanges) {
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

std::size_t CMoveRows::CountChanges() {
  return std::strtoull(work_.source.Value("SELECT COUNT(*) AS value FROM platform.move_changes").c_str(), nullptr, 10);
}

void CMoveRows::FollowTable(const MoveTable& table, std::set<std::vector<std::string>> keys, EBytes bytes) {
  const std::vector<CMoveDatabase::Row> rows =
      ReadRowsOf(work_.source, table, std::vector<std::vector<std::string>>(keys.begin(), keys.end()));
  for (const CMoveDatabase::Row& row : rows) {
    keys.erase(details::KeyOf(table, row));
  }
  Apply(table, rows, std::vector<std::vector<std::string>>(keys.begin(), keys.end()), bytes);
}

}  // namespace Tansy::Host
