#include "BackupCatalogue.h"

#include <set>
#include <string>

#include "CatalogueFixture.h"
#include "DatabaseUrl.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace {

class BackupCatalogueTest : public CatalogueFixture {
 protected:
  static void SetValue(const std::string& name, const std::string& value) {
    Run("INSERT INTO platform.host_values (name, value) VALUES ('" + name + "', '" + value + "')");
  }
  static void Copy() { CSqliteFile("catalogue.db", CSqliteFile::EAccess::kLook).CopyTo("copy.db"); }
};

TEST_F(BackupCatalogueTest, ACopyThatAMoveHasBegunInIsRefused) {
  SetValue("store_id", "first");
  Copy();
  EXPECT_EQ(ReadStoreId(SqliteParam("copy.db")), "first");
  SetValue("move_id", "any");
  std::filesystem::remove("copy.db");
  Copy();
  try {
    ReadStoreId(SqliteParam("copy.db"));
    ADD_FAILURE() << "it was read";
  } catch (const CStartFailure& failure) {
    EXPECT_THAT(failure.what(), testing::HasSubstr("a move has begun"));
  }
}

TEST_F(BackupCatalogueTest, OnlyObjectsThatAreStillThereAreReplaced) {
  AddObject(1, "replaced", "old");
  AddObject(2, "removed", "removed");
  AddObject(3, "stored again", "before");
  Copy();
  Run("UPDATE platform.local_object SET url = 'new' WHERE id = 1");
  Run("DELETE FROM platform.local_object WHERE id IN (2, 3)");
  AddObject(4, "stored again", "after");
  EXPECT_EQ(FindReplaced("copy.db", Database(), {"old", "removed", "before", "unknown"}),
            (std::set<std::string>{"old"}));
}

}  // namespace
}  // namespace Tansy::Host
