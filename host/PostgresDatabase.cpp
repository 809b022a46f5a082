#include "PostgresDatabase.h"

#include <exception>
#include <new>

#include "StartFailure.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {

CPostgresDatabase::CPostgresDatabase(const db_layer::DBParam& param) : name_(db_layer::DescribeDatabase(param)) {
  std::string error;
  connection_ = db_layer::BuiltInDriver(param.type)->Open(param, error);
  if (!connection_) {
    throw CStartFailure(kExitFailed, error);
  }
}

void CPostgresDatabase::Run(const std::string& sql) {
  if (!connection_->Execute(sql)) {
    Fail("cannot be used");
  }
}

void CPostgresDatabase::RunAll(const std::vector<std::string>& statements, const std::string& name) {
  if (!connection_->ExecuteAll(statements)) {
    Fail(name + " failed");
  }
}

// db_layer takes every exception for missing memory, so the visitor's own is kept aside.
void CPostgresDatabase::Query(const std::string& sql, const std::vector<std::string>& columns,
                              const db_layer::RowVisitor& visitor) {
  std::exception_ptr thrown;
  const auto visit = [&](const db_layer::IRow& row) {
    try {
      visitor(row);
    } catch (...) {
      thrown = std::current_exception();
      throw std::bad_alloc();
    }
  };
  if (connection_->ShowRows(sql, columns, visit)) {
    return;
  }
  if (thrown) {
    std::rethrow_exception(thrown);
  }
  Fail("cannot be read");
}

bool CPostgresDatabase::HasGivenIds() {
  return QueryNumber(
             "SELECT (SELECT is_called::int FROM platform.local_bucket_id_seq) + "
             "(SELECT is_called::int FROM platform.local_object_id_seq) + "
             "(SELECT is_called::int FROM platform.local_object_task_id_seq) AS value") > 0;
}

void CPostgresDatabase::Fail(const std::string& what) {
  std::string reason;
  connection_->GetLastError(reason);
  throw CStartFailure(kExitFailed, "database " + name_ + " " + what + ": " + reason);
}

}  // namespace Tansy::Host
