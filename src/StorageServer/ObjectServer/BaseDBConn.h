#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_BASE_DB_CONN_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_BASE_DB_CONN_H

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Singleton.h"
#include "TansyBase/Noncopyable.h"
#include "db_layer/Connect.h"

namespace db_layer {
class IDatabaseEar;
}  // namespace db_layer

namespace Tansy::CloudStorage {

// The module's way to the host's database library. Threads: any; the pool behind it is the only state. Errors: every
// failure writes a log line and returns false or an empty pointer.
class CBaseDBLayerConn : private TansyBase::CNoncopyable {
 public:
  static CBaseDBLayerConn& Instance();

  // Names the database of the module and opens its pool. It may be called again.
  bool RegisterModule(const db_layer::DBParam& param);
  // Says why the last try to reach the database failed; the text is empty when it did not fail.
  std::string LastError() const;
  // Hands changed parameters to the pool.
  bool ResetParam(const db_layer::DBParam& param);

  // Gives an ear to the database that was named last; null when it is of a kind that has none.
  std::unique_ptr<db_layer::IDatabaseEar> MakeEar(int timeout_ms) const;

  // Gives a pooled connection, which returns to the pool when the last copy of the pointer is gone. The pointer is
  // empty on failure.
  std::shared_ptr<db_layer::CConnect> ApplyConn();
  // Runs one statement without rows on a connection of its own. Returns true when it is committed.
  bool Execute(const std::string& sql);
  // Runs statements without rows in one transaction: all of them are committed, or none.
  bool Execute(const std::vector<std::string>& statements);
  // The same, but may return before they are committed. `done` is called once with the result: before this returns, or
  // later on another thread, on which other writers wait meanwhile. An exception means that it will not be called.
  using Done = std::function<void(bool succeeded)>;
  void Execute(const std::vector<std::string>& statements, Done done);

 private:
  friend class CSingleton<CBaseDBLayerConn>;
  CBaseDBLayerConn() = default;
  ~CBaseDBLayerConn() = default;

  mutable std::mutex mutex_;
  db_layer::DBParam param_;  // guarded by mutex_
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_BASE_DB_CONN_H
