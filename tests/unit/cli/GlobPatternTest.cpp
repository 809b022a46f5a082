#include "GlobPattern.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::Cli {
namespace {

TEST(GlobPatternTest, FitsAsShellsDo) {
  EXPECT_TRUE(FitsPattern("", ""));
  EXPECT_TRUE(FitsPattern("", "*"));
  EXPECT_TRUE(FitsPattern("cat.jpg", "*.jpg"));
  EXPECT_TRUE(FitsPattern("a/b/cat.jpg", "a/*.jpg"));
  EXPECT_TRUE(FitsPattern("aXbXc", "a*b*c"));
  EXPECT_TRUE(FitsPattern("ab.ab.c", "*ab.c")) << "a star gives back what it took";
  EXPECT_TRUE(FitsPattern("cat", "c?t"));
  EXPECT_TRUE(FitsPattern("b", "[abc]"));
  EXPECT_TRUE(FitsPattern("m", "[a-z]"));
  EXPECT_TRUE(FitsPattern("-", "[a-]"));
  EXPECT_TRUE(FitsPattern("]", "[]a]"));
  EXPECT_TRUE(FitsPattern("\xff", "[\x80-\xff]"));
  EXPECT_TRUE(FitsPattern("X", "[!a-z]"));
  EXPECT_TRUE(FitsPattern("*", "\\*"));
  EXPECT_TRUE(FitsPattern("[a", "[a")) << "it is not closed";
  EXPECT_TRUE(FitsPattern("a\\", "a\\"));
}

TEST(GlobPatternTest, RefusesTheRest) {
  EXPECT_FALSE(FitsPattern("x", ""));
  EXPECT_FALSE(FitsPattern("", "?"));
  EXPECT_FALSE(FitsPattern("cat.jpeg", "*.jpg"));
  EXPECT_FALSE(FitsPattern("cat.jpg", "jpg"));
  EXPECT_FALSE(FitsPattern("b", "[!abc]"));
  EXPECT_FALSE(FitsPattern("d", "[a-c]"));
  EXPECT_FALSE(FitsPattern("x", "\\*"));
  EXPECT_FALSE(FitsPattern("catx", "c?t"));
}

// A pattern of many stars must not try every way to share a name out.
TEST(GlobPatternTest, TakesLongNamesAndManyStars) {
  std::string pattern;
  for (int i = 0; i < 100; ++i) {
    pattern += "a*";
  }
  EXPECT_FALSE(FitsPattern(std::string(1024, 'a'), pattern + "b"));
  EXPECT_TRUE(FitsPattern(std::string(1024, 'a'), pattern));
}

}  // namespace
}  // namespace Tansy::Cli
