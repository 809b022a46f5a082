// The largest object: one byte less than 4 GiB, up with one PUT and down with one GET. No machine's memory or disk is
// asked for that: the storage only looks whether each piece is the one that belongs at its offset, and makes each chunk
// up from its offset.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "ObjectServerFixture.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::CObjectServer;
using CloudStorage::ObjectInfo;

constexpr std::uint32_t kLargest = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kChunk = 10485760;
constexpr std::uint32_t kChunks = 410;
constexpr const char* kLocation = "fs01-largest.d";

// Each piece begins with its offset and is said to be stored when it comes where it belongs.
std::atomic<std::uint64_t> stored_bytes;
std::atomic<int> misplaced_pieces;

int CheckPiece(const char* data, std::uint32_t size, std::uint32_t offset, std::string& location) {
  std::uint64_t marker = 0;
  std::memcpy(&marker, data, sizeof marker);
  misplaced_pieces += marker != offset || offset != stored_bytes ? 1 : 0;
  stored_bytes += size;
  location = kLocation;
  return 0;
}

int MakeChunk(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& /*location*/) {
  data = static_cast<char*>(std::calloc(size, 1));
  const std::uint64_t marker = offset;
  std::memcpy(data, &marker, std::min<std::size_t>(size, sizeof marker));
  return 0;
}

class CObjectServerLargestTest : public CObjectServerTest {
 protected:
  CObjectServerLargestTest() {
    stored_bytes = 0;
    misplaced_pieces = 0;
    CloudStorage::StorageServerConfig_V1 config = Config();
    config.stream_save = &CheckPiece;
    config.read_range = &MakeChunk;
    EXPECT_EQ(server_.Init(config), 0);
  }

  FakeAnswer PutLargest() {
    const std::int32_t handle = http_.NewHandle();
    TansyNet::HttpServerRecv msg = Signed({"PUT", path_, "", "", {}});
    msg.content_length = kLargest;
    std::string piece(kChunk, 'x');
    for (std::uint64_t offset = 0; offset < kLargest; offset += kChunk) {
      std::memcpy(piece.data(), &offset, sizeof offset);
      const std::uint64_t left = kLargest - offset;
      http_.DeliverPiece(handle, &CObjectServer::RecvMsgCallBack, msg, std::string_view(piece).substr(0, left),
                         left <= kChunk);
    }
    return http_.WaitForAnswer(handle, 60000);
  }
  // Follows the chunks of a download from `begin` on.
  void FollowChunks(std::uint64_t begin) {
    next_ = begin;
    misplaced_chunks_ = 0;
    http_.TakeChunks([this](std::string_view chunk) {
      const std::size_t marker_size = std::min(chunk.size(), sizeof next_);
      misplaced_chunks_ += std::memcmp(chunk.data(), &next_, marker_size) != 0 ? 1 : 0;
      next_ += chunk.size();
    });
  }
  FakeAnswer Download(const TansyNet::Headers& headers = {}) {
    const std::int32_t handle = http_.Deliver(&CObjectServer::RecvMsgCallBack, Signed({"GET", path_, "", "", headers}));
    return http_.WaitForAnswer(handle, 60000);
  }

  const std::string bucket_ = NewBucket();
  const std::string path_ = "/" + bucket_ + "/largest";
  std::uint64_t next_ = 0;
  int misplaced_chunks_ = 0;
};

TEST_F(CObjectServerLargestTest, GoesUpAndComesDownWithOneRequestEach) {
  EXPECT_TRUE(IsXml(PutLargest(), ""));
  EXPECT_EQ(stored_bytes, kLargest);
  EXPECT_EQ(misplaced_pieces, 0);
  ObjectInfo object;
  ASSERT_TRUE(catalogue_.GetObjectByName(object, "largest", bucket_));
  EXPECT_EQ(object.size, kLargest);
  EXPECT_EQ(object.url, kLocation);
  EXPECT_EQ(Get(path_, "metadata").response.headers.at("Object-Size"), "4294967295");

  FollowChunks(0);
  FakeAnswer answer = Download();
  EXPECT_TRUE(answer.IsWhole());
  EXPECT_EQ(answer.total_size, kLargest);
  EXPECT_EQ(answer.chunks.size(), kChunks);
  EXPECT_EQ(answer.chunks.back(), kLargest - (kChunks - 1) * kChunk);
  EXPECT_EQ(misplaced_chunks_, 0);
  EXPECT_EQ(answer.response.headers.at("Content-Range"), "bytes 0-4294967295/4294967295");

  // The last chunks, and the very last byte.
  FollowChunks(kLargest - kChunk - 1);
  answer = Download({{"Range", "bytes=" + std::to_string(kLargest - kChunk - 1) + "-"}});
  EXPECT_TRUE(answer.IsWhole());
  EXPECT_EQ(answer.chunks, (std::vector<std::uint32_t>{kChunk, 1}));
  EXPECT_EQ(misplaced_chunks_, 0);
  EXPECT_EQ(Get(path_, "", {{"Range", "bytes=4294967294-4294967295"}}).body_size, 1u);
}

}  // namespace
}  // namespace Tansy::Tests
