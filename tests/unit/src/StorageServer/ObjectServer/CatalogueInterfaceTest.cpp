#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "CatalogueFixture.h"
#include "TansyCloudStorage/Catalogue.h"
#include "TansyCloudStorage/ServerLoad.h"

namespace Tansy::CloudStorage {
namespace {

using CatalogueInterface = CatalogueFixture;

TEST_F(CatalogueInterface, AddsABucketWithItsFlagOnly) {
  BucketInfo bucket;
  bucket.name = "flagged";
  bucket.acl = 7;
  for (const std::uint32_t flag : {0U, 2U, 0xFFFFFFFFU}) {
    bucket.flag = flag;
    EXPECT_FALSE(AddBucket(bucket));
    EXPECT_EQ(bucket.acl, 7U);
    EXPECT_EQ(bucket.id, 0U);
  }
  EXPECT_TRUE(database_.Statements().empty());
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
  EXPECT_FALSE(manager_.IsBucketExist("flagged"));

  bucket.flag = 1;
  EXPECT_TRUE(AddBucket(bucket));
  EXPECT_NE(bucket.id, 0U);
  EXPECT_EQ(bucket.acl, 0U);
  EXPECT_TRUE(manager_.IsBucketExist("flagged"));
  EXPECT_FALSE(AddBucket(bucket)) << "it exists";
}

TEST_F(CatalogueInterface, SaysWhetherEverythingWasLoaded) {
  EXPECT_TRUE(manager_.Init());
  EXPECT_TRUE(IsCatalogueLoaded());
  BucketInfo bucket = MakeBucket("bucket");
  for (const char* table : {"local_bucket ", "local_object ", "local_object_task "}) {
    database_.FailStatementsWith(std::string("platform.") + table);
    EXPECT_FALSE(manager_.Init());
    EXPECT_FALSE(IsCatalogueLoaded()) << table;
    database_.Heal();
    EXPECT_TRUE(manager_.Init());
    EXPECT_TRUE(IsCatalogueLoaded()) << table;
  }
}

TEST_F(CatalogueInterface, AppendsTheBucketsInTheOrderOfTheirNames) {
  MakeBucket("b");
  MakeBucket("c");
  MakeBucket("a");
  std::vector<BucketInfo> buckets(1);
  buckets[0].name = "was there";
  EXPECT_TRUE(GetBucketList(buckets));
  std::vector<std::string> names;
  for (const BucketInfo& bucket : buckets) {
    names.push_back(bucket.name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"was there", "a", "b", "c"}));
}

TEST_F(CatalogueInterface, FindsChangesAndRemovesBuckets) {
  const BucketInfo made = MakeBucket("one");
  const BucketInfo other = MakeBucket("two");
  const BucketInfo third = MakeBucket("three");
  BucketInfo bucket;
  ASSERT_TRUE(GetBucketByName(bucket, "one"));
  EXPECT_EQ(bucket.id, made.id);
  EXPECT_FALSE(GetBucketByName(bucket, "none"));

  bucket.location = "changed";
  bucket.flag = 0;
  EXPECT_TRUE(ModifyBucket(bucket)) << "changes need no flag";
  ASSERT_TRUE(GetBucketByName(bucket, "one"));
  EXPECT_EQ(bucket.location, "changed");

  EXPECT_TRUE(DeleteBucket(made.id));
  EXPECT_FALSE(GetBucketByName(bucket, "one"));
  EXPECT_TRUE(DeleteBucket(std::set<std::uint32_t>{other.id, third.id}));
  EXPECT_FALSE(GetBucketByName(bucket, "two"));
  EXPECT_FALSE(GetBucketByName(bucket, "three"));
}

TEST_F(CatalogueInterface, SaysWhatEachBucketHas) {
  MakeBucket("one");
  MakeBucket("none");
  ObjectInfo object = Object("one", "a");
  object.size = 5'000'000'000;
  EXPECT_TRUE(manager_.AddObject(object));
  object = Object("one", "b");
  object.size = 7;
  EXPECT_TRUE(manager_.AddObject(object));
  std::vector<BucketUsage> usage;
  ASSERT_TRUE(GetBucketUsage(usage));
  ASSERT_EQ(usage.size(), 2U);
  EXPECT_EQ(usage[0].name, "none");
  EXPECT_EQ(usage[0].objects, 0U);
  EXPECT_EQ(usage[0].bytes, 0U);
  EXPECT_EQ(usage[1].name, "one");
  EXPECT_EQ(usage[1].objects, 2U);
  EXPECT_EQ(usage[1].bytes, 5'000'000'007U);
  EXPECT_TRUE(manager_.RemoveObject("a", "one"));
  usage.clear();
  ASSERT_TRUE(GetBucketUsage(usage));
  EXPECT_EQ(usage[1].objects, 1U);
  EXPECT_EQ(usage[1].bytes, 7U);
  ServerLoad load;
  ASSERT_TRUE(GetServerLoad(load));
  EXPECT_EQ(load.object_bytes, 7U);
}

TEST_F(CatalogueInterface, SaysWhenTheDatabaseRefuses) {
  const BucketInfo made = MakeBucket("kept");
  database_.FailStatementsWith("local_bucket");
  BucketInfo bucket;
  bucket.name = "new";
  bucket.flag = 1;
  EXPECT_FALSE(AddBucket(bucket));
  EXPECT_FALSE(ModifyBucket(made));
  EXPECT_FALSE(DeleteBucket(made.id));
  EXPECT_FALSE(DeleteBucket(std::set<std::uint32_t>{made.id}));
  EXPECT_TRUE(GetBucketByName(bucket, "kept"));
}

}  // namespace
}  // namespace Tansy::CloudStorage
