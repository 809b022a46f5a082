#include "DataFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "StartFailure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

class DataFolderTest : public testing::Test {
 protected:
  void TearDown() override { std::filesystem::current_path(started_in_); }

  std::string FailureOf(const std::string& path, bool make) {
    try {
      CDataFolder folder(path, make);
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitFailed);
      return failure.what();
    }
    return "";
  }

  std::filesystem::path started_in_ = std::filesystem::current_path();
  fakes::CTempFolder temp_;
};

TEST_F(DataFolderTest, IsMadeAndEntered) {
  const CDataFolder folder(temp_.Path("a/b") + "/", true);
  EXPECT_EQ(folder.GetPath(), temp_.Path("a/b"));
  EXPECT_EQ(std::filesystem::current_path(), std::filesystem::canonical(temp_.Path("a/b")));
}

TEST_F(DataFolderTest, BelongsToOneAtATime) {
  {
    const CDataFolder folder(temp_.Path("a"), true);
    EXPECT_THAT(FailureOf(temp_.Path("a"), true), testing::HasSubstr("in use by another tansyd"));
  }
  EXPECT_EQ(FailureOf(temp_.Path("a"), true), "");
}

TEST_F(DataFolderTest, IsNotMadeForACheck) {
  EXPECT_THAT(FailureOf(temp_.Path("a"), false), testing::HasSubstr("does not exist"));
  EXPECT_FALSE(temp_.Exists("a"));
}

TEST_F(DataFolderTest, WhatCannotBeMadeIsSaid) {
  temp_.Write("file", "");
  EXPECT_THAT(FailureOf(temp_.Path("file"), true), testing::HasSubstr("cannot be made"));
  EXPECT_THAT(FailureOf(temp_.Path("file/below"), true), testing::HasSubstr("cannot be made"));
}

}  // namespace
}  // namespace Tansy::Host
