#include "sqlbuilder/SqlBuilder.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "db_layer/DbLayer.h"
#include "fakes/FailingDatabase.h"

namespace sqlbuilder {
namespace {

class SqlBuilderTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(db_layer::Module_Register(database_.Param(), "test")); }
  void TearDown() override { db_layer::Module_Unregister("test"); }

  static std::shared_ptr<db_layer::CConnect> Connect() {
    return {db_layer::DBLayer_ApplyConn("test"), db_layer::DBLayer_FreeConn};
  }

  Tansy::Tests::CFailingDatabase database_;
};

TEST_F(SqlBuilderTest, HandlesCarryTheirNames) {
  EXPECT_EQ(tab("platform.local_bucket").name, "platform.local_bucket");
  EXPECT_EQ(seq("platform.local_bucket_id_seq").name, "platform.local_bucket_id_seq");
}

TEST_F(SqlBuilderTest, NextValueIsTheFirstColumnOfTheCurrentRow) {
  const auto connection = Connect();
  for (int expected = 1; expected <= 3; ++expected) {
    SeqenceBuilder builder(connection);
    ASSERT_TRUE(builder.NEXT_VAL(seq("platform.local_object_id_seq"), tab("platform.local_object")).Execute());
    ASSERT_FALSE(connection->IsEnd());
    EXPECT_EQ(connection->GetInt(0), expected);
  }
}

TEST_F(SqlBuilderTest, StatementIsTheOneThatBothDatabasesKnow) {
  SeqenceBuilder(Connect()).NEXT_VAL(seq("platform.local_object_id_seq"), tab("platform.local_object")).Execute();
  EXPECT_EQ(database_.Statements().back(), "SELECT nextval('platform.local_object_id_seq')");
}

TEST_F(SqlBuilderTest, QuotesInANameStayInTheName) {
  ASSERT_TRUE(database_.Run("INSERT INTO platform.sequences (name, next_value) VALUES ('it''s', 7)"));
  const auto connection = Connect();
  ASSERT_TRUE(SeqenceBuilder(connection).NEXT_VAL(seq("it's"), tab("any")).Execute());
  EXPECT_EQ(connection->GetInt(0), 7);
}

TEST_F(SqlBuilderTest, UnknownSequenceFails) {
  const auto connection = Connect();
  EXPECT_FALSE(SeqenceBuilder(connection).NEXT_VAL(seq("platform.none"), tab("platform.none")).Execute());
  std::string text;
  EXPECT_NE(connection->GetLastError(text), 0);
  EXPECT_NE(text.find("platform.none"), std::string::npos) << text;
  EXPECT_TRUE(connection->IsEnd());
}

TEST_F(SqlBuilderTest, FailedStatementFails) {
  database_.FailStatement(1);
  const auto connection = Connect();
  SeqenceBuilder builder(connection);
  builder.NEXT_VAL(seq("platform.local_object_id_seq"), tab("platform.local_object"));
  EXPECT_FALSE(builder.Execute());
  EXPECT_TRUE(builder.Execute());
}

TEST_F(SqlBuilderTest, NothingToExecuteFails) {
  EXPECT_FALSE(SeqenceBuilder(Connect()).Execute());
  EXPECT_FALSE(SeqenceBuilder(nullptr).NEXT_VAL(seq("platform.local_object_id_seq"), tab("any")).Execute());
  EXPECT_TRUE(database_.Statements().empty());
}

}  // namespace
}  // namespace sqlbuilder
