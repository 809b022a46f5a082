#include "StorageServer/ObjectServer/ObjectTable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "fakes/FailingAllocation.h"

namespace Tansy::CloudStorage {
namespace {

ObjectInfo Object(const std::string& name) {
  ObjectInfo object;
  object.id = 7;
  object.guid = "guid of " + name;
  object.name = name;
  object.bucket_name = "not kept";
  object.size = 1234;
  object.update_time = "2026-11-03 08:00:00";
  object.url = "url of " + name;
  return object;
}

std::string UrlOf(const CObjectTable& table, const std::string& name) {
  std::string url = "none";
  table.Find(name, [&url](const CPackedObject& object) { url = object.Url(); });
  return url;
}

TEST(ObjectTable, GivesBackEveryFieldButTheBucketsName) {
  CObjectTable table;
  ObjectInfo object = Object("key");
  object.size = std::numeric_limits<std::uint64_t>::max();
  table.Put(CPackedObject::Make(object));
  ObjectInfo found;
  found.bucket_name = "as it was";
  ASSERT_TRUE(table.Find("key", [&found](const CPackedObject& packed) { packed.CopyTo(found); }));
  EXPECT_EQ(found.id, object.id);
  EXPECT_EQ(found.guid, object.guid);
  EXPECT_EQ(found.name, object.name);
  EXPECT_EQ(found.bucket_name, "as it was");
  EXPECT_EQ(found.size, object.size);
  EXPECT_EQ(found.update_time, object.update_time);
  EXPECT_EQ(found.url, object.url);
}

TEST(ObjectTable, CountsItsObjectsAndTheirBytes) {
  const auto sized = [](const std::string& name, std::uint64_t size) {
    ObjectInfo object = Object(name);
    object.size = size;
    return CPackedObject::Make(object);
  };
  CObjectTable table;
  EXPECT_EQ(table.Count().objects, 0U);
  EXPECT_EQ(table.Count().bytes, 0U);
  std::uint64_t bytes = 0;
  for (std::uint64_t i = 0; i < 1000; ++i) {
    table.Put(sized(std::to_string(i), i << 32));
    bytes += i << 32;
  }
  EXPECT_EQ(table.Count().objects, 1000U);
  EXPECT_EQ(table.Count().bytes, bytes);
  table.Put(sized("999", 5));
  bytes -= (std::uint64_t{999} << 32) - 5;
  EXPECT_EQ(table.Count().objects, 1000U) << "one was replaced";
  EXPECT_EQ(table.Count().bytes, bytes);
  table.Put(sized("999", 50));
  EXPECT_EQ(table.Count().bytes, bytes + 45) << "by a larger one";
  table.Add(sized("999", 7));
  table.Remove("missing");
  EXPECT_EQ(table.Count().bytes, bytes + 45) << "nothing has changed";
  for (int i = 0; i < 1000; ++i) {
    table.Remove(std::to_string(i));
  }
  EXPECT_EQ(table.Count().objects, 0U);
  EXPECT_EQ(table.Count().bytes, 0U);
}

// ThreadSanitizer tells when nothing keeps the two apart.
TEST(ObjectTable, AnIdCanBeSetWhileTheKeysAreListed) {
  CObjectTable table;
  table.Put(CPackedObject::Make(Object("a")));
  table.Put(CPackedObject::Make(Object("b")));
  std::thread setter([&table] {
    for (int round = 0; round < 1000; ++round) {
      table.SetId("b", round % 2 == 0 ? 8 : 7);
    }
  });
  int seen = 0;
  for (int round = 0; round < 1000; ++round) {
    ObjectInfo object;
    table.ShowFrom("", true, [&](const CPackedObject& packed) {
      packed.CopyTo(object);
      seen += object.id == 7 || object.id == 8 ? 1 : 0;
      return true;
    });
  }
  setter.join();
  EXPECT_EQ(seen, 2000);
}

TEST(ObjectTable, TakesEmptyAndLongTextsAndEveryByte) {
  CObjectTable table;
  std::string all_bytes;
  for (int byte = 0; byte < 256; ++byte) {
    all_bytes += static_cast<char>(byte);
  }
  for (const std::string& name : {std::string(), all_bytes, std::string(100000, 'x')}) {
    ObjectInfo object;
    object.name = name;
    object.url = name;
    table.Put(CPackedObject::Make(object));
    ObjectInfo found;
    ASSERT_TRUE(table.Find(name, [&found](const CPackedObject& packed) { packed.CopyTo(found); }));
    EXPECT_EQ(found.name, name);
    EXPECT_EQ(found.url, name);
    EXPECT_EQ(found.guid, "");
  }
}

TEST(ObjectTable, PutsAnObjectInThePlaceOfTheOneOfItsName) {
  CObjectTable table;
  table.Put(CPackedObject::Make(Object("key")));
  ObjectInfo other = Object("key");
  other.url = "new";
  table.Put(CPackedObject::Make(other));
  EXPECT_EQ(UrlOf(table, "key"), "new");
  table.Remove("key");
  EXPECT_EQ(UrlOf(table, "key"), "none") << "there was one of that name only";
}

TEST(ObjectTable, AddsAnObjectUnlessThereIsOne) {
  CObjectTable table;
  table.Add(CPackedObject::Make(Object("key")));
  ObjectInfo other = Object("key");
  other.url = "new";
  table.Add(CPackedObject::Make(other));
  EXPECT_EQ(UrlOf(table, "key"), "url of key");
}

TEST(ObjectTable, ChangesAnId) {
  CObjectTable table;
  table.Put(CPackedObject::Make(Object("key")));
  table.SetId("key", 99);
  table.SetId("missing", 98);
  std::uint32_t id = 0;
  table.Find("key", [&id](const CPackedObject& object) { id = object.Id(); });
  EXPECT_EQ(id, 99U);
}

TEST(ObjectTable, FindsEachOfManyWhateverIsRemoved) {
  constexpr int kCount = 20000;
  CObjectTable table;
  const auto name = [](int i) { return "key-" + std::to_string(i); };
  for (int i = 0; i < kCount; ++i) {
    table.Put(CPackedObject::Make(Object(name(i))));
  }
  for (int i = 0; i < kCount; i += 3) {
    table.Remove(name(i));
    table.Remove(name(i));
  }
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(UrlOf(table, name(i)), i % 3 == 0 ? "none" : "url of " + name(i));
  }
}

// A table that cannot grow takes every object all the same.
TEST(ObjectTable, NeedsNoMemoryToTakeAnObject) {
  CObjectTable table;
  std::vector<CPackedObject::Pointer> objects;
  for (int i = 0; i < 1000; ++i) {
    objects.push_back(CPackedObject::Make(Object(std::to_string(i))));
  }
  for (CPackedObject::Pointer& object : objects) {
    const Tests::CFailingAllocation failing(1);
    table.Put(std::move(object));
  }
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(UrlOf(table, std::to_string(i)), "url of " + std::to_string(i));
  }
}

TEST(ObjectTable, ReadersSeeWholeObjectsBesideWriters) {
  CObjectTable table;
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::thread writer([&] {
    for (int round = 0; round < 3000; ++round) {
      ObjectInfo object = Object("key-" + std::to_string(round % 50));
      object.size = static_cast<std::uint64_t>(round);
      object.url = std::to_string(round);
      table.Put(CPackedObject::Make(object));
      if (round % 7 == 0) {
        table.Remove(object.name);
      }
    }
    done = true;
  });
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      for (int round = 0; !done; ++round) {
        table.Find("key-" + std::to_string(round % 50), [&torn](const CPackedObject& object) {
          ObjectInfo copy;
          object.CopyTo(copy);
          torn += copy.url == std::to_string(copy.size) ? 0 : 1;
        });
      }
    });
  }
  writer.join();
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(torn, 0);
}

}  // namespace
}  // namespace Tansy::CloudStorage
