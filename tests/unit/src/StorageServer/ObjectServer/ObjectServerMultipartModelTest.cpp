// Multipart uploads against a model: parts of random sizes in random order, sent again at random, from one connection
// and from many.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <thread>

#include "ObjectServerMultipartFixture.h"
#include "StorageServer/ObjectServer/CleanExpiredTaskThread.h"
#include "fakes/ManualClock.h"

namespace Tansy::Tests {
namespace {

class CObjectServerMultipartModelTest : public CObjectServerMultipartFixture {
 protected:
  // Makes the parts of a future object. All of them but the last have the same size.
  static std::vector<std::string> RandomParts(std::mt19937& random, std::size_t most_parts, std::size_t most_bytes) {
    const std::size_t count = 1 + random() % most_parts;
    const std::size_t size = 1 + random() % most_bytes;
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < count; ++i) {
      const bool last = i + 1 == count;
      parts.push_back(Pattern(last ? 1 + random() % size : size, static_cast<std::uint32_t>(random())));
    }
    return parts;
  }
  static std::vector<std::size_t> RandomOrder(std::mt19937& random, std::size_t count) {
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::shuffle(order.begin(), order.end(), random);
    return order;
  }
  static std::string Joined(const std::vector<std::string>& parts) {
    return std::accumulate(parts.begin(), parts.end(), std::string());
  }
  FakeAnswer CompleteAll(const std::string& key, const std::string& upload_id, const std::vector<std::string>& parts,
                         const std::vector<std::size_t>& order) {
    std::vector<std::pair<int, std::size_t>> list;
    for (const std::size_t i : order) {
      list.emplace_back(static_cast<int>(i) + 1, parts[i].size());
    }
    return Complete(key, upload_id, list);
  }
};

TEST_F(CObjectServerMultipartModelTest, RandomTasksBecomeTheirObjects) {
  const unsigned first_seed = std::random_device()();
  for (unsigned seed = first_seed; seed != first_seed + 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string key = "k" + std::to_string(seed);
    const std::string upload_id = NewTask(key);
    std::vector<std::string> model = RandomParts(random, 12, 5000);
    for (const std::size_t i : RandomOrder(random, model.size())) {
      ASSERT_TRUE(IsXml(SendPart(key, upload_id, static_cast<int>(i) + 1, model[i]), ""));
      // Now and then a part that may or may not have been sent before comes with other bytes.
      while (random() % 3 == 0) {
        const std::size_t again = random() % model.size();
        model[again] = Pattern(model[again].size(), static_cast<std::uint32_t>(random()));
        ASSERT_TRUE(IsXml(SendPart(key, upload_id, static_cast<int>(again) + 1, model[again]), ""));
      }
    }
    ASSERT_TRUE(IsXml(CompleteAll(key, upload_id, model, RandomOrder(random, model.size())), ""));
    ASSERT_TRUE(Object(key) == Joined(model));
    ASSERT_EQ(FirstPartFiles(), 0u);
  }
}

TEST_F(CObjectServerMultipartModelTest, EightConnectionsSendThePartsOfOneTask) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 8; ++round) {
    const std::string key = "k" + std::to_string(round);
    const std::string upload_id = NewTask(key);
    std::vector<std::string> parts = RandomParts(random, 1, 3000);
    while (parts.size() < 40) {
      parts.insert(parts.begin(), Pattern(3000, static_cast<std::uint32_t>(random())));
    }
    const std::vector<std::size_t> order = RandomOrder(random, parts.size());
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 8; ++i) {
      clients.emplace_back([&] {
        for (std::size_t at = next++; at < order.size(); at = next++) {
          const std::size_t part = order[at];
          EXPECT_TRUE(IsXml(SendPart(key, upload_id, static_cast<int>(part) + 1, parts[part]), ""));
          if (part % 5 == 0) {  // the same once more, while others send theirs
            EXPECT_TRUE(IsXml(SendPart(key, upload_id, static_cast<int>(part) + 1, parts[part]), ""));
          }
        }
      });
    }
    for (std::thread& client : clients) {
      client.join();
    }
    ASSERT_TRUE(IsXml(CompleteAll(key, upload_id, parts, order), ""));
    ASSERT_TRUE(Object(key) == Joined(parts));
  }
}

TEST_F(CObjectServerMultipartModelTest, OnePartFromManyConnectionsIsOneOfThem) {
  for (int round = 0; round < 20; ++round) {
    const std::string key = "k" + std::to_string(round);
    const std::string upload_id = NewTask(key);
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
      clients.emplace_back([&, i] {
        // Of different lengths, so that a row and a file that do not belong together show.
        const std::string body(static_cast<std::size_t>(100 + i), static_cast<char>('a' + i));
        EXPECT_TRUE(IsXml(SendPart(key, upload_id, 1, body), ""));
      });
    }
    for (std::thread& client : clients) {
      client.join();
    }
    CloudStorage::ObjectTaskInfo row;
    ASSERT_TRUE(catalogue_.GetTaskInfo(upload_id, 1, row));
    const std::string winner(row.size, static_cast<char>('a' + row.size - 100));
    EXPECT_EQ(Content(FirstPartFile(upload_id, 1)), winner);
    ASSERT_TRUE(IsXml(Complete(key, upload_id, {{1, row.size}}), ""));
    EXPECT_EQ(Object(key), winner);
  }
}

TEST_F(CObjectServerMultipartModelTest, CompletionsAndPartsAtTheSameTime) {
  for (int round = 0; round < 20; ++round) {
    const std::string key = "k" + std::to_string(round);
    const std::string upload_id = NewTask(key);
    SendPart(key, upload_id, 1, "aaaa");
    SendPart(key, upload_id, 2, "bbbb");
    std::atomic<int> completed{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 2; ++i) {
      clients.emplace_back([&] {
        completed += Complete(key, upload_id, {{1, 4}, {2, 4}}).response.status == 200 ? 1 : 0;
      });
      clients.emplace_back([&] {
        SendPart(key, upload_id, 1, "AAAA");
        SendPart(key, upload_id, 2, "BBBB");
      });
    }
    for (std::thread& client : clients) {
      client.join();
    }
    EXPECT_GE(completed, 1);
    const std::string object = Object(key);
    EXPECT_TRUE(object == "aaaabbbb" || object == "AAAABBBB" || object == "AAAAbbbb") << object;
    // Nothing is left of the task, whatever came too late.
    CloudStorage::PartSizeInfo first;
    EXPECT_FALSE(catalogue_.GetFirstPartInfo(upload_id, first));
    EXPECT_EQ(FirstPartFiles(), 0u);
    // What comes after the end does not reach the object.
    SendPart(key, upload_id, 2, "late");
    EXPECT_EQ(Object(key), object);
  }
}

// A request that comes while a completion writes the first part waits for the completion and then finds the task gone.
class CObjectServerMultipartBesideTest : public CObjectServerMultipartFixture {
 protected:
  // Says whether a thread waits for this mutex. glibc notes it in the mutex itself: 1 stands for locked, 2 for locked
  // with somebody waiting.
  static bool HasWaiter(std::mutex& mutex) {
    return __atomic_load_n(&mutex.native_handle()->__data.__lock, __ATOMIC_ACQUIRE) == 2;
  }
  // Starts work of another connection, and returns when it waits for the task's mutex, which the caller holds.
  std::thread StartWaiter(const std::string& upload_id, std::function<void()> work) {
    std::shared_ptr<std::mutex> task_mutex;
    EXPECT_TRUE(catalogue_.GetPartFileMutex(upload_id, task_mutex));
    std::thread waiter(std::move(work));
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!HasWaiter(*task_mutex) && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    EXPECT_TRUE(HasWaiter(*task_mutex)) << "nothing waits for the task";
    return waiter;
  }
  // Completes, and starts `beside` in the middle; gives the answer to `beside`.
  FakeAnswer BesideCompletion(const std::string& key, const std::string& upload_id,
                              const std::vector<std::pair<int, std::size_t>>& parts,
                              const std::function<FakeAnswer()>& beside) {
    FakeAnswer answer;
    std::thread other;
    storage_.SetHook([&](const CFakeStorage::Call& call) {
      if (call.kind == "stream" && !other.joinable()) {
        other = StartWaiter(upload_id, [&] { answer = beside(); });
      }
    });
    EXPECT_TRUE(IsXml(Complete(key, upload_id, parts), ""));
    EXPECT_TRUE(other.joinable());
    other.join();
    storage_.SetHook(nullptr);
    return answer;
  }
};

TEST_F(CObjectServerMultipartBesideTest, APartIsRefused) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  SendPart("k", upload_id, 2, "bb");
  for (const int number : {1, 2}) {
    const std::string key = "k" + std::to_string(number);
    const std::string id = NewTask(key);
    SendPart(key, id, 1, "aaaa");
    SendPart(key, id, 2, "bb");
    const FakeAnswer answer =
        BesideCompletion(key, id, {{1, 4}, {2, 2}}, [&] { return SendPart(key, id, number, "LATE"); });
    EXPECT_TRUE(IsError(answer, 400, "InvalidHttpContent")) << number;
    EXPECT_EQ(Object(key), "aaaabb") << number;
    EXPECT_FALSE(std::filesystem::exists(FirstPartFile(id, 1)));
  }
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}, {2, 2}}), "")) << "another task is not touched";
}

TEST_F(CObjectServerMultipartBesideTest, AnOnlyPartIsRefusedAndLeavesNoFile) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  const FakeAnswer answer =
      BesideCompletion("k", upload_id, {{1, 4}}, [&] { return SendPart("k", upload_id, 1, "LATE"); });
  EXPECT_TRUE(IsError(answer, 400, "InvalidHttpContent"));
  EXPECT_EQ(Object("k"), "aaaa");
  EXPECT_EQ(FirstPartFiles(), 0u);
}

TEST_F(CObjectServerMultipartBesideTest, ASecondCompletionFindsNoTask) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  const std::size_t writes = storage_.Calls("stream").size();
  const FakeAnswer answer = BesideCompletion("k", upload_id, {{1, 4}}, [&] {
    return Complete("k", upload_id, {{1, 4}});
  });
  EXPECT_TRUE(IsError(answer, 400, "InvalidXmlContent"));
  EXPECT_EQ(storage_.Calls("stream").size(), writes + 1);
  EXPECT_EQ(Object("k"), "aaaa");
}

TEST_F(CObjectServerMultipartBesideTest, TheSweepLeavesATaskThatIsBeingCompleted) {
  CManualClock clock;
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  clock.Advance(259201);
  int sweeps = 0;
  storage_.SetHook([&](const CFakeStorage::Call& call) {
    if (call.kind == "stream") {
      CloudStorage::ObjectTaskInfo task;
      std::thread([] { CloudStorage::CCleanExpiredTaskThread().OnTimer(); }).join();
      EXPECT_TRUE(catalogue_.GetTaskInfo(upload_id, 1, task));
      ++sweeps;
    }
  });
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}}), ""));
  EXPECT_EQ(sweeps, 1);
  EXPECT_EQ(Object("k"), "aaaa");
}

// A completion waits for a slow part, and the task goes before its turn comes. It must not make an object of bytes that
// are being freed.
TEST_F(CObjectServerMultipartBesideTest, ACompletionThatWaitedFindsItsTaskSweptAway) {
  NewObject(bucket_, "k", "before");
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  SendPart("k", upload_id, 2, "bbbb");
  FakeAnswer answer;
  std::thread completion;
  storage_.SetHook([&](const CFakeStorage::Call& call) {
    if (call.data == "slow" && !completion.joinable()) {
      completion = StartWaiter(upload_id, [&] { answer = Complete("k", upload_id, {{1, 4}, {2, 4}}); });
      EXPECT_TRUE(catalogue_.RemoveObjectTask(upload_id));
    }
  });
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 3, "slow"), 500, "ServerInternalError"));
  ASSERT_TRUE(completion.joinable());
  completion.join();
  EXPECT_TRUE(IsError(answer, 400, "InvalidXmlContent"));
  EXPECT_EQ(Object("k"), "before");
}

// A completion waits for a part that comes with another length. The object must have the size of the parts that it is
// made of.
TEST_F(CObjectServerMultipartBesideTest, ACompletionCountsWhatThePartsItWaitedForBecame) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  SendPart("k", upload_id, 2, "bbbb");
  FakeAnswer answer;
  std::thread completion;
  storage_.SetHook([&](const CFakeStorage::Call& call) {
    if (call.data == "B" && !completion.joinable()) {
      completion = StartWaiter(upload_id, [&] { answer = Complete("k", upload_id, {{1, 4}, {2, 4}}); });
    }
  });
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 2, "B"), ""));
  completion.join();
  EXPECT_TRUE(IsError(answer, 400, "InvalidXmlContent"));
  EXPECT_FALSE(HasObject("k"));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}, {2, 1}}), ""));
  EXPECT_EQ(Object("k"), "aaaaB");
}

}  // namespace
}  // namespace Tansy::Tests
