// Each allocation of each operation fails once: the operation may fail, and nothing else may.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ScriptedDriver.h"
#include "SqliteFixture.h"
#include "db_layer/ConnectionPool.h"
#include "db_layer/SqliteSequences.h"
#include "db_layer/SqliteWriter.h"
#include "fakes/FailingAllocation.h"

namespace db_layer {
namespace {

using Tansy::Tests::FailEachAllocation;

// This text is too long for a string to hold it without an allocation.
constexpr const char* kSequence = "platform.a_sequence_with_a_long_name";

TEST(SequencesOutOfMemory, AFailedReservationLeavesNobodyWaiting) {
  std::int64_t stored = 1;
  CSqliteSequences sequences([&stored](const std::string&, CRowBuffer& rows, SqlError&) {
    rows.AddColumn("first_value");
    rows.AddCell(std::to_string(stored));
    stored += CSqliteSequences::kBlock;
    return true;
  });
  std::set<std::int64_t> given;
  std::size_t failures = 0;
  const auto take = [&] {
    std::int64_t value = 0;
    SqlError error;
    const bool taken = sequences.NextValue(kSequence, value, error);
    return taken ? value : 0;
  };
  FailEachAllocation(
      [&] {
        sequences.Forget();
        ++failures;
        failures -= take() == 0 ? 0 : 1;
      },
      [&](std::size_t number, bool) {
        // The work runs on another thread, so that the test notices when it waits for ever.
        auto next = std::async(std::launch::async, take);
        ASSERT_EQ(next.wait_for(std::chrono::seconds(30)), std::future_status::ready) << "allocation " << number;
        const std::int64_t value = next.get();
        EXPECT_NE(value, 0) << "allocation " << number;
        EXPECT_TRUE(given.insert(value).second) << "allocation " << number;
      });
  EXPECT_GT(failures, 1U);
}

TEST(SequencesOutOfMemory, WaitersAreToldThatTheReservationTheyWaitedForFailed) {
  std::promise<void> reserving;
  std::promise<void> go_on;
  CSqliteSequences sequences([&](const std::string&, CRowBuffer&, SqlError&) -> bool {
    reserving.set_value();
    go_on.get_future().wait();
    throw std::bad_alloc();
  });
  const auto take = [&] {
    std::int64_t value = 0;
    SqlError error;
    return sequences.NextValue(kSequence, value, error) ? std::string() : error.text;
  };
  auto first = std::async(std::launch::async, take);
  reserving.get_future().wait();
  auto second = std::async(std::launch::async, take);
  // This writer may wait already or come later, but it must not wait for ever.
  go_on.set_value();
  EXPECT_EQ(first.get(), "out of memory");
  if (second.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    FAIL() << "the second caller still waits";
  }
  second.get();
}

class ConnectionOutOfMemory : public CSqliteFixture {
 protected:
  void SetUp() override { MakeSchema(); }
};

TEST_F(ConnectionOutOfMemory, AWriteIsStoredExactlyWhenItSaysSo) {
  int id = 0;
  bool succeeded = false;
  std::string expected;
  FailEachAllocation(
      [&] {
        ++id;
        succeeded = false;
        succeeded = Insert(id);
      },
      [&](std::size_t number, bool) {
        if (succeeded) {
          expected += (expected.empty() ? "" : ",") + std::to_string(id);
        }
        ASSERT_EQ(Column(*connection_, "SELECT id FROM platform.item ORDER BY id", "id"), expected)
            << "allocation " << number;
      });
  EXPECT_FALSE(expected.empty());
}

TEST_F(ConnectionOutOfMemory, AQueryGivesAllRowsOrFails) {
  for (int id = 1; id <= 20; ++id) {
    ASSERT_TRUE(Insert(id));
  }
  const std::string sql = "SELECT id, name FROM platform.item WHERE id > 0 ORDER BY id";
  const auto count_rows = [this] {
    int rows = 0;
    for (; !connection_->IsEnd(); connection_->MoveNext()) {
      ++rows;
    }
    return rows;
  };
  bool has_failed = false;
  bool succeeded = false;
  FailEachAllocation(
      [&] {
        succeeded = connection_->Query(sql);
        EXPECT_EQ(count_rows(), succeeded ? 20 : 0);
      },
      [&](std::size_t number, bool) {
        has_failed = has_failed || !succeeded;
        ASSERT_TRUE(connection_->Query(sql)) << "allocation " << number;
        EXPECT_EQ(count_rows(), 20);
      });
  EXPECT_TRUE(has_failed);
}

TEST_F(ConnectionOutOfMemory, AnOpeningFailsOrWorks) {
  DBParam param;
  param.database = path_;
  const auto driver = BuiltInDriver(kSqlite);
  FailEachAllocation(
      [&] {
        std::string error;
        const auto connection = driver->Open(param, error);
      },
      [&](std::size_t number, bool) { ASSERT_TRUE(OpenSqlite(path_)) << "allocation " << number; });
}

// A module whose pool has three connections at most.
class PoolOutOfMemory : public testing::Test {
 protected:
  PoolOutOfMemory() {
    SetDriver(kPostgresql, driver_);
    param_.type = kPostgresql;
    param_.database = "a name that is longer than a string holds without memory";
    param_.min_connections = 1;
    param_.max_connections = 3;
  }
  ~PoolOutOfMemory() override {
    Module_Unregister(kModule);
    SetDriver(kPostgresql, nullptr);
  }

  // All connections of the pool can be had at once.
  static void ExpectWholePool(std::size_t number) {
    std::vector<CConnect*> connections;
    for (int i = 0; i < 3; ++i) {
      auto applied = std::async(std::launch::async, [] { return DBLayer_ApplyConn(kModule); });
      ASSERT_EQ(applied.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "allocation " << number;
      connections.push_back(applied.get());
      EXPECT_NE(connections.back(), nullptr) << "allocation " << number;
    }
    for (CConnect* connection : connections) {
      DBLayer_FreeConn(connection);
    }
  }

  static constexpr const char* kModule = "platform";
  const std::shared_ptr<CScriptedDriver> driver_ = std::make_shared<CScriptedDriver>();
  DBParam param_;
};

TEST_F(PoolOutOfMemory, ApplyingAndFreeingLosesNoConnection) {
  ASSERT_TRUE(Module_Register(param_, kModule));
  bool has_failed = false;
  FailEachAllocation(
      [&] {
        CConnect* first = DBLayer_ApplyConn(kModule);
        CConnect* second = DBLayer_ApplyConn(kModule);
        has_failed = has_failed || first == nullptr || second == nullptr;
        DBLayer_FreeConn(first);
        DBLayer_FreeConn(second);
        driver_->BreakAll();  // so that each round opens connections too
      },
      [](std::size_t number, bool) { ExpectWholePool(number); });
  EXPECT_TRUE(has_failed);
}

TEST_F(PoolOutOfMemory, RegisteringAndResettingFailOrWork) {
  const std::string module = kModule;
  FailEachAllocation([&] { Module_Register(param_, module); },
                     [&](std::size_t, bool) { ASSERT_TRUE(Module_Register(param_, module)); });
  FailEachAllocation([&] { DBLayer_ResetParam(param_); }, [](std::size_t number, bool) { ExpectWholePool(number); });
}

}  // namespace
}  // namespace db_layer
