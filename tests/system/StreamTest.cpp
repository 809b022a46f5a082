// Bodies of more than 10 MiB: uploads in pieces, downloads in chunks.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
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
  std::unique_ptr<CConnection> Open() {
    return CConnection::Open(options_.tls ? server_.GetObjectHttpsPort() : server_.GetObjectPort(), options_);
  }
  // A connection with the head of an upload sent.
  std::unique_ptr<CConnection> BeginUpload(const std::string& target, std::size_t length, const Keys& keys = {},
                                           const HeaderList& more = {}) {
    auto connection = Open();
    Request request{"PUT", target, more, ""};
    request.headers.emplace_back("Content-Length", std::to_string(length));
    if (connection != nullptr) {
      connection->Send(Serialize(Signed(request, keys), server_.GetObjectPort()));
    }
    return connection;
  }
  // A download of which nothing is read.
  std::unique_ptr<CConnection> BeginDownload(const std::string& target, const HeaderList& headers = {}) {
    auto connection = Open();
    if (connection != nullptr) {
      connection->Send(Serialize(Signed({"GET", target, headers, ""}), server_.GetObjectPort()));
    }
    return connection;
  }
  // A signed upload whose body comes in chunks of these sizes, over and over.
  Reply SendChunked(const std::string& target, const std::string& bytes, const std::vector<std::size_t>& sizes) {
    const auto upload = Open();
    const Request request = Signed({"PUT", target, {{"Transfer-Encoding", "chunked"}}, ""});
    std::string text = Serialize(request, server_.GetObjectPort());
    std::size_t turn = 0;
    for (std::size_t at = 0; at < bytes.size(); at += sizes[turn++ % sizes.size()]) {
      const std::string piece = bytes.substr(at, sizes[turn % sizes.size()]);
      char head[32];
      std::snprintf(head, sizeof head, "%zx\r\n", piece.size());
      text += head + piece + "\r\n";
    }
    upload->Send(text + "0\r\n\r\n");
    return upload->Receive();
  }
  int Threads() const {
    std::ifstream status("/proc/" + std::to_string(server_.GetPid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("Threads:", 0) == 0) {
        return std::stoi(line.substr(8));
      }
    }
    return 0;
  }
  // Waits until the server has at most so many threads.
  bool WaitForThreads(int most, seconds patience) const {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (Threads() > most && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return Threads() <= most;
  }

  ConnectOptions options_;
};

// What must be the same with and without encryption.
class StreamSchemeTest : public StreamTest, public testing::WithParamInterface<const char*> {
 protected:
  StreamSchemeTest() { options_.tls = std::string(GetParam()) == "https"; }
};

INSTANTIATE_TEST_SUITE_P(Schemes, StreamSchemeTest, testing::Values("http", "https"),
                         [](const auto& item) { return std::string(item.param); });

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

TEST_P(StreamSchemeTest, ASlowBodyInOddPiecesArrivesWhole) {
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

TEST_P(StreamSchemeTest, ExpectContinueIsAnsweredBeforeTheBody) {
  for (const std::size_t size : {std::size_t{1000}, 11 * kMiB}) {
    const std::string bytes = RandomBytes(size, 9);
    const auto upload = BeginUpload("/b/expect", size, {}, {{"Expect", "100-continue"}});
    EXPECT_EQ(upload->Receive(seconds(30), false, true).status, 100) << size;
    ASSERT_TRUE(upload->Send(bytes));
    EXPECT_EQ(Outcome(upload->Receive()), "200");
    EXPECT_EQ(Get("/b/expect") == bytes, true);
  }
}

// A client that waits for a refusal need not send its body at all.
TEST_P(StreamSchemeTest, ExpectContinueOfARefusedUploadIsAnsweredAfterItsFirstPieceAtTheLatest) {
  Keys wrong;
  wrong.secret_key = "wrong";
  const auto upload = BeginUpload("/b/expect", 100 * kMiB, wrong, {{"Expect", "100-continue"}});
  Reply reply = upload->Receive(seconds(30), false, true);
  if (reply.status == 100) {
    upload->Send(std::string(11 * kMiB, 'x'));
    reply = upload->Receive(seconds(30));
  }
  EXPECT_EQ(Outcome(reply), "403 AccessDenied");
  EXPECT_EQ(StoredBytes(), 0U);
}

TEST_P(StreamSchemeTest, ChunkedBodiesUpToTheWholeLimitAreStored) {
  const std::string bytes = RandomBytes(10 * kMiB, 11);
  EXPECT_EQ(Outcome(SendChunked("/b/chunked", bytes, {1, 1000000, 17, 65536})), "200");
  EXPECT_EQ(Get("/b/chunked") == bytes, true);
  EXPECT_EQ(Outcome(SendChunked("/b/chunked", "", {1})), "200");
  EXPECT_EQ(Send("GET", "/b/chunked?metadata").Header("Object-Size"), "0");
}

TEST_P(StreamSchemeTest, LongerChunkedBodiesAreRefusedForWantOfALength) {
  EXPECT_EQ(SendChunked("/b/chunked", RandomBytes(10 * kMiB + 1, 11), {1000000}).status, 411);
  EXPECT_EQ(Outcome(Send("GET", "/b/chunked")), "404 NoSuchKey");
  EXPECT_EQ(StoredBytes(), 0U);
}

TEST_P(StreamSchemeTest, RefusedUploadsStoreNothing) {
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

TEST_P(StreamSchemeTest, AnUploadThatBreaksOffLeavesNothingVisibleAndNothingStuck) {
  Put("/b/warm-up", std::string(11 * kMiB, 'x'));
  const int threads = Threads();
  for (int i = 0; i < 12; ++i) {
    const auto upload = BeginUpload("/b/broken", 60 * kMiB);
    upload->Send(std::string((1 + static_cast<std::size_t>(i) * 5) * kMiB, 'x'));
    if (i % 2 == 0) {
      upload->Reset();
    }
  }
  EXPECT_EQ(Outcome(Send("GET", "/b/broken")), "404 NoSuchKey");
  const std::string bytes = RandomBytes(13 * kMiB, 1);
  Put("/b/broken", bytes);
  EXPECT_EQ(Get("/b/broken") == bytes, true);
  EXPECT_TRUE(WaitForThreads(threads, seconds(30)));
  // No request is left open that the stop would wait for.
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(server_.Stop());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(10));
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

// A stalled reader of a big answer costs a thread and a chunk until the sending times out after 20 s. A stalled reader
// of a small answer costs the bytes of that answer. Neither of them costs one of the four workers.
TEST_P(StreamSchemeTest, AReaderThatStallsCostsAThreadAndAChunkForAWhileAndNeverAWorker) {
  constexpr int kReaders = 8;
  Put("/b/o", RandomBytes(40 * kMiB, 2));
  EXPECT_EQ(Get("/b/o").size(), 40 * kMiB);
  const int threads = Threads();
  const std::uint64_t memory = server_.GetMemory();
  options_.receive_buffer = 16 * 1024;
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<CConnection>> readers;
  std::vector<std::unique_ptr<CConnection>> small_readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.push_back(BeginDownload("/b/o"));
    small_readers.push_back(BeginDownload("/b/o", {{"Range", "bytes=0-9000000"}}));
  }
  for (int i = 0; i < 20; ++i) {
    const auto sent = std::chrono::steady_clock::now();
    Put("/b/small", "small");
    EXPECT_EQ(Get("/b/small"), "small");
    EXPECT_LT(std::chrono::steady_clock::now() - sent, seconds(10));
  }
  EXPECT_LE(Threads(), threads + kReaders + 1) << "one more may stand in for the worker that waits for the disk";
  EXPECT_LE(server_.GetMemory(), memory + MemoryFor(kReaders * (10 + 10 + 2) * kMiB));
  EXPECT_TRUE(WaitForThreads(threads, seconds(35)));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, seconds(15)) << "a reader that is only slow has its time";
  for (const auto& reader : readers) {
    EXPECT_FALSE(reader->Receive().is_whole);
  }
}

TEST_F(StreamTest, ARangeEndsWithItsObject) {
  const std::string small = RandomBytes(1000, 3);
  Put("/b/small", small);
  for (const char* range : {"bytes=0-1001", "bytes=0-10485760", "bytes=0-10485761", "bytes=0-4294967295"}) {
    const Reply reply = Send("GET", "/b/small", "", {{"Range", range}});
    EXPECT_EQ(reply.status, 200) << range;
    EXPECT_EQ(reply.body == small, true) << range;
  }
  const std::string big = RandomBytes(15 * kMiB, 4);
  Put("/b/big", big);
  const Reply reply = Send("GET", "/b/big", "", {{"Range", "bytes=5-4294967295"}});
  EXPECT_TRUE(reply.is_whole);
  EXPECT_EQ(reply.Header("Content-Length"), std::to_string(big.size() - 5));
  EXPECT_EQ(reply.Header("Content-Range"), "bytes 5-15728640/15728640");
  EXPECT_EQ(reply.body == big.substr(5), true);
}

TEST_F(StreamTest, TheTagStaysOverARestartAndChangesWithTheBytes) {
  Put("/b/o", "first");
  const std::string tag = Send("GET", "/b/o?metadata").Header("ETag");
  EXPECT_EQ(tag.size(), 34U) << tag;
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Send("GET", "/b/o").Header("ETag"), tag);
  Put("/b/o", "other");
  EXPECT_NE(Send("GET", "/b/o").Header("ETag"), tag);
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
  Put("/b/o", std::string(100000, 'x'));
  server_.Stop();
  const std::uintmax_t size = 4294967295U;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
    if (entry.is_regular_file()) {
      std::filesystem::resize_file(entry.path(), size);
    }
  }
  // The catalogue keeps the low 32 bits of a size as a signed number.
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
