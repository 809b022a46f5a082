// Objects from their upload to their removal.
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class ObjectTest : public TansydTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    MakeBucket("b");
  }
  std::uintmax_t StoredBytes() {
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
      bytes += entry.is_regular_file() ? entry.file_size() : 0;
    }
    return bytes;
  }
};

TEST_F(ObjectTest, EverySizeComesBackByteForByte) {
  const std::size_t limit = 10485760;
  for (const std::size_t size : {std::size_t{1}, std::size_t{4096}, std::size_t{1000003}, limit - 1, limit, limit + 1,
                                 2 * limit, 2 * limit + 5, 25 * limit / 10}) {
    const std::string bytes = RandomBytes(size, size);
    Put("/b/o", bytes);
    EXPECT_EQ(Get("/b/o") == bytes, true) << size;
    EXPECT_EQ(Send("GET", "/b/o?metadata").Header("Object-Size"), std::to_string(size));
  }
}

TEST_F(ObjectTest, AnEmptyObjectExistsAndHasNothingToRead) {
  Put("/b/empty", "");
  EXPECT_EQ(Send("GET", "/b/empty?metadata").Header("Object-Size"), "0");
  EXPECT_EQ(Outcome(Send("GET", "/b/empty")), "400 InvalidHttpContent");
}

TEST_F(ObjectTest, BigAnswersSayTheirRange) {
  const std::string bytes = RandomBytes(25 * 1024 * 1024, 7);
  Put("/b/o", bytes);
  const Reply whole = Send("GET", "/b/o");
  EXPECT_EQ(whole.Header("Content-Range"), "bytes 0-26214400/26214400");
  EXPECT_EQ(whole.Header("Content-Type"), "application/octet-stream; charset=utf-8");
  EXPECT_EQ(whole.body == bytes, true);
  const Reply part = Send("GET", "/b/o", "", {{"Range", "bytes=1000-20001000"}});
  EXPECT_EQ(part.Header("Content-Range"), "bytes 1000-20001000/26214400");
  EXPECT_EQ(part.body == bytes.substr(1000, 20000000), true);
  EXPECT_EQ(Send("GET", "/b/o", "", {{"Range", "bytes=0-10"}}).Header("Content-Range"), "");
}

TEST_F(ObjectTest, RangesAsTheProtocolReadsThem) {
  Put("/b/o", "0123456789");
  const auto range = [this](const std::string& value) {
    const Reply reply = Send("GET", "/b/o", "", {{"Range", value}});
    return reply.status == 200 ? reply.body : Outcome(reply);
  };
  const std::string invalid = "400 InvalidHttpContent";
  EXPECT_EQ(range("bytes=2-5"), "234") << "the end is exclusive";
  EXPECT_EQ(range("bytes=2-"), "23456789");
  EXPECT_EQ(range("bytes=0-0"), "0123456789");
  EXPECT_EQ(range("lines=2-5"), "234") << "the unit is not looked at";
  EXPECT_EQ(range("bytes=0x2-010"), "234567");
  EXPECT_EQ(range("bytes=x-y"), "0123456789");
  for (const char* value : {"bytes=-5", "bytes", "bytes=5", "bytes=10-", "bytes=11-12", "bytes=5-5", "bytes=6-5",
                            "bytes=4294967295-", "bytes=99999999999999999999-"}) {
    EXPECT_EQ(range(value), invalid) << value;
  }
  // An end beyond the object delivers what there is, and nothing of anybody else's memory.
  const Reply beyond = Send("GET", "/b/o", "", {{"Range", "bytes=8-20"}});
  EXPECT_EQ(beyond.status, 200);
  EXPECT_EQ(beyond.body.substr(0, 2), "89");
  EXPECT_EQ(beyond.body.find_first_not_of('\0', 2), std::string::npos);
}

TEST_F(ObjectTest, KeysUpTo128BytesOfAnyKind) {
  const std::vector<std::string> keys = {
      std::string(128, 'k'), "it's",   "a%20b", "a;b",   "%E4%BD%A0", "..",    "...", "a.d", "-", "a&b=c",
      "\"quoted\"",          "~tilde", "UPPER", "upper", "%00",       "$(id)", "x'--"};
  for (const std::string& key : keys) {
    Put("/b/" + key, "bytes of " + key);
  }
  server_.Stop();
  ASSERT_TRUE(server_.Start());
  for (const std::string& key : keys) {
    EXPECT_EQ(Get("/b/" + key), "bytes of " + key) << key;
  }
  EXPECT_EQ(Outcome(Send("PUT", "/b/" + std::string(129, 'k'), "x")), "400 KeyTooLong");
}

TEST_F(ObjectTest, BucketsOfUnusualNamesWork) {
  for (const std::string& bucket : std::vector<std::string>{"o'brien", "a;b", "%E4", "pool_name:x"}) {
    MakeBucket(bucket);
    Put("/" + bucket + "/o", "in " + bucket);
    EXPECT_EQ(Get("/" + bucket + "/o"), "in " + bucket);
    EXPECT_EQ(Outcome(Send("DELETE", "/" + bucket + "/o?deletefile")), "200");
  }
}

TEST_F(ObjectTest, OverwritingReplacesAndKeepsOneEntry) {
  Put("/b/o", "first");
  Put("/b/o", "second and longer");
  EXPECT_EQ(Get("/b/o"), "second and longer");
  EXPECT_EQ(Query(server_.Data("catalogue.db"), "SELECT COUNT(*) FROM local_object"), std::vector<std::string>{"1"});
  EXPECT_EQ(Query(server_.Data("catalogue.db"), "SELECT COUNT(*) FROM released_bytes"), std::vector<std::string>{"1"});
}

TEST_F(ObjectTest, RemovingLeavesTheBytesAndDeletefileFreesThem) {
  Put("/b/o", std::string(100000, 'x'));
  EXPECT_EQ(Outcome(Send("DELETE", "/b/o")), "200");
  EXPECT_EQ(Outcome(Send("GET", "/b/o")), "404 NoSuchKey");
  EXPECT_EQ(StoredBytes(), 100000U);
  Put("/b/p", std::string(70000, 'x'));
  EXPECT_EQ(StoredBytes(), 170000U);
  EXPECT_EQ(Outcome(Send("DELETE", "/b/p?deletefile")), "200");
  EXPECT_EQ(Outcome(Send("GET", "/b/p")), "404 NoSuchKey");
  EXPECT_EQ(StoredBytes(), 100000U);
}

TEST_F(ObjectTest, BytesThatVanishedAreAnErrorAndNoCrash) {
  Put("/b/o", std::string(100000, 'x'));
  Put("/b/big", std::string(11 * 1024 * 1024, 'x'));
  std::filesystem::remove_all(server_.Data("objects/fs01"));
  EXPECT_EQ(Outcome(Send("GET", "/b/o")), "500 ServerInternalError");
  EXPECT_EQ(Outcome(Send("GET", "/b/big")), "500 ServerInternalError");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/o?deletefile")), "200") << "what is gone is as good as removed";
}

TEST_F(ObjectTest, ASmallObjectThatIsNotWhatWasStoredIsAnErrorAndNoOtherIs) {
  Put("/b/o", "what was stored");
  Put("/b/p", "beside it");
  ASSERT_TRUE(server_.Stop());
  const std::string segment = server_.Data("objects/lg01/00000001.log");
  std::string bytes = Tansy::Tests::ReadFile(segment);
  bytes[bytes.find("what was stored")] ^= 1;
  std::ofstream(segment, std::ios::binary) << bytes;
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Outcome(Send("GET", "/b/o")), "500 ServerInternalError");
  EXPECT_EQ(Get("/b/p"), "beside it");
  ASSERT_TRUE(server_.Stop());
  Launch check;
  check.with_ports = false;
  check.arguments = {"--check"};
  const Ended checked = server_.RunToEnd(check);
  EXPECT_EQ(checked.code, 3);
  EXPECT_THAT(checked.out, AllOf(HasSubstr("damaged /b/o lg01"), HasSubstr(" 1 damaged")));
  ASSERT_TRUE(server_.Start());
  Put("/b/o", "stored anew");
  EXPECT_EQ(Get("/b/o"), "stored anew");
}

TEST_F(ObjectTest, RestartsKeepEverything) {
  const std::string big = RandomBytes(12 * 1024 * 1024, 3);
  Put("/b/small", "small");
  Put("/b/big", big);
  MakeBucket("c");
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(server_.Stop());
    ASSERT_TRUE(server_.Start());
    EXPECT_EQ(Get("/b/small"), "small");
    EXPECT_EQ(Get("/b/big") == big, true);
    EXPECT_THAT(Get("/"), HasSubstr("<TotalNum>2</TotalNum>"));
  }
  EXPECT_EQ(Outcome(Send("DELETE", "/b/small?deletefile")), "200");
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Outcome(Send("GET", "/b/small")), "404 NoSuchKey");
}

TEST_F(ObjectTest, OneConnectionServesManyRequests) {
  const auto connection = CConnection::Open(server_.GetObjectPort());
  ASSERT_NE(connection, nullptr);
  for (int i = 0; i < 50; ++i) {
    const std::string bytes = "bytes " + std::to_string(i);
    ASSERT_TRUE(connection->Send(Serialize(Signed({"PUT", "/b/o", {}, bytes}), server_.GetObjectPort())));
    ASSERT_EQ(Outcome(connection->Receive()), "200");
    ASSERT_TRUE(connection->Send(Serialize(Signed({"GET", "/b/o", {}, ""}), server_.GetObjectPort())));
    ASSERT_EQ(connection->Receive().body, bytes);
  }
}

TEST_F(ObjectTest, ManyClientsAtOnceGetTheirOwnBytes) {
  std::vector<std::thread> clients;
  for (int c = 0; c < 16; ++c) {
    clients.emplace_back([this, c] {
      for (int i = 0; i < 12; ++i) {
        const std::string target = "/b/o" + std::to_string(c) + "-" + std::to_string(i % 3);
        const std::string bytes = RandomBytes(1000 + static_cast<std::size_t>(c * 100 + i), 1);
        EXPECT_EQ(Outcome(Send("PUT", target, bytes)), "200");
        EXPECT_EQ(Send("GET", target).body == bytes, true);
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(Query(server_.Data("catalogue.db"), "SELECT COUNT(*) FROM local_object"), std::vector<std::string>{"48"});
}

TEST_F(ObjectTest, HundredsOfConnectionsAtOnceAreServed) {
  Put("/b/o", "bytes");
  std::vector<std::unique_ptr<CConnection>> connections;
  for (int i = 0; i < 400; ++i) {
    connections.push_back(CConnection::Open(server_.GetObjectPort()));
    ASSERT_NE(connections.back(), nullptr) << i;
  }
  const std::string request = Serialize(Signed({"GET", "/b/o", {}, ""}), server_.GetObjectPort());
  for (int round = 0; round < 3; ++round) {
    for (const auto& connection : connections) {
      ASSERT_TRUE(connection->Send(request));
    }
    for (const auto& connection : connections) {
      ASSERT_EQ(connection->Receive().body, "bytes");
    }
  }
}

// Whichever writer is last, memory and database must agree, and the object must be one of those that were sent.
TEST_F(ObjectTest, ManyWritersOfOneKeyLeaveOneWholeObject) {
  std::vector<std::thread> clients;
  for (int c = 0; c < 8; ++c) {
    clients.emplace_back([this, c] {
      for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(Outcome(Send("PUT", "/b/o", std::string(20000, static_cast<char>('a' + c)))), "200");
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  const std::string before = Get("/b/o");
  EXPECT_EQ(before.size(), 20000U);
  EXPECT_EQ(before.find_first_not_of(before[0]), std::string::npos);
  server_.Stop();
  EXPECT_EQ(Query(server_.Data("catalogue.db"), "SELECT COUNT(*) FROM local_object"), std::vector<std::string>{"1"});
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Get("/b/o") == before, true);
}

TEST_F(ObjectTest, AFullDiskIsToldAndTheNextRequestServed) {
  server_.Stop();
  CTansyd small(temp_.GetPath(), "small");
  Launch launch;
  launch.small_disk = "disk";
  launch.small_disk_bytes = 4 * 1024 * 1024;
  launch.arguments = {"--storage", "file:disk"};
  if (!small.Start(launch) && small.IsSmallDiskMissing()) {
    GTEST_SKIP() << "no file system of its own can be mounted here";
  }
  const auto send = [&small](const std::string& method, const std::string& target, const std::string& body) {
    const Reply reply = Call(small.GetObjectPort(), Signed({method, target, {}, body}));
    if (reply.status == 500) {
      EXPECT_EQ(reply.body, ErrorXml(XmlValue(reply.body, "Code")));
    }
    return Outcome(reply);
  };
  EXPECT_EQ(send("PUT", "/b", "<CreateBucketConfiguration/>"), "200");
  EXPECT_EQ(send("PUT", "/b/fits", std::string(1000000, 'x')), "200");
  EXPECT_EQ(send("PUT", "/b/whole", std::string(6000000, 'x')), "500 NotEnoughSpace");
  EXPECT_EQ(send("PUT", "/b/streamed", std::string(12000000, 'x')), "500 ServerInternalError")
      << "of a streamed upload the reason is not known any more";
  EXPECT_EQ(send("GET", "/b/whole", ""), "404 NoSuchKey");
  EXPECT_EQ(send("GET", "/b/streamed", ""), "404 NoSuchKey");
  EXPECT_EQ(send("PUT", "/b/fits-too", std::string(500000, 'x')), "200") << "a failed upload gives its space back";
  EXPECT_EQ(send("GET", "/b/fits", ""), "200");
}

}  // namespace
}  // namespace system_tests
