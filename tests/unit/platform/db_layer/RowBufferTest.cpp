#include "db_layer/RowBuffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace db_layer {
namespace {

TEST(RowBufferTest, EmptyBufferIsAtItsEnd) {
  CRowBuffer rows;
  EXPECT_TRUE(rows.IsEnd());
  rows.MoveNext();
  EXPECT_TRUE(rows.IsEnd());
  EXPECT_EQ(rows.GetString("id"), "");
  EXPECT_EQ(rows.GetInt("id"), 0);
  EXPECT_EQ(rows.GetInt(std::size_t{0}), 0);
}

TEST(RowBufferTest, ColumnsWithoutRowsAreTheEnd) {
  CRowBuffer rows;
  rows.AddColumn("id");
  EXPECT_TRUE(rows.IsEnd());
  EXPECT_EQ(rows.GetString("id"), "");
}

TEST(RowBufferTest, WalksRowsInOrder) {
  CRowBuffer rows;
  rows.AddColumn("id");
  rows.AddColumn("name");
  for (const char* cell : {"1", "one", "2", "", "3", "three"}) {
    rows.AddCell(cell);
  }
  std::string seen;
  for (; !rows.IsEnd(); rows.MoveNext()) {
    seen += std::to_string(rows.GetInt("id")) + rows.GetString("name") + ";";
  }
  EXPECT_EQ(seen, "1one;2;3three;");
  EXPECT_EQ(rows.GetString("name"), "");
  EXPECT_EQ(rows.GetInt("id"), 0);
}

TEST(RowBufferTest, MissingColumnsReadAsNothing) {
  CRowBuffer rows;
  rows.AddColumn("id");
  rows.AddCell("5");
  EXPECT_EQ(rows.GetString("ID"), "");
  EXPECT_EQ(rows.GetInt("other"), 0);
  EXPECT_EQ(rows.GetInt(std::size_t{1}), 0);
  EXPECT_EQ(rows.GetInt(std::size_t{0}), 5);
}

TEST(RowBufferTest, FirstOfTwoColumnsOfOneNameIsRead) {
  CRowBuffer rows;
  rows.AddColumn("a");
  rows.AddColumn("a");
  rows.AddCell("1");
  rows.AddCell("2");
  EXPECT_EQ(rows.GetInt("a"), 1);
  EXPECT_EQ(rows.GetInt(std::size_t{1}), 2);
}

TEST(RowBufferTest, CellsKeepNulBytes) {
  CRowBuffer rows;
  rows.AddColumn("a");
  rows.AddCell(std::string_view("x\0y", 3));
  EXPECT_EQ(rows.GetString("a"), std::string("x\0y", 3));
}

TEST(RowBufferTest, ClearForgetsEverything) {
  CRowBuffer rows;
  rows.AddColumn("a");
  rows.AddCell("1");
  rows.AddCell("2");
  rows.MoveNext();
  rows.Clear();
  rows.AddColumn("b");
  rows.AddCell("3");
  EXPECT_EQ(rows.GetInt("b"), 3);
  EXPECT_EQ(rows.GetString("a"), "");
}

struct IntegerCase {
  const char* text;
  std::int32_t value;
};

class RowBufferIntegerTest : public testing::TestWithParam<IntegerCase> {};

TEST_P(RowBufferIntegerTest, ReadsTheLowBits) {
  CRowBuffer rows;
  rows.AddColumn("a");
  rows.AddCell(GetParam().text);
  EXPECT_EQ(rows.GetInt("a"), GetParam().value) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(Texts, RowBufferIntegerTest,
                         testing::Values(IntegerCase{"", 0}, IntegerCase{"0", 0}, IntegerCase{"-1", -1},
                                         IntegerCase{"2147483647", INT32_MAX}, IntegerCase{"2147483648", INT32_MIN},
                                         IntegerCase{"-2147483648", INT32_MIN}, IntegerCase{"4294967295", -1},
                                         IntegerCase{"4294967296", 0}, IntegerCase{"4294967301", 5},
                                         IntegerCase{"-4294967297", -1}, IntegerCase{"9223372036854775807", -1},
                                         IntegerCase{"-9223372036854775808", 0}, IntegerCase{"12.9", 12},
                                         IntegerCase{"7 buckets", 7}, IntegerCase{"none", 0}, IntegerCase{"-", 0}));

}  // namespace
}  // namespace db_layer
