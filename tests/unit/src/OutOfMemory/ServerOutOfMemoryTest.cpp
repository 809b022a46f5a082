// Each allocation that the servers make for a request fails once. The request may then be refused or its connection be
// closed; the next one must be served, and what was acknowledged must be stored.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "MemoryHost.h"
#include "fakes/FailingAllocation.h"

namespace Tansy::Tests {
namespace {

using system_tests::Reply;
using system_tests::Request;

const std::string kBucketBody = "<CreateBucketConfiguration></CreateBucketConfiguration>";
constexpr std::size_t kBig = 10485760 + 100000;  // arrives in pieces, and is sent in chunks

class ServerOutOfMemory : public testing::Test {
 protected:
  void SetUp() override {
    if (Get("/healthy?property").status != 200) {
      ASSERT_EQ(Object({"PUT", "/healthy", {}, kBucketBody}).status, 200);
    }
    ASSERT_EQ(Object({"PUT", "/healthy/o", {}, "healthy"}).status, 200);
  }

  Reply Object(const Request& request) const { return host_.Call(host_.ObjectPort(), request); }
  Reply Picture(const Request& request) const { return host_.Call(host_.PicturePort(), request); }
  Reply Get(const std::string& path) const { return Object({"GET", path, {}, ""}); }
  int CountObjects(const std::string& key) const { return host_.CountRows("local_object", "name = '" + key + "'"); }

  // Runs the request with the first allocation failing that the servers make for it, then with the second, until they
  // make no more. `check` gets the answer of each round and its number.
  void FailEach(const std::function<Request(int round)>& make,
                const std::function<void(const Reply&, int round)>& check, bool is_picture = false) {
    constexpr int kUnharmedRounds = 3;  // several threads share the work, so that their number differs a little
    constexpr int kNeverSoMany = 5000;
    int unharmed_rounds = 0;
    int unanswered = 0;
    int round = 1;
    for (; round < kNeverSoMany && unharmed_rounds < kUnharmedRounds && unanswered < 3; ++round) {
      const Request request = make(round);
      const std::uint16_t port = is_picture ? host_.PicturePort() : host_.ObjectPort();
      const auto connection = host_.Prepare(port);
      ASSERT_NE(connection, nullptr) << "allocation " << round;
      Reply reply;
      bool has_failed = false;
      {
        const CFailingAllocationAnywhere failing(static_cast<std::size_t>(round));
        reply = CMemoryHost::Finish(*connection, port, request);
        has_failed = failing.HasFailed();
      }
      unharmed_rounds = has_failed ? 0 : unharmed_rounds + 1;
      unanswered += reply.status == -1 ? 1 : 0;
      EXPECT_NE(reply.status, -1) << "neither answered nor closed, allocation " << round;
      EXPECT_TRUE(has_failed || reply.status == 200) << "allocation " << round << " status " << reply.status;
      const Reply healthy = Get("/healthy/o");
      ASSERT_EQ(healthy.status, 200) << "allocation " << round << " ended the service";
      ASSERT_EQ(healthy.body, "healthy") << "allocation " << round;
      check(reply, round);
      if (HasFatalFailure()) {
        return;
      }
    }
    RecordProperty("rounds", round);
    EXPECT_EQ(unharmed_rounds, kUnharmedRounds);
    EXPECT_GT(round, kUnharmedRounds + 10) << "no allocation has failed";
  }

  void FailEachReading(const std::string& target, const std::string& expected, Request request = {}) {
    request.target = target;
    FailEach([&](int) { return request; },
             [&](const Reply& reply, int round) {
               if (reply.status / 100 == 2 && reply.is_whole) {
                 EXPECT_TRUE(expected.empty() || reply.body == expected) << "allocation " << round;
               }
             });
  }

  const CUnharmedThread unharmed_;
  const CMemoryHost& host_ = CMemoryHost::Instance();
};

TEST_F(ServerOutOfMemory, AcceptingAConnection) {
  constexpr int kMoreThanItTakes = 60;  // the first of these are for the connection, the others for a request
  for (int round = 1; round <= kMoreThanItTakes; ++round) {
    {
      const CFailingAllocationAnywhere failing(static_cast<std::size_t>(round));
      EXPECT_NE(Get("/healthy/o").status, -1) << "neither answered nor closed, allocation " << round;
    }
    ASSERT_EQ(Get("/healthy/o").body, "healthy") << "allocation " << round << " ended the service";
  }
}

TEST_F(ServerOutOfMemory, MakingABucket) {
  const auto name = [](int round) { return "b" + std::to_string(round); };
  FailEach(
      [&](int round) {
        return Request{"PUT", "/" + name(round), {}, kBucketBody};
      },
      [&](const Reply& reply, int round) {
        const bool exists = Get("/" + name(round) + "?property").status == 200;
        EXPECT_TRUE(exists || reply.status != 200) << "allocation " << round;
        EXPECT_EQ(host_.CountRows("local_bucket", "name = '" + name(round) + "'"), exists ? 1 : 0)
            << "allocation " << round;
      });
}

TEST_F(ServerOutOfMemory, StoringAnObject) {
  const auto key = [](int round) { return "new" + std::to_string(round); };
  FailEach(
      [&](int round) {
        return Request{"PUT", "/healthy/" + key(round), {}, "content"};
      },
      [&](const Reply& reply, int round) {
        const Reply stored = Get("/healthy/" + key(round));
        EXPECT_TRUE(stored.status == 404 || stored.body == "content") << "allocation " << round;
        EXPECT_TRUE(stored.status == 200 || reply.status != 200) << "allocation " << round;
        EXPECT_EQ(CountObjects(key(round)), stored.status == 200 ? 1 : 0) << "allocation " << round;
      });
}

TEST_F(ServerOutOfMemory, ReplacingAnObject) {
  std::string before = "content 0";
  ASSERT_EQ(Object({"PUT", "/healthy/replaced", {}, before}).status, 200);
  const auto content = [](int round) { return "content " + std::to_string(round); };
  FailEach(
      [&](int round) {
        return Request{"PUT", "/healthy/replaced", {}, content(round)};
      },
      [&](const Reply& reply, int round) {
        const Reply stored = Get("/healthy/replaced");
        ASSERT_EQ(stored.status, 200) << "allocation " << round;
        EXPECT_TRUE(stored.body == content(round) || (reply.status != 200 && stored.body == before))
            << "allocation " << round << ": " << stored.body;
        EXPECT_EQ(CountObjects("replaced"), 1) << "allocation " << round;
        before = stored.body;
      });
}

TEST_F(ServerOutOfMemory, StoringABigObject) {
  const std::string content(kBig, 'b');
  const auto key = [](int round) { return "big" + std::to_string(round); };
  FailEach(
      [&](int round) {
        return Request{"PUT", "/healthy/" + key(round), {}, content};
      },
      [&](const Reply& reply, int round) {
        const Reply stored = Get("/healthy/" + key(round));
        EXPECT_TRUE(stored.status == 404 || stored.body == content) << "allocation " << round;
        EXPECT_TRUE(stored.status == 200 || reply.status != 200) << "allocation " << round;
        EXPECT_EQ(CountObjects(key(round)), stored.status == 200 ? 1 : 0) << "allocation " << round;
        Object({"DELETE", "/healthy/" + key(round) + "?deletefile", {}, ""});
      });
}

TEST_F(ServerOutOfMemory, ReadingAnObject) {
  FailEachReading("/healthy/o", "healthy");
}

TEST_F(ServerOutOfMemory, ReadingAPartOfAnObject) {
  FailEachReading("/healthy/o", "ealt", {"GET", "", {{"Range", "bytes=1-5"}}, ""});
}

TEST_F(ServerOutOfMemory, ReadingABigObject) {
  const std::string content(kBig, 'r');
  ASSERT_EQ(Object({"PUT", "/healthy/big", {}, content}).status, 200);
  FailEachReading("/healthy/big", content);
}

TEST_F(ServerOutOfMemory, AskingTheSizeOfAnObject) {
  FailEachReading("/healthy/o?metadata", "");
}

TEST_F(ServerOutOfMemory, DescribingABucket) {
  FailEachReading("/healthy?property", "");
}

TEST_F(ServerOutOfMemory, ListingBuckets) {
  FailEachReading("/", "");
}

TEST_F(ServerOutOfMemory, AskingForTheBestNode) {
  FailEachReading("/healthy/o?bestnode", "");
}

class ServerOutOfMemoryRemoving : public ServerOutOfMemory, public testing::WithParamInterface<std::string> {};

TEST_P(ServerOutOfMemoryRemoving, AnObject) {
  FailEach(
      [&](int) {
        EXPECT_EQ(Object({"PUT", "/healthy/removed", {}, "content"}).status, 200);
        return Request{"DELETE", "/healthy/removed" + GetParam(), {}, ""};
      },
      [&](const Reply& reply, int round) {
        const Reply stored = Get("/healthy/removed");
        EXPECT_TRUE(stored.status == 404 || (reply.status != 200 && stored.body == "content"))
            << "allocation " << round << ": " << reply.status << ", then " << stored.status;
        EXPECT_EQ(CountObjects("removed"), stored.status == 200 ? 1 : 0) << "allocation " << round;
      });
}

INSTANTIATE_TEST_SUITE_P(Forms, ServerOutOfMemoryRemoving, testing::Values("", "?deletefile"));

// A multipart upload under one key, up to the step that is under test.
class ServerOutOfMemoryMultipart : public ServerOutOfMemory {
 protected:
  std::string Open(const std::string& path) const {
    const std::string body = Object({"POST", path + "?uploads", {}, ""}).body;
    const std::size_t begin = body.find("<UploadId>") + 10;
    return body.substr(begin, body.find("</UploadId>") - begin);
  }
  static Request Part(const std::string& path, const std::string& id, int number, const std::string& content) {
    return {"POST", path + "?upload_id=" + id + "&part_number=" + std::to_string(number), {}, content};
  }
  static Request Completion(const std::string& path, const std::string& id) {
    return {
        "POST",
        path + "?upload_id=" + id,
        {},
        "<CompleteMultipartUpload><TotalPartNum>2</TotalPartNum><Part><PartNumber>1</PartNumber><PartSize>4</PartSize>"
        "</Part><Part><PartNumber>2</PartNumber><PartSize>4</PartSize></Part></CompleteMultipartUpload>"};
  }
};

TEST_F(ServerOutOfMemoryMultipart, OpeningATask) {
  FailEach([](int) { return Request{"POST", "/healthy/opened?uploads", {}, ""}; }, [](const Reply&, int) {});
}

TEST_F(ServerOutOfMemoryMultipart, ListingParts) {
  const std::string id = Open("/healthy/listed");
  ASSERT_EQ(Object(Part("/healthy/listed", id, 1, "aaaa")).status, 200);
  FailEachReading("/healthy/listed?upload_id=" + id, "");
}

// The part that fails is sent again, as clients do; the object must then be whole.
TEST_F(ServerOutOfMemoryMultipart, SendingAPart) {
  for (const int failing : {1, 2}) {
    std::string id;
    std::string path;
    FailEach(
        [&](int round) {
          path = "/healthy/part" + std::to_string(failing) + "-" + std::to_string(round);
          id = Open(path);
          if (failing == 2) {
            EXPECT_EQ(Object(Part(path, id, 1, "aaaa")).status, 200);
          }
          return Part(path, id, failing, failing == 1 ? "aaaa" : "bbbb");
        },
        [&](const Reply& reply, int round) {
          if (reply.status != 200) {
            EXPECT_EQ(Object(Part(path, id, failing, failing == 1 ? "aaaa" : "bbbb")).status, 200)
                << "part " << failing << ", allocation " << round;
          }
          if (failing == 1) {
            EXPECT_EQ(Object(Part(path, id, 2, "bbbb")).status, 200) << "allocation " << round;
          }
          EXPECT_EQ(Object(Completion(path, id)).status, 200) << "part " << failing << ", allocation " << round;
          EXPECT_EQ(Get(path).body, "aaaabbbb") << "part " << failing << ", allocation " << round;
        });
  }
}

TEST_F(ServerOutOfMemoryMultipart, CompletingATask) {
  std::string id;
  std::string path;
  FailEach(
      [&](int round) {
        path = "/healthy/completed" + std::to_string(round);
        id = Open(path);
        EXPECT_EQ(Object(Part(path, id, 1, "aaaa")).status, 200);
        EXPECT_EQ(Object(Part(path, id, 2, "bbbb")).status, 200);
        return Completion(path, id);
      },
      [&](const Reply& reply, int round) {
        Reply stored = Get(path);
        EXPECT_TRUE(stored.status == 404 || stored.body == "aaaabbbb") << "allocation " << round << stored.body;
        EXPECT_TRUE(stored.status == 200 || reply.status != 200) << "allocation " << round;
        EXPECT_EQ(CountObjects("completed" + std::to_string(round)), stored.status == 200 ? 1 : 0);
        if (stored.status != 200) {
          // As the page on the protocol says, all parts are sent again, and then the completion.
          Object(Part(path, id, 1, "aaaa"));
          Object(Part(path, id, 2, "bbbb"));
          EXPECT_EQ(Object(Completion(path, id)).status, 200) << "allocation " << round;
          EXPECT_EQ(Get(path).body, "aaaabbbb") << "allocation " << round;
        }
      });
}

class ServerOutOfMemoryPicture : public ServerOutOfMemory {
 protected:
  static Request Upload(const std::string& picture) {
    const auto field = [&](const std::string& name, const std::string& value) {
      return "--" + kFormBoundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value +
             "\r\n";
    };
    return {"POST",
            "/Quorvane/Picture/Write",
            {{"Content-Type", "multipart/form-data"}},
            field("PictureLength", std::to_string(picture.size())) + field("Picture", picture) + "--" + kFormBoundary +
                "--\r\n"};
  }
  static std::string UrlIn(const Reply& reply) {
    const std::size_t begin = reply.body.find("/pic?");
    return begin == std::string::npos ? "" : reply.body.substr(begin, reply.body.find('"', begin) - begin);
  }
  void FailEachPictureReading(const std::string& target, const std::string& expected) {
    FailEach(
        [&](int) {
          return Request{"GET", target, {}, ""};
        },
        [&](const Reply& reply, int round) {
          if (reply.status == 200) {
            EXPECT_TRUE(expected.empty() || reply.body == expected) << "allocation " << round;
          }
        },
        true);
  }
};

TEST_F(ServerOutOfMemoryPicture, Uploading) {
  FailEach([](int round) { return Upload("picture " + std::to_string(round)); },
           [&](const Reply& reply, int round) {
             if (reply.status == 200) {
               EXPECT_EQ(Picture({"GET", UrlIn(reply), {}, ""}).body, "picture " + std::to_string(round));
             }
           },
           true);
}

TEST_F(ServerOutOfMemoryPicture, Reading) {
  const std::string url = UrlIn(Picture(Upload("a picture")));
  ASSERT_FALSE(url.empty());
  FailEachPictureReading(url, "a picture");
}

TEST_F(ServerOutOfMemoryPicture, AskingForTheBestNode) {
  FailEachPictureReading("/Quorvane/BestNode?SerialID=4711&PoolID=1&Replication=0", "");
}

}  // namespace
}  // namespace Tansy::Tests
