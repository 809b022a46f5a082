#include "db_layer/FolderSync.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TemporaryFolder.h"

namespace db_layer {
namespace {

TEST(FolderSyncTest, FolderOfAFileThatMayNotExistYet) {
  const CTemporaryFolder folder;
  EXPECT_TRUE(SyncFolderOf(folder.File("platform.db")));
  EXPECT_TRUE(SyncFolderOf("platform.db"));
  EXPECT_TRUE(SyncFolderOf("/platform.db"));
}

TEST(FolderSyncTest, MissingFolderFails) {
  const CTemporaryFolder folder;
  EXPECT_FALSE(SyncFolderOf(folder.File("missing") + "/platform.db"));
}

}  // namespace
}  // namespace db_layer
