#include "ReadCache.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Tansy::Host {
namespace {

using TansyNet::CMemoryAccount;
using TansyNet::CMemoryShare;

ReadBuffer BufferOf(const std::string& bytes) {
  ReadBuffer buffer;
  EXPECT_TRUE(Allocate(buffer, static_cast<std::uint32_t>(bytes.size())));
  std::memcpy(buffer.data.get(), bytes.data(), bytes.size());
  buffer.size = static_cast<std::uint32_t>(bytes.size());
  return buffer;
}

StoredName NameOf(int number) {
  return {"fs01", "abcd", std::to_string(number)};
}

class ReadCacheTest : public testing::Test {
 protected:
  // Gives what is kept of a body's range, or "-".
  std::string Read(const StoredName& name, std::uint64_t offset, std::uint32_t size) {
    ReadBuffer buffer;
    if (!cache_.ReadRange(name, offset, size, buffer, ticket_)) {
      return "-";
    }
    return {buffer.data.get(), buffer.size};
  }
  void Add(const StoredName& name, const std::string& bytes) {
    Read(name, 0, 1);
    cache_.AddBody(name, BufferOf(bytes), ticket_);
  }
  static std::uint64_t Used() { return CMemoryAccount::Process().Used(TansyNet::MemoryUse::kWork); }

  const std::uint64_t used_before_ = Used();
  CReadCache cache_;
  CReadCache::Ticket ticket_;
  const StoredName name_ = NameOf(1);
};

TEST_F(ReadCacheTest, GivesRangesOfWhatItKeeps) {
  EXPECT_EQ(Read(name_, 0, 1), "-");
  Add(name_, "hello");
  EXPECT_EQ(Read(name_, 0, 5), "hello");
  EXPECT_EQ(Read(name_, 1, 3), "ell");
  EXPECT_EQ(Read(name_, 5, 0), "");
  EXPECT_EQ(Read(NameOf(2), 0, 5), "-");
}

// Only the file knows whether the body goes on.
TEST_F(ReadCacheTest, LeavesRangesBeyondWhatItKeepsToTheFile) {
  Add(name_, "hello");
  EXPECT_EQ(Read(name_, 0, 6), "-");
  EXPECT_EQ(Read(name_, 5, 1), "-");
  EXPECT_EQ(Read(name_, UINT64_MAX, 1), "-");
  Add(name_, "hello again");
  EXPECT_EQ(Read(name_, 0, 11), "hello again");
}

TEST_F(ReadCacheTest, ADroppedBodyIsGoneAndGivesItsRoomBack) {
  Add(name_, std::string(1000, 'x'));
  EXPECT_GE(Used(), used_before_ + 1000);
  cache_.Drop(name_.id);
  EXPECT_EQ(Read(name_, 0, 1), "-");
  EXPECT_EQ(Used(), used_before_);
}

// What was read before a removal or a write must not be kept after it.
TEST_F(ReadCacheTest, NothingIsAddedWithATicketFromBeforeADrop) {
  CReadCache::Ticket ticket;
  ReadBuffer buffer;
  EXPECT_FALSE(cache_.ReadRange(name_, 0, 5, buffer, ticket));
  EXPECT_EQ(cache_.FindFile(name_, ticket), nullptr);
  cache_.Drop(name_.id);
  cache_.AddBody(name_, BufferOf("stale"), ticket);
  EXPECT_EQ(Read(name_, 0, 5), "-");
  EXPECT_EQ(Used(), used_before_);
}

TEST_F(ReadCacheTest, LargeBodiesAreNotKept) {
  Add(name_, std::string(65537, 'x'));
  EXPECT_EQ(Read(name_, 0, 1), "-");
  Add(name_, std::string(65536, 'x'));
  EXPECT_EQ(Read(name_, 0, 1), "x");
}

TEST_F(ReadCacheTest, TakesNoMoreThanItsPartOfTheCeilingAndForgetsTheOldest) {
  const std::uint64_t part = CMemoryAccount::Process().Limit() / 16;
  const std::string body(60000, 'x');
  const int count = static_cast<int>(2 * part / body.size());
  for (int i = 0; i < count; ++i) {
    Add(NameOf(i), body);
    ASSERT_EQ(Read(NameOf(i), 0, 1), "x");
    ASSERT_EQ(Read(NameOf(0), 0, 1), "x");  // used all the time, so never the oldest
  }
  EXPECT_LE(Used() - used_before_, part);
  EXPECT_GE(Used() - used_before_, part / 2);
  EXPECT_EQ(Read(NameOf(1), 0, 1), "-");
}

TEST_F(ReadCacheTest, GivesWayWhenMemoryIsShort) {
  Add(name_, "hello");
  CMemoryShare others;
  ASSERT_TRUE(others.Resize(CMemoryAccount::Process().Limit() / 10 * 9));
  Add(NameOf(2), "more");
  EXPECT_EQ(Read(NameOf(2), 0, 4), "-");
  EXPECT_EQ(Read(name_, 0, 5), "-");
  EXPECT_EQ(Used() - used_before_, others.Bytes());
}

// A file that says how many of its kind are open.
class CCountedFile final : public HostSystem::IFile {
 public:
  explicit CCountedFile(int& open) : open_(open) { ++open_; }
  ~CCountedFile() override { --open_; }
  int WriteAt(const char*, std::size_t, std::uint64_t) override { return 0; }
  int ReadAt(char*, std::size_t, std::uint64_t, std::size_t&) override { return 0; }
  int GetSize(std::uint64_t&) override { return 0; }
  void StartWriteOut(std::uint64_t, std::uint64_t) override {}
  int Sync() override { return 0; }

 private:
  int& open_;
};

TEST_F(ReadCacheTest, KeepsABoundedNumberOfFilesOpen) {
  int open = 0;
  for (int i = 0; i < 5000; ++i) {
    EXPECT_EQ(cache_.FindFile(NameOf(i), ticket_), nullptr);
    cache_.AddFile(NameOf(i), std::make_shared<CCountedFile>(open), ticket_);
    EXPECT_NE(cache_.FindFile(NameOf(i), ticket_), nullptr);
  }
  EXPECT_GT(open, 0);
  EXPECT_LE(open, 256);
  for (int i = 0; i < 5000; ++i) {
    cache_.Drop(std::to_string(i));
  }
  EXPECT_EQ(open, 0);
}

TEST_F(ReadCacheTest, ManyThreadsMayUseIt) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this] {
      for (int i = 0; i < 5000; ++i) {
        const StoredName name = NameOf(i % 50);
        CReadCache::Ticket ticket;
        ReadBuffer buffer;
        if (cache_.ReadRange(name, 0, 4, buffer, ticket)) {
          EXPECT_EQ(std::string(buffer.data.get(), buffer.size), "body");
        } else {
          cache_.AddBody(name, BufferOf("body"), ticket);
        }
        if (i % 7 == 0) {
          cache_.Drop(name.id);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
}  // namespace Tansy::Host
