// What the schema, housekeeping and the check make of uploads in parts and of the objects that are made of them.
#include <sstream>
#include <utility>

#include "CatalogueFixture.h"
#include "Check.h"
#include "Housekeeping.h"
#include "StartFailure.h"
#include "fakes/ManualClock.h"

namespace Tansy::Host {
namespace {

using testing::HasSubstr;

constexpr std::int64_t kGrace = 300;
constexpr std::int64_t kDay = 24 * 3600;

class UploadsInPartsTest : public CatalogueFixture {
 protected:
  void SetUp() override {
    CatalogueFixture::SetUp();
    housekeeping_ = std::make_unique<CHousekeeping>(
        std::shared_ptr<IObjectStore>(std::shared_ptr<void>(), store_.get()), HousekeepingRules{},
        [](std::vector<std::string>&) { return true; }, [] { return false; });
    Run("INSERT INTO platform.local_upload (object_url, object_name, bucket_name, sort_key, attributes, begun, "
        "update_time) VALUES ('parts:1', 'o', 'b''ucket', '6f', '', 't', 't')");
  }
  void Round(std::int64_t seconds_later = 0) {
    clock_.Advance(seconds_later);
    housekeeping_->Run();
  }
  static std::string PartText(int number, const std::string& url, std::size_t size) {
    return "INSERT INTO platform.local_upload_part (object_url, part_num, size, url, attributes, update_time) VALUES "
           "('parts:1', " +
           std::to_string(number) + ", " + std::to_string(size) + ", '" + url +
           "', '', 't') ON CONFLICT (object_url, part_num) DO UPDATE SET size = excluded.size, url = excluded.url";
  }
  // Stores a part and writes its row.
  std::string AddPart(int number, const std::string& bytes) {
    const std::string url = Store(bytes);
    Run(PartText(number, url, bytes.size()));
    list_ += url + ",";
    return url;
  }
  void Complete(std::size_t size) {
    AddObject(7, "o", "parts:1", static_cast<long>(size));
    Run("UPDATE platform.local_object SET pieces = '" + list_ + "' WHERE id = 7");
    Run("DELETE FROM platform.local_upload");
  }
  static std::string CountParts() { return Answer("SELECT COUNT(*) FROM platform.local_upload_part"); }
  static std::string CountReleased() { return Answer("SELECT COUNT(*) FROM platform.released_bytes"); }
  int Check() {
    std::ostringstream out;
    const int code = RunCheck(*OpenStore(EStoreUse::kLook), Database(), {}, out);
    output_ = out.str();
    return code;
  }

  Tests::CManualClock clock_;
  std::unique_ptr<CHousekeeping> housekeeping_;
  std::string list_;  // of all parts that were added
  std::string output_;
};

TEST_F(UploadsInPartsTest, PartsOfAnOpenUploadStay) {
  const std::string url = AddPart(1, "one");
  for (int day = 0; day < 10; ++day) {
    Round(kDay);
  }
  EXPECT_TRUE(IsStored(url));
  EXPECT_EQ(Check(), kExitDone) << output_;
}

TEST_F(UploadsInPartsTest, AnEndedUploadGivesItsPartsBackAfterTheGrace) {
  const std::string first = AddPart(1, "one");
  const std::string second = AddPart(2, std::string(100000, '2'));
  Run("DELETE FROM platform.local_upload");
  Round();
  Round(kGrace - 1);
  EXPECT_TRUE(IsStored(first));
  EXPECT_EQ(Check(), kExitDone) << output_;
  EXPECT_THAT(output_, HasSubstr("2 kept (100003 bytes)"));
  Round(1);
  EXPECT_FALSE(IsStored(first));
  EXPECT_FALSE(IsStored(second));
  EXPECT_EQ(CountParts(), "0");
  EXPECT_EQ(CountReleased(), "0");
  EXPECT_EQ(Check(), kExitDone) << output_;
}

// Entries have numbers, which mean something else in a catalogue that comes in the place of this one.
TEST_F(UploadsInPartsTest, EntriesAreReadAndForgottenInOnePiece) {
  CWriteGate batches;
  bool is_inside = false;
  const auto look = [&] {
    const bool can_hold = batches.Hold(std::chrono::milliseconds(0));
    is_inside = is_inside || !can_hold;
    if (can_hold) {
      batches.Release();
    }
    return false;
  };
  housekeeping_ = std::make_unique<CHousekeeping>(
      std::shared_ptr<IObjectStore>(std::shared_ptr<void>(), store_.get()), HousekeepingRules{},
      [](std::vector<std::string>&) { return true; }, look, std::function<bool()>(), &batches);
  AddPart(1, "one");
  Run("DELETE FROM platform.local_upload");
  Round();
  Round(kGrace);
  EXPECT_EQ(CountReleased(), "0");
  EXPECT_TRUE(is_inside) << "between reading the entry and forgetting it the gate must be passed";
}

TEST_F(UploadsInPartsTest, FreeingGoesOnAfterACrash) {
  const std::string first = AddPart(1, "one");
  const std::string second = AddPart(2, std::string(100000, '2'));
  Run("DELETE FROM platform.local_upload");
  Round();
  ASSERT_EQ(store_->Remove(NameOf(second)), EStoreResult::kDone);
  EXPECT_EQ(Check(), kExitDone) << "bytes that are being freed are no damage\n" << output_;
  Round(kGrace);
  EXPECT_FALSE(IsStored(first));
  EXPECT_EQ(CountParts(), "0");
}

TEST_F(UploadsInPartsTest, PartsThatAreReplacedOrLeftOutAreGivenBack) {
  const std::string before = AddPart(1, "before");
  const std::string left_out = AddPart(2, "left out");
  const std::string after = AddPart(1, "after");
  Run("DELETE FROM platform.local_upload_part WHERE part_num = 2");
  Complete(5);
  Round();
  Round(kGrace);
  EXPECT_FALSE(IsStored(before));
  EXPECT_FALSE(IsStored(left_out));
  EXPECT_TRUE(IsStored(after));
  EXPECT_EQ(CountParts(), "1");
}

TEST_F(UploadsInPartsTest, PartsOfAnObjectStayAsLongAsTheObject) {
  const std::string first = AddPart(1, "one");
  const std::string second = AddPart(2, std::string(100000, '2'));
  Complete(100003);
  EXPECT_EQ(CountReleased(), "0");
  for (int day = 0; day < 10; ++day) {
    Round(kDay);
  }
  EXPECT_TRUE(IsStored(first) && IsStored(second));
  EXPECT_EQ(Check(), kExitDone) << output_;
  EXPECT_THAT(output_, HasSubstr("check: 2 rows, 2 stored files, 0 orphans"));
  const std::string other = Store("other");
  Run("UPDATE platform.local_object set url='" + other + "' where id=7");
  EXPECT_EQ(Answer("SELECT pieces FROM platform.local_object"), "");
  Round();
  Round(kGrace);
  EXPECT_FALSE(IsStored(first) || IsStored(second));
  EXPECT_TRUE(IsStored(other));
  EXPECT_EQ(CountParts(), "0");
}

TEST_F(UploadsInPartsTest, PartsOfARemovedObjectAreKeptForTheSameTimeAsItsBytesWouldBe) {
  const std::string url = AddPart(1, "one");
  Complete(3);
  Run("DELETE FROM platform.local_object");
  Round();
  Round(7 * kDay - 1);
  EXPECT_TRUE(IsStored(url));
  EXPECT_EQ(Check(), kExitDone) << output_;
  Round(1);
  EXPECT_FALSE(IsStored(url));
  EXPECT_EQ(CountParts(), "0");
}

TEST_F(UploadsInPartsTest, PartsThatWereRemovedWithTheirObjectAreForgotten) {
  const std::string url = AddPart(1, "one");
  Complete(3);
  Run("DELETE FROM platform.local_object");
  ASSERT_EQ(store_->Remove(NameOf(url)), EStoreResult::kDone);
  Round();
  EXPECT_EQ(CountParts(), "0");
  EXPECT_EQ(CountReleased(), "0");
}

TEST_F(UploadsInPartsTest, ARemovalThatIsUndoneFindsTheParts) {
  const std::string url = AddPart(1, "one");
  Complete(3);
  Run("DELETE FROM platform.local_object");
  AddObject(8, "o", "parts:1", 3);
  Round();
  Round(8 * kDay);
  EXPECT_TRUE(IsStored(url));
  EXPECT_EQ(CountReleased(), "0");
}

TEST_F(UploadsInPartsTest, NoObjectIsMadeOfPartsThatAreNotThere) {
  const std::string add =
      "INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) VALUES "
      "(7, '', 'o', 'b''ucket', 3, 't', 'parts:1')";
  EXPECT_FALSE(TryToRun(add)) << "there is no part";
  AddPart(1, "one");
  AddPart(2, "two");
  EXPECT_FALSE(TryToRun(add)) << "there are more parts";
  AddObject(9, "other", Store("xyz"), 3);
  const std::string change = "UPDATE platform.local_object SET url = 'parts:1' WHERE id = 9";
  EXPECT_FALSE(TryToRun(change));
  Run("DELETE FROM platform.local_upload_part WHERE part_num = 2");
  EXPECT_TRUE(TryToRun(change));
  Run("UPDATE platform.local_object SET url = 'x' WHERE id = 9");
  Run("DELETE FROM platform.local_upload");
  EXPECT_FALSE(TryToRun(add)) << "the upload has ended";
  EXPECT_FALSE(TryToRun(change)) << "the upload has ended";
}

TEST_F(UploadsInPartsTest, AnObjectIsMadeOfItsPartsOnceAndForAll) {
  const std::string first = AddPart(1, "one");
  const std::string second = AddPart(2, "two");
  Run("DELETE FROM platform.local_upload_part WHERE part_num = 2");
  Complete(3);
  const std::string set = "UPDATE platform.local_object SET pieces = '";
  EXPECT_FALSE(TryToRun(set + second + "' WHERE id = 7"));
  EXPECT_FALSE(TryToRun("UPDATE platform.local_object SET url = 'parts:1', size = 6 WHERE id = 7"));
  EXPECT_TRUE(TryToRun("UPDATE platform.local_object SET url = 'parts:1', size = 3, update_time = 'u' WHERE id = 7"));
  EXPECT_TRUE(TryToRun(set + first + "' WHERE id = 7"));
  // The same for a completion that comes after the removal.
  Run("DELETE FROM platform.local_object");
  AddObject(8, "o", "parts:1", 3);
  EXPECT_FALSE(TryToRun(set + second + "' WHERE id = 8"));
  EXPECT_TRUE(TryToRun(set + first + "' WHERE id = 8"));
}

TEST_F(UploadsInPartsTest, RowsOfAnotherCatalogueComeInAnyOrder) {
  Run("DELETE FROM platform.local_upload");
  Run("DELETE FROM platform.released_bytes");
  const std::string url = Store("one");
  EXPECT_FALSE(TryToRun(PartText(1, url, 3)));
  Run("INSERT INTO platform.host_values (name, value) VALUES ('move_from', '1')");
  AddObject(7, "o", "parts:1", 3);
  Run("UPDATE platform.local_object SET pieces = 'not yet known' WHERE id = 7");
  Run(PartText(1, url, 3));
  // A row that is there already is changed in one statement, in whatever it has.
  Run("UPDATE platform.local_object SET url = 'parts:2', pieces = 'of the second' WHERE id = 7");
  EXPECT_EQ(Answer("SELECT pieces FROM platform.local_object"), "of the second");
  Run("UPDATE platform.local_object SET url = 'parts:1', pieces = 'of the first' WHERE id = 7");
  Run("DELETE FROM platform.host_values WHERE name = 'move_from'");
  Run("DELETE FROM platform.released_bytes");
  EXPECT_EQ(Check(), kExitDone) << output_;
  EXPECT_FALSE(TryToRun(PartText(2, Store("late"), 4)));
}

TEST_F(UploadsInPartsTest, ObjectsOfTwoGibibytesAndMoreAreComparedInThe32BitsThatTheyHave) {
  const std::string url = Store("x");
  Run(PartText(1, url, 3000000000));
  AddObject(7, "o", "parts:1", 3000000000L - 4294967296L);
  Run("DELETE FROM platform.local_upload");
  EXPECT_EQ(Check(), kExitFindings);
  EXPECT_EQ(output_.find("parts:1"), std::string::npos) << "its parts are all of it\n" << output_;
  EXPECT_THAT(output_, HasSubstr("short /b'ucket/o " + url));
}

TEST_F(UploadsInPartsTest, NoPartComesAfterItsUploadOrItsBytes) {
  const std::string url = Store("late");
  std::set<std::string> given_up;
  ASSERT_EQ(GiveUpUnnamed({url}, 1, given_up), EGiveUp::kDone);
  EXPECT_FALSE(TryToRun(PartText(1, url, 4)));
  const std::string kept = AddPart(2, "kept");
  given_up.clear();
  ASSERT_EQ(GiveUpUnnamed({kept}, 1, given_up), EGiveUp::kDone);
  EXPECT_TRUE(given_up.empty()) << "a part names them";
  Run("DELETE FROM platform.local_upload");
  EXPECT_FALSE(TryToRun(PartText(3, Store("x"), 1)));
}

TEST_F(UploadsInPartsTest, UploadsFollowTheirBucketAndGoWithIt) {
  const std::string url = AddPart(1, "one");
  Run("INSERT INTO platform.local_bucket (id, name) VALUES (1, 'b''ucket')");
  Run("UPDATE platform.local_bucket SET name = 'new' WHERE id = 1");
  EXPECT_EQ(Answer("SELECT bucket_name FROM platform.local_upload"), "new");
  Run("DELETE FROM platform.local_bucket WHERE id = 1");
  EXPECT_EQ(Answer("SELECT COUNT(*) FROM platform.local_upload"), "0");
  Round();
  Round(kGrace);
  EXPECT_FALSE(IsStored(url));
}

TEST_F(UploadsInPartsTest, TheCheckFindsPartsThatAreMissing) {
  const std::string first = AddPart(1, "one");
  const std::string second = AddPart(2, std::string(100000, '2'));
  Complete(100003);
  ASSERT_EQ(store_->Remove(NameOf(second)), EStoreResult::kDone);
  EXPECT_EQ(Check(), kExitFindings);
  EXPECT_THAT(output_, HasSubstr("missing /b'ucket/o " + second));
  EXPECT_EQ(output_.find(first), std::string::npos);
  Run("DELETE FROM platform.local_upload_part WHERE part_num = 2");
  EXPECT_EQ(Check(), kExitFindings);
  EXPECT_THAT(output_, HasSubstr("missing /b'ucket/o parts:1"));
}

}  // namespace
}  // namespace Tansy::Host
