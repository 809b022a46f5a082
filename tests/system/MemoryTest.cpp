// Tests how much memory clients that do not read can make the server use.
#include <memory>
#include <string>
#include <vector>

#include "support/Program.h"
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

}  // namespace
}  // namespace system_tests
