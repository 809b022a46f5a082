#include "StorageServer/ObjectServer/BaseDBConn.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"

namespace Tansy::CloudStorage {
namespace {

class BaseDBConn : public CatalogueFixture {
 protected:
  CBaseDBLayerConn& connections_ = CBaseDBLayerConn::Instance();
};

TEST_F(BaseDBConn, HandsOutConnectionsAndTakesThemBack) {
  db_layer::DBParam param = database_.Param();
  param.max_connections = 1;
  ASSERT_TRUE(connections_.RegisterModule(param));
  // The pool has a single connection, so a second one is there only once the first has been given back.
  for (int i = 0; i < 3; ++i) {
    const std::shared_ptr<db_layer::CConnect> connection = connections_.ApplyConn();
    ASSERT_NE(connection, nullptr);
    EXPECT_TRUE(connection->Query("SELECT * FROM platform.local_bucket"));
  }
  EXPECT_EQ(CountLines(logging::kNotable), 0U);
}

TEST_F(BaseDBConn, LogsThatNoConnectionIsToBeHad) {
  LoseConnections();
  EXPECT_EQ(connections_.ApplyConn(), nullptr);
  ExpectLine(5, "CBaseDBLayerConn::ApplyConn", "[%s]apply conn failed[%s(%d)]", "apply conn failed");
}

TEST_F(BaseDBConn, ExecutesAStatement) {
  EXPECT_TRUE(connections_.Execute("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('abcd', 'x')"));
  EXPECT_EQ(database_.Column("SELECT * FROM platform.picture_url_encrypt", "url"), std::vector<std::string>{"x"});
  EXPECT_EQ(CountLines(logging::kNotable), 0U);
}

TEST_F(BaseDBConn, LogsAStatementWithoutConnection) {
  LoseConnections();
  EXPECT_FALSE(connections_.Execute("DELETE FROM platform.local_object where id=1"));
  ExpectLine(5, "CBaseDBLayerConn::ApplyConn", "[%s]apply conn failed[%s(%d)]", "apply conn failed");
  ExpectLine(4, "CBaseDBLayerConn::Execute", "[%s]apply conn failed, sql = %s[%s(%d)]",
             "apply conn failed, sql = DELETE FROM platform.local_object where id=1");
  EXPECT_TRUE(database_.Statements().empty());
}

TEST_F(BaseDBConn, LogsAStatementThatIsRefused) {
  database_.FailStatement(1);
  EXPECT_FALSE(connections_.Execute("DELETE FROM platform.local_object where id=1"));
  ExpectLine(4, "CBaseDBLayerConn::Execute", "[%s]Execute failed, errorcode:%d, errorinfo:%s, sql:%s[%s(%d)]",
             "Execute failed, errorcode:4711, errorinfo:injected failure, sql:DELETE FROM platform.local_object where "
             "id=1");
}

TEST_F(BaseDBConn, RunsSeveralStatementsTogetherOrNotAtAll) {
  const auto insert = [](const std::string& key) {
    return "INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('" + key + "', 'x')";
  };
  const auto keys = [this] { return database_.Column("SELECT * FROM platform.picture_url_encrypt", "encrypt_url"); };
  const std::vector<std::string> two = {insert("a"), insert("b")};
  EXPECT_TRUE(connections_.Execute(two));
  EXPECT_EQ(keys(), (std::vector<std::string>{"a", "b"}));
  const std::vector<std::string> twice = {insert("c"), insert("a")};
  EXPECT_FALSE(connections_.Execute(twice));
  EXPECT_EQ(keys(), (std::vector<std::string>{"a", "b"}));
  ASSERT_EQ(log_->Count("[%s]Execute failed, errorcode:%d, errorinfo:%s, sql:%s[%s(%d)]"), 1U);
  EXPECT_NE(log_->Text("[%s]Execute failed, errorcode:%d, errorinfo:%s, sql:%s[%s(%d)]")
                .find("sql:" + twice[0] + "; " + twice[1]),
            std::string::npos);
}

TEST_F(BaseDBConn, RegistersUnderThePlatformsName) {
  db_layer::Module_Unregister("platform");
  EXPECT_EQ(connections_.ApplyConn(), nullptr);
  EXPECT_TRUE(connections_.RegisterModule(database_.Param()));
  EXPECT_NE(connections_.ApplyConn(), nullptr);
}

TEST_F(BaseDBConn, SaysWhetherTheDatabaseAccepted) {
  database_.FailConnections();
  EXPECT_FALSE(connections_.RegisterModule(database_.Param()));
  database_.Heal();
  EXPECT_TRUE(connections_.RegisterModule(database_.Param()));
}

TEST_F(BaseDBConn, FollowsChangedParameters) {
  const int opened = database_.CountConnections();
  db_layer::DBParam param = database_.Param();
  param.min_connections = 2;
  EXPECT_TRUE(connections_.ResetParam(param));
  EXPECT_TRUE(connections_.Execute("DELETE FROM platform.local_object where id=1"));
  EXPECT_GT(database_.CountConnections(), opened);
}

TEST_F(BaseDBConn, ServesManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, i] {
      for (int round = 0; round < 10; ++round) {
        EXPECT_TRUE(connections_.Execute("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('" +
                                         std::to_string(i * 100 + round) + "', 'x')"));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(database_.Column("SELECT * FROM platform.picture_url_encrypt", "url").size(), 80U);
}

}  // namespace
}  // namespace Tansy::CloudStorage
