#include "StorageServer/ObjectServer/ObjectTableLoader.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "fakes/FailingAllocation.h"

namespace Tansy::CloudStorage {
namespace {

constexpr std::size_t kBatch = CObjectTableLoader::kBatch;

CPackedObject::Pointer Object(std::size_t number, const std::string& url) {
  ObjectInfo object;
  object.name = "object " + std::to_string(number);
  object.url = url;
  return CPackedObject::Make(object);
}

std::string UrlOf(const CObjectTable& table, std::size_t number) {
  std::string url = "none";
  table.Find("object " + std::to_string(number), [&url](const CPackedObject& object) { url = object.Url(); });
  return url;
}

void ExpectLoaded(std::size_t count) {
  CObjectTable table;
  {
    CObjectTableLoader loader(table);
    for (std::size_t i = 0; i < count; ++i) {
      loader.Add(Object(i, "url " + std::to_string(i)));
    }
  }
  for (std::size_t i = 0; i < count; ++i) {
    ASSERT_EQ(UrlOf(table, i), "url " + std::to_string(i)) << "of " << count;
  }
  EXPECT_EQ(UrlOf(table, count), "none");
}

TEST(ObjectTableLoader, PutsEachObjectIntoTheTable) {
  for (const std::size_t count : {std::size_t{0}, std::size_t{1}, kBatch - 1, kBatch, kBatch + 1, 20 * kBatch + 7}) {
    ExpectLoaded(count);
  }
}

TEST(ObjectTableLoader, TheFirstObjectOfANameCounts) {
  CObjectTable table;
  {
    CObjectTableLoader loader(table);
    for (std::size_t round = 0; round < 4; ++round) {
      for (std::size_t i = 0; i < kBatch + 10; ++i) {
        loader.Add(Object(i, "round " + std::to_string(round)));
      }
    }
  }
  for (std::size_t i = 0; i < kBatch + 10; ++i) {
    ASSERT_EQ(UrlOf(table, i), "round 0") << i;
  }
}

// Whatever allocation fails, what was taken is in the table.
TEST(ObjectTableLoader, LosesNothingWhenMemoryRunsOut) {
  bool has_failed = true;
  for (std::size_t number = 1; has_failed; ++number) {
    std::vector<CPackedObject::Pointer> objects;
    for (std::size_t i = 0; i < 2 * kBatch + 1; ++i) {
      objects.push_back(Object(i, "url"));
    }
    CObjectTable table;
    std::size_t taken = 0;
    {
      CObjectTableLoader loader(table);
      const Tests::CFailingAllocation failing(number);
      try {
        while (taken < objects.size()) {
          loader.Add(std::move(objects[taken]));
          ++taken;
        }
      } catch (const std::bad_alloc&) {
        EXPECT_LT(taken, objects.size());
      }
      has_failed = failing.HasFailed();
    }
    EXPECT_TRUE(has_failed || taken == objects.size());
    for (std::size_t i = 0; i < taken; ++i) {
      ASSERT_EQ(UrlOf(table, i), "url") << "allocation " << number;
    }
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
