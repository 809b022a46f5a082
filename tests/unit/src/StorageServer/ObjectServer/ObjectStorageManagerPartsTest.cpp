// Uploads in parts, and the objects that are made of them, in the catalogue and its database.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/PartUploads.h"
#include "StorageServer/ObjectServer/PieceList.h"

namespace Tansy::CloudStorage {
namespace {

using EAdded = CObjectStorageManager::EAdded;
using EFound = CPartUploads::EFound;
using Texts = std::vector<std::string>;

class ObjectStorageManagerParts : public CatalogueFixture {
 protected:
  void SetUp() override { MakeBucket("bucket"); }

  static std::string Id(char digit) { return std::string(32, digit); }
  static PartUpload Upload(char digit, const std::string& name, const std::string& sort_key) {
    return {Id(digit), "bucket", name, sort_key, "attributes", "2026-11-03 08:05:09"};
  }
  static bool PutPart(char digit, std::uint32_t number, std::uint32_t size, const std::string& url) {
    return CPartUploads::PutPart(Id(digit), {number, size, url, "of the part", "2026-11-03 08:05:09"});
  }
  // Adds the object that these parts make up and waits until it is there.
  EAdded Complete(char digit, const std::string& name, const details::PieceList& pieces) {
    ObjectInfo object = Object("bucket", name);
    object.url = details::PieceListText(details::PieceOwner(Id(digit)), pieces);
    object.size = 0;
    for (const details::Piece& piece : pieces) {
      object.size += piece.size;
    }
    std::atomic<bool> is_done{false};
    EAdded added = EAdded::kFailed;
    manager_.AddObject(
        object, {{}, "a"}, [](const ObjectInfo*, const std::string&) { return true; },
        [&](EAdded result) {
          added = result;
          is_done = true;
        });
    while (!is_done) {
      std::this_thread::yield();
    }
    return added;
  }
  // What the database says about the objects of the bucket.
  static Texts Rows() {
    Texts rows;
    EXPECT_TRUE(CObjectServerSession::QueryObject(
        [&rows](const ObjectInfo& object) {
          rows.push_back(object.name + " " + std::to_string(object.size) + " " + object.url);
        },
        "bucket"));
    return rows;
  }
  Texts PartUrls() { return database_.Column("SELECT * FROM platform.local_upload_part ORDER BY url", "url"); }
};

TEST_F(ObjectStorageManagerParts, AnUploadIsFoundByItsIdAndObject) {
  ASSERT_TRUE(CPartUploads::Begin(Upload('a', "it's%20one", "6f")));
  PartUpload found;
  EXPECT_EQ(CPartUploads::Find(found, Id('a'), "bucket", "it's%20one"), EFound::kFound);
  EXPECT_EQ(found.id, Id('a'));
  EXPECT_EQ(found.object_name, "it's%20one");
  EXPECT_EQ(found.attributes, "attributes");
  EXPECT_EQ(found.begun, "2026-11-03 08:05:09");
  EXPECT_EQ(CPartUploads::Find(found, Id('b'), "bucket", "it's%20one"), EFound::kMissing);
  EXPECT_EQ(CPartUploads::Find(found, Id('a'), "bucket", "other"), EFound::kMissing);
  EXPECT_EQ(CPartUploads::Find(found, Id('a'), "other", "it's%20one"), EFound::kMissing);
  EXPECT_EQ(CPartUploads::Find(found, "' OR '1' = '1", "bucket", "it's%20one"), EFound::kMissing);
  EXPECT_FALSE(CPartUploads::Begin(Upload('a', "k", "6b"))) << "ids are never given twice";
  EXPECT_TRUE(CPartUploads::End(Id('a')));
  EXPECT_EQ(CPartUploads::Find(found, Id('a'), "bucket", "it's%20one"), EFound::kMissing);
}

TEST_F(ObjectStorageManagerParts, UploadsAreListedInOrderFromAnywhere) {
  for (const auto& [digit, key] : {std::pair{'b', "62"}, {'a', "62"}, {'d', "61"}, {'c', "6262"}}) {
    ASSERT_TRUE(CPartUploads::Begin(Upload(digit, "k", key)));
  }
  const auto list = [](const std::string& key, const std::string& id, std::size_t limit) {
    std::vector<PartUpload> uploads;
    EXPECT_TRUE(CPartUploads::List(uploads, "bucket", key, id, limit));
    std::string digits;
    for (const PartUpload& upload : uploads) {
      digits += upload.id.front();
    }
    return digits;
  };
  EXPECT_EQ(list("", "", 10), "dabc");
  EXPECT_EQ(list("", "", 3), "dab");
  EXPECT_EQ(list("62", "", 10), "abc");
  EXPECT_EQ(list("62", Id('a'), 10), "bc");
  EXPECT_EQ(list("62", "~", 10), "c");
}

TEST_F(ObjectStorageManagerParts, PartsAreReplacedByNumberAndGivenInOrder) {
  ASSERT_TRUE(CPartUploads::Begin(Upload('a', "k", "6b")));
  ASSERT_TRUE(PutPart('a', 10, 4294967295U, "x"));
  ASSERT_TRUE(PutPart('a', 2, 5, "before"));
  ASSERT_TRUE(PutPart('a', 2, 6, "after"));
  std::vector<UploadedPart> parts;
  ASSERT_TRUE(CPartUploads::GetParts(parts, Id('a'), 0, 100));
  ASSERT_EQ(parts.size(), 2U);
  EXPECT_EQ(parts[0].url, "after");
  EXPECT_EQ(parts[0].size, 6U);
  EXPECT_EQ(parts[0].attributes, "of the part");
  EXPECT_EQ(parts[1].number, 10U);
  EXPECT_EQ(parts[1].size, 4294967295U);
  parts.clear();
  ASSERT_TRUE(CPartUploads::GetParts(parts, Id('a'), 2, 100));
  EXPECT_EQ(parts.size(), 1U);
  EXPECT_FALSE(PutPart('b', 1, 1, "x")) << "there is no such upload";
}

TEST_F(ObjectStorageManagerParts, AnObjectOfPartsIsTheSameAfterAStart) {
  ASSERT_TRUE(CPartUploads::Begin(Upload('a', "key", "6b")));
  ASSERT_TRUE(PutPart('a', 1, 5, "fs01ab-cd-1.d"));
  ASSERT_TRUE(PutPart('a', 2, 6, "left out"));
  ASSERT_TRUE(PutPart('a', 3, 7, "fs01ab-cd-3.d"));
  EXPECT_EQ(Complete('a', "key", {{5, "fs01ab-cd-1.d"}, {7, "fs01ab-cd-3.d"}}), EAdded::kAdded);
  const std::string url = "parts:" + Id('a') + "=5@fs01ab-cd-1.d,7@fs01ab-cd-3.d";
  ObjectInfo object;
  std::string attributes;
  ASSERT_TRUE(manager_.FindObject(object, attributes, "key", "bucket"));
  EXPECT_EQ(object.url, url);
  EXPECT_EQ(Rows(), Texts{"key 12 " + url});
  EXPECT_EQ(PartUrls(), (Texts{"fs01ab-cd-1.d", "fs01ab-cd-3.d"}));
  PartUpload found;
  EXPECT_EQ(CPartUploads::Find(found, Id('a'), "bucket", "key"), EFound::kMissing);
  // The attributes of its row are recognised as its own.
  EXPECT_TRUE(manager_.LoadAttributes());
  ASSERT_TRUE(manager_.FindObject(object, attributes, "key", "bucket"));
  EXPECT_EQ(attributes, "a");
  EXPECT_EQ(object.url, url);
  // Other bytes take its place.
  ObjectInfo other = Object("bucket", "key");
  other.url = "plain";
  ASSERT_TRUE(manager_.AddObject(other));
  EXPECT_EQ(Rows(), Texts{"key " + std::to_string(other.size) + " plain"});
}

TEST_F(ObjectStorageManagerParts, NoObjectIsMadeOfPartsThatChangedMeanwhile) {
  ASSERT_TRUE(CPartUploads::Begin(Upload('a', "key", "6b")));
  ASSERT_TRUE(PutPart('a', 1, 5, "first"));
  ASSERT_TRUE(PutPart('a', 1, 5, "second"));
  EXPECT_EQ(Complete('a', "key", {{5, "first"}}), EAdded::kFailed);
  EXPECT_EQ(Rows(), Texts{});
  EXPECT_EQ(PartUrls(), Texts{"second"}) << "the upload is as it was";
  EXPECT_EQ(Complete('a', "key", {{5, "second"}}), EAdded::kAdded);
  ASSERT_TRUE(CPartUploads::Begin(Upload('b', "other", "6b")));
  ASSERT_TRUE(PutPart('b', 1, 5, "third"));
  ASSERT_TRUE(CPartUploads::End(Id('b')));
  EXPECT_EQ(Complete('b', "other", {{5, "third"}}), EAdded::kFailed);
}

// A second completion that looked at the upload before the first one ended it.
TEST_F(ObjectStorageManagerParts, ASecondCompletionChangesNothingOfTheObject) {
  ASSERT_TRUE(CPartUploads::Begin(Upload('a', "key", "6b")));
  ASSERT_TRUE(PutPart('a', 1, 5, "first"));
  ASSERT_TRUE(PutPart('a', 2, 5, "second"));
  ASSERT_TRUE(PutPart('a', 3, 9, "third"));
  ASSERT_EQ(Complete('a', "key", {{5, "first"}, {9, "third"}}), EAdded::kAdded);
  const Texts rows = Rows();
  EXPECT_EQ(Complete('a', "key", {{5, "second"}, {9, "third"}}), EAdded::kFailed) << "of the same size";
  EXPECT_EQ(Complete('a', "key", {{5, "first"}}), EAdded::kFailed) << "fewer";
  EXPECT_EQ(Complete('a', "key", {{5, "first"}, {5, "second"}, {9, "third"}}), EAdded::kFailed) << "more";
  EXPECT_EQ(Rows(), rows);
  EXPECT_EQ(PartUrls(), (Texts{"first", "third"}));
  EXPECT_EQ(Complete('a', "key", {{5, "first"}, {9, "third"}}), EAdded::kAdded) << "the same once more";
  EXPECT_EQ(Rows(), rows);
}

}  // namespace
}  // namespace Tansy::CloudStorage
