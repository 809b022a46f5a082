#include "MoveCounts.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string>

#include "MoveFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kKeysAtOnce = 256;

std::string KeysAsTexts(const MoveTable& table) {
  std::string list;
  for (std::size_t i = 0; i < table.key_size; ++i) {
    list += (i == 0 ? "" : ", ") + std::string("CAST(\"") + table.columns[i] + "\" AS TEXT)";
  }
  return "(" + list + ")";
}

std::string LoggedKeys(const MoveTable& table) {
  std::string list;
  for (std::size_t i = 1; i <= table.key_size; ++i) {
    list += (i == 1 ? "" : ", ") + std::string("key") + std::to_string(i);
  }
  return list;
}

std::uint64_t Number(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

std::uint64_t CountRowsOf(CMoveDatabase& database, const MoveTable& table,
                          const std::vector<std::vector<std::string>>& keys) {
  std::uint64_t count = 0;
  for (std::size_t begin = 0; begin < keys.size(); begin += kKeysAtOnce) {
    const auto first = keys.begin() + static_cast<std::ptrdiff_t>(begin);
    const auto last = first + static_cast<std::ptrdiff_t>(std::min(kKeysAtOnce, keys.size() - begin));
    count += ReadRowsOf(database, table, {first, last}).size();
  }
  return count;
}

void ExpectEqualCount(CMoveDatabase& source, CMoveDatabase& target, const MoveTable& table) {
  const std::string rows = "FROM platform." + table.name;
  const std::string logged = "FROM platform.move_changes WHERE tab = '" + table.name + "'";
  // One statement sees one state of the table and of the log.
  const CMoveDatabase::Row here =
      source
          .Query("SELECT COUNT(*) AS count, (SELECT COALESCE(MAX(number), 0) FROM platform.move_changes) AS last " +
                     rows + " WHERE " + KeysAsTexts(table) + " NOT IN (SELECT " + LoggedKeys(table) + " " + logged +
                     ")",
                 {"count", "last"})
          .front();
  const std::vector<CMoveDatabase::Row> keys = source.Query(
      "SELECT DISTINCT key1, key2, key3 " + logged + " AND number <= " + here[1], {"key1", "key2", "key3"});
  const std::uint64_t there =
      Number(target.Value("SELECT COUNT(*) AS value " + rows)) - CountRowsOf(target, table, keys);
  if (Number(here[0]) != there) {
    throw CMoveFailure("the table " + table.name + " has " + here[0] + " rows in the old place and " +
                       std::to_string(there) + " in the new one");
  }
}

}  // namespace
}  // namespace details

void ExpectEqualCounts(CMoveDatabase& source, CMoveDatabase& target, const std::vector<MoveTable>& tables) {
  for (const MoveTable& table : tables) {
    details::ExpectEqualCount(source, target, table);
  }
}

}  // namespace Tansy::Host
