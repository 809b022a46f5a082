// A pooled connection to a PostgreSQL database: borrows a connection for each query, and hands writes to the database's
// writer.
#ifndef TANSY_DB_LAYER_POSTGRESQL_POSTGRES_CONNECT_H
#define TANSY_DB_LAYER_POSTGRESQL_POSTGRES_CONNECT_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "db_layer/Connect.h"
#include "db_layer/RowBuffer.h"
#include "db_layer/SqlError.h"
#include "db_layer/postgresql/PostgresDatabase.h"

namespace db_layer {

class CPostgresConnect final : public CConnect {
 public:
  explicit CPostgresConnect(std::shared_ptr<CPostgresDatabase> database);

  bool Execute(const std::string& sql) override;
  bool Query(const std::string& sql) override;
  int GetLastError(std::string& text) override;
  void MoveNext() override;
  bool IsEnd() override;
  std::string GetString(const std::string& column) override;
  std::int32_t GetInt(int index) override;
  std::int32_t GetInt(const std::string& column) override;
  bool IsHealthy() override;
  bool ExecuteAll(const std::vector<std::string>& statements) override;
  bool ShowRows(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look) override;

 private:
  // Clears the rows and runs `action`; an exception becomes the error "out of memory".
  template <typename Action>
  bool WithoutExceptions(Action action) noexcept;
  bool ReadNextValue(std::string_view sequence, const std::string& sql);
  bool Read(const std::string& sql);

  const std::shared_ptr<CPostgresDatabase> database_;
  CRowBuffer rows_;
  SqlError error_;
};

// Opens CPostgresConnects.
class CPostgresDriver final : public IDriver {
 public:
  std::unique_ptr<CConnect> Open(const DBParam& param, std::string& error) override;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRESQL_POSTGRES_CONNECT_H
