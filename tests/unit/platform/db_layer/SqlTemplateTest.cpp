#include "db_layer/SqlTemplate.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace db_layer {
namespace {

// Gives the template and its values as "text|number|'text'|...", or "-" for a statement that stays as it is.
std::string Taken(const std::string& sql) {
  SqlTemplate shape;
  if (!MakeTemplate(sql, shape)) {
    return "-";
  }
  std::string taken = shape.text;
  for (const SqlValue& value : shape.values) {
    taken += "|" + (value.is_text ? "'" + value.text + "'" : std::to_string(value.number));
  }
  return taken;
}

TEST(SqlTemplateTest, TakesTheValuesOutOfWrites) {
  EXPECT_EQ(Taken("INSERT INTO p.t (id, name, n2) VALUES (1, 'a', -20) "),
            "INSERT INTO p.t (id, name, n2) VALUES (?, ?, ?) |1|'a'|-20");
  EXPECT_EQ(Taken("UPDATE p.t set size=5, name='x' where id=7 ;"),
            "UPDATE p.t set size=?, name=? where id=? ;|5|'x'|7");
  EXPECT_EQ(Taken("DELETE FROM p.t WHERE id IN (1,2,3);"), "DELETE FROM p.t WHERE id IN (?,?,?);|1|2|3");
  EXPECT_EQ(Taken(" \n delete from t where a='b'"), " \n delete from t where a=?|'b'");
}

TEST(SqlTemplateTest, StatementsThatDifferInTheirValuesOnlyHaveOneText) {
  SqlTemplate first;
  SqlTemplate second;
  ASSERT_TRUE(MakeTemplate("INSERT INTO t (a, b) VALUES (1, 'it''s')", first));
  ASSERT_TRUE(MakeTemplate("INSERT INTO t (a, b) VALUES (-900, '')", second));
  EXPECT_EQ(first.text, second.text);
}

TEST(SqlTemplateTest, TextsComeOutAsTheyAreMeant) {
  EXPECT_EQ(Taken("DELETE FROM t WHERE a=''"), "DELETE FROM t WHERE a=?|''");
  EXPECT_EQ(Taken("DELETE FROM t WHERE a='it''s'"), "DELETE FROM t WHERE a=?|'it's'");
  EXPECT_EQ(Taken("DELETE FROM t WHERE a=''''"), "DELETE FROM t WHERE a=?|'''");
  EXPECT_EQ(Taken("DELETE FROM t WHERE a='?;--/*\"\xFF\n'"), "DELETE FROM t WHERE a=?|'?;--/*\"\xFF\n'");
}

TEST(SqlTemplateTest, NumbersKeepTheirValue) {
  EXPECT_EQ(Taken("DELETE FROM t WHERE a=007"), "DELETE FROM t WHERE a=?|7");
  EXPECT_EQ(Taken("DELETE FROM t WHERE a=-0"), "DELETE FROM t WHERE a=?|0");
  EXPECT_EQ(Taken("DELETE FROM t WHERE a=999999999999999999"), "DELETE FROM t WHERE a=?|999999999999999999");
  EXPECT_EQ(Taken("DELETE FROM t WHERE a= -4294967296"), "DELETE FROM t WHERE a= ?|-4294967296");
}

TEST(SqlTemplateTest, NamesMayHoldDigits) {
  EXPECT_EQ(Taken("UPDATE t2 SET a1=1 WHERE _b2=2"), "UPDATE t2 SET a1=? WHERE _b2=?|1|2");
}

TEST(SqlTemplateTest, OtherStatementsStayAsTheyAre) {
  for (const char* sql : {
           "",
           "   ",
           ";",
           "'INSERT'",
           "SELECT 'a'",
           "select name from t where a=5",
           "CREATE TABLE t (a INTEGER DEFAULT (5))",
           "PRAGMA user_version=5",
           "VACUUM",
           "WITH x AS (VALUES (1)) DELETE FROM t",
           "REPLACE INTO t VALUES (1)",
           "EXPLAIN DELETE FROM t WHERE a=1",
           "INSERTS INTO t VALUES (1)",
           // An empty statement, and another one behind it.
           ";ALTER TABLE t ADD COLUMN y AS (5)",
           " ; DELETE FROM t WHERE a=1",
           // Nothing to take out.
           "DELETE FROM t",
           "INSERT INTO t DEFAULT VALUES",
       }) {
    EXPECT_EQ(Taken(sql), "-") << sql;
  }
}

TEST(SqlTemplateTest, WhatMayBeMoreThanAValueStaysAsItIs) {
  for (const char* sql : {
           "INSERT INTO t SELECT a, 5 FROM u",
           "INSERT INTO t (a) select 5",
           "DELETE FROM t WHERE a IN (SELECT b FROM u WHERE c=1)",
           "UPDATE t SET a=1 RETURNING a, 'x'",
           "DELETE FROM t WHERE a=1 ORDER BY b, 2",
           "DELETE FROM t WHERE a=1 GROUP BY b, 2",
           "DELETE FROM t WHERE a=1 LIMIT 5",
           "UPDATE t SET a=1 FROM (VALUES (5), ('b')) AS v WHERE v.column1=5",
           "DELETE FROM t WHERE a IN (VALUES (1))",
           "INSERT INTO t VALUES ((VALUES (1)))",
       }) {
    EXPECT_EQ(Taken(sql), "-") << sql;
  }
}

TEST(SqlTemplateTest, ValuesOfOtherKindsStayAsTheyAre) {
  for (const char* value : {"1.5",
                            "1.",
                            ".5",
                            "1e3",
                            "0x10",
                            "1_000",
                            "5a",
                            "x'00'",
                            "X'00'",
                            "N'a'",
                            "\"a\"",
                            "`a`",
                            "[a]",
                            "?",
                            "?1",
                            ":a",
                            "@a",
                            "$a",
                            "--1",
                            "- 1",
                            "+1",
                            "1+1",
                            "5-3",
                            "'a'||'b'",
                            "'a",
                            "'a''",
                            "1000000000000000000",
                            "-1000000000000000000",
                            "1 --",
                            "/* 1 */ 1",
                            "~1",
                            "'a' 'b'",
                            "1 2",
                            "1'a'",
                            "'a'1",
                            "'a'-1",
                            "-",
                            "-x",
                            "1-",
                            "caf\xC3\xA9"}) {
    EXPECT_EQ(Taken(std::string("INSERT INTO t VALUES (") + value + ")"), "-") << value;
  }
}

TEST(SqlTemplateTest, ANulByteEndsNothing) {
  EXPECT_EQ(Taken(std::string("DELETE FROM t WHERE a=1\0", 24)), "-");
}

TEST(SqlTemplateTest, LongListsStayAsTheyAre) {
  std::string list = "1";
  for (int count = 1; count < 64; ++count) {
    list += ",1";
  }
  EXPECT_NE(Taken("DELETE FROM t WHERE a IN (" + list + ")"), "-");
  EXPECT_EQ(Taken("DELETE FROM t WHERE a IN (" + list + ",1)"), "-");
}

TEST(SqlTemplateTest, NothingOfAnEarlierStatementIsLeft) {
  SqlTemplate shape;
  ASSERT_TRUE(MakeTemplate("INSERT INTO t VALUES (1, 2, 3)", shape));
  ASSERT_TRUE(MakeTemplate("DELETE FROM t WHERE a='b'", shape));
  EXPECT_EQ(shape.text, "DELETE FROM t WHERE a=?");
  ASSERT_EQ(shape.values.size(), 1U);
  EXPECT_EQ(shape.values[0].text, "b");
}

}  // namespace
}  // namespace db_layer
