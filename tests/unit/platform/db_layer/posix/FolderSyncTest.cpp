#include "db_layer/FolderSync.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "fakes/TempFolder.h"

namespace db_layer {
namespace {

TEST(FolderSyncTest, FolderOfAFileThatMayNotExistYet) {
  const Tansy::Tests::CTempFolder folder;
  EXPECT_TRUE(SyncFolderOf(folder.Path("platform.db")));
  EXPECT_TRUE(SyncFolderOf("platform.db"));
  EXPECT_TRUE(SyncFolderOf("/platform.db"));
}

TEST(FolderSyncTest, MissingFolderFails) {
  const Tansy::Tests::CTempFolder folder;
  EXPECT_FALSE(SyncFolderOf(folder.Path("missing") + "/platform.db"));
}

}  // namespace
}  // namespace db_layer
