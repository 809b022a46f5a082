// Memory that runs out in the middle of a change: the catalogue in memory and the database still agree.
#include <gtest/gtest.h>

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "CatalogueFixture.h"
#include "fakes/FailingAllocation.h"

namespace Tansy::CloudStorage {
namespace {

using Tests::FailEachAllocation;

// Longer than what a text holds without an allocation.
const std::string kFirst = "a bucket with a name of some length";
const std::string kSecond = "a bucket with another name of some length";
const std::string kKey = "a key that does not fit into a short text";

class ObjectStorageManagerMemory : public CatalogueFixture {
 protected:
  std::size_t CountObjectRows() { return database_.Column("SELECT * FROM platform.local_object", "id").size(); }
  bool HasObject(const std::string& bucket) {
    ObjectInfo object;
    return manager_.GetObjectByName(object, kKey, bucket);
  }
};

TEST_F(ObjectStorageManagerMemory, RemovingAnObjectWithItsBytes) {
  MakeBucket(kFirst);
  ASSERT_TRUE(database_.Run("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('fs01', 'disk')"));
  for (const bool storage_takes_it : {true, false}) {
    int calls = 0;
    const auto remove_file = [&](const std::string& /*path*/) {
      ++calls;
      return storage_takes_it;
    };
    FailEachAllocation([&] { manager_.RemoveObject(kKey, kFirst, remove_file); },
                       [&](std::size_t number, bool /*has_failed*/) {
                         EXPECT_EQ(CountObjectRows(), HasObject(kFirst) ? 1U : 0U) << "allocation " << number;
                         if (!HasObject(kFirst)) {
                           MakeObject(kFirst, kKey);
                         }
                       });
    EXPECT_GE(calls, 1);
    EXPECT_TRUE(HasObject(kFirst));
  }
}

TEST_F(ObjectStorageManagerMemory, RenamingABucket) {
  BucketInfo bucket = MakeBucket(kFirst);
  FailEachAllocation(
      [&] {
        bucket.name = bucket.name == kFirst ? kSecond : kFirst;
        manager_.ModifyBucket(bucket);
      },
      [&](std::size_t number, bool /*has_failed*/) {
        const std::vector<std::string> names = database_.Column("SELECT * FROM platform.local_bucket", "name");
        BucketInfo found;
        ASSERT_TRUE(manager_.GetBucketByName(found, kFirst));
        EXPECT_EQ(names, std::vector<std::string>{found.name}) << "allocation " << number;
        bucket.name = found.name;
      });
}

TEST_F(ObjectStorageManagerMemory, RemovingABucket) {
  for (const bool as_set : {false, true}) {
    BucketInfo bucket = MakeBucket(kFirst);
    MakeObject(kFirst, kKey);
    FailEachAllocation(
        [&] { as_set ? manager_.RemoveBucket(std::set{bucket.id}) : manager_.RemoveBucket(bucket.id); },
        [&](std::size_t number, bool /*has_failed*/) {
          const bool is_there = manager_.IsBucketExist(kFirst);
          EXPECT_EQ(database_.Column("SELECT * FROM platform.local_bucket", "id").size(), is_there ? 1U : 0U)
              << "allocation " << number;
          EXPECT_EQ(CountObjectRows(), HasObject(kFirst) ? 1U : 0U) << "allocation " << number;
          EXPECT_EQ(HasObject(kFirst), is_there) << "allocation " << number;
          if (!is_there) {
            bucket = MakeBucket(kFirst);
            MakeObject(kFirst, kKey);
          }
        });
    EXPECT_TRUE(manager_.RemoveBucket(bucket.id));
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
