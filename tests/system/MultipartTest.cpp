// Multipart uploads against a real server, restarts and crashes in the middle included.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <numeric>
#include <random>
#include <thread>

#include "support/MultipartFixture.h"

namespace system_tests {
namespace {

class MultipartTest : public MultipartFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    MakeBucket("b");
  }
  // Says where a failure comes from.
  static unsigned NewSeed() { return std::random_device()(); }
};

// The parts of `model` in random order, some of them several times and the last time with the bytes of the model.
void SendAtRandom(std::vector<std::string>& model, std::mt19937& random,
                  const std::function<void(std::size_t, const std::string&)>& send) {
  std::vector<std::size_t> order(model.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::shuffle(order.begin(), order.end(), random);
  for (const std::size_t index : order) {
    send(index, model[index]);
    while (random() % 3 == 0) {
      const std::size_t again = random() % model.size();
      model[again] = RandomBytes(model[again].size(), random());
      send(again, model[again]);
    }
  }
}

TEST_F(MultipartTest, PartsInAnyOrderBecomeOneObject) {
  const unsigned first_seed = NewSeed();
  for (unsigned seed = first_seed; seed != first_seed + 8; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::size_t size = 1000 + random() % 200000;
    std::vector<std::string> model = Parts(2 + random() % 6, size, 1 + random() % size, seed);
    const std::string key = "o" + std::to_string(seed);
    const std::string task = Begin(key);
    SendAtRandom(model, random, [&](std::size_t index, const std::string& bytes) {
      ASSERT_EQ(SendPart(key, task, static_cast<int>(index) + 1, bytes), "200");
    });
    EXPECT_EQ(FirstPartFiles(), 1U);
    EXPECT_EQ(XmlValue(List(key, task), "TotalNum"), std::to_string(model.size()));
    ASSERT_EQ(Complete(key, task, model), "200");
    EXPECT_EQ(Get("/b/" + key) == Joined(model), true);
    EXPECT_EQ(FirstPartFiles(), 0U);
  }
}

TEST_F(MultipartTest, ManyConnectionsSendPartsOfOneTask) {
  const std::vector<std::string> parts = Parts(24, 300000, 1234, 5);
  const std::string task = Begin("o");
  std::vector<std::thread> clients;
  for (std::size_t c = 0; c < 8; ++c) {
    clients.emplace_back([&, c] {
      for (std::size_t i = c; i < parts.size(); i += 8) {
        EXPECT_EQ(SendPart("o", task, static_cast<int>(i) + 1, parts[i]), "200");
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  ASSERT_EQ(Complete("o", task, parts), "200");
  EXPECT_EQ(Get("/b/o") == Joined(parts), true);
}

TEST_F(MultipartTest, PartsBeyondTenMebibytesArriveWhole) {
  const std::vector<std::string> parts = Parts(3, 12 * 1024 * 1024, 777, 6);
  const std::string task = Begin("o");
  for (const int number : {2, 1, 3}) {
    ASSERT_EQ(SendPart("o", task, number, parts[static_cast<std::size_t>(number) - 1]), "200");
  }
  ASSERT_EQ(Complete("o", task, parts), "200");
  EXPECT_EQ(Get("/b/o") == Joined(parts), true);
}

TEST_F(MultipartTest, APartMayBeAsLongAsAWholeBodyAndNoLonger) {
  constexpr std::size_t kMost = 64 << 20;
  const std::vector<std::string> parts = Parts(2, kMost, 1, 9);
  const std::string task = Begin("o");
  ASSERT_EQ(SendPart("o", task, 2, parts[1]), "200");
  const auto connection = CConnection::Open(server_.GetObjectPort());
  ASSERT_NE(connection, nullptr);
  const Request longer = Signed(
      {"POST", "/b/o?upload_id=" + task + "&part_number=1", {{"Content-Length", std::to_string(kMost + 1)}}, ""});
  ASSERT_TRUE(connection->Send(Serialize(longer, server_.GetObjectPort())));
  EXPECT_EQ(connection->Receive().status, 413);
  ASSERT_EQ(SendPart("o", task, 1, parts[0]), "200");
  ASSERT_EQ(Complete("o", task, parts), "200");
  EXPECT_EQ(Get("/b/o") == Joined(parts), true);
}

TEST_F(MultipartTest, TasksAreListedAfterARestartAndOtherObjectsAreUntouched) {
  Put("/b/other", "other");
  const std::vector<std::string> parts = Parts(3, 5000, 100, 7);
  const std::string task = Begin("o");
  ASSERT_EQ(SendPart("o", task, 1, parts[0]), "200");
  ASSERT_EQ(SendPart("o", task, 2, parts[1]), "200");
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(XmlValue(Get("/b/o?upload_id=" + task), "TotalNum"), "2");
  EXPECT_EQ(Outcome(Send("GET", "/b/o")), "404 NoSuchKey");
  EXPECT_EQ(SendPart("o", task, 3, parts[2]), "200");
  EXPECT_EQ(Complete("o", task, parts), "200");
  EXPECT_EQ(Get("/b/o") == Joined(parts), true);
  EXPECT_EQ(Get("/b/other"), "other");
}

// The server is killed and started again before every part and before the completion, whichever part comes first.
TEST_F(MultipartTest, AKillBetweenTwoRequestsIsNotNoticed) {
  const std::vector<std::vector<int>> orders = {{1, 2, 3}, {3, 2, 1}, {2, 3, 1}, {2, 1, 3}};
  for (const std::vector<int>& order : orders) {
    SCOPED_TRACE("first part " + std::to_string(order[0]) + ", then " + std::to_string(order[1]));
    const std::string key = "o" + std::to_string(order[0]) + std::to_string(order[1]);
    const std::vector<std::string> parts = Parts(3, 5000, 100, static_cast<std::uint64_t>(order[0] * 10 + order[1]));
    const std::string task = Begin(key);
    for (const int number : order) {
      server_.Kill();
      ASSERT_TRUE(server_.Start());
      ASSERT_EQ(SendPart(key, task, number, parts[static_cast<std::size_t>(number) - 1]), "200");
    }
    server_.Kill();
    ASSERT_TRUE(server_.Start());
    EXPECT_EQ(Complete(key, task, parts), "200");
    EXPECT_EQ(Get("/b/" + key) == Joined(parts), true);
    EXPECT_EQ(FirstPartFiles(), 0U);
  }
}

// The next ones are what the protocol's page tells client authors about restarts.
class MultipartRestartTest : public MultipartTest {
 protected:
  void SetUp() override {
    MultipartTest::SetUp();
    Put("/b/other", "other");
    task_ = Begin("o");
    ASSERT_TRUE(SendParts("o", task_, parts_));
    server_.Kill();
  }
  void TearDown() override { EXPECT_EQ(Get("/b/other"), "other"); }
  std::string FirstPart() const { return server_.Data("localstoragetmp/" + task_ + "_1"); }
  void ExpectRefused() {
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(Complete("o", task_, parts_), "500 ServerInternalError");
      EXPECT_EQ(Outcome(Send("GET", "/b/o")), "404 NoSuchKey");
      EXPECT_EQ(SendPart("o", task_, i + 1, parts_[static_cast<std::size_t>(i)]), "400 InvalidHttpContent");
    }
    EXPECT_EQ(XmlValue(List("o", task_), "TotalNum"), "3");
    Upload("o", parts_);
    EXPECT_EQ(Get("/b/o") == Joined(parts_), true) << "beginning again works";
  }

  const std::vector<std::string> parts_ = Parts(3, 5000, 100, 11);
  std::string task_;
};

TEST_F(MultipartRestartTest, ACompletionMakesTheWholeObject) {
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Complete("o", task_, parts_), "200");
  EXPECT_EQ(Get("/b/o") == Joined(parts_), true);
  EXPECT_EQ(Complete("o", task_, parts_), "400 InvalidXmlContent");
}

TEST_F(MultipartRestartTest, AFirstPartThatIsGoneRefusesPartsAndCompletion) {
  std::filesystem::remove(FirstPart());
  ASSERT_TRUE(server_.Start());
  ExpectRefused();
}

TEST_F(MultipartRestartTest, AFirstPartThatIsCutRefusesPartsAndCompletion) {
  std::filesystem::resize_file(FirstPart(), 4999);
  ASSERT_TRUE(server_.Start());
  ExpectRefused();
}

// As a server of an older version left it when it was killed between the object and the end of its task.
TEST_F(MultipartRestartTest, ALatePartDoesNotReachAFinishedObject) {
  ASSERT_TRUE(server_.Start());
  const std::string database = server_.Data("catalogue.db");
  ASSERT_EQ(Query(database, "CREATE TABLE kept AS SELECT * FROM local_object_task").size(), 0U);
  ASSERT_EQ(Complete("o", task_, parts_), "200");
  server_.Kill();
  Query(database, "INSERT INTO local_object_task SELECT * FROM kept");
  Query(database, "DROP TABLE kept");
  ASSERT_TRUE(server_.Start());
  for (int number = 1; number <= 4; ++number) {
    EXPECT_THAT(SendPart("o", task_, number, std::string(5000, 'Y')), testing::StartsWith("400 ")) << number;
  }
  EXPECT_EQ(Complete("o", task_, parts_), "400 InvalidXmlContent");
  EXPECT_EQ(Get("/b/o") == Joined(parts_), true);
}

TEST_F(MultipartRestartTest, AllPartsAgainMakeItWholeInAnyOrder) {
  ASSERT_TRUE(server_.Start());
  const unsigned seed = NewSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::vector<std::string> model = parts_;
  SendAtRandom(model, random, [&](std::size_t index, const std::string& bytes) {
    ASSERT_EQ(SendPart("o", task_, static_cast<int>(index) + 1, bytes), "200");
  });
  EXPECT_EQ(Complete("o", task_, model), "200");
  EXPECT_EQ(Get("/b/o") == Joined(model), true);
}

// Parts whose places 32 bits can count are taken; the first one that would end beyond is not.
TEST_F(MultipartTest, NoPartEndsBeyondFourGibibytes) {
  const std::string part = RandomBytes(1 << 20, 1);
  const std::string task = Begin("o");
  ASSERT_EQ(SendPart("o", task, 1, part), "200");
  ASSERT_EQ(SendPart("o", task, 2, part), "200");
  EXPECT_EQ(SendPart("o", task, 4096, part), "400 InvalidHttpContent") << "ends at exactly 4 GiB";
  EXPECT_EQ(SendPart("o", task, 4097, "x"), "400 InvalidHttpContent");
  EXPECT_EQ(XmlValue(List("o", task), "TotalNum"), "2");
  EXPECT_EQ(Complete("o", task, {part, part}), "200");
  EXPECT_EQ(Get("/b/o") == part + part, true);
}

TEST_F(MultipartTest, ATaskOfMoreThanThreeDaysIsSweptAtStart) {
  const std::string task = Begin("o");
  ASSERT_EQ(SendPart("o", task, 1, "part"), "200");
  const std::string fresh = Begin("fresh");
  ASSERT_TRUE(server_.Stop());
  const std::string database = server_.Data("catalogue.db");
  Query(database,
        "UPDATE local_object_task SET update_time = datetime('now', '-259300 seconds') WHERE task_id = '" + task + "'");
  ASSERT_TRUE(server_.Start());
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (Send("GET", "/b/o?upload_id=" + task).status == 200 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(Outcome(Send("GET", "/b/o?upload_id=" + task)), "400 InvalidHttpContent");
  EXPECT_EQ(XmlValue(List("fresh", fresh), "TotalNum"), "1");
  EXPECT_EQ(Query(database, "SELECT DISTINCT task_id FROM local_object_task"), std::vector<std::string>{fresh});
  // The task's bytes wait to be freed; the file of its first part is removed at the next start.
  EXPECT_EQ(Query(database, "SELECT COUNT(*) FROM released_bytes"), std::vector<std::string>{"1"});
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(FirstPartFiles(), 0U);
}

TEST_F(MultipartTest, FirstPartFilesOfTasksThatAreGoneAreRemovedAtStart) {
  const std::string living = Begin("living");
  ASSERT_EQ(SendPart("living", living, 1, "part"), "200");
  const std::string dead = Begin("dead");
  ASSERT_EQ(SendPart("dead", dead, 1, "part"), "200");
  EXPECT_EQ(FirstPartFiles(), 2U);
  server_.Kill();
  Query(server_.Data("catalogue.db"), "DELETE FROM local_object_task WHERE task_id = '" + dead + "'");
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(FirstPartFiles(), 1U);
  EXPECT_TRUE(std::filesystem::exists(server_.Data("localstoragetmp/" + living + "_1")));
}

TEST_F(MultipartTest, UploadIdsAreNeverPaths) {
  Put("/b/o", "kept");
  const std::vector<std::string> ids = {"../../catalogue.db", "..", "%2e%2e%2fx", "a%2Fb", "/etc/passwd", "%5c..%5cx"};
  for (const std::string& id : ids) {
    EXPECT_EQ(SendPart("o", id, 1, "evil"), "400 InvalidHttpContent") << id;
    EXPECT_EQ(Outcome(Send("GET", "/b/o?upload_id=" + id)), "400 InvalidHttpContent") << id;
    EXPECT_EQ(Complete("o", id, {"evil"}), "400 InvalidHttpContent") << id;
  }
  EXPECT_EQ(FirstPartFiles(), 0U);
  EXPECT_EQ(Get("/b/o"), "kept");
}

TEST_F(MultipartTest, UnknownUploadIdsLeaveNothingBehind) {
  for (const std::string& id : std::vector<std::string>{"none", std::string(5000, 'a'), "a%00b", "{0}"}) {
    EXPECT_EQ(SendPart("o", id, 1, "part"), "500 ServerInternalError") << id;
    EXPECT_EQ(Outcome(Send("GET", "/b/o?upload_id=" + id)), "400 InvalidHttpContent") << id;
    EXPECT_EQ(Complete("o", id, {"part"}), "400 InvalidXmlContent") << id;
  }
  EXPECT_EQ(FirstPartFiles(), 0U);
  EXPECT_EQ(Query(server_.Data("catalogue.db"), "SELECT COUNT(*) FROM local_object_task"),
            std::vector<std::string>{"0"});
}

TEST_F(MultipartTest, BadPartsLeaveTheTaskUnharmed) {
  const std::vector<std::string> parts = Parts(2, 3000, 200, 8);
  const std::string task = Begin("o");
  ASSERT_EQ(SendPart("o", task, 1, parts[0]), "200");
  for (const char* number : {"0", "-1", "x", "", "99999999999999999999"}) {
    EXPECT_EQ(Outcome(Send("POST", "/b/o?upload_id=" + task + "&part_number=" + number, "x")), "400 InvalidHttpContent")
        << number;
  }
  EXPECT_EQ(SendPart("o", task, 2, ""), "400 InvalidHttpContent");
  EXPECT_EQ(SendPart("other", task, 2, "x"), "400 InvalidHttpContent") << "another object's task";
  ASSERT_EQ(SendPart("o", task, 2, parts[1]), "200");
  const std::string total = "<CompleteMultipartUpload><TotalPartNum>";
  const std::string end = "</TotalPartNum></CompleteMultipartUpload>";
  const std::vector<std::string> bodies = {
      "", "x", "<x/>", total + "0" + end, total + "3" + end, total + "4294967295" + end};
  for (const std::string& body : bodies) {
    EXPECT_EQ(Outcome(Send("POST", "/b/o?upload_id=" + task, body)), "400 InvalidXmlContent") << body;
  }
  EXPECT_EQ(Complete("o", task, {parts[0], "wrong size"}), "400 InvalidXmlContent");
  ASSERT_EQ(Complete("o", task, parts), "200");
  EXPECT_EQ(Get("/b/o") == Joined(parts), true);
}

TEST_F(MultipartTest, HugeCompletionsCostLittleAndHarmNothing) {
  const std::vector<std::string> parts = Parts(2, 3000, 200, 10);
  const std::string task = Begin("o");
  ASSERT_TRUE(SendParts("o", task, parts));
  const std::string target = "/b/o?upload_id=" + task;
  const std::string good = Completion(parts);
  const std::string named = good.substr(good.find("<Part>"), good.rfind("</Part>") + 7 - good.find("<Part>"));
  const auto body = [](const std::string& total, const std::string& rest) {
    return "<CompleteMultipartUpload><TotalPartNum>" + total + "</TotalPartNum>" + rest + "</CompleteMultipartUpload>";
  };
  const auto times = [](int count, const std::string& text) {
    std::string all;
    all.reserve(text.size() * static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
      all += text;
    }
    return all;
  };
  // A high part number alone costs neither memory nor time.
  const std::uint64_t before = server_.GetMemory();
  const auto begin = std::chrono::steady_clock::now();
  for (const char* total : {"4294967295", "4294967297", "2147483648", "9223372036854775807"}) {
    EXPECT_EQ(Outcome(Send("POST", target, body(total, named))), "400 InvalidXmlContent") << total;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  EXPECT_LT(server_.GetMemory(), before + (64 << 20));

  // A million elements: beyond the limit, none of the parts, one part again and again.
  EXPECT_EQ(Outcome(Send("POST", target, body("1000000", times(1000001, "<Part/>")))), "400 InvalidXmlContent");
  EXPECT_EQ(Outcome(Send("POST", target, body("900000", times(900000, "<Part/>")))), "400 InvalidXmlContent");
  const std::string first = "<Part><PartNumber>1</PartNumber><PartSize>3000</PartSize></Part>";
  EXPECT_EQ(Outcome(Send("POST", target, body("300000", times(300000, first)))), "400 InvalidXmlContent");
  EXPECT_EQ(Outcome(Send("POST", target, times(500000, "<TotalPartNum>") + "2")), "400 InvalidXmlContent");
  EXPECT_EQ(XmlValue(List("o", task), "TotalNum"), "2");
  // What stands behind the parts that are counted is not looked at.
  EXPECT_EQ(Outcome(Send("POST", target, body("2", named + times(300000, "<Part/><x/>")))), "200");
  EXPECT_EQ(Get("/b/o") == Joined(parts), true);
}

TEST_F(MultipartTest, AKillDuringCompletionsLeavesWholeObjectsOrNone) {
  for (std::uint64_t round = 0; round < 4; ++round) {
    std::vector<std::thread> clients;
    std::vector<std::vector<std::string>> parts;
    std::vector<std::string> outcomes(6);
    for (std::uint64_t c = 0; c < 6; ++c) {
      parts.push_back(Parts(3, 20000, 5000, round * 10 + c));
    }
    for (std::size_t c = 0; c < 6; ++c) {
      clients.emplace_back([&, c] {
        const std::string key = "r" + std::to_string(round) + "-" + std::to_string(c);
        const std::string task = XmlValue(Send("POST", "/b/" + key + "?uploads").body, "UploadId");
        for (int i = 0; i < 3; ++i) {
          SendPart(key, task, i + 1, parts[c][static_cast<std::size_t>(i)]);
        }
        outcomes[c] = Complete(key, task, parts[c]);
      });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(15 + 25 * static_cast<int>(round)));
    server_.Kill();
    for (std::thread& client : clients) {
      client.join();
    }
    ASSERT_TRUE(server_.Start());
    for (std::size_t c = 0; c < 6; ++c) {
      const Reply reply = Send("GET", "/b/r" + std::to_string(round) + "-" + std::to_string(c));
      if (outcomes[c] == "200") {
        EXPECT_EQ(reply.status, 200);
      }
      if (reply.status == 200) {
        EXPECT_EQ(reply.body == Joined(parts[c]), true);
      } else {
        EXPECT_EQ(Outcome(reply), "404 NoSuchKey");
      }
    }
  }
}

}  // namespace
}  // namespace system_tests
