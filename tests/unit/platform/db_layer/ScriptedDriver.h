// A driver without a database, for what the pool does with connections.
#ifndef TANSY_TESTS_DB_LAYER_SCRIPTED_DRIVER_H
#define TANSY_TESTS_DB_LAYER_SCRIPTED_DRIVER_H

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "db_layer/DbLayer.h"

namespace db_layer {

class CScriptedDriver : public IDriver, public std::enable_shared_from_this<CScriptedDriver> {
 public:
  std::unique_ptr<CConnect> Open(const DBParam& param, std::string& error) override {
    const std::lock_guard lock(mutex_);
    if (fails_after >= 0 && opened >= fails_after) {
      error = refusal;
      return nullptr;
    }
    last_database = param.database;
    ++opened;
    return std::make_unique<CConnection>(shared_from_this(), generation_);
  }

  // Every connection that is open now is broken.
  void BreakAll() { ++generation_; }

  std::string refusal = "connection refused";
  std::string last_database;
  std::atomic<int> fails_after{-1};  // opening fails once so many are open; never when negative
  std::atomic<int> opened{0};
  std::atomic<int> living{0};
  std::atomic<int> most_living{0};

 private:
  class CConnection : public CConnect {
   public:
    CConnection(std::shared_ptr<CScriptedDriver> driver, int generation)
        : driver_(std::move(driver)), generation_(generation) {
      const int living = ++driver_->living;
      driver_->most_living = std::max(driver_->most_living.load(), living);
    }
    ~CConnection() override { --driver_->living; }

    bool Execute(const std::string&) override { return true; }
    bool ExecuteAll(const std::vector<std::string>&) override { return true; }
    bool Query(const std::string&) override { return true; }
    bool ShowRows(const std::string&, const std::vector<std::string>&, const RowVisitor&) override { return true; }
    int GetLastError(std::string&) override { return 0; }
    void MoveNext() override {}
    bool IsEnd() override { return true; }
    std::string GetString(const std::string&) override { return {}; }
    std::int32_t GetInt(int) override { return 0; }
    std::int32_t GetInt(const std::string&) override { return 0; }
    bool IsHealthy() override { return generation_ == driver_->generation_; }

   private:
    std::shared_ptr<CScriptedDriver> driver_;
    const int generation_;
  };

  std::mutex mutex_;
  std::atomic<int> generation_{0};
};

}  // namespace db_layer

#endif  // TANSY_TESTS_DB_LAYER_SCRIPTED_DRIVER_H
