#ifndef TANSY_HOST_POSTGRES_DATABASE_H
#define TANSY_HOST_POSTGRES_DATABASE_H

#include <memory>
#include <string>
#include <vector>

#include "HostDatabase.h"

namespace Tansy::Host {

// A PostgreSQL database, reached as the running server reaches it. As long as an object of this class has written and
// lives, no other process can write to the database; what this process opens meanwhile takes that over.
class CPostgresDatabase final : public IHostDatabase {
 public:
  explicit CPostgresDatabase(const db_layer::DBParam& param);

  void Run(const std::string& sql) override;
  void Query(const std::string& sql, const std::vector<std::string>& columns,
             const db_layer::RowVisitor& visitor) override;
  bool HasGivenIds() override;
  std::string GetName() const override { return name_; }

  // Runs statements in one transaction.
  void RunAll(const std::vector<std::string>& statements, const std::string& name);

 private:
  [[noreturn]] void Fail(const std::string& what);

  const std::string name_;
  std::unique_ptr<db_layer::CConnect> connection_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_POSTGRES_DATABASE_H
