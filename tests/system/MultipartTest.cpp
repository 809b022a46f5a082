// Multipart uploads against a real server, restarts and crashes in the middle included.
#include <algorithm>
#include <filesystem>
#include <random>
#include <thread>

#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;

class MultipartTest : public TansydTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    MakeBucket("b");
  }
  std::string Begin(const std::string& key) {
    const Reply reply = Send("POST", "/b/" + key + "?uploads");
    EXPECT_EQ(Outcome(reply), "200");
    return XmlValue(reply.body, "UploadId");
  }
  std::string SendPart(const std::string& key, const std::string& task, int number, const std::string& bytes) {
    return Outcome(Send("POST", "/b/" + key + "?upload_id=" + task + "&part_number=" + std::to_string(number), bytes));
  }
  static std::string Completion(const std::vector<std::string>& parts) {
    std::string xml = "<CompleteMultipartUpload><TotalPartNum>" + std::to_string(parts.size()) + "</TotalPartNum>";
    for (std::size_t i = 0; i < parts.size(); ++i) {
      xml += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><PartSize>" +
             std::to_string(parts[i].size()) + "</PartSize></Part>";
    }
    return xml + "</CompleteMultipartUpload>";
  }
  std::string Complete(const std::string& key, const std::string& task, const std::vector<std::string>& parts) {
    return Outcome(Send("POST", "/b/" + key + "?upload_id=" + task, Completion(parts)));
  }
  static std::vector<std::string> Parts(std::size_t count, std::size_t size, std::size_t last, std::uint64_t seed) {
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < count; ++i) {
      parts.push_back(RandomBytes(i + 1 == count ? last : size, seed * 100 + i));
    }
    return parts;
  }
  static std::string Joined(const std::vector<std::string>& parts) {
    std::string whole;
    for (const std::string& part : parts) {
      whole += part;
    }
    return whole;
  }
  std::size_t FirstPartFiles() {
    const std::filesystem::path folder = server_.Data("localstoragetmp");
    return std::filesystem::exists(folder)
               ? static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}))
               : 0;
  }
};

TEST_F(MultipartTest, PartsInAnyOrderBecomeOneObject) {
  for (std::uint64_t seed = 1; seed <= 8; ++seed) {
    std::mt19937_64 random(seed);
    const std::size_t size = 1000 + random() % 200000;
    const std::vector<std::string> parts = Parts(2 + random() % 6, size, 1 + random() % size, seed);
    std::vector<std::size_t> order(parts.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::shuffle(order.begin(), order.end(), random);
    // The lower-numbered of the first two parts must not be the short last one: there is no other way to learn the
    // size.
    const std::string key = "o" + std::to_string(seed);
    const std::string task = Begin(key);
    for (const std::size_t index : order) {
      ASSERT_EQ(SendPart(key, task, static_cast<int>(index) + 1, parts[index]), "200") << "seed " << seed;
    }
    EXPECT_EQ(FirstPartFiles(), 1U);
    const std::string listing = Get("/b/" + key + "?upload_id=" + task);
    EXPECT_EQ(XmlValue(listing, "TotalNum"), std::to_string(parts.size()));
    ASSERT_EQ(Complete(key, task, parts), "200") << "seed " << seed;
    EXPECT_EQ(Get("/b/" + key) == Joined(parts), true) << "seed " << seed;
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

TEST_F(MultipartTest, TasksAreListedAfterARestartAndOtherObjectsAreUntouched) {
  Put("/b/other", "other");
  const std::vector<std::string> parts = Parts(3, 5000, 100, 7);
  const std::string task = Begin("o");
  ASSERT_EQ(SendPart("o", task, 1, parts[0]), "200");
  ASSERT_EQ(SendPart("o", task, 2, parts[1]), "200");
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(XmlValue(Get("/b/o?upload_id=" + task), "TotalNum"), "2");
  // What the first part was is not known any more: the completion is answered, but makes no object.
  EXPECT_EQ(Complete("o", task, {parts[0], parts[1]}), "200");
  EXPECT_EQ(Outcome(Send("GET", "/b/o")), "404 NoSuchKey");
  EXPECT_EQ(Get("/b/other"), "other");
  // Beginning again works.
  const std::string second = Begin("o");
  for (std::size_t i = 0; i < parts.size(); ++i) {
    ASSERT_EQ(SendPart("o", second, static_cast<int>(i) + 1, parts[i]), "200");
  }
  ASSERT_EQ(Complete("o", second, parts), "200");
  EXPECT_EQ(Get("/b/o") == Joined(parts), true);
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
