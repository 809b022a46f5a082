#include "db_layer/PostgresDriver.h"
#include "db_layer/SharedDatabase.h"
#include "db_layer/postgresql/PostgresHandle.h"

namespace db_layer {

namespace details {
namespace {

class CPostgresEar final : public IDatabaseEar {
 public:
  CPostgresEar(DBParam param, int timeout_ms) : param_(std::move(param)) { options_.timeout_ms = timeout_ms; }

  bool Ask(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look,
           std::string& error) override {
    const bool was_open = handle_.IsOpen();
    bool shown = false;
    CPostgresHandle::EResult result = AskOnce(sql, columns, look, shown, error);
    if (result == CPostgresHandle::EResult::kLost && was_open && !shown) {
      // An old connection may have been lost since it was used last.
      result = AskOnce(sql, columns, look, shown, error);
    }
    return result == CPostgresHandle::EResult::kDone;
  }

  bool Hear(const std::string& channel, std::chrono::milliseconds patience, bool& heard, std::string& error) override {
    heard = false;
    SqlError sql_error;
    if (!handle_.IsOpen()) {
      if (Open(sql_error) && handle_.Run("LISTEN " + channel, nullptr, sql_error) != CPostgresHandle::EResult::kDone) {
        handle_.Close();
      }
      error = sql_error.text;
      return false;
    }
    const CPostgresHandle::ENotice notice = handle_.WaitForNotice(patience);
    heard = notice == CPostgresHandle::ENotice::kCame;
    return notice != CPostgresHandle::ENotice::kLost;
  }

 private:
  CPostgresHandle::EResult AskOnce(const std::string& sql, const std::vector<std::string>& columns,
                                   const RowVisitor& look, bool& shown, std::string& error) {
    SqlError sql_error;
    CPostgresHandle::EResult result = CPostgresHandle::EResult::kLost;
    if (handle_.IsOpen() || Open(sql_error)) {
      result = handle_.ShowRows(sql, columns, look, shown, sql_error);
    }
    error = sql_error.text;
    return result;
  }

  bool Open(SqlError& error) { return handle_.Open(param_, CPostgresHandle::EUse::kWrite, options_, error); }

  const DBParam param_;
  PostgresOptions options_;
  CPostgresHandle handle_;
};

}  // namespace
}  // namespace details

std::unique_ptr<IDatabaseEar> MakePostgresEar(const DBParam& param, int timeout_ms) {
  return std::make_unique<details::CPostgresEar>(param, timeout_ms);
}

}  // namespace db_layer
