// The tables of a catalogue as a move sees them: rows with keys, whatever they mean, and a log of the keys that change
// while the server goes on.
#ifndef TANSY_HOST_MOVE_TABLES_H
#define TANSY_HOST_MOVE_TABLES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MoveDatabase.h"
#include "MovedMark.h"

namespace Tansy::Host {

struct MoveTable {
  std::string name;                  // without the schema
  std::vector<std::string> columns;  // those of the key come first
  std::vector<bool> is_number;       // whether each column holds whole numbers
  std::size_t key_size = 0;          // number of columns of the key, 1 to 3
  std::size_t url = 0;               // the column that names stored bytes; columns.size(): none does
};

struct MoveChange {
  std::int64_t number = 0;
  std::string table;
  std::vector<std::string> key;  // three texts; those beyond the key are empty
};

// Gives the tables that a move copies: all but those that belong to one database alone, such as its schema's version.
// Tables are in the order in which they are to be copied. Throws CMoveFailure when a table has no usable key.
std::vector<MoveTable> FindMoveTables(CMoveDatabase& database);
// Throws CMoveFailure unless `target` has all these tables with all their columns.
void ExpectMoveTables(const std::vector<MoveTable>& tables, CMoveDatabase& target);

// The statements that begin to note the key of every row that is added, changed or removed, and those that end that.
std::vector<std::string> BeginMoveLog(const CMoveDatabase& database, const std::vector<MoveTable>& tables);
std::vector<std::string> EndMoveLog(const CMoveDatabase& database, const std::vector<MoveTable>& tables);
// The statements that end that and forget the move.
std::vector<std::string> ForgetMove(const CMoveDatabase& database, const std::vector<MoveTable>& tables);
// The oldest changes, at most `limit`, and the statement that forgets those up to a number.
std::vector<MoveChange> ReadMoveLog(CMoveDatabase& database, int limit);
std::string ForgetMoveLog(std::int64_t number);

// Rows behind a key, in the order of their keys; an empty key stands for the beginning.
std::vector<CMoveDatabase::Row> ReadRowsBehind(CMoveDatabase& database, const MoveTable& table,
                                               const std::vector<std::string>& key, int limit);
// Rows with these keys, in no order.
std::vector<CMoveDatabase::Row> ReadRowsOf(CMoveDatabase& database, const MoveTable& table,
                                           const std::vector<std::vector<std::string>>& keys);
// Makes `target` have these rows and none with the keys of `gone`.
void WriteRows(CMoveDatabase& target, const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows,
               const std::vector<std::vector<std::string>>& gone);

// The statements that make `target` give ids that `source` has never given.
std::vector<std::string> CopyMoveSequences(CMoveDatabase& source, CMoveDatabase& target);
// The statements for notes about bytes that wait to be freed, unless they are there already, a batch behind the id
// `last`, which is set to the id of the batch's last one. When bytes move too, only those of several parts are copied:
// the rows of the parts were copied, so the new place has to free them.
enum class EReleasedOf { kAll, kParts };
std::vector<std::string> CopyReleasedBytes(CMoveDatabase& source, EReleasedOf which, std::int64_t& last);
// The statements that mark a catalogue as moved away, to where this mark says.
std::vector<std::string> LeaveStatements(const CMoveDatabase& source, const std::vector<MoveTable>& tables,
                                         const MovedMark& mark);
// The statements for what the volumes of location texts stand for.
std::vector<std::string> CopyMoveVolumes(CMoveDatabase& source);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_TABLES_H
