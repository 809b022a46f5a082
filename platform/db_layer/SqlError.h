// Why a statement failed.
#ifndef TANSY_DB_LAYER_SQL_ERROR_H
#define TANSY_DB_LAYER_SQL_ERROR_H

#include <string>

namespace db_layer {

// A result code (Connect.h says which codes mean the same on every database) and a text in one line. Code 0 is no
// error.
struct SqlError {
  int code = 0;
  std::string text;
};

// This allocates nothing.
void SetOutOfMemory(SqlError& error) noexcept;

// Makes one line of an error text, because it quotes what the statement held, and a log line must stay one line.
std::string OneLine(std::string text);

// Fills in `error` and returns false.
bool SetError(SqlError& error, int code, const std::string& text);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQL_ERROR_H
