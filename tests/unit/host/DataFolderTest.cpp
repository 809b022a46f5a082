#include "DataFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "StartFailure.h"
#include "TansyBase/FileUtil.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

class DataFolderTest : public testing::Test {
 protected:
  using EUse = CDataFolder::EUse;

  void TearDown() override {
    std::filesystem::current_path(started_in_);
    TansyBase::FileUtil::SetCurExeDirUtf8("");
  }

  std::string FailureOf(const std::string& path, EUse use) {
    try {
      CDataFolder folder(path, use);
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitFailed);
      return failure.what();
    }
    return "";
  }

  std::filesystem::path started_in_ = std::filesystem::current_path();
  Tests::CTempFolder temp_;
};

TEST_F(DataFolderTest, IsMadeAndEntered) {
  const CDataFolder folder(temp_.Path("a/b") + "/", EUse::kServe);
  EXPECT_EQ(folder.GetPath(), temp_.Path("a/b"));
  EXPECT_EQ(std::filesystem::current_path(), std::filesystem::canonical(temp_.Path("a/b")));
}

TEST_F(DataFolderTest, IsWhereTheServersKeepTheirFiles) {
  const CDataFolder folder(temp_.Path("a"), EUse::kServe);
  temp_.Write("a/certificate", "x");
  EXPECT_TRUE(TansyBase::FileUtil::Exists(TansyBase::FileUtil::GetCurExeDirUtf8() + "certificate"));
}

TEST_F(DataFolderTest, BelongsToOneAtATime) {
  {
    const CDataFolder folder(temp_.Path("a"), EUse::kServe);
    EXPECT_THAT(FailureOf(temp_.Path("a"), EUse::kServe), testing::HasSubstr("in use by another tansyd"));
  }
  EXPECT_EQ(FailureOf(temp_.Path("a"), EUse::kServe), "");
}

TEST_F(DataFolderTest, IsLookedAtWithoutATrace) {
  std::filesystem::create_directory(temp_.Path("a"));
  CDataFolder looked_at(temp_.Path("a"), EUse::kLook);
  EXPECT_TRUE(std::filesystem::is_empty(temp_.Path("a")));
  EXPECT_FALSE(looked_at.IsInUse());
  {
    const CDataFolder served(temp_.Path("a"), EUse::kServe);
    EXPECT_TRUE(looked_at.IsInUse());
    EXPECT_THROW(looked_at.Lock(), CStartFailure);
  }
  EXPECT_FALSE(looked_at.IsInUse());
  looked_at.Lock();
  EXPECT_FALSE(looked_at.IsInUse()) << "by another";
  EXPECT_THAT(FailureOf(temp_.Path("a"), EUse::kServe), testing::HasSubstr("in use by another tansyd"));
}

TEST_F(DataFolderTest, IsNotMadeForACheck) {
  EXPECT_THAT(FailureOf(temp_.Path("a"), EUse::kLook), testing::HasSubstr("does not exist"));
  EXPECT_FALSE(temp_.Exists("a"));
}

TEST_F(DataFolderTest, WhatCannotBeMadeIsSaid) {
  temp_.Write("file", "");
  EXPECT_THAT(FailureOf(temp_.Path("file"), EUse::kServe), testing::HasSubstr("cannot be made"));
  EXPECT_THAT(FailureOf(temp_.Path("file/below"), EUse::kServe), testing::HasSubstr("cannot be made"));
}

}  // namespace
}  // namespace Tansy::Host
