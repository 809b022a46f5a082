#ifndef TANSY_HOST_MOVE_DATABASE_H
#define TANSY_HOST_MOVE_DATABASE_H

#include <map>
#include <string>
#include <vector>

#include "db_layer/Connect.h"

namespace Tansy::Host {

// One of the two databases of a move, through a pool of its own in db_layer. One thread uses it. Errors: members throw
// CMoveFailure.
class CMoveDatabase {
 public:
  // `module` is the name of the pool, which is registered until the object is destroyed.
  CMoveDatabase(const db_layer::DBParam& param, std::string module);
  ~CMoveDatabase();
  CMoveDatabase(const CMoveDatabase&) = delete;
  CMoveDatabase& operator=(const CMoveDatabase&) = delete;

  // Runs statements in one transaction.
  void Run(const std::vector<std::string>& statements);
  using Row = std::vector<std::string>;
  std::vector<Row> Query(const std::string& sql, const std::vector<std::string>& columns);
  // The column `value` of the first row; "" when there is none.
  std::string Value(const std::string& sql);

  // Single values of the host; "" when there is none of that name, or no table of them.
  std::string GetValue(const std::string& name);
  static std::string SetValue(const std::string& name, const std::string& value);  // the statements for it
  static std::string DropValue(const std::string& name);

  bool IsPostgres() const { return param_.type == db_layer::kPostgresql; }
  const db_layer::DBParam& GetParam() const { return param_; }
  std::string Describe() const;

 private:
  [[noreturn]] void Fail(const std::string& reason) const;

  const db_layer::DBParam param_;
  const std::string module_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_DATABASE_H
