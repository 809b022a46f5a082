#include "MoveDatabase.h"

#include <memory>
#include <utility>

#include "HostDatabase.h"
#include "MoveFailure.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

std::shared_ptr<db_layer::CConnect> Apply(const std::string& module) {
  return {db_layer::DBLayer_ApplyConn(module), &db_layer::DBLayer_FreeConn};
}

}  // namespace
}  // namespace details

CMoveDatabase::CMoveDatabase(const db_layer::DBParam& param, std::string module)
    : param_(param), module_(std::move(module)) {
  if (!db_layer::Module_Register(param_, module_)) {
    Fail(db_layer::LastRegisterError(module_));
  }
}

CMoveDatabase::~CMoveDatabase() {
  db_layer::Module_Unregister(module_);
}

void CMoveDatabase::Run(const std::vector<std::string>& statements) {
  if (statements.empty()) {
    return;
  }
  const auto connection = details::Apply(module_);
  if (connection == nullptr) {
    Fail(db_layer::LastRegisterError(module_));
  }
  if (!connection->ExecuteAll(statements)) {
    std::string reason;
    connection->GetLastError(reason);
    Fail(reason);
  }
}

std::vector<CMoveDatabase::Row> CMoveDatabase::Query(const std::string& sql, const std::vector<std::string>& columns) {
  const auto connection = details::Apply(module_);
  if (connection == nullptr) {
    Fail(db_layer::LastRegisterError(module_));
  }
  std::vector<Row> rows;
  const auto take = [&](const db_layer::IRow& row) {
    Row& texts = rows.emplace_back();
    for (std::size_t i = 0; i < columns.size(); ++i) {
      texts.emplace_back(row.GetText(i));
    }
  };
  if (!connection->ShowRows(sql, columns, take)) {
    std::string reason;
    connection->GetLastError(reason);
    Fail(reason);
  }
  return rows;
}

std::string CMoveDatabase::Value(const std::string& sql) {
  const std::vector<Row> rows = Query(sql, {"value"});
  return rows.empty() ? "" : rows.front().front();
}

std::string CMoveDatabase::GetValue(const std::string& name) {
  return Value("SELECT value FROM platform.host_values WHERE name = " + QuotedText(name));
}

std::string CMoveDatabase::SetValue(const std::string& name, const std::string& value) {
  return "INSERT INTO platform.host_values (name, value) VALUES (" + QuotedText(name) + ", " + QuotedText(value) +
         ") ON CONFLICT (name) DO UPDATE SET value = excluded.value";
}

std::string CMoveDatabase::DropValue(const std::string& name) {
  return "DELETE FROM platform.host_values WHERE name = " + QuotedText(name);
}

std::string CMoveDatabase::Describe() const {
  return "database " + db_layer::DescribeDatabase(param_);
}

void CMoveDatabase::Fail(const std::string& reason) const {
  throw CMoveFailure(Describe() + " cannot be used: " + reason);
}

}  // namespace Tansy::Host
