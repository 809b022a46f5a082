#include "RadosPlace.h"

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "CatalogueFixture.h"
#include "StartFailure.h"
#include "StoreIdentity.h"
#include "fakes/CephCluster.h"

namespace Tansy::Host {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class RadosPlaceTest : public CatalogueFixture {
 protected:
  std::unique_ptr<CRadosPlace> Open(const std::string& name_space, const std::string& id = "tansy") const {
    RadosUrl url;
    EXPECT_TRUE(ParseRadosUrl(cluster_.Url(name_space), url));
    url.id = id;
    return std::make_unique<CRadosPlace>(url);
  }
  // The line that a start ends with; "" when it goes on.
  static std::string Refusal(const std::function<void()>& step) {
    try {
      step();
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitFailed);
      return failure.what();
    }
    return "";
  }
  static std::string Match(IStoragePlace& place, EIdentity mode = EIdentity::kAdopt) {
    return Refusal([&] { MatchStoreIdentity(Database(), place, mode); });
  }
  // A second data folder on this machine.
  void EnterOtherFolder() const {
    std::filesystem::create_directory(temp_.Path("other"));
    std::filesystem::current_path(temp_.Path("other"));
  }

  Tests::CCephCluster& cluster_ = Tests::CCephCluster::Shared();
  const std::string name_space_ = cluster_.NewNamespace();
};

TEST_F(RadosPlaceTest, CatalogueAndPoolGetOneIdAndKeepIt) {
  const auto place = Open(name_space_);
  std::string text;
  EXPECT_EQ(place->ReadId(text), ENOENT);
  EXPECT_EQ(Match(*place, EIdentity::kLook), "");
  EXPECT_EQ(place->ReadId(text), ENOENT) << "a look changes nothing";
  EXPECT_EQ(Match(*place), "");
  ASSERT_EQ(place->ReadId(text), 0);
  EXPECT_EQ(text, Answer("SELECT value FROM platform.host_values WHERE name = 'store_id'") + "\n");
  EXPECT_EQ(Match(*place), "");
  EXPECT_TRUE(place->Open(true, EStoreUse::kLook)->ForEach(EContent::kObject, [](const StoredEntry& entry) {
    ADD_FAILURE() << entry.path << ": the id is nothing that is stored";
    return true;
  }));
}

TEST_F(RadosPlaceTest, AnotherPoolIsRefused) {
  ASSERT_EQ(Match(*Open(name_space_)), "");
  const auto empty = Open(cluster_.NewNamespace());
  EXPECT_THAT(Match(*empty), AllOf(HasSubstr("storage pool tansy, namespace "), HasSubstr(" is empty, but database"),
                                   HasSubstr("is it the right pool?")));
  const auto other = Open(cluster_.NewNamespace());
  ASSERT_EQ(other->WriteId(std::string(32, 'b') + "\n"), 0);
  EXPECT_THAT(Match(*other), HasSubstr("has the id " + std::string(32, 'b')));
}

TEST_F(RadosPlaceTest, OnlyOneTansydUsesAPool) {
  auto mine = Open(name_space_);
  EXPECT_EQ(Refusal([&] { mine->ExpectFree(); }), "");
  EXPECT_EQ(Refusal([&] { mine->Lock(); }), "");
  EnterOtherFolder();
  const auto other = Open(name_space_);
  const auto busy = AllOf(HasSubstr("storage pool tansy, namespace " + name_space_ + " is in use by another tansyd"),
                          HasSubstr(temp_.GetPath()));
  EXPECT_TRUE(other->IsInUse());
  EXPECT_THAT(Refusal([&] { other->ExpectFree(); }), busy);
  EXPECT_THAT(Refusal([&] { other->Lock(); }), busy);
  mine.reset();
  EXPECT_EQ(Refusal([&] { other->Lock(); }), "");
}

TEST_F(RadosPlaceTest, ARestartAfterACrashTakesItsLockOver) {
  const auto crashed = Open(name_space_);
  ASSERT_EQ(Refusal([&] { crashed->Lock(); }), "");
  const auto next = Open(name_space_);
  EXPECT_EQ(Refusal([&] {
              next->ExpectFree();
              next->Lock();
            }),
            "");
  EnterOtherFolder();
  EXPECT_THAT(Refusal([&] { Open(name_space_)->ExpectFree(); }), HasSubstr("in use"));
}

// As after a minute in which the first one could not reach the cluster.
TEST_F(RadosPlaceTest, WhoHasLostThePoolWritesNothingThereAnyMore) {
  RadosUrl url;
  ASSERT_TRUE(ParseRadosUrl(cluster_.Url(name_space_), url));
  const auto pool = std::make_shared<CRadosPool>(url);
  CRadosLock first(pool, "first");
  std::string holder;
  ASSERT_EQ(first.Take(CRadosPool::ELock::kAlone, holder), 0);
  const auto other_pool = std::make_shared<CRadosPool>(url);
  std::vector<CRadosPool::Holder> holders;
  ASSERT_EQ(other_pool->GetHolders("store.lock", holders), 0);
  ASSERT_EQ(holders.size(), 1U);
  CRadosLock second(other_pool, "second");
  EXPECT_EQ(second.Take(CRadosPool::ELock::kAlone, holder), EBUSY);
  EXPECT_EQ(holder, "first");
  ASSERT_EQ(other_pool->BreakLock("store.lock", holders[0]), 0);
  ASSERT_EQ(second.Take(CRadosPool::ELock::kAlone, holder), 0);
  EXPECT_FALSE(pool->IsReadOnly());
  first.Wake();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!pool->IsReadOnly() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(pool->IsReadOnly());
  EXPECT_EQ(pool->WriteText("text", "x"), EROFS);
  EXPECT_EQ(other_pool->WriteText("text", "x"), 0);
}

TEST_F(RadosPlaceTest, AUserWithoutTheRightsIsRefused) {
  const auto place = Open(name_space_, "reader");
  EXPECT_THAT(Refusal([&] { place->Lock(); }), HasSubstr("may not be used by this user"));
}

}  // namespace
}  // namespace Tansy::Host
