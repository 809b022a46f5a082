// Each allocation that the servers make for a request fails once. The request may then be refused or its connection be
// closed; the next one must be served, and what was acknowledged must be stored.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "MemoryHost.h"
#include "fakes/FailingAllocation.h"
#include "support/S3Sign.h"

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
  Reply S3(const Request& request) const { return host_.Call(host_.S3Port(), request); }
  Reply Picture(const Request& request) const { return host_.Call(host_.PicturePort(), request); }
  Reply Get(const std::string& path) const { return Object({"GET", path, {}, ""}); }
  int CountObjects(const std::string& key) const { return host_.CountRows("local_object", "name = '" + key + "'"); }

  // Runs the request with the first allocation failing that the servers make for it, then with the second, until they
  // make no more. `check` gets the answer of each round and its number.
  void FailEach(const std::function<Request(int round)>& make,
                const std::function<void(const Reply&, int round)>& check, std::uint16_t port = 0) {
    constexpr int kUnharmedRounds = 3;  // several threads share the work, so that their number differs a little
    constexpr int kNeverSoMany = 5000;
    int unharmed_rounds = 0;
    int unanswered = 0;
    int round = 1;
    port = port == 0 ? host_.ObjectPort() : port;
    for (; round < kNeverSoMany && unharmed_rounds < kUnharmedRounds && unanswered < 3; ++round) {
      const Request request = make(round);
      const auto connection = host_.Prepare(port);
      ASSERT_NE(connection, nullptr) << "allocation " << round;
      Reply reply;
      bool has_failed = false;
      {
        const CFailingAllocationAnywhere failing(static_cast<std::size_t>(round));
        reply = host_.Finish(*connection, port, request);
        has_failed = failing.HasFailed();
      }
      unharmed_rounds = has_failed ? 0 : unharmed_rounds + 1;
      unanswered += reply.status == -1 ? 1 : 0;
      EXPECT_NE(reply.status, -1) << "neither answered nor closed, allocation " << round;
      EXPECT_TRUE(has_failed || reply.status / 100 == 2) << "allocation " << round << " status " << reply.status;
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
        host_.PicturePort());
  }
};

TEST_F(ServerOutOfMemoryPicture, Uploading) {
  FailEach([](int round) { return Upload("picture " + std::to_string(round)); },
           [&](const Reply& reply, int round) {
             if (reply.status == 200) {
               EXPECT_EQ(Picture({"GET", UrlIn(reply), {}, ""}).body, "picture " + std::to_string(round));
             }
           },
           host_.PicturePort());
}

TEST_F(ServerOutOfMemoryPicture, Reading) {
  const std::string url = UrlIn(Picture(Upload("a picture")));
  ASSERT_FALSE(url.empty());
  FailEachPictureReading(url, "a picture");
}

TEST_F(ServerOutOfMemoryPicture, AskingForTheBestNode) {
  FailEachPictureReading("/Quorvane/BestNode?SerialID=4711&PoolID=1&Replication=0", "");
}

class ServerOutOfMemoryS3 : public ServerOutOfMemory {
 protected:
  Reply Read(const std::string& path) const { return S3({"GET", path, {}, ""}); }
  std::uint16_t Port() const { return host_.S3Port(); }

  // Whatever fails, the object is there wholly or not at all, in memory as in the database.
  void ExpectWholeOrNone(const Reply& reply, const std::string& key, const std::string& content, int round) const {
    const Reply stored = Read("/healthy/" + key);
    EXPECT_TRUE(stored.status == 404 || stored.body == content) << "allocation " << round;
    EXPECT_TRUE(stored.status == 200 || reply.status != 200) << "allocation " << round;
    EXPECT_EQ(CountObjects(key), stored.status == 200 ? 1 : 0) << "allocation " << round;
  }
  void FailEachS3Reading(const Request& request, const std::function<void(const Reply&, int round)>& check) {
    FailEach([&](int) { return request; },
             [&](const Reply& reply, int round) {
               if (reply.status / 100 == 2 && reply.is_whole) {
                 check(reply, round);
               }
             },
             Port());
  }
  std::string Open(const std::string& path) const {
    return XmlText(S3({"POST", path + "?uploads=", {}, ""}), "UploadId");
  }
  static std::string XmlText(const Reply& reply, const std::string& name) {
    const std::size_t begin = reply.body.find("<" + name + ">") + name.size() + 2;
    return reply.body.substr(begin, reply.body.find("</" + name + ">") - begin);
  }
  static Request Part(const std::string& path, const std::string& id, const std::string& content) {
    return {"PUT", path + "?partNumber=1&uploadId=" + id, {}, content};
  }
  // The tag is that of "aaaa".
  static Request Completion(const std::string& path, const std::string& id) {
    return {"POST",
            path + "?uploadId=" + id,
            {},
            "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>74b87337454200d4d33f80c4663dc5e5</ETag>"
            "</Part></CompleteMultipartUpload>"};
  }
};

TEST_F(ServerOutOfMemoryS3, StoringAnObject) {
  const auto key = [](int round) { return "s3new" + std::to_string(round); };
  FailEach(
      [&](int round) {
        return Request{
            "PUT", "/healthy/" + key(round), {{"Content-Type", "text/plain"}, {"x-amz-meta-a", "b"}}, "content"};
      },
      [&](const Reply& reply, int round) { ExpectWholeOrNone(reply, key(round), "content", round); }, Port());
}

class ServerOutOfMemoryS3Chunks : public ServerOutOfMemoryS3, public testing::WithParamInterface<std::size_t> {};

TEST_P(ServerOutOfMemoryS3Chunks, AreStored) {
  const std::string content(GetParam(), 'c');
  const std::string chunks = system_tests::InChunks(content, 1 << 20);
  const auto key = [](int round) { return "s3chunks" + std::to_string(round); };
  FailEach(
      [&](int round) {
        return Request{
            "PUT", "/healthy/" + key(round), {{"x-amz-decoded-content-length", std::to_string(GetParam())}}, chunks};
      },
      [&](const Reply& reply, int round) {
        ExpectWholeOrNone(reply, key(round), content, round);
        Object({"DELETE", "/healthy/" + key(round) + "?deletefile", {}, ""});
      },
      Port());
}

INSTANTIATE_TEST_SUITE_P(Sizes, ServerOutOfMemoryS3Chunks, testing::Values(std::size_t{3000}, kBig));

TEST_F(ServerOutOfMemoryS3, ReadingAnObject) {
  ASSERT_EQ(S3({"PUT", "/healthy/s3o", {{"Content-Type", "text/plain"}}, "healthy"}).status, 200);
  FailEachS3Reading({"GET", "/healthy/s3o", {}, ""},
                    [](const Reply& reply, int round) { EXPECT_EQ(reply.body, "healthy") << "allocation " << round; });
}

TEST_F(ServerOutOfMemoryS3, ReadingABigObject) {
  const std::string content(kBig, 's');
  ASSERT_EQ(S3({"PUT", "/healthy/s3big", {}, content}).status, 200);
  FailEachS3Reading({"GET", "/healthy/s3big", {}, ""}, [&](const Reply& reply, int round) {
    EXPECT_TRUE(reply.body == content) << "allocation " << round;
  });
}

// The object protocol has stored it, so its entity tag is computed and kept. One that could not be is told as unknown.
TEST_F(ServerOutOfMemoryS3, AskingForATag) {
  for (const std::size_t size : {std::size_t{4}, (std::size_t{1} << 20) + 1}) {
    const std::string content(size, 'a');
    const std::string tag = size == 4 ? "\"74b87337454200d4d33f80c4663dc5e5\"" : "";
    FailEach(
        [&](int) {
          EXPECT_EQ(Object({"PUT", "/healthy/untagged", {}, content}).status, 200);
          return Request{"GET", "/healthy/untagged", {}, ""};
        },
        [&](const Reply& reply, int round) {
          if (reply.status == 200 && reply.is_whole) {
            EXPECT_TRUE(reply.body == content) << "allocation " << round;
            const std::string told = reply.Header("ETag");
            EXPECT_TRUE(tag.empty() || told == tag || told.ends_with("-1\"")) << "allocation " << round << ": " << told;
          }
          const Reply again = Read("/healthy/untagged");
          EXPECT_TRUE(tag.empty() || again.Header("ETag") == tag) << "allocation " << round;
          EXPECT_FALSE(again.Header("ETag").ends_with("-1\"")) << "allocation " << round;
        },
        Port());
  }
}

TEST_F(ServerOutOfMemoryS3, Listing) {
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(S3({"PUT", "/healthy/list/" + std::to_string(i), {}, "x"}).status, 200);
  }
  FailEachS3Reading({"GET", "/healthy?list-type=2&prefix=list%2F", {}, ""}, [](const Reply& reply, int round) {
    EXPECT_EQ(XmlText(reply, "KeyCount"), "20") << "allocation " << round;
  });
}

TEST_F(ServerOutOfMemoryS3, RemovingObjects) {
  FailEach(
      [&](int) {
        EXPECT_EQ(S3({"PUT", "/healthy/s3removed", {}, "content"}).status, 200);
        return Request{"POST", "/healthy?delete=", {}, "<Delete><Object><Key>s3removed</Key></Object></Delete>"};
      },
      [&](const Reply& reply, int round) {
        const bool is_told = reply.body.find("<Deleted>") != std::string::npos;
        const Reply stored = Read("/healthy/s3removed");
        EXPECT_TRUE(stored.status == 404 || (!is_told && stored.body == "content")) << "allocation " << round;
        EXPECT_EQ(CountObjects("s3removed"), stored.status == 200 ? 1 : 0) << "allocation " << round;
      },
      Port());
}

TEST_F(ServerOutOfMemoryS3, CopyingAnObject) {
  const std::string content((4 << 20) + 1, 'f');
  ASSERT_EQ(S3({"PUT", "/healthy/s3from", {}, content}).status, 200);
  const auto key = [](int round) { return "s3to" + std::to_string(round); };
  FailEach(
      [&](int round) {
        return Request{"PUT", "/healthy/" + key(round), {{"x-amz-copy-source", "/healthy/s3from"}}, ""};
      },
      [&](const Reply& reply, int round) {
        ExpectWholeOrNone(reply, key(round), content, round);
        Object({"DELETE", "/healthy/" + key(round) + "?deletefile", {}, ""});
      },
      Port());
}

TEST_F(ServerOutOfMemoryS3, SendingAPart) {
  std::string id;
  std::string path;
  FailEach(
      [&](int round) {
        path = "/healthy/s3part" + std::to_string(round);
        id = Open(path);
        return Part(path, id, "aaaa");
      },
      [&](const Reply& reply, int round) {
        if (reply.status != 200) {
          EXPECT_EQ(S3(Part(path, id, "aaaa")).status, 200) << "allocation " << round;
        }
        EXPECT_EQ(S3(Completion(path, id)).status, 200) << "allocation " << round;
        EXPECT_EQ(Read(path).body, "aaaa") << "allocation " << round;
      },
      Port());
}

TEST_F(ServerOutOfMemoryS3, CompletingAnUpload) {
  std::string id;
  std::string path;
  FailEach(
      [&](int round) {
        path = "/healthy/s3completed" + std::to_string(round);
        id = Open(path);
        EXPECT_EQ(S3(Part(path, id, "aaaa")).status, 200);
        return Completion(path, id);
      },
      [&](const Reply& reply, int round) {
        ExpectWholeOrNone(reply, "s3completed" + std::to_string(round), "aaaa", round);
        EXPECT_EQ(S3(Completion(path, id)).status, 200) << "a client asks again, allocation " << round;
        EXPECT_EQ(Read(path).body, "aaaa") << "allocation " << round;
      },
      Port());
}

}  // namespace
}  // namespace Tansy::Tests
