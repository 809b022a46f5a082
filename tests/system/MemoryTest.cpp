// Tests how much memory clients that do not read, and clients that send much, can make the server use.
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/Program.h"
#include "support/S3Sign.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

class MemoryTest : public TansydTest {};

TEST_F(MemoryTest, ReadersThatStandStillTakeNoMoreThanTheirPartAndOthersAreServed) {
  Launch launch;
  launch.arguments = {"--memory-limit", "256"};
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("b");
  const std::string bytes = RandomBytes(10 * kMebibyte, 1);
  Put("/b/large", bytes);
  Put("/b/small", "small");
  const std::uint64_t before = server_.GetMemory();

  ConnectOptions options;
  options.receive_buffer = 4096;
  std::vector<std::unique_ptr<CConnection>> standing;
  for (int i = 0; i < 80; ++i) {
    auto reader = CConnection::Open(server_.GetObjectPort(), options);
    ASSERT_NE(reader, nullptr);
    ASSERT_TRUE(reader->Send(Serialize(Signed({"GET", "/b/large", {}, ""}), server_.GetObjectPort())));
    standing.push_back(std::move(reader));
    EXPECT_EQ(Get("/b/small"), "small");
    // Half of the ceiling for what is not sent, and what the four workers and the sockets' buffers have at the moment.
    EXPECT_LT(server_.GetMemory(), before + MemoryFor((128 + 80) * kMebibyte)) << "after " << i << " readers";
  }
  EXPECT_TRUE(WaitUntil([&] { return Send("GET", "/b/large").body == bytes; })) << "who stands still loses his place";
}

// A body in chunks has to be decoded, which must not need memory that others hold while they wait for it. Some clients
// announce the length of what they send, others do not.
TEST_F(MemoryTest, ReadersOfS3AndUploadsInChunksShareTheCeilingAndAllUploadsEnd) {
  constexpr std::size_t kLimit = 256 * kMebibyte;
  Launch launch;
  launch.with_s3 = true;
  launch.arguments = {"--memory-limit", "256"};
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("bucket");
  const std::string bytes = RandomBytes(13 * kMebibyte, 1);
  Put("/bucket/large", bytes);
  const std::uint16_t port = server_.GetS3Port();
  ASSERT_EQ(Call(port, S3Signed({"HEAD", "/bucket/large", {}, ""}, port)).status, 200);
  const std::uint64_t before = server_.GetMemory();

  ConnectOptions options;
  options.receive_buffer = 4096;
  std::vector<std::unique_ptr<CConnection>> standing;
  for (int i = 0; i < 100; ++i) {
    auto reader = CConnection::Open(port, options);
    ASSERT_NE(reader, nullptr);
    ASSERT_TRUE(reader->Send(Serialize(S3Signed({"GET", "/bucket/large", {}, ""}, port), port)));
    standing.push_back(std::move(reader));
  }
  const std::string chunks = InChunks(bytes, 65536);
  const std::string around_chunks = Chunk(chunks) + Chunk("") + "\r\n";
  std::atomic<int> chunked_stored{0};
  std::vector<std::thread> writers;
  for (int i = 0; i < 40; ++i) {
    writers.emplace_back([&, i] {
      HeaderList headers = {{"x-amz-decoded-content-length", std::to_string(bytes.size())}};
      if (i % 2 == 1) {
        headers.emplace_back("Transfer-Encoding", "chunked");
      }
      Request request = S3Signed({"PUT", "/bucket/chunked" + std::to_string(i), headers, ""}, port,
                                 {"STREAMING-UNSIGNED-PAYLOAD-TRAILER", 0});
      request.body = i % 2 == 1 ? around_chunks : chunks;
      Reply reply = Call(port, request);
      // Without an announced length nobody knows at first how much room it needs, so it may be refused; clients repeat
      // it.
      for (int again = 0; i % 2 == 1 && reply.status == 503 && again < 100; ++again) {
        reply = Call(port, request);
      }
      chunked_stored += reply.status == 200 ? 1 : 0;
      EXPECT_EQ(reply.status, 200) << i << ": " << reply.body;
    });
  }
  EXPECT_EQ(Send("PUT", "/bucket/plain", bytes).status, 200);
  EXPECT_LT(server_.GetMemory(), before + MemoryFor(kLimit + 100 * kMebibyte));
  for (std::thread& writer : writers) {
    writer.join();
  }
  EXPECT_EQ(chunked_stored, 40);
  EXPECT_LT(server_.GetMemory(), before + MemoryFor(kLimit + 100 * kMebibyte));
  EXPECT_TRUE(Get("/bucket/plain") == bytes);
  EXPECT_TRUE(Get("/bucket/chunked39") == bytes);
}

}  // namespace
}  // namespace system_tests
