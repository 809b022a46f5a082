// Each call of the host's storage and each statement of the database goes wrong once, at each place of each kind of
// request. A request may then be refused, but what it was refused for is not done by half, and the next one is served.
#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "ObjectServerMultipartFixture.h"
#include "StorageServer/ObjectServer/ObjectServerErrors.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"

namespace Tansy::Tests {
namespace {

using ::testing::ElementsAre;

constexpr int kNeverSoManyCalls = 200;

class CObjectServerFaultsTest : public CObjectServerMultipartFixture {
 protected:
  // One way to go wrong: sets it up for the call of a number, counted from 1, and says afterwards whether it came.
  struct Fault {
    std::string name;
    std::function<void(int number)> begin;
    std::function<bool()> end;
  };

  // The storage's call of the number behaves like this; all others succeed.
  Fault StorageFault(const std::string& name, const std::function<void(const CFakeStorage::Call&)>& misbehave) {
    return {name,
            [this, misbehave](int number) {
              calls_ = 0;
              storage_.SetHook([this, misbehave, number](const CFakeStorage::Call& call) {
                storage_.SetResult(call.kind, 0);
                if (++calls_ == number) {
                  misbehave(call);
                }
              });
              number_ = number;
            },
            [this] {
              storage_.SetHook(nullptr);
              for (const char* kind : {"save", "read", "stream", "range", "remove"}) {
                storage_.SetResult(kind, 0);
              }
              return calls_ >= number_;
            }};
  }
  std::vector<Fault> Faults() {
    const Fault statement = {"a statement fails",
                             [](int number) {
                               Database().ForgetStatements();
                               Database().FailStatement(number);
                               statement_ = number;
                             },
                             [] {
                               Database().Heal();
                               return Database().Statements().size() >= static_cast<std::size_t>(statement_);
                             }};
    return {StorageFault("the storage fails",
                         [this](const CFakeStorage::Call& call) {
                           storage_.SetResult(call.kind, CloudStorage::kServerInternalError);
                         }),
            StorageFault("the storage is full",
                         [this](const CFakeStorage::Call& call) {
                           const bool writes = call.kind == "save" || call.kind == "stream";
                           storage_.SetResult(call.kind, writes ? CloudStorage::details::kStorageFull
                                                                : CloudStorage::kServerInternalError);
                         }),
            StorageFault("the storage has no memory", [](const CFakeStorage::Call&) { throw std::bad_alloc(); }),
            statement};
  }

  // Sends the request with its first call going wrong, then its second, until it makes no more, for each fault. `check`
  // gets the answer's status and the number of the request, which `send` can tell its requests apart by.
  void FailEach(const std::function<void(int round)>& prepare, const std::function<FakeAnswer(int round)>& send,
                const std::function<void(int status, int round)>& check) {
    FailEachCall(
        prepare,
        [&send](int round) {
          const FakeAnswer answer = send(round);
          EXPECT_TRUE(answer.IsThere());
          EXPECT_EQ(answer.attempts, 1);
          return answer.response.status;
        },
        check);
  }
  // The same for what a host does itself; `act` gives 200 for success.
  void FailEachCall(const std::function<void(int round)>& prepare, const std::function<int(int round)>& act,
                    const std::function<void(int status, int round)>& check) {
    for (const Fault& fault : Faults()) {
      bool has_failed = true;
      for (int number = 1; has_failed && !HasFailure(); ++number) {
        SCOPED_TRACE(fault.name + ", call " + std::to_string(number));
        ASSERT_LT(number, kNeverSoManyCalls) << "there is no end";
        const int round = ++rounds_;
        prepare(round);
        fault.begin(number);
        const int status = act(round);
        has_failed = fault.end();
        EXPECT_TRUE(has_failed || status == 200) << status;
        EXPECT_EQ(Put(Path("healthy"), "healthy").response.status, 200);
        EXPECT_EQ(Get(Path("healthy")).body, "healthy");
        check(status, round);
      }
    }
    EXPECT_GT(rounds_, static_cast<int>(Faults().size())) << "nothing has failed";
  }

  static std::string Key(int round) { return "k" + std::to_string(round); }
  static std::string BytesOf(int round) { return Pattern(2000, static_cast<std::uint32_t>(round)); }
  std::size_t CountRows(const std::string& key) const {
    return Database()
        .Column("SELECT id FROM platform.local_object WHERE name = '" + key + "' AND bucket_name = '" + bucket_ + "'",
                "id")
        .size();
  }
  static std::size_t CountObjectsIn(const std::string& bucket) {
    return Database().Column("SELECT id FROM platform.local_object WHERE bucket_name = '" + bucket + "'", "id").size();
  }
  // The object is there as a whole, with one row, or not at all, with none.
  bool IsThere(const std::string& key, const std::string& bytes) {
    const FakeAnswer answer = Get(Path(key));
    EXPECT_TRUE(answer.response.status == 404 || answer.body == bytes) << key << " " << answer.response.status;
    EXPECT_EQ(CountRows(key), answer.response.status == 200 ? 1U : 0U) << key;
    return answer.response.status == 200;
  }

  int calls_ = 0;
  int number_ = 0;
  static inline int statement_ = 0;
  int rounds_ = 0;
};

void NoPreparation(int /*round*/) {}

TEST_F(CObjectServerFaultsTest, MakingABucket) {
  const auto name = [this](int round) { return bucket_ + "-" + std::to_string(round); };
  FailEach(
      &NoPreparation, [&](int round) { return Put("/" + name(round), "<CreateBucketConfiguration/>"); },
      [&](int status, int round) {
        const bool is_there = Get("/" + name(round), "property").response.status == 200;
        EXPECT_EQ(is_there, status == 200);
        const auto rows =
            Database().Column("SELECT id FROM platform.local_bucket WHERE name = '" + name(round) + "'", "id");
        EXPECT_EQ(rows.size(), is_there ? 1U : 0U);
      });
}

// The bucket and its object are under the old name or under the new one, in memory and in the rows alike.
TEST_F(CObjectServerFaultsTest, RenamingABucket) {
  CloudStorage::BucketInfo bucket;
  std::string old_name;
  FailEachCall(
      [&](int round) {
        old_name = NewBucket();
        NewObject(old_name, "o", BytesOf(round));
        ASSERT_TRUE(catalogue_.GetBucketByName(bucket, old_name));
      },
      [&](int) {
        bucket.name = old_name + "-renamed";
        return catalogue_.ModifyBucket(bucket) ? 200 : 500;
      },
      [&](int status, int round) {
        const std::string now = status == 200 ? bucket.name : old_name;
        const std::string id = std::to_string(bucket.id);
        EXPECT_THAT(Database().Column("SELECT name FROM platform.local_bucket WHERE id = " + id, "name"),
                    ElementsAre(now));
        EXPECT_EQ(CountObjectsIn(now), 1U);
        EXPECT_EQ(CountObjectsIn(status == 200 ? old_name : bucket.name), 0U);
        EXPECT_EQ(Get("/" + old_name + "/o").body, BytesOf(round)) << "the old name leads there until the next start";
      });
}

TEST_F(CObjectServerFaultsTest, RemovingABucket) {
  std::string name;
  FailEachCall(
      [&](int round) {
        name = NewBucket();
        NewObject(name, "o", BytesOf(round));
      },
      [&](int) {
        CloudStorage::BucketInfo bucket;
        return catalogue_.GetBucketByName(bucket, name) && catalogue_.RemoveBucket(bucket.id) ? 200 : 500;
      },
      [&](int status, int round) {
        const bool is_there = status != 200;
        EXPECT_EQ(Database().Column("SELECT id FROM platform.local_bucket WHERE name = '" + name + "'", "id").size(),
                  is_there ? 1U : 0U);
        EXPECT_EQ(CountObjectsIn(name), is_there ? 1U : 0U);
        const FakeAnswer answer = Get("/" + name + "/o");
        EXPECT_EQ(answer.response.status, is_there ? 200 : 404);
        EXPECT_TRUE(!is_there || answer.body == BytesOf(round));
      });
}

TEST_F(CObjectServerFaultsTest, StoringAnObject) {
  FailEach(
      &NoPreparation, [&](int round) { return Put(Path(Key(round)), BytesOf(round)); },
      [&](int status, int round) { EXPECT_EQ(IsThere(Key(round), BytesOf(round)), status == 200); });
}

TEST_F(CObjectServerFaultsTest, ReplacingAnObject) {
  std::string before = BytesOf(0);
  ASSERT_EQ(Put(Path("o"), before).response.status, 200);
  FailEach(
      &NoPreparation, [&](int round) { return Put(Path("o"), BytesOf(round)); },
      [&](int status, int round) {
        before = status == 200 ? BytesOf(round) : before;
        EXPECT_TRUE(IsThere("o", before));
      });
}

TEST_F(CObjectServerFaultsTest, ReadingAnObject) {
  ASSERT_EQ(Put(Path("o"), BytesOf(1)).response.status, 200);
  FailEach(
      &NoPreparation,
      [&](int) {
        const FakeAnswer answer = Get(Path("o"));
        EXPECT_TRUE(answer.response.status != 200 || answer.body == BytesOf(1));
        return answer;
      },
      [&](int, int) { EXPECT_TRUE(IsThere("o", BytesOf(1))); });
}

TEST_F(CObjectServerFaultsTest, RemovingAnObject) {
  for (const char* query : {"", "deletefile"}) {
    SCOPED_TRACE(query);
    FailEach([&](int round) { ASSERT_EQ(Put(Path(Key(round)), BytesOf(round)).response.status, 200); },
             [&](int round) { return Delete(Path(Key(round)), query); },
             [&](int status, int round) { EXPECT_EQ(IsThere(Key(round), BytesOf(round)), status != 200); });
  }
}

TEST_F(CObjectServerFaultsTest, AnUploadInParts) {
  const std::vector<std::string> parts = {Pattern(900, 1), Pattern(900, 2), Pattern(300, 3)};
  const auto size = [&parts](int number) { return parts[static_cast<std::size_t>(number) - 1].size(); };
  std::string task;
  const auto send = [&](int round, int number) {
    return SendPart(Key(round), task, number, parts[static_cast<std::size_t>(number) - 1]);
  };
  const auto complete = [&](int round) {
    return Complete(Key(round), task, {{1, size(1)}, {2, size(2)}, {3, size(3)}});
  };
  // After each failure the client sends the same again, and goes on.
  const auto expect_completes = [&](int round) {
    for (int number = 1; number <= 3; ++number) {
      EXPECT_EQ(send(round, number).response.status, 200) << number;
    }
    EXPECT_EQ(complete(round).response.status, 200);
    EXPECT_TRUE(IsThere(Key(round), parts[0] + parts[1] + parts[2]));
    EXPECT_EQ(FirstPartFiles(), 0U);
  };
  for (const std::vector<int>& order : {std::vector<int>{1, 2, 3}, std::vector<int>{3, 1, 2}}) {
    for (std::size_t failing = 0; failing < order.size(); ++failing) {
      SCOPED_TRACE("part " + std::to_string(order[failing]));
      FailEach(
          [&](int round) {
            task = NewTask(Key(round));
            for (std::size_t i = 0; i < failing; ++i) {
              ASSERT_EQ(send(round, order[i]).response.status, 200);
            }
          },
          [&](int round) { return send(round, order[failing]); },
          [&](int, int round) {
            EXPECT_FALSE(HasObject(Key(round)));
            expect_completes(round);
          });
    }
  }
  SCOPED_TRACE("the completion");
  FailEach(
      [&](int round) {
        task = NewTask(Key(round));
        for (const int number : {2, 3, 1}) {
          ASSERT_EQ(send(round, number).response.status, 200);
        }
      },
      complete,
      [&](int status, int round) {
        EXPECT_EQ(IsThere(Key(round), parts[0] + parts[1] + parts[2]), status == 200);
        if (status != 200) {
          EXPECT_EQ(complete(round).response.status, 200) << "no part has to be sent again";
          EXPECT_TRUE(IsThere(Key(round), parts[0] + parts[1] + parts[2]));
        }
      });
}

TEST_F(CObjectServerFaultsTest, OpeningAnUpload) {
  FailEach(
      &NoPreparation, [&](int round) { return Post(Path(Key(round)), "uploads"); },
      [&](int status, int round) {
        const auto rows = Database().Column("SELECT id FROM platform.local_object_task WHERE object_name = '" +
                                                Key(round) + "' AND bucket_name = '" + bucket_ + "'",
                                            "id");
        EXPECT_EQ(rows.size(), status == 200 ? 1U : 0U);
      });
}

}  // namespace
}  // namespace Tansy::Tests
