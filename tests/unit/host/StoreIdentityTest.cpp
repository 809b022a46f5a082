#include "StoreIdentity.h"

#include "CatalogueFixture.h"
#include "FolderPlace.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

class StoreIdentityTest : public CatalogueFixture {
 protected:
  static std::string Match(EIdentity mode = EIdentity::kAdopt, const std::string& folder = "objects") {
    try {
      CFolderPlace place(folder);
      MatchStoreIdentity(Database(), place, mode);
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitFailed);
      return failure.what();
    }
    return "";
  }
  static std::string CatalogueId() { return Answer("SELECT value FROM platform.host_values WHERE name = 'store_id'"); }
  std::string StoreId() { return temp_.Exists("objects/store.id") ? temp_.Read("objects/store.id") : ""; }
  static void ForgetCatalogueId() { Run("DELETE FROM platform.host_values WHERE name = 'store_id'"); }
  void ForgetStoreId() { std::filesystem::remove(temp_.Path("objects/store.id")); }
  static void TakeAllRows() { Run("DELETE FROM platform.local_object"); }
  static void Use() {
    if (Tests::IsOnPostgresql()) {
      Tests::CPostgresServer::Shared().Rows("SELECT nextval('platform.local_object_id_seq')");
    } else {
      Run("UPDATE platform.sequences SET next_value = 2");
    }
  }
};

TEST_F(StoreIdentityTest, ANewPairGetsOneIdAndKeepsIt) {
  EXPECT_EQ(Match(), "");
  const std::string id = CatalogueId();
  EXPECT_EQ(id.size(), 32U);
  EXPECT_EQ(StoreId(), id + "\n");
  EXPECT_EQ(Match(), "");
  EXPECT_EQ(CatalogueId(), id);
}

TEST_F(StoreIdentityTest, ALookChangesNothing) {
  EXPECT_EQ(Match(EIdentity::kLook), "");
  EXPECT_EQ(CatalogueId(), "");
  EXPECT_EQ(StoreId(), "");
}

TEST_F(StoreIdentityTest, AnEmptyMountPointIsRefused) {
  AddObject(1, "o", Store("x"));
  ASSERT_EQ(Match(), "");
  std::filesystem::create_directory("mountpoint");
  EXPECT_THAT(Match(EIdentity::kAdopt, "mountpoint"), AllOf(HasSubstr("mountpoint is empty"), HasSubstr("mounted?")));
  EXPECT_THAT(Match(EIdentity::kAdopt, "nowhere"), AllOf(HasSubstr("nowhere is missing"), HasSubstr("mounted?")));
  EXPECT_FALSE(temp_.Exists("nowhere"));
  EXPECT_FALSE(temp_.Exists("mountpoint/store.id"));
}

TEST_F(StoreIdentityTest, AnotherStoreIsRefused) {
  ASSERT_EQ(Match(), "");
  temp_.Write("other/store.id", std::string(32, 'a') + "\n");
  EXPECT_THAT(Match(EIdentity::kAdopt, "other"), HasSubstr("has the id " + std::string(32, 'a')));
  temp_.Write("other/store.id", "nonsense");
  EXPECT_THAT(Match(EIdentity::kAdopt, "other"), HasSubstr("holds no id"));
}

TEST_F(StoreIdentityTest, AFreshCatalogueOverAFilledStoreIsRefused) {
  const std::string url = Store("x");
  EXPECT_THAT(Match(), AllOf(HasSubstr(db_layer::DescribeDatabase(Database()) + " is new"),
                             HasSubstr("bytes of another catalogue")))
      << "without any id yet";
  AddObject(1, "o", url);
  ASSERT_EQ(Match(), "");
  TakeAllRows();
  Use();
  ForgetCatalogueId();
  EXPECT_THAT(Match(), AllOf(HasSubstr("holds no objects"), HasSubstr("bytes of another catalogue")));
  EXPECT_EQ(CatalogueId(), "");
}

TEST_F(StoreIdentityTest, AForeignCatalogueIsRefused) {
  Store("x");
  AddObject(1, "o", "fs01aa-bb-" + std::string(32, 'c') + ".d");
  EXPECT_THAT(Match(), HasSubstr("holds nothing that database " + db_layer::DescribeDatabase(Database()) + " names"));
  EXPECT_EQ(CatalogueId() + StoreId(), "");
}

TEST_F(StoreIdentityTest, AnOlderInstallationIsAdoptedOnce) {
  AddObject(1, "gone", "fs01aa-bb-" + std::string(32, 'c') + ".d");
  AddObject(2, "o", Store("x"));
  EXPECT_EQ(Match(), "");
  EXPECT_EQ(StoreId(), CatalogueId() + "\n");
}

TEST_F(StoreIdentityTest, AnOlderInstallationWithoutObjectsIsAdopted) {
  StorePicture("jpeg");
  EXPECT_EQ(Match(), "") << "pictures have no rows";
  ForgetStoreId();
  ForgetCatalogueId();
  Store("of a removed object");
  Use();
  EXPECT_EQ(Match(), "");
}

TEST_F(StoreIdentityTest, AnAdoptionThatTheCatalogueRefusedGoesOnAtTheNextStart) {
  StorePicture("jpeg");
  RefuseRows("host_values", "NEW.name = 'store_id'");
  EXPECT_THAT(Match(), HasSubstr("full"));
  EXPECT_NE(StoreId(), "");
  TakeRowsAgain();
  EXPECT_EQ(Match(EIdentity::kLook), "");
  EXPECT_EQ(Match(), "");
  EXPECT_EQ(StoreId(), CatalogueId() + "\n");
  EXPECT_EQ(Match(), "");
}

TEST_F(StoreIdentityTest, AnOlderInstallationWhoseDiskIsNotMountedIsRefused) {
  AddObject(1, "o", "fs01aa-bb-" + std::string(32, 'c') + ".d");
  EXPECT_THAT(Match(), AllOf(HasSubstr("objects is empty"), HasSubstr("holds objects"), HasSubstr("mounted?")));
}

TEST_F(StoreIdentityTest, ARestoredCatalogueFromBeforeTheIdFits) {
  AddObject(1, "o", Store("x"));
  ASSERT_EQ(Match(), "");
  const std::string id = CatalogueId();
  ForgetCatalogueId();
  EXPECT_EQ(Match(), "");
  EXPECT_EQ(CatalogueId(), id);
}

TEST_F(StoreIdentityTest, AStoreWithoutItsIdNamesTheWayOut) {
  AddObject(1, "o", Store("x"));
  ASSERT_EQ(Match(), "");
  ForgetStoreId();
  EXPECT_THAT(Match(), HasSubstr("write " + CatalogueId() + " into objects/store.id"));
  temp_.Write("objects/store.id", CatalogueId());
  EXPECT_EQ(Match(), "");
}

}  // namespace
}  // namespace Tansy::Host
