#include "TansyNet/server/ServerWorker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

#include "TansyNet/server/LoopThreads.h"
#include "fakes/Latch.h"

namespace TansyNet {
namespace {

using Tansy::Tests::CLatch;

// A connection that has nothing but a deadline, which is over until OnDeadline was called.
class CLateConnection final : public IServerConnection {
 public:
  CLateConnection(CServerWorker& worker, std::function<void()> on_deadline)
      : worker_(worker), on_deadline_(std::move(on_deadline)) {}

  bool IsPastDeadline(std::int64_t /*now*/) const override { return !is_told_; }
  void OnDeadline() override {
    is_told_ = true;
    EXPECT_TRUE(worker_.Threads().IsLeader()) << "it would use what belongs to the loop beside the loop's thread";
    on_deadline_();
  }
  std::int64_t IdleSince() const override { return kNever; }
  bool CloseIfIdle() override { return false; }
  std::int64_t StandingSince() const override { return kNever; }
  void CutIfStanding() override {}
  const Endpoint& Origin() const override { return endpoint_; }
  bool Describe(std::int32_t /*handle*/, RunningRequest& /*request*/) override { return false; }
  void Abort() override {}
  void CloseWhenIdle() override {}
  int ClaimAnswer(std::int32_t /*handle*/, std::size_t /*size*/) override { return 0; }
  int Answer(std::int32_t /*handle*/, const HttpResponse& /*response*/, std::string_view /*body*/) override {
    return 0;
  }
  int AnswerHead(std::int32_t, const HttpResponse&, std::uint64_t) override { return 0; }
  int AnswerInChunks(std::int32_t /*handle*/, const HttpResponse& /*response*/, std::string_view /*chunk*/,
                     std::uint64_t /*total_size*/) override {
    return 0;
  }

 private:
  CServerWorker& worker_;
  const std::function<void()> on_deadline_;
  const Endpoint endpoint_{nullptr};
  std::atomic<bool> is_told_{false};
};

// Keeps the calling thread on loan until another one leads. False when no loan was to be had in a generous while.
bool LoseTheLead(CServerWorker& worker) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < limit) {
    const CLoopThreads::CLoan loan(worker.Threads());
    if (CLoopThreads::IsThreadLent()) {
      // Only another leader runs this.
      const auto led = std::make_shared<CLatch>(1);
      worker.Post([led] { led->CountDown(); });
      led->Wait();
      return true;
    }
    std::this_thread::yield();
  }
  return false;
}

TEST(ServerWorker, TellsDeadlinesOnItsThreadAlsoAfterOneThatTookLong) {
  constexpr int kConnections = 4;
  CServerWorker worker;
  worker.SetTick(10);
  worker.Start();
  std::atomic<int> told{0};
  std::atomic<bool> is_first{true};
  worker.Post([&] {
    for (int i = 0; i < kConnections; ++i) {
      worker.Adopt(std::make_shared<CLateConnection>(worker, [&] {
        if (is_first.exchange(false)) {
          EXPECT_TRUE(LoseTheLead(worker));
        }
        ++told;
      }));
    }
  });
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (told < kConnections && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  worker.Stop();
  EXPECT_EQ(told, kConnections) << "each is told once";
}

}  // namespace
}  // namespace TansyNet
