// A node's lease, whatever becomes of its entry in the database.
#include "NodeLease.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "CatalogueFixture.h"
#include "StartFailure.h"
#include "fakes/ManualClock.h"

namespace Tansy::Host {
namespace {

using testing::HasSubstr;

class NodeLeaseTest : public CatalogueFixture {
 protected:
  static std::unique_ptr<CNodeLease> Lease(const std::string& name, const std::string& owner = "machine:/data",
                                           const std::string& machine_start = "today") {
    return std::make_unique<CNodeLease>(Database(), NodeIdentity{name, owner, machine_start, "host:1"});
  }
  static std::unique_ptr<CNodeLease> Begun(const std::string& name, const std::string& owner = "machine:/data") {
    auto lease = Lease(name, owner);
    lease->Begin();
    return lease;
  }
  // Why nothing can be written with a lease; "" when something can.
  static std::string Refusal(const CNodeLease& lease) {
    return Tests::CPostgresServer::Shared().FailureOf(lease.Prelude());
  }
  static bool WaitUntil(const std::function<bool()>& is_so) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!is_so() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return is_so();
  }
  static std::string StartFailureOf(CNodeLease& lease) {
    try {
      lease.Begin();
    } catch (const CStartFailure& failure) {
      return failure.what();
    }
    return "";
  }
};

TEST_F(NodeLeaseTest, ALeaseThatHasEndedBeginsAnew) {
  const auto lease = Begun("a");
  EXPECT_EQ(Refusal(*lease), "");
  Run("UPDATE platform.nodes SET seen_at = seen_at - interval '1 minute'");
  EXPECT_TRUE(WaitUntil([&] { return Answer("SELECT epoch FROM platform.nodes") == "2"; }));
  EXPECT_EQ(Refusal(*lease), "");
}

TEST_F(NodeLeaseTest, ALeaseThatWasGivenWithoutAnAnswerIsTheProcesss) {
  const auto lease = Begun("a");
  Run("UPDATE platform.nodes SET epoch = epoch + 1, seen_at = seen_at - interval '1 minute'");
  EXPECT_TRUE(WaitUntil([&] { return Answer("SELECT epoch FROM platform.nodes") == "3"; }));
  EXPECT_EQ(Refusal(*lease), "");
}

// As in a database that was set back to an earlier time.
TEST_F(NodeLeaseTest, TheEntryOfAnEarlierProcessOnTheSameFolderIsTakenOverWhenItIsOver) {
  const auto lease = Begun("a");
  Run("UPDATE platform.nodes SET process = 'an earlier one', machine_start = 'yesterday'");
  EXPECT_TRUE(WaitUntil([&] { return !lease->IsHeld(); }));
  EXPECT_THAT(Refusal(*lease), HasSubstr("the lease of node a has ended"));
  Run("UPDATE platform.nodes SET seen_at = seen_at - interval '1 minute'");
  EXPECT_TRUE(WaitUntil([&] { return lease->IsHeld(); }));
  EXPECT_EQ(Refusal(*lease), "");
  Run("DELETE FROM platform.nodes");
  EXPECT_TRUE(WaitUntil([&] { return Refusal(*lease).empty(); }));
}

TEST_F(NodeLeaseTest, ANameThatAnotherHasTakenIsNotTakenBack) {
  const auto lease = Begun("a");
  EXPECT_TRUE(lease->IsHeld());
  EXPECT_TRUE(lease->IsFirst());
  Run("UPDATE platform.nodes SET seen_at = seen_at - interval '1 hour', owner = 'other:/data', process = 'other'");
  EXPECT_TRUE(WaitUntil([&] { return !lease->IsHeld(); }));
  EXPECT_FALSE(lease->IsFirst()) << "the first name is not this process's any more";
  for (int i = 0; i < 3; ++i) {
    lease->Wake();
    EXPECT_FALSE(lease->IsHeld());
    EXPECT_THAT(Refusal(*lease), HasSubstr("the lease of node a has ended"));
  }
}

TEST_F(NodeLeaseTest, WithoutTheDatabaseNoLeaseLastsAndNobodyIsFirst) {
  Tests::CManualClock clock;
  const auto lease = Begun("a");
  const auto second = Begun("b");
  EXPECT_TRUE(WaitUntil([&] { return lease->IsFirst() && !second->IsFirst(); }));
  Tests::CPostgresServer::Shared().Freeze();
  clock.Advance(9);
  EXPECT_FALSE(lease->IsHeld());
  EXPECT_FALSE(lease->IsFirst());
  Tests::CPostgresServer::Shared().Thaw();
  EXPECT_TRUE(WaitUntil([&] { return lease->IsFirst(); }));
}

TEST_F(NodeLeaseTest, AStartTakesWhatIsFreeOrItsOwn) {
  auto lease = Begun("a");
  EXPECT_THAT(StartFailureOf(*Lease("a", "other:/data")), HasSubstr("node a runs already (machine:/data)"));
  // An earlier run on the same folder is over, because the folder is locked; that of a copy of the machine is not.
  EXPECT_THAT(StartFailureOf(*Lease("a", "machine:/data", "as a copy")), HasSubstr("node a runs already"));
  EXPECT_EQ(StartFailureOf(*Lease("a")), "");
  lease.reset();
  Run("UPDATE platform.nodes SET seen_at = seen_at - interval '1 minute'");
  lease = Begun("a", "other:/data");
  lease->End();
  EXPECT_EQ(StartFailureOf(*Lease("a", "third:/data")), "");
}

// The server itself ends only those that stand still between two groups of statements.
TEST_F(NodeLeaseTest, WhoStandsStillInTheMiddleOfATransactionDoesNotKeepTheOthersOut) {
  auto& server = Tests::CPostgresServer::Shared();
  const auto lease = Begun("a");
  const auto held = server.Hold("SELECT pg_advisory_xact_lock(1413565779, 2)");
  server.Run("ALTER ROLE tansy SUPERUSER");  // the transaction is the superuser's
  EXPECT_TRUE(WaitUntil([&] { return Refusal(*lease).empty(); }));
  server.Run("ALTER ROLE tansy NOSUPERUSER");
  EXPECT_EQ(server.Rows("SELECT count(*) FROM pg_locks WHERE locktype = 'advisory' AND objid = 2"),
            std::vector<std::string>{"0"});
}

}  // namespace
}  // namespace Tansy::Host
