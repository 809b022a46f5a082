#include "KeptDownload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "Failure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

using testing::HasSubstr;

class KeptDownloadTest : public testing::Test {
 protected:
  // Begins with what is there, adds `bytes` and ends early.
  std::uint64_t Add(const DownloadIdentity& identity, const std::string& bytes) {
    CKeptDownload kept(folder_.Path("target"));
    const std::uint64_t there = kept.Begin(identity, note_);
    kept.Write(bytes.data(), bytes.size());
    return there;
  }

  Tests::CTempFolder folder_;
  const DownloadIdentity identity_{"http://h:1/b/k", "0-10", {10, "\"v1\""}};
  std::string note_;
};

TEST_F(KeptDownloadTest, GoesOnInSeveralRuns) {
  EXPECT_EQ(Add(identity_, "0123"), 0u);
  EXPECT_EQ(Add(identity_, "45"), 4u);
  {
    CKeptDownload kept(folder_.Path("target"));
    EXPECT_EQ(kept.Begin(identity_, note_), 6u);
    kept.Write("6789", 4);
    kept.Commit();
    EXPECT_EQ(note_, "");
    EXPECT_EQ(folder_.Read("target"), "0123456789");
  }
  EXPECT_EQ(folder_.Count(), 1u);
}

TEST_F(KeptDownloadTest, StartsOverForAnythingElse) {
  const DownloadIdentity others[] = {{"http://h:1/b/other", "0-10", {10, "\"v1\""}},
                                     {"http://h:1/b/k", "0-9", {10, "\"v1\""}},
                                     {"http://h:1/b/k", "0-10", {10, "\"v2\""}},
                                     {"http://h:1/b/k", "0-10", {11, "\"v1\""}}};
  for (const DownloadIdentity& other : others) {
    Add(identity_, "0123");
    note_.clear();
    EXPECT_EQ(Add(other, "x"), 0u);
    EXPECT_THAT(note_, HasSubstr("starts over"));
    EXPECT_EQ(folder_.Read(".tansy-target.part"), "x") << "nothing of the other is left";
  }
}

TEST_F(KeptDownloadTest, DoesNotTrustAServerThatTellsNoVersions) {
  const DownloadIdentity untold{"http://h:1/b/k", "0-10", {10, ""}};
  Add(untold, "0123");
  EXPECT_EQ(Add(untold, "01"), 0u);
  EXPECT_THAT(note_, HasSubstr("does not tell versions apart"));
}

TEST_F(KeptDownloadTest, TakesNoMoreThanThePinPromises) {
  Add(identity_, "0123");
  // Bytes that came after the last save, of a program that was killed.
  folder_.Write(".tansy-target.part", "0123gar");
  EXPECT_EQ(Add(identity_, "45"), 4u);
  EXPECT_EQ(folder_.Read(".tansy-target.part").substr(0, 6), "012345");
  folder_.Write(".tansy-target.pin", "bytes 5\n");
  EXPECT_EQ(Add(identity_, "0"), 0u) << "a pin that says nothing";
}

TEST_F(KeptDownloadTest, AnInterruptionKeepsWhatHasCome) {
  CKeptDownload begun(folder_.Path("target"));
  begun.Begin(identity_, note_);
  begun.Write("0123", 4);
  CKeptDownload fresh(folder_.Path("fresh"));
  CKeptDownload complete(folder_.Path("complete"));
  complete.Begin(identity_, note_);
  complete.Commit();
  EXPECT_THAT(folder_.Read(".tansy-target.pin"), HasSubstr("bytes 0\n"));
  CKeptDownload::SaveAll();
  EXPECT_THAT(folder_.Read(".tansy-target.pin"), HasSubstr("bytes 4\n"));
  EXPECT_FALSE(std::filesystem::exists(folder_.Path(".tansy-fresh.pin")));
  EXPECT_FALSE(std::filesystem::exists(folder_.Path(".tansy-complete.pin")));
  begun.Write("4", 1);
}

TEST_F(KeptDownloadTest, IsForOneProcessAtATime) {
  const CKeptDownload first(folder_.Path("target"));
  try {
    const CKeptDownload second(folder_.Path("target"));
    ADD_FAILURE() << "both write";
  } catch (const CFailure& failure) {
    EXPECT_THAT(failure.what(), HasSubstr("another tansy is downloading it"));
  }
  const CKeptDownload other(folder_.Path("other"));
}

TEST_F(KeptDownloadTest, NeedsAFolder) {
  try {
    const CKeptDownload kept(folder_.Path("nowhere/target"));
    ADD_FAILURE();
  } catch (const CFailure& failure) {
    EXPECT_EQ(failure.GetExitCode(), kExitNotFound);
  }
}

}  // namespace
}  // namespace Tansy::Cli
