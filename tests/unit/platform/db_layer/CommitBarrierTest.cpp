#include "db_layer/CommitBarrier.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "DriverFixture.h"

namespace db_layer {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class CommitBarrierTest : public CDriverFixture {
 protected:
  void TearDown() override { SetCommitBarrier({}); }

  std::string Ids() { return Column(*connection_, "SELECT id FROM platform.item ORDER BY id", "id"); }
};

TEST_F(CommitBarrierTest, IsPassedBeforeTheRowCanBeSeen) {
  const auto reader = Open();
  std::vector<std::string> seen;
  std::string rows_at_barrier = "never asked";
  SetCommitBarrier([&](const std::vector<std::string_view>& statements, std::string&) {
    seen.assign(statements.begin(), statements.end());
    rows_at_barrier = Column(*reader, "SELECT id FROM platform.item", "id");
    return true;
  });
  ASSERT_TRUE(Insert(7));
  EXPECT_THAT(seen, ElementsAre("INSERT INTO platform.item (id, name) VALUES (7, 'n')"));
  EXPECT_EQ(rows_at_barrier, "");
  EXPECT_EQ(Ids(), "7");
}

TEST_F(CommitBarrierTest, OneThatRefusesFailsItsGroupAndNoOther) {
  SetCommitBarrier([](const std::vector<std::string_view>&, std::string& error) {
    error = "the disk said no";
    return false;
  });
  EXPECT_FALSE(Insert(1));
  EXPECT_THAT(ErrorOf(*connection_), HasSubstr("the disk said no"));
  EXPECT_FALSE(connection_->ExecuteAll({"DELETE FROM platform.item", "INSERT INTO platform.item (id) VALUES (2)"}));
  EXPECT_EQ(Ids(), "") << "reading is not asked for";
  SetCommitBarrier([](const std::vector<std::string_view>&, std::string&) { return true; });
  EXPECT_TRUE(Insert(3));
  EXPECT_EQ(Ids(), "3");
}

TEST_F(CommitBarrierTest, OneThatThrowsRefuses) {
  SetCommitBarrier([](const std::vector<std::string_view>&, std::string&) -> bool { throw std::bad_alloc(); });
  EXPECT_FALSE(Insert(1));
  SetCommitBarrier({});
  EXPECT_TRUE(Insert(2));
  EXPECT_EQ(Ids(), "2");
}

TEST_F(CommitBarrierTest, IsNotUnderWayAnyMoreOnceItWasReplaced) {
  std::promise<void> is_called;
  std::promise<void> go_on;
  std::atomic<bool> is_done{false};
  SetCommitBarrier([&](const std::vector<std::string_view>&, std::string&) {
    is_called.set_value();
    go_on.get_future().wait();
    is_done = true;
    return true;
  });
  std::thread writer([this] { EXPECT_TRUE(Insert(*Open(), 1)); });
  is_called.get_future().wait();
  std::thread replacer([&] {
    SetCommitBarrier({});
    EXPECT_TRUE(is_done);
  });
  go_on.set_value();
  replacer.join();
  writer.join();
}

}  // namespace
}  // namespace db_layer
