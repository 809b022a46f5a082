// Bodies of more than 10 MiB: uploads in pieces, downloads in chunks.
#include <atomic>
#include <filesystem>
#include <thread>

#include "support/TansydTest.h"

namespace system_tests {
namespace {

using std::chrono::seconds;
using testing::AnyOf;
using testing::HasSubstr;

constexpr std::size_t kMiB = 1024 * 1024;

class StreamTest : public TansydTest {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_https = true;
    ASSERT_TRUE(server_.Start(launch));
    MakeBucket("b");
  }
  std::uintmax_t StoredBytes() {
    std::uintmax_t bytes = 0;
    if (std::filesystem::exists(server_.Data("objects/fs01"))) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
        bytes += entry.is_regular_file() ? entry.file_size() : 0;
      }
    }
    return bytes;
  }
  // A connection with the head of an upload sent.
  std::unique_ptr<CConnection> BeginUpload(const std::string& target, std::size_t length, const Keys& keys = {},
                                           const HeaderList& more = {}) {
    auto connection = CConnection::Open(server_.GetObjectPort());
    Request request{"PUT", target, more, ""};
    request.headers.emplace_back("Content-Length", std::to_string(length));
    if (connection != nullptr) {
      connection->Send(Serialize(Signed(request, keys), server_.GetObjectPort()));
    }
    return connection;
  }
};

TEST_F(StreamTest, ManyUploadsAtOnceArriveWholeOverBothSchemes) {
  std::vector<std::thread> clients;
  for (std::uint64_t c = 0; c < 10; ++c) {
    clients.emplace_back([this, c] {
      ConnectOptions options;
      options.tls = c % 2 == 1;
      const std::string target = "/b/o" + std::to_string(c);
      const std::string bytes = RandomBytes(11 * kMiB + c * 999983, c);
      EXPECT_EQ(Outcome(Send("PUT", target, bytes, {}, options)), "200");
      options.tls = !options.tls;
      const Reply reply = Send("GET", target, "", {}, options);
      EXPECT_TRUE(reply.is_whole);
      EXPECT_EQ(reply.body == bytes, true) << target;
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
}

TEST_F(StreamTest, ASlowBodyInOddPiecesArrivesWhole) {
  const std::string bytes = RandomBytes(10 * kMiB + 12345, 5);
  const auto upload = BeginUpload("/b/slow", bytes.size());
  std::size_t sent = 0;
  std::size_t size = 1;
  while (sent < bytes.size()) {
    ASSERT_TRUE(upload->Send(std::string_view(bytes).substr(sent, size)));
    sent += std::min(size, bytes.size() - sent);
    size = size * 3 % 1000003 + 1;
  }
  EXPECT_EQ(Outcome(upload->Receive()), "200");
  EXPECT_EQ(Get("/b/slow") == bytes, true);
}

TEST_F(StreamTest, OneConnectionStreamsAgainAndAgain) {
  const auto connection = CConnection::Open(server_.GetObjectPort());
  for (std::uint64_t i = 0; i < 3; ++i) {
    const std::string bytes = RandomBytes(11 * kMiB, i);
    const Request request = Signed({"PUT", "/b/again", {}, bytes});
    ASSERT_TRUE(connection->Send(Serialize(request, server_.GetObjectPort())));
    ASSERT_EQ(Outcome(connection->Receive()), "200");
    ASSERT_TRUE(connection->Send(Serialize(Signed({"GET", "/b/again", {}, ""}), server_.GetObjectPort())));
    EXPECT_EQ(connection->Receive().body == bytes, true);
  }
}

TEST_F(StreamTest, ExpectContinueIsAnsweredBeforeTheBody) {
  for (const std::size_t size : {std::size_t{1000}, 11 * kMiB}) {
    const std::string bytes = RandomBytes(size, 9);
    const auto upload = BeginUpload("/b/expect", size, {}, {{"Expect", "100-continue"}});
    EXPECT_EQ(upload->Receive(seconds(30), false, true).status, 100) << size;
    ASSERT_TRUE(upload->Send(bytes));
    EXPECT_EQ(Outcome(upload->Receive()), "200");
    EXPECT_EQ(Get("/b/expect") == bytes, true);
  }
}

TEST_F(StreamTest, ChunkedBodiesAreStoredWholeOrRefused) {
  const std::string bytes = RandomBytes(12 * kMiB, 11);
  const auto upload = CConnection::Open(server_.GetObjectPort());
  const Request request = Signed({"PUT", "/b/chunked", {{"Transfer-Encoding", "chunked"}}, ""});
  std::string text = Serialize(request, server_.GetObjectPort());
  for (std::size_t at = 0; at < bytes.size(); at += 1000000) {
    const std::string piece = bytes.substr(at, 1000000);
    char head[32];
    std::snprintf(head, sizeof head, "%zx\r\n", piece.size());
    text += head + piece + "\r\n";
  }
  upload->Send(text + "0\r\n\r\n");
  const Reply reply = upload->Receive();
  EXPECT_THAT(reply.status, AnyOf(200, 411));
  if (reply.status == 200) {
    EXPECT_EQ(Get("/b/chunked") == bytes, true);
  } else {
    EXPECT_EQ(Outcome(Send("GET", "/b/chunked")), "404 NoSuchKey");
  }
}

TEST_F(StreamTest, RefusedUploadsStoreNothing) {
  Keys wrong;
  wrong.secret_key = "wrong";
  const std::vector<std::pair<std::string, std::string>> rows = {{"/none/o", "404 NoSuchBucket"},
                                                                 {"/b/" + std::string(129, 'k'), "400 KeyTooLong"},
                                                                 {"/b/o/x", "400 URLNotSupport"}};
  for (const auto& [target, outcome] : rows) {
    const auto upload = BeginUpload(target, 50 * kMiB);
    upload->Send(std::string(11 * kMiB, 'x'));
    const Reply reply = upload->Receive(seconds(30));
    EXPECT_THAT(Outcome(reply), AnyOf(outcome, "400 InvalidHttpContent")) << target;
    EXPECT_EQ(StoredBytes(), 0U) << target;
  }
  const auto upload = BeginUpload("/b/o", 50 * kMiB, wrong);
  upload->Send(std::string(11 * kMiB, 'x'));
  EXPECT_EQ(Outcome(upload->Receive(seconds(30))), "403 AccessDenied");
  EXPECT_EQ(StoredBytes(), 0U) << "nobody without a key fills the disk";
  EXPECT_EQ(Outcome(Send("GET", "/b/o")), "404 NoSuchKey");
}

TEST_F(StreamTest, AnUploadThatBreaksOffLeavesNothingVisibleAndNothingStuck) {
  for (int i = 0; i < 6; ++i) {
    const auto upload = BeginUpload("/b/broken", 60 * kMiB);
    upload->Send(std::string((5 + static_cast<std::size_t>(i) * 9) * kMiB, 'x'));
    if (i % 2 == 0) {
      upload->Reset();
    }
  }
  EXPECT_EQ(Outcome(Send("GET", "/b/broken")), "404 NoSuchKey");
  const std::string bytes = RandomBytes(13 * kMiB, 1);
  Put("/b/broken", bytes);
  EXPECT_EQ(Get("/b/broken") == bytes, true);
}

TEST_F(StreamTest, OverwritingWhileReadingGivesOneOrTheOther) {
  const std::string first(12 * kMiB, 'a');
  const std::string second(12 * kMiB, 'b');
  Put("/b/o", first);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; i < 6; ++i) {
      Put("/b/o", i % 2 == 0 ? second : first);
    }
    stop = true;
  });
  while (!stop) {
    const std::string bytes = Get("/b/o");
    EXPECT_TRUE(bytes == first || bytes == second) << bytes.size();
  }
  writer.join();
}

TEST_F(StreamTest, AReaderThatStallsHoldsUpNobody) {
  Put("/b/o", RandomBytes(40 * kMiB, 2));
  ConnectOptions small;
  small.receive_buffer = 16 * 1024;
  std::vector<std::unique_ptr<CConnection>> readers;
  for (int i = 0; i < 8; ++i) {
    readers.push_back(CConnection::Open(server_.GetObjectPort(), small));
    readers.back()->Send(Serialize(Signed({"GET", "/b/o", {}, ""}), server_.GetObjectPort()));
    readers.push_back(CConnection::Open(server_.GetObjectPort(), small));
    readers.back()->Send(
        Serialize(Signed({"GET", "/b/o", {{"Range", "bytes=0-9000000"}}, ""}), server_.GetObjectPort()));
  }
  for (int i = 0; i < 20; ++i) {
    Put("/b/small", "small");
    EXPECT_EQ(Get("/b/small"), "small");
  }
}

TEST_F(StreamTest, BytesThatEndTooSoonCloseTheConnection) {
  Put("/b/o", RandomBytes(25 * kMiB, 2));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
    if (entry.is_regular_file()) {
      std::filesystem::resize_file(entry.path(), 15 * kMiB);
    }
  }
  const Reply reply = Send("GET", "/b/o");
  EXPECT_FALSE(reply.status == 200 && reply.is_whole && reply.body.size() == 25 * kMiB &&
               reply.body.find_first_not_of('\0', 15 * kMiB) != std::string::npos)
      << "nothing may be made up";
  EXPECT_EQ(Outcome(Send("GET", "/")), "200");
}

TEST_F(StreamTest, SparseObjectsBeyondTwoGibibytesSurviveARestart) {
  Put("/b/o", "x");
  server_.Stop();
  const std::uintmax_t size = 4294967295U;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
    if (entry.is_regular_file()) {
      std::filesystem::resize_file(entry.path(), size);
    }
  }
  // As the catalogue keeps it: the low 32 bits, signed.
  Query(server_.Data("catalogue.db"), "UPDATE local_object SET size = -1");
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Send("GET", "/b/o?metadata").Header("Object-Size"), "4294967295");
  const Reply tail = Send("GET", "/b/o", "", {{"Range", "bytes=4294967290-4294967295"}});
  EXPECT_EQ(tail.status, 200);
  EXPECT_EQ(tail.body, std::string(5, '\0'));
  const auto reader = CConnection::Open(server_.GetObjectPort());
  reader->Send(Serialize(Signed({"GET", "/b/o", {}, ""}), server_.GetObjectPort()));
  const std::string head = reader->ReceiveBytes(2000);
  EXPECT_THAT(head, HasSubstr("Content-Length: 4294967295\r\n"));
  EXPECT_THAT(head, HasSubstr("Content-Range: bytes 0-4294967295/4294967295\r\n"));
}

}  // namespace
}  // namespace system_tests
