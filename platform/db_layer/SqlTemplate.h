// Brings statements that differ only in their values to one form, which is then prepared once for all of them.
#ifndef TANSY_DB_LAYER_SQL_TEMPLATE_H
#define TANSY_DB_LAYER_SQL_TEMPLATE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace db_layer {

struct SqlValue {
  bool is_text = false;
  std::int64_t number = 0;
  std::string text;
};

struct SqlTemplate {
  std::string text;              // with "?" in the place of each value
  std::vector<SqlValue> values;  // in their order in the text
};

// Takes integers and texts in quotes out of an INSERT, UPDATE or DELETE that consists of names, values and "( ) , . =
// ;" only. Returns false for any other statement, which has to be prepared as it is: a number may be more than a value
// there (the column that ORDER BY means), or a text may name a column of the result.
bool MakeTemplate(std::string_view sql, SqlTemplate& result);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQL_TEMPLATE_H
