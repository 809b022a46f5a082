#include "db_layer/SqliteWriter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "SqliteFixture.h"
#include "db_layer/CommitBarrier.h"

namespace db_layer {
namespace {

// Runs out of memory in the middle of a transaction, when it is told to.
class CExhaustedSequences : public IWriterSequences {
 public:
  bool NextValue(const std::string&, std::int64_t&, SqlError&) override { return false; }
  void UseTransactionOf(CSqliteHandle* handle) override {
    if (handle != nullptr && exhausted_in_.count(++statements_) > 0) {
      throw std::bad_alloc();
    }
  }
  void Forget() override {}

  std::set<int> exhausted_in_;  // numbers of statements, counted from 1
  int statements_ = 0;
};

class SqliteWriterTest : public CSqliteFixture {
 protected:
  void TearDown() override { SetCommitBarrier({}); }
};

std::vector<std::string> InsertItem(int id) {
  return {"INSERT INTO platform.item (id, name) VALUES (" + std::to_string(id) + ", 'n')"};
}

TEST_F(SqliteWriterTest, AWriteThatRunsOutOfMemoryFailsAlone) {
  MakeSchema();
  CExhaustedSequences sequences;
  std::mutex checkpoints;
  CSqliteWriter writer(path_, SqliteOptions{}, sequences, checkpoints);
  const std::vector<std::vector<std::string>> statements = {InsertItem(1), InsertItem(2), InsertItem(3)};
  std::vector<SqlWrite> writes(3);
  for (std::size_t i = 0; i < writes.size(); ++i) {
    writes[i].statements = &statements[i];
  }
  // The second write of the group, and again when the group is run once more without it disturbing the others.
  sequences.exhausted_in_ = {2, 4};
  writer.RunBatch({&writes[0], &writes[1], &writes[2]});
  EXPECT_TRUE(writes[0].succeeded) << writes[0].error.text;
  EXPECT_FALSE(writes[1].succeeded);
  EXPECT_EQ(writes[1].error.text, "out of memory");
  EXPECT_TRUE(writes[2].succeeded) << writes[2].error.text;
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item", "id"), "1,3");
}

TEST_F(SqliteWriterTest, AGroupPassesTheCommitBarrierOnce) {
  MakeSchema();
  std::vector<std::size_t> groups;
  SetCommitBarrier([&groups](const std::vector<std::string_view>& statements, std::string&) {
    groups.push_back(statements.size());
    return true;
  });
  CExhaustedSequences sequences;
  std::mutex checkpoints;
  CSqliteWriter writer(path_, SqliteOptions{}, sequences, checkpoints);
  const std::vector<std::vector<std::string>> statements = {
      InsertItem(1), InsertItem(2), {"PRAGMA platform.user_version = 5"}};
  std::vector<SqlWrite> writes(3);
  for (std::size_t i = 0; i < writes.size(); ++i) {
    writes[i].statements = &statements[i];
  }
  writer.RunBatch({&writes[0], &writes[1], &writes[2]});
  writer.RunBatch({&writes[2]});
  EXPECT_EQ(groups, std::vector<std::size_t>{2}) << "one call for a transaction, none for what runs alone";
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item", "id"), "1,2");
}

}  // namespace
}  // namespace db_layer
