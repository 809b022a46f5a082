// Each allocation of each operation fails once: the operation may fail, and nothing else may.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "TansyBase/FileUtil.h"
#include "TansyBase/MessageLoop.h"
#include "TansyBase/SingleBaseThread.h"
#include "fakes/FailingAllocation.h"
#include "fakes/HeldLoop.h"
#include "fakes/TempFolder.h"

namespace TansyBase {
namespace {

using Tansy::Tests::CAllocationCounter;
using Tansy::Tests::FailEachAllocation;

class CCountedTask : public CTask {
 public:
  CCountedTask(std::atomic<int>& runs, std::atomic<int>& living) : runs_(runs), living_(living) { ++living_; }
  ~CCountedTask() override { --living_; }
  void Exec() override { ++runs_; }

 private:
  std::atomic<int>& runs_;
  std::atomic<int>& living_;
};

TEST(MessageLoopOutOfMemory, EveryTaskIsRunOrRefusedAndNoneIsLost) {
  std::atomic<int> runs{0};
  std::atomic<int> living{0};
  int accepted = 0;
  FailEachAllocation(
      [&] {
        CMessageLoopDyThreadPool loop;
        const bool started = loop.Start(2, 4, 0);
        for (int i = 0; i < 6; ++i) {
          accepted += loop.PostTask(new (std::nothrow) CCountedTask(runs, living)) && started ? 1 : 0;
        }
        loop.Stop(started);
      },
      [&](std::size_t number, bool) {
        EXPECT_EQ(runs, accepted) << "allocation " << number;
        EXPECT_EQ(living, 0) << "allocation " << number;
      });
}

TEST(MessageLoopOutOfMemory, ARefusedTaskIsDeletedAndTheLoopGoesOn) {
  std::atomic<int> runs{0};
  std::atomic<int> living{0};
  CMessageLoopDyThreadPool loop;
  ASSERT_TRUE(loop.Start(1, 1, 0));
  auto task = std::make_unique<CCountedTask>(runs, living);
  bool taken = true;
  {
    const Tansy::Tests::CFailingAllocation failing(1);
    taken = loop.PostTask(task.release());
  }
  EXPECT_FALSE(taken);
  EXPECT_EQ(living, 0);
  EXPECT_TRUE(Tansy::Tests::WaitForTurn(loop));
  loop.Stop(true);
  EXPECT_EQ(loop.GetWorkTaskCount(), 0U);
}

TEST(MessageLoopOutOfMemory, AThreadThatCannotBeHadIsAskedForAgain) {
  CMessageLoopDyThreadPool loop;
  bool started = false;
  bool has_failed = false;
  {
    const Tansy::Tests::CFailingAllocation failing(3);  // the first thread takes two
    started = loop.Start(2, 2, 0);
    has_failed = failing.HasFailed();
  }
  ASSERT_TRUE(started);
  ASSERT_TRUE(has_failed);
  // Comes back only when two threads run its tasks at once.
  const Tansy::Tests::CHeldLoop held(loop, 2);
}

TEST(MessageLoopOutOfMemory, StoppingTakesNoMemory) {
  CMessageLoopDyThreadPool loop;
  ASSERT_TRUE(loop.Start(2, 2, 0));
  const CAllocationCounter counter;
  loop.Stop(false);
  EXPECT_EQ(counter.Count(), 0);
}

class CTimer : public CSingleBaseThread {
 public:
  ~CTimer() override { Stop(); }
  std::promise<void> called;

 protected:
  void OnTimer() override {
    if (!std::exchange(has_called_, true)) {
      called.set_value();
      throw std::bad_alloc();
    }
  }

 private:
  bool has_called_ = false;
};

TEST(SingleBaseThreadOutOfMemory, AStartFailsOrWorks) {
  FailEachAllocation(
      [] {
        CTimer timer;
        timer.Start(600000);
      },
      [](std::size_t, bool) {
        CTimer timer;
        ASSERT_TRUE(timer.Start(600000));
        EXPECT_EQ(timer.called.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
      });
}

TEST(SingleBaseThreadOutOfMemory, AStartThatFailedCanBeTriedAgain) {
  CTimer timer;
  bool started = true;
  {
    const Tansy::Tests::CFailingAllocation failing(1);
    started = timer.Start(600000);
  }
  EXPECT_FALSE(started);
  EXPECT_TRUE(timer.Start(600000));
}

TEST(LocalFileOutOfMemory, AnOpeningThatFailsLeavesTheFileFree) {
  const Tansy::Tests::CTempFolder folder;
  const std::string path = folder.Path("a-file-with-a-name-that-needs-memory");
  FailEachAllocation(
      [&] {
        CLocalFile file;
        file.OpenAlways(path);
        file.Close();
      },
      [&](std::size_t number, bool) {
        CLocalFile file;
        EXPECT_EQ(file.OpenAlways(path), 0U) << "allocation " << number;
        file.Close();
      });
}

}  // namespace
}  // namespace TansyBase
