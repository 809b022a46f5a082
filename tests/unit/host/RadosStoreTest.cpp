#include "RadosStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "StartFailure.h"
#include "TansyNet/MemoryAccount.h"
#include "fakes/CephCluster.h"
#include "fakes/RandomBytes.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using testing::HasSubstr;

const std::string kId(32, 'a');

class RadosStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::current_path(temp_.GetPath());
    ASSERT_TRUE(ParseRadosUrl(cluster_.Url(name_space_), url_));
    pool_ = std::make_shared<CRadosPool>(url_);
    Reopen();
  }
  void TearDown() override { std::filesystem::current_path(started_in_); }

  void Reopen() { store_ = OpenRadosStore(pool_, EStoreUse::kServe); }
  std::vector<std::string> Objects() {
    std::vector<std::string> names;
    EXPECT_EQ(pool_->List([&names](std::string_view name) {
      names.emplace_back(name);
      return true;
    }),
              0);
    return names;
  }
  std::vector<StoredEntry> Walk(EContent content) {
    std::vector<StoredEntry> entries;
    EXPECT_TRUE(store_->ForEach(content, [&entries](const StoredEntry& entry) {
      entries.push_back(entry);
      return true;
    }));
    return entries;
  }
  // The line that a start with these settings ends with.
  std::string Refusal(const RadosUrl& url) {
    try {
      CRadosPool pool(url);
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitFailed);
      EXPECT_THAT(failure.what(), HasSubstr("storage pool " + url.pool));
      return failure.what();
    }
    return "";
  }

  std::filesystem::path started_in_ = std::filesystem::current_path();
  Tests::CTempFolder temp_;
  Tests::CCephCluster& cluster_ = Tests::CCephCluster::Shared();
  const std::string name_space_ = cluster_.NewNamespace();
  RadosUrl url_;
  std::shared_ptr<CRadosPool> pool_;
  std::unique_ptr<IObjectStore> store_;
};

TEST_F(RadosStoreTest, WhatCannotBeReachedIsNamed) {
  RadosUrl url = url_;
  url.conf = temp_.Path("none.conf");
  EXPECT_THAT(Refusal(url), HasSubstr("settings file " + url.conf + " cannot be read: No such file"));

  url = url_;
  url.pool = "no-such-pool";
  EXPECT_THAT(Refusal(url), HasSubstr("there is no such pool"));

  url = url_;
  url.id = "stranger";
  EXPECT_THAT(Refusal(url), HasSubstr("refuses the user client.stranger: is its key in the keyring"));

  const std::string keyring =
      temp_.Write("keyring", "[client.tansy]\nkey = AQCQz2FhAAAAABAAZ0eJQ0mVw1b5rCm8zQ0m3Q==\n");
  url.id = "tansy";
  url.conf = cluster_.Conf("wrong-key.conf", "keyring = " + keyring);
  EXPECT_THAT(Refusal(url), HasSubstr("refuses the user client.tansy"));

  url.conf = cluster_.Conf("nobody.conf", "mon_host = v2:127.0.0.1:1\nclient_mount_timeout = 1");
  EXPECT_THAT(Refusal(url), HasSubstr("no monitor of the cluster answers"));
}

TEST_F(RadosStoreTest, SmallBytesAreOneObject) {
  StoredName name;
  ASSERT_EQ(store_->SaveWhole(EContent::kObject, "hello", 5, name), EStoreResult::kDone);
  EXPECT_EQ(name.volume, "rd01");
  EXPECT_THAT(Objects(), testing::ElementsAre("rd01." + name.id + ".00000000"));
}

TEST_F(RadosStoreTest, ChunksWithoutAHeadAreShownAndFreed) {
  const std::string file = temp_.Write("file", "12345");
  ASSERT_TRUE(cluster_.Rados(name_space_, {"put", "rd01." + kId + ".00000002", file}));
  ASSERT_TRUE(cluster_.Rados(name_space_, {"put", "rd01." + kId + ".00000300", file}));
  ASSERT_TRUE(cluster_.Rados(name_space_, {"put", "rp01." + kId + ".00000001", file}));
  ASSERT_TRUE(cluster_.Rados(name_space_, {"put", "somebody's", file}));
  const std::vector<StoredEntry> objects = Walk(EContent::kObject);
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(objects[0].name, (StoredName{"rd01", "0000", kId}));
  EXPECT_FALSE(objects[0].is_temporary) << "a row may name it, and is the worse off without the rest";
  const std::vector<StoredEntry> pictures = Walk(EContent::kPicture);
  ASSERT_EQ(pictures.size(), 1U);
  EXPECT_TRUE(pictures[0].is_temporary);
  EXPECT_EQ(store_->RemovePath(objects[0].path), EStoreResult::kDone);
  EXPECT_EQ(store_->RemovePath(pictures[0].path), EStoreResult::kDone);
  EXPECT_THAT(Objects(), testing::ElementsAre("somebody's"));
}

// A removal takes the head first and the rest afterwards; a crash may come in between.
TEST_F(RadosStoreTest, WhatACrashLeavesOfARemovalIsFreed) {
  StoredName name;
  const std::string bytes(9U << 20U, 'x');
  ASSERT_EQ(store_->SaveAt(name, 0, bytes.data(), static_cast<std::uint32_t>(bytes.size())), EStoreResult::kDone);
  ASSERT_TRUE(cluster_.Rados(name_space_, {"rm", ChunkName(name, 0)}));
  ASSERT_EQ(Objects().size(), 2U);
  Reopen();
  const std::vector<NewBytes> left = store_->GetNew(0);
  ASSERT_EQ(left.size(), 1U);
  EXPECT_EQ(left[0].name, name);
  EXPECT_EQ(store_->FreeNew(name), EStoreResult::kDone);
  EXPECT_THAT(Objects(), testing::IsEmpty());
  EXPECT_THAT(store_->GetNew(0), testing::IsEmpty());
}

// The removal is noted before its first step, so that a crash during it is no different from one during a write.
TEST_F(RadosStoreTest, ARemovalThatWaitsForReadersIsNotForgottenOverACrash) {
  StoredName name;
  ASSERT_EQ(store_->SaveWhole(EContent::kObject, "hello", 5, name), EStoreResult::kDone);
  store_->ForgetNew({name});
  ASSERT_EQ(store_->BeginRead(name), EStoreResult::kDone);
  ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
  EXPECT_THAT(store_->GetNew(0), testing::IsEmpty()) << "it is not freed under its reader";
  ASSERT_EQ(Objects().size(), 1U);
  Reopen();
  ASSERT_EQ(store_->GetNew(0).size(), 1U);
  EXPECT_EQ(store_->FreeNew(name), EStoreResult::kDone);
  EXPECT_THAT(Objects(), testing::IsEmpty());
}

TEST_F(RadosStoreTest, AWholePictureOutlivesACrashAndHalfAPictureDoesNot) {
  StoredName whole;
  ASSERT_EQ(store_->SaveWhole(EContent::kPicture, "jpeg", 4, whole), EStoreResult::kDone);
  const StoredName half = {"rp01", "0000", kId};
  ASSERT_TRUE(cluster_.Rados(name_space_, {"put", ChunkName(half, 1), temp_.Write("file", "12345")}));
  temp_.Write("new-bytes/new.7", LocationText(whole) + "\n" + LocationText(half) + "\n");
  Reopen();
  EXPECT_EQ(store_->GetNew(0).size(), 2U);
  EXPECT_EQ(store_->FreeNew(whole), EStoreResult::kDone);
  EXPECT_EQ(store_->FreeNew(half), EStoreResult::kDone);
  EXPECT_THAT(Objects(), testing::ElementsAre(ChunkName(whole, 0)));
  EXPECT_THAT(store_->GetNew(0), testing::IsEmpty());
}

// A row may name bytes whose first chunk is lost: what is left must not look like the whole.
TEST_F(RadosStoreTest, BytesWithoutTheirHeadAreMissing) {
  StoredName name;
  const std::string bytes(9U << 20U, 'x');
  ASSERT_EQ(store_->SaveWhole(EContent::kObject, bytes.data(), static_cast<std::uint32_t>(bytes.size()), name),
            EStoreResult::kDone);
  ASSERT_TRUE(cluster_.Rados(name_space_, {"rm", ChunkName(name, 0)}));
  ReadBuffer buffer;
  std::uint64_t size = 0;
  EXPECT_EQ(store_->ReadRange(name, 5U << 20U, 10, buffer), EStoreResult::kMissing);
  EXPECT_EQ(store_->GetSize(name, size), EStoreResult::kMissing);
  EXPECT_EQ(store_->BeginRead(name), EStoreResult::kMissing);
  EXPECT_EQ(store_->SaveAt(name, 5U << 20U, "x", 1), EStoreResult::kMissing);
  EXPECT_EQ(store_->SaveAt(name, 20U << 20U, "x", 1), EStoreResult::kMissing);
  EXPECT_EQ(Objects().size(), 1U) << "a refused write leaves nothing";
}

TEST_F(RadosStoreTest, OffsetsBeyondWhatCanBeStoredAreRefused) {
  StoredName name;
  EXPECT_EQ(store_->SaveAt(name, std::uint64_t{kRadosChunk} * kMostRadosChunks, "x", 1), EStoreResult::kFailed);
  EXPECT_EQ(store_->SaveAt(name, ~std::uint64_t{0}, "x", 1), EStoreResult::kFailed);
  EXPECT_TRUE(name.id.empty());
  EXPECT_THAT(Objects(), testing::IsEmpty());
}

TEST_F(RadosStoreTest, BytesUnderWayAreBoundedAndGivenBack) {
  TansyNet::CMemoryAccount& account = TansyNet::CMemoryAccount::Process();
  const std::uint64_t before = account.Used();
  const std::string bytes = Tests::RandomBytes(100U << 20U);  // more than may be under way
  std::atomic<bool> is_over{false};
  std::uint64_t most = 0;
  std::thread watch([&] {
    while (!is_over) {
      most = std::max(most, account.Used() - before);
    }
  });
  StoredName name;
  EXPECT_EQ(store_->SaveWhole(EContent::kObject, bytes.data(), static_cast<std::uint32_t>(bytes.size()), name),
            EStoreResult::kDone);
  ReadBuffer buffer;
  EXPECT_EQ(store_->ReadWhole(name, buffer), EStoreResult::kDone);
  is_over = true;
  watch.join();
  EXPECT_TRUE(std::string_view(buffer.data.get(), buffer.size) == bytes);
  EXPECT_GE(most, kRadosChunk) << "what is under way is counted";
  EXPECT_LE(most, account.Limit() / 16);
  EXPECT_EQ(account.Used(), before);
  EXPECT_EQ(store_->Remove(name), EStoreResult::kDone);
}

TEST_F(RadosStoreTest, APoolThatAnotherServerHasTakenIsNotWrittenTo) {
  StoredName name;
  ASSERT_EQ(store_->SaveAt(name, 0, "test", 4), EStoreResult::kDone);
  pool_->SetReadOnly();
  StoredName other;
  EXPECT_EQ(store_->SaveWhole(EContent::kObject, "hello", 5, other), EStoreResult::kFailed);
  EXPECT_EQ(store_->SaveAt(name, 0, "TEST", 4), EStoreResult::kFailed);
  EXPECT_EQ(store_->Remove(name), EStoreResult::kFailed);
  ReadBuffer buffer;
  ASSERT_EQ(store_->ReadWhole(name, buffer), EStoreResult::kDone);
  EXPECT_EQ(std::string(buffer.data.get(), buffer.size), "test");
}

}  // namespace
}  // namespace Tansy::Host
