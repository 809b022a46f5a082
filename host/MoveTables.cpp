#include "MoveTables.h"

#include <algorithm>
#include <cstdlib>
#include <set>
#include <utility>

#include "HostDatabase.h"
#include "MoveFailure.h"
#include "MoveNames.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kMostKeys = 3;

// What a database has for itself. Bytes that no row names are not copied, so neither are the notes about them.
const std::set<std::string>& OwnTables() {
  static const auto& tables = *new std::set<std::string>{"schema_version", "sequences",    "picture_url_encrypt",
                                                         "host_values",    "commit_marks", "released_bytes",
                                                         "move_changes",   "nodes",        "catalogue_changes"};
  return tables;
}

// Its urls are those of bytes that are gone.
constexpr const char* kFreedTable = "freed_bytes";
// Its urls name bytes that no other row names.
constexpr const char* kPartTable = "local_upload_part";
// Which of several tansyd on one database is at work on an upload; none is after a move.
constexpr const char* kOwnColumn = "node";

// Buckets come before objects, as do the parts that objects consist of; what belongs to an object comes after it.
int RankOf(const std::string& table) {
  const bool is_first = table == "local_bucket" || table.starts_with("local_upload");
  return is_first ? 0 : table == "local_object" ? 1 : 2;
}

std::string Column(const MoveTable& table, std::size_t column) {
  return "\"" + table.columns[column] + "\"";
}

std::string Columns(const MoveTable& table, std::size_t count) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i) {
    list += (i == 0 ? "" : ", ") + Column(table, i);
  }
  return list;
}

bool IsNumber(const std::string& text) {
  const std::size_t digits = text.find_first_not_of("0123456789", text.starts_with("-") ? 1 : 0);
  return !text.empty() && text != "-" && digits == std::string::npos;
}

// PostgreSQL takes no text for a number in a statement that it has prepared.
std::string Value(const MoveTable& table, std::size_t column, const std::string& text) {
  return table.is_number[column] && IsNumber(text) ? text : QuotedText(text);
}

std::string Values(const MoveTable& table, const std::vector<std::string>& texts, std::size_t count) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i) {
    list += (i == 0 ? "" : ", ") + Value(table, i, texts[i]);
  }
  return list;
}

std::string HasKey(const MoveTable& table, const std::vector<std::string>& key) {
  std::string condition;
  for (std::size_t i = 0; i < table.key_size; ++i) {
    condition += (i == 0 ? "" : " AND ") + Column(table, i) + " = " + Value(table, i, key[i]);
  }
  return condition;
}

// Keys of one column are a list, for which databases use an index at once.
std::string HasAnyKey(const MoveTable& table, const std::vector<std::vector<std::string>>& keys) {
  std::string condition;
  for (const std::vector<std::string>& key : keys) {
    if (table.key_size == 1) {
      condition += (condition.empty() ? "" : ", ") + Value(table, 0, key.front());
    } else {
      condition += (condition.empty() ? "(" : " OR (") + HasKey(table, key) + ")";
    }
  }
  return table.key_size == 1 ? Column(table, 0) + " IN (" + condition + ")" : condition;
}

std::string Full(const MoveTable& table) {
  return "platform." + table.name;
}

std::vector<std::string> TableNames(CMoveDatabase& database) {
  const std::string sql = database.IsPostgres() ? "SELECT relname AS name FROM pg_class WHERE relkind = 'r' AND "
                                                  "relnamespace = to_regnamespace('platform') ORDER BY 1"
                                                : "SELECT name FROM platform.sqlite_master WHERE type = 'table' AND "
                                                  "name NOT LIKE 'sqlite%' ORDER BY 1";
  std::vector<std::string> names;
  for (CMoveDatabase::Row& row : database.Query(sql, {"name"})) {
    names.push_back(std::move(row.front()));
  }
  return names;
}

// Names and types of columns with the place of each in the primary key, counted from 1; "0" for others.
std::vector<CMoveDatabase::Row> ColumnsOf(CMoveDatabase& database, const std::string& table) {
  const std::string sql = database.IsPostgres()
                              ? "SELECT attname AS name, format_type(atttypid, NULL) AS type, "
                                "COALESCE(array_position(indkey::int2[], attnum) + 1, 0) AS pk "
                                "FROM pg_attribute LEFT JOIN pg_index ON indrelid = attrelid AND indisprimary "
                                "WHERE attrelid = to_regclass('platform." +
                                    table + "') AND attnum > 0 AND NOT attisdropped ORDER BY attnum"
                              : "PRAGMA platform.table_info(" + table + ")";
  return database.Query(sql, {"name", "type", "pk"});
}

// Columns of the key come first, in the key's order.
int Rank(const std::string& place) {
  return place == "0" ? 1000 : std::atoi(place.c_str());
}

MoveTable Describe(CMoveDatabase& database, const std::string& name) {
  MoveTable table;
  table.name = name;
  std::vector<CMoveDatabase::Row> columns = ColumnsOf(database, name);
  std::stable_sort(columns.begin(), columns.end(),
                   [](const auto& a, const auto& b) { return Rank(a[2]) < Rank(b[2]); });
  for (const CMoveDatabase::Row& column : columns) {
    if (column[0] == kOwnColumn) {
      continue;
    }
    table.columns.push_back(column[0]);
    table.is_number.push_back(column[1].find("int") != std::string::npos || column[1] == "INTEGER");
    table.key_size += column[2] == "0" ? 0 : 1;
  }
  if (name == kFreedTable) {
    table.url = table.columns.size();
    return table;
  }
  table.url =
      static_cast<std::size_t>(std::find(table.columns.begin(), table.columns.end(), "url") - table.columns.begin());
  return table;
}

// What one trigger notes: the key of the row as it is before or after the change.
std::string Note(const MoveTable& table, const std::string& schema, const std::string& row) {
  std::string keys;
  for (std::size_t i = 0; i < kMostKeys; ++i) {
    keys += i < table.key_size ? ", " + row + "." + Column(table, i) : ", ''";
  }
  return "INSERT INTO " + schema + "move_changes (tab, key1, key2, key3) VALUES ('" + table.name + "'" + keys + ");";
}

std::string TriggerName(const MoveTable& table, const std::string& event) {
  return "move_" + table.name + "_" + event;
}

void AddSqliteTriggers(const MoveTable& table, std::vector<std::string>& statements) {
  const std::pair<const char*, std::string> events[] = {
      {"insert", Note(table, "", "NEW")},
      {"update", Note(table, "", "OLD") + " " + Note(table, "", "NEW")},
      {"delete", Note(table, "", "OLD")}};
  for (const auto& [event, note] : events) {
    statements.push_back("CREATE TRIGGER platform." + TriggerName(table, event) + " AFTER " + event + " ON " +
                         table.name + " BEGIN " + note + " END");
  }
}

void AddPostgresTrigger(const MoveTable& table, std::vector<std::string>& statements) {
  const std::string name = TriggerName(table, "any");
  statements.push_back("CREATE FUNCTION platform." + name + "() RETURNS trigger LANGUAGE plpgsql AS $move$ BEGIN " +
                       "IF TG_OP <> 'INSERT' THEN " + Note(table, "platform.", "OLD") + " END IF; " +
                       "IF TG_OP <> 'DELETE' THEN " + Note(table, "platform.", "NEW") + " END IF; " +
                       "RETURN NULL; END $move$");
  statements.push_back("CREATE TRIGGER " + name + " AFTER INSERT OR UPDATE OR DELETE ON platform." + table.name +
                       " FOR EACH ROW EXECUTE FUNCTION platform." + name + "()");
}

std::vector<std::string> KeyOf(const MoveTable& table, const CMoveDatabase::Row& row) {
  return {row.begin(), row.begin() + static_cast<std::ptrdiff_t>(table.key_size)};
}

std::string UpdateOf(const MoveTable& table, const CMoveDatabase::Row& row) {
  std::string changes;
  for (std::size_t column = table.key_size; column < table.columns.size(); ++column) {
    changes += (changes.empty() ? "" : ", ") + Column(table, column) + " = " + Value(table, column, row[column]);
  }
  return "UPDATE " + Full(table) + " SET " + changes + " WHERE " + HasKey(table, KeyOf(table, row));
}

// The triggers of the catalogue note the bytes of a part only while its upload is there; rows of a move come in another
// order. What is noted twice is freed once.
std::string ReleaseParts(const MoveTable& table, const std::string& condition) {
  return "INSERT INTO platform.released_bytes (url, bucket_name, object_name, released_at) SELECT url, '', '', -1 "
         "FROM " +
         Full(table) + " WHERE " + condition;
}

std::int64_t Number(const std::string& text) {
  return std::strtoll(text.c_str(), nullptr, 10);
}

// The ids that a database has given are below the number that this gives.
std::vector<std::pair<std::string, std::int64_t>> NextIds(CMoveDatabase& database) {
  std::vector<std::pair<std::string, std::int64_t>> ids;
  if (!database.IsPostgres()) {
    for (const auto& row : database.Query("SELECT name, next_value FROM platform.sequences", {"name", "next_value"})) {
      ids.emplace_back(row[0], Number(row[1]));
    }
    return ids;
  }
  const std::string sql =
      "SELECT c.relname AS name FROM pg_class c WHERE c.relkind = 'S' AND c.relnamespace = to_regnamespace('platform') "
      "AND NOT EXISTS (SELECT 1 FROM pg_depend d WHERE d.objid = c.oid AND d.deptype IN ('a', 'i'))";
  for (const auto& row : database.Query(sql, {"name"})) {
    const std::string name = "platform." + row[0];
    ids.emplace_back(name, Number(database.Value("SELECT last_value + 1 AS value FROM " + name)));
  }
  return ids;
}

}  // namespace
}  // namespace details

std::vector<MoveTable> FindMoveTables(CMoveDatabase& database) {
  std::vector<MoveTable> tables;
  for (const std::string& name : details::TableNames(database)) {
    if (details::OwnTables().count(name) > 0) {
      continue;
    }
    tables.push_back(details::Describe(database, name));
    if (tables.back().key_size == 0 || tables.back().key_size > details::kMostKeys) {
      throw CMoveFailure(database.Describe() + " has a table " + name + " that cannot be moved: it has no usable key");
    }
  }
  std::stable_sort(tables.begin(), tables.end(), [](const MoveTable& a, const MoveTable& b) {
    return details::RankOf(a.name) < details::RankOf(b.name);
  });
  return tables;
}

void ExpectMoveTables(const std::vector<MoveTable>& tables, CMoveDatabase& target) {
  for (const MoveTable& table : tables) {
    std::set<std::string> columns;
    for (const CMoveDatabase::Row& column : details::ColumnsOf(target, table.name)) {
      columns.insert(column[0]);
    }
    for (const std::string& column : table.columns) {
      if (columns.count(column) == 0) {
        throw CMoveFailure(target.Describe() + " has no place for " + table.name + "." + column);
      }
    }
  }
}

std::vector<std::string> BeginMoveLog(const CMoveDatabase& database, const std::vector<MoveTable>& tables) {
  const std::string number = database.IsPostgres() ? "bigserial" : "INTEGER";
  const std::string text = database.IsPostgres() ? "text COLLATE \"C\"" : "TEXT";
  std::vector<std::string> statements = {"CREATE TABLE platform.move_changes (number " + number + " PRIMARY KEY, tab " +
                                         text + " NOT NULL, key1 " + text + " NOT NULL, key2 " + text +
                                         " NOT NULL, key3 " + text + " NOT NULL)"};
  for (const MoveTable& table : tables) {
    if (database.IsPostgres()) {
      details::AddPostgresTrigger(table, statements);
    } else {
      details::AddSqliteTriggers(table, statements);
    }
  }
  return statements;
}

std::vector<std::string> EndMoveLog(const CMoveDatabase& database, const std::vector<MoveTable>& tables) {
  std::vector<std::string> statements;
  for (const MoveTable& table : tables) {
    if (database.IsPostgres()) {
      statements.push_back("DROP FUNCTION IF EXISTS platform." + details::TriggerName(table, "any") + "() CASCADE");
      continue;
    }
    for (const char* event : {"insert", "update", "delete"}) {
      statements.push_back("DROP TRIGGER IF EXISTS platform." + details::TriggerName(table, event));
    }
  }
  statements.emplace_back("DROP TABLE IF EXISTS platform.move_changes");
  return statements;
}

std::vector<std::string> ForgetMove(const CMoveDatabase& database, const std::vector<MoveTable>& tables) {
  std::vector<std::string> statements = EndMoveLog(database, tables);
  for (const char* name : {kMoveId, kMoveGoal, kMovePlace}) {
    statements.push_back(CMoveDatabase::DropValue(name));
  }
  return statements;
}

std::vector<MoveChange> ReadMoveLog(CMoveDatabase& database, int limit) {
  std::vector<MoveChange> changes;
  const std::string sql =
      "SELECT number, tab, key1, key2, key3 FROM platform.move_changes ORDER BY number LIMIT " + std::to_string(limit);
  for (CMoveDatabase::Row& row : database.Query(sql, {"number", "tab", "key1", "key2", "key3"})) {
    changes.push_back({details::Number(row[0]), row[1], {row[2], row[3], row[4]}});
  }
  return changes;
}

std::string ForgetMoveLog(std::int64_t number) {
  return "DELETE FROM platform.move_changes WHERE number <= " + std::to_string(number);
}

std::vector<CMoveDatabase::Row> ReadRowsBehind(CMoveDatabase& database, const MoveTable& table,
                                               const std::vector<std::string>& key, int limit) {
  const std::string keys = details::Columns(table, table.key_size);
  const std::string behind =
      key.empty() ? "" : " WHERE (" + keys + ") > (" + details::Values(table, key, table.key_size) + ")";
  return database.Query("SELECT " + details::Columns(table, table.columns.size()) + " FROM " + details::Full(table) +
                            behind + " ORDER BY " + keys + " LIMIT " + std::to_string(limit),
                        table.columns);
}

std::vector<CMoveDatabase::Row> ReadRowsOf(CMoveDatabase& database, const MoveTable& table,
                                           const std::vector<std::vector<std::string>>& keys) {
  if (keys.empty()) {
    return {};
  }
  return database.Query("SELECT " + details::Columns(table, table.columns.size()) + " FROM " + details::Full(table) +
                            " WHERE " + details::HasAnyKey(table, keys),
                        table.columns);
}

// A row that is there is changed, not replaced: removing it would remove what belongs to it.
void WriteRows(CMoveDatabase& target, const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows,
               const std::vector<std::vector<std::string>>& gone) {
  std::vector<std::string> statements;
  if (!gone.empty()) {
    if (table.name == details::kPartTable) {
      statements.push_back(details::ReleaseParts(table, details::HasAnyKey(table, gone)));
    }
    statements.push_back("DELETE FROM " + details::Full(table) + " WHERE " + details::HasAnyKey(table, gone));
  }
  std::set<std::vector<std::string>> there;
  std::vector<std::vector<std::string>> keys;
  keys.reserve(rows.size());
  for (const CMoveDatabase::Row& row : rows) {
    keys.push_back(details::KeyOf(table, row));
  }
  for (const CMoveDatabase::Row& row : ReadRowsOf(target, table, keys)) {
    there.insert(details::KeyOf(table, row));
  }
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (there.count(keys[i]) == 0) {
      statements.push_back("INSERT INTO " + details::Full(table) + " (" +
                           details::Columns(table, table.columns.size()) + ") VALUES (" +
                           details::Values(table, rows[i], table.columns.size()) + ")");
    } else if (table.key_size < table.columns.size()) {
      if (table.name == details::kPartTable) {
        statements.push_back(details::ReleaseParts(
            table, details::HasKey(table, keys[i]) + " AND url <> " + QuotedText(rows[i][table.url])));
      }
      statements.push_back(details::UpdateOf(table, rows[i]));
    }
  }
  target.Run(statements);
}

std::vector<std::string> CopyMoveSequences(CMoveDatabase& source, CMoveDatabase& target) {
  std::vector<std::string> statements;
  for (const auto& [name, next] : details::NextIds(source)) {
    statements.push_back(target.IsPostgres()
                             ? "ALTER SEQUENCE IF EXISTS " + name + " RESTART WITH " + std::to_string(next)
                             : "UPDATE platform.sequences SET next_value = " + std::to_string(next) +
                                   " WHERE name = " + QuotedText(name));
  }
  return statements;
}

std::vector<std::string> CopyReleasedBytes(CMoveDatabase& source, EReleasedOf which, std::int64_t& last) {
  std::vector<std::string> statements;
  const std::string only_parts = which == EReleasedOf::kParts ? " AND url LIKE 'parts:%'" : "";
  const std::string sql = "SELECT id, url, bucket_name, object_name, kind FROM platform.released_bytes WHERE id > " +
                          std::to_string(last) + only_parts + " ORDER BY id LIMIT 500";
  for (const CMoveDatabase::Row& row : source.Query(sql, {"id", "url", "bucket_name", "object_name", "kind"})) {
    statements.push_back(
        "INSERT INTO platform.released_bytes (url, bucket_name, object_name, released_at, kind) SELECT " +
        QuotedText(row[1]) + ", " + QuotedText(row[2]) + ", " + QuotedText(row[3]) + ", -1, " + row[4] +
        " WHERE NOT EXISTS (SELECT 1 FROM platform.released_bytes WHERE url = " + QuotedText(row[1]) + ")");
    last = details::Number(row[0]);
  }
  return statements;
}

std::vector<std::string> LeaveStatements(const CMoveDatabase& source, const std::vector<MoveTable>& tables,
                                         const MovedMark& mark) {
  std::vector<std::string> statements = ForgetMove(source, tables);
  statements.push_back(CMoveDatabase::SetValue(kMovedTo, DescribeGoal(mark)));
  return statements;
}

std::vector<std::string> CopyMoveVolumes(CMoveDatabase& source) {
  std::vector<std::string> statements;
  const std::string sql = "SELECT encrypt_url, url FROM platform.picture_url_encrypt";
  for (const CMoveDatabase::Row& row : source.Query(sql, {"encrypt_url", "url"})) {
    statements.push_back("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES (" + QuotedText(row[0]) +
                         ", " + QuotedText(row[1]) + ") ON CONFLICT (encrypt_url) DO NOTHING");
  }
  return statements;
}

}  // namespace Tansy::Host
