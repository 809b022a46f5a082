// A pooled connection to a SQLite file: reads on a connection of its own, hands writes to the file's writer.
#ifndef TANSY_DB_LAYER_SQLITE_CONNECT_H
#define TANSY_DB_LAYER_SQLITE_CONNECT_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "db_layer/BufferedConnect.h"
#include "db_layer/SqliteDatabase.h"
#include "db_layer/SqliteHandle.h"

namespace db_layer {

class CSqliteConnect final : public CBufferedConnect {
 public:
  explicit CSqliteConnect(std::shared_ptr<CSqliteDatabase> database);

  bool Execute(const std::string& sql) override;
  bool Query(const std::string& sql) override;
  bool IsHealthy() override;
  bool ExecuteAll(const std::vector<std::string>& statements) override;
  void ExecuteLater(std::vector<std::string> statements, WriteDone done) override;
  bool ShowRows(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look) override;

 private:
  bool ReadNextValue(std::string_view sequence, const std::string& sql);
  bool EnsureReader();
  bool Open(SqlError& error);
  bool Read(const std::string& sql, bool& writes);

  // This is declared first, because the reader must be closed before the database is released.
  std::shared_ptr<CSqliteDatabase> database_;
  std::unique_ptr<CSqliteHandle> reader_;  // null before the first query
  int generation_ = 0;
  bool is_broken_ = false;
};

// Opens CSqliteConnects.
class CSqliteDriver final : public IDriver {
 public:
  std::unique_ptr<CConnect> Open(const DBParam& param, std::string& error) override;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_CONNECT_H
