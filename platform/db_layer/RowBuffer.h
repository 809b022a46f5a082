// Holds all rows of one query: column names once, cells as text in one block of memory.
// Threads: one at a time.
#ifndef TANSY_DB_LAYER_ROW_BUFFER_H
#define TANSY_DB_LAYER_ROW_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace db_layer {

// Gives the low 32 bits of the decimal number that the text begins with; 0 when it begins with none.
std::int32_t LowBits(std::string_view text);

class CRowBuffer {
 public:
  // Drops rows and columns, and gives back the memory of a big result.
  void Clear();

  // The buffer is filled with the columns first, then with the cells row by row. NULL is an empty cell.
  void AddColumn(std::string name);
  void AddCell(std::string_view text);

  // After filling, the first row is the current one.
  bool IsEnd() const;
  void MoveNext();
  // Gives "" and 0 where there is no such cell. Integers are the low 32 bits of the leading decimal number of the text.
  std::string GetString(std::string_view column) const;
  std::int32_t GetInt(std::size_t index) const;
  std::int32_t GetInt(std::string_view column) const;

 private:
  std::size_t Find(std::string_view column) const;
  std::string_view Cell(std::size_t index) const;

  std::vector<std::string> columns_;
  std::string bytes_;
  std::vector<std::size_t> ends_;  // end of each cell in bytes_
  std::size_t row_ = 0;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_ROW_BUFFER_H
