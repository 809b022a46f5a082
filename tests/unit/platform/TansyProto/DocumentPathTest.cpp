#include "TansyProto/DocumentPath.h"

#include <gtest/gtest.h>

#include <string>

namespace TansyProto {
namespace {

std::string Describe(const CDocumentPath& path) {
  std::string text;
  for (const PathStep& step : path) {
    text += std::string(step.name) + ":" + std::to_string(step.index) + " ";
  }
  return text;
}

TEST(DocumentPathTest, StepsAreNamesAndIndexes) {
  EXPECT_EQ(Describe(CDocumentPath("/Root")), "Root:0 ");
  EXPECT_EQ(Describe(CDocumentPath("/Root/Part[3]/Size")), "Root:0 Part:3 Size:0 ");
  EXPECT_EQ(Describe(CDocumentPath("/a[1]/b[4294967296]")), "a:1 b:4294967296 ");
}

class MalformedPathTest : public testing::TestWithParam<const char*> {};

TEST_P(MalformedPathTest, IsNotValid) {
  const CDocumentPath path(GetParam());
  EXPECT_FALSE(path.IsValid());
  EXPECT_EQ(path.begin(), path.end());
}

INSTANTIATE_TEST_SUITE_P(Paths, MalformedPathTest,
                         testing::Values("", "/", "a", "a/b", "/a/", "//a", "/a//b", "/[1]", "/a[", "/a[]", "/a[1",
                                         "/a]", "/a[0]", "/a[-1]", "/a[+1]", "/a[ 1]", "/a[1 ]", "/a[1x]", "/a[x]",
                                         "/a[1]b", "/a[1][2]", "/a]1[", "/a[99999999999999999999]", "/a[0x1]"));

TEST(DocumentPathTest, DepthHasALimit) {
  std::string path;
  for (std::size_t i = 0; i < kMaxDepth; ++i) {
    path += "/a";
  }
  EXPECT_TRUE(CDocumentPath(path).IsValid());
  EXPECT_FALSE(CDocumentPath(path + "/a").IsValid());
}

}  // namespace
}  // namespace TansyProto
