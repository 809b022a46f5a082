#include "RadosUrl.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::Host {
namespace {

TEST(RadosUrlTest, APoolAloneHasCephsOwnDefaults) {
  RadosUrl url;
  ASSERT_TRUE(ParseRadosUrl("rados://photos", url));
  EXPECT_EQ(url.pool, "photos");
  EXPECT_EQ(url.conf, "/etc/ceph/ceph.conf");
  EXPECT_EQ(url.id, "admin");
  EXPECT_EQ(url.name_space, "");
}

TEST(RadosUrlTest, EveryParameterCountsInAnyOrder) {
  RadosUrl url;
  ASSERT_TRUE(ParseRadosUrl("rados://my.pool_1?namespace=ns-1&id=tansy&conf=/srv/ceph a/c=1.conf", url));
  EXPECT_EQ(url.pool, "my.pool_1");
  EXPECT_EQ(url.conf, "/srv/ceph a/c=1.conf");
  EXPECT_EQ(url.id, "tansy");
  EXPECT_EQ(url.name_space, "ns-1");
}

TEST(RadosUrlTest, NothingBehindAMarkIsNoParameter) {
  RadosUrl url;
  EXPECT_TRUE(ParseRadosUrl("rados://a?", url));
  EXPECT_TRUE(ParseRadosUrl("rados://a?id=b&", url));
  EXPECT_EQ(url.id, "b");
}

TEST(RadosUrlTest, AnythingElseIsRefusedAndChangesNothing) {
  for (const char* text : {"",
                           "rados:",
                           "rados:photos",
                           "rados:/photos",
                           "rados://",
                           "rados://?id=a",
                           "rados://a/b",
                           "rados://a b",
                           "rados://a?id",
                           "rados://a?id=",
                           "rados://a?conf=",
                           "rados://a?namespace=",
                           "rados://a?id=b c",
                           "rados://a?ID=b",
                           "rados://a?key=b",
                           "rados://a?id=b&&conf=c",
                           "rados://a&id=b",
                           "RADOS://a",
                           "file:objects",
                           "rados://a#b"}) {
    RadosUrl url;
    url.pool = "before";
    EXPECT_FALSE(ParseRadosUrl(text, url)) << text;
    EXPECT_EQ(url.pool, "before") << text;
  }
  RadosUrl url;
  EXPECT_FALSE(ParseRadosUrl("rados://" + std::string(101, 'a'), url));
  EXPECT_FALSE(ParseRadosUrl(std::string("rados://a?conf=b\0c", 18), url));
}

}  // namespace
}  // namespace Tansy::Host
