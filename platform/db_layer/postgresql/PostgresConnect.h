// A pooled connection to a PostgreSQL database: borrows a connection for each query, and hands writes to the database's
// writer.
#ifndef TANSY_DB_LAYER_POSTGRESQL_POSTGRES_CONNECT_H
#define TANSY_DB_LAYER_POSTGRESQL_POSTGRES_CONNECT_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "db_layer/BufferedConnect.h"
#include "db_layer/postgresql/PostgresDatabase.h"

namespace db_layer {

class CPostgresConnect final : public CBufferedConnect {
 public:
  explicit CPostgresConnect(std::shared_ptr<CPostgresDatabase> database);

  bool Execute(const std::string& sql) override;
  bool Query(const std::string& sql) override;
  bool IsHealthy() override;
  bool ExecuteAll(const std::vector<std::string>& statements) override;
  bool ShowRows(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look) override;

 private:
  bool ReadNextValue(std::string_view sequence, const std::string& sql);
  bool Read(const std::string& sql);

  const std::shared_ptr<CPostgresDatabase> database_;
};

// Opens CPostgresConnects.
class CPostgresDriver final : public IDriver {
 public:
  std::unique_ptr<CConnect> Open(const DBParam& param, std::string& error) override;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRESQL_POSTGRES_CONNECT_H
