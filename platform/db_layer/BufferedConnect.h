// What connections have in common that fetch all rows of a query before they show the first one.
#ifndef TANSY_DB_LAYER_BUFFERED_CONNECT_H
#define TANSY_DB_LAYER_BUFFERED_CONNECT_H

#include <cstdint>
#include <exception>
#include <string>

#include "db_layer/Connect.h"
#include "db_layer/RowBuffer.h"
#include "db_layer/SqlError.h"

namespace db_layer {

// A driver fills rows_ and error_.
class CBufferedConnect : public CConnect {
 public:
  int GetLastError(std::string& text) final;
  void MoveNext() final;
  bool IsEnd() final;
  std::string GetString(const std::string& column) final;
  std::int32_t GetInt(int index) final;
  std::int32_t GetInt(const std::string& column) final;

 protected:
  // Clears the rows and runs `action`; an exception becomes the error "out of memory".
  template <typename Action>
  bool WithoutExceptions(Action action) noexcept {
    rows_.Clear();
    try {
      return action();
    } catch (const std::exception&) {
      rows_.Clear();
      SetOutOfMemory(error_);
      return false;
    }
  }
  // Makes a sequence's value the only row. `sql` is the statement that asked for it, "SELECT nextval('...')".
  void ShowNextValue(const std::string& sql, std::int64_t value);

  CRowBuffer rows_;
  SqlError error_;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_BUFFERED_CONNECT_H
