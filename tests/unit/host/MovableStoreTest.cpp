#include "MovableStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>

#include "FileStore.h"
#include "StoreMirror.h"
#include "fakes/RandomBytes.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using std::chrono::milliseconds;

class MovableStoreTest : public testing::Test {
 protected:
  MovableStoreTest()
      : old_(OpenFileStore(temp_.Path("old"), false)), new_(OpenFileStore(temp_.Path("new"), false)), store_(old_) {}

  StoredName Save(const std::string& bytes, EContent content = EContent::kObject) {
    StoredName name;
    EXPECT_EQ(store_.SaveWhole(content, bytes.data(), static_cast<std::uint32_t>(bytes.size()), name),
              EStoreResult::kDone);
    return name;
  }
  EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const std::string& bytes) {
    return store_.SaveAt(name, offset, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  }
  static std::string Read(IObjectStore& store, const StoredName& name) {
    ReadBuffer buffer;
    return store.ReadWhole(name, buffer) == EStoreResult::kDone ? std::string(buffer.data.get(), buffer.size)
                                                                : "<none>";
  }
  void Mirror(const std::shared_ptr<IObjectStore>& target) {
    ASSERT_TRUE(store_.HoldWrites(milliseconds(10000)));
    store_.BeginMirror(std::make_unique<CStoreMirror>(target));
    store_.ReleaseWrites();
  }
  // Waits for what the machine's load has made late.
  void ExpectComplete() { EXPECT_TRUE(store_.WaitForMirror(milliseconds(60000))); }
  void Switch() {
    ExpectComplete();
    ASSERT_TRUE(store_.HoldWrites(milliseconds(10000)));
    store_.Switch();
    store_.ReleaseWrites();
  }

  Tests::CTempFolder temp_;
  std::shared_ptr<IObjectStore> old_;
  std::shared_ptr<IObjectStore> new_;
  CMovableStore store_;
};

TEST_F(MovableStoreTest, WhatIsWrittenWhileItMirrorsIsInBothStores) {
  const StoredName before = Save("before");
  Mirror(new_);
  const StoredName small = Save("small");
  const StoredName picture = Save("picture", EContent::kPicture);
  StoredName pieces;
  EXPECT_EQ(SaveAt(pieces, 0, "first "), EStoreResult::kDone);
  EXPECT_EQ(SaveAt(pieces, 6, "second"), EStoreResult::kDone);
  ExpectComplete();
  EXPECT_EQ(Read(*new_, before), "<none>");
  for (IObjectStore* store : {old_.get(), new_.get()}) {
    EXPECT_EQ(Read(*store, small), "small");
    EXPECT_EQ(Read(*store, picture), "picture");
    EXPECT_EQ(Read(*store, pieces), "first second");
  }
  const std::vector<StoredName> pictures = store_.TakeMirroredPictures();
  ASSERT_EQ(pictures.size(), 1U);
  EXPECT_EQ(pictures.front().id, picture.id);
  EXPECT_TRUE(store_.TakeMirroredPictures().empty());
  EXPECT_EQ(store_.Remove(small), EStoreResult::kDone);
  ExpectComplete();
  EXPECT_EQ(Read(*new_, small), "<none>");
  EXPECT_FALSE(store_.HasMirrorFailed());
}

TEST_F(MovableStoreTest, AnUploadThatBeganBeforeIsCopiedWhileItGoesOn) {
  const std::string piece = Tests::RandomBytes(3U << 20U, 1);
  StoredName name;
  EXPECT_EQ(SaveAt(name, 0, piece), EStoreResult::kDone);
  EXPECT_EQ(SaveAt(name, piece.size(), piece), EStoreResult::kDone);
  Mirror(new_);
  std::atomic<bool> is_copied{false};
  std::string whole = piece + piece;
  std::thread writer([&] {
    for (int i = 0; !is_copied || i < 20; ++i) {
      const std::string bytes = Tests::RandomBytes(5000, static_cast<std::uint64_t>(i));
      const std::size_t offset = (static_cast<std::size_t>(i) * 700001) % (whole.size() - bytes.size());
      EXPECT_EQ(SaveAt(name, offset, bytes), EStoreResult::kDone);
      whole.replace(offset, bytes.size(), bytes);
    }
  });
  EXPECT_EQ(store_.CopyToMirror(name), EStoreResult::kDone);
  is_copied = true;
  writer.join();
  ExpectComplete();
  EXPECT_TRUE(Read(*old_, name) == whole);
  EXPECT_TRUE(Read(*new_, name) == whole);
  EXPECT_EQ(store_.CopyToMirror({"fs01", "0000", std::string(32, '0')}), EStoreResult::kMissing);
}

TEST_F(MovableStoreTest, AfterTheSwitchTheNewStoreIsUsedAlone) {
  Mirror(new_);
  const StoredName name = Save("bytes");
  Switch();
  EXPECT_EQ(&store_.Now(), new_.get());
  const StoredName later = Save("later");
  EXPECT_EQ(Read(*old_, later), "<none>");
  EXPECT_EQ(Read(store_, later), "later");
  EXPECT_EQ(store_.Remove(name), EStoreResult::kDone);
  EXPECT_EQ(Read(*old_, name), "bytes") << "the old place stays as it is";
}

TEST_F(MovableStoreTest, AReadGoesOnWhereItBegan) {
  const std::string bytes = Tests::RandomBytes(100000, 1);
  const StoredName name = Save(bytes);  // never copied
  EXPECT_EQ(store_.BeginRead(name), EStoreResult::kDone);
  Mirror(new_);
  Switch();
  ReadBuffer buffer;
  ASSERT_EQ(store_.ReadRange(name, 50000, 10, buffer), EStoreResult::kDone);
  EXPECT_EQ(std::string(buffer.data.get(), buffer.size), bytes.substr(50000, 10));
  store_.EndRead(name);
  EXPECT_EQ(store_.ReadRange(name, 0, 10, buffer), EStoreResult::kMissing);
}

// Stands for a place that is full or away.
class CFailingStore {
 public:
  explicit CFailingStore(const std::string& path) : store(OpenFileStore(path, false)) {
    std::filesystem::remove_all(path);
  }
  std::shared_ptr<IObjectStore> store;
};

TEST_F(MovableStoreTest, AMirrorThatFailsHarmsNoWrite) {
  const CFailingStore failing(temp_.Path("gone"));
  Mirror(failing.store);
  const StoredName name = Save(Tests::RandomBytes(100000, 1));
  ExpectComplete();
  EXPECT_TRUE(store_.HasMirrorFailed());
  EXPECT_NE(Read(store_, name), "<none>");
  store_.EndMirror();
  EXPECT_NE(Read(store_, Save("later")), "<none>");
}

// A store whose writes do not end before the test says so.
class CSilentStore {
 public:
  explicit CSilentStore(const std::shared_ptr<IObjectStore>& store) : held_(std::make_shared<CMovableStore>(store)) {
    EXPECT_TRUE(held_->HoldWrites(milliseconds(0)));
  }
  void Speak() { held_->ReleaseWrites(); }
  std::shared_ptr<IObjectStore> Get() const { return held_; }

 private:
  const std::shared_ptr<CMovableStore> held_;
};

TEST_F(MovableStoreTest, AMirrorThatIsSilentKeepsNoWriteWaitingForLong) {
  CSilentStore silent(new_);
  Mirror(silent.Get());
  std::vector<StoredName> names;
  std::vector<std::thread> writers;
  std::mutex mutex;
  for (std::uint64_t i = 0; i < 40; ++i) {
    writers.emplace_back([&, i] {
      const StoredName name = Save(Tests::RandomBytes(1000, i));
      const std::lock_guard lock(mutex);
      names.push_back(name);
    });
  }
  for (std::thread& writer : writers) {
    writer.join();  // without an answer of the mirror
  }
  StoredName pieces;
  EXPECT_EQ(SaveAt(pieces, 0, "first "), EStoreResult::kDone);
  EXPECT_EQ(SaveAt(pieces, 6, "second"), EStoreResult::kDone);
  EXPECT_EQ(SaveAt(pieces, 6, "SECOND"), EStoreResult::kDone);
  EXPECT_FALSE(store_.WaitForMirror(milliseconds(0)));
  silent.Speak();
  ExpectComplete();
  EXPECT_FALSE(store_.HasMirrorFailed());
  for (const StoredName& name : names) {
    EXPECT_EQ(Read(*new_, name), Read(*old_, name));
  }
  EXPECT_EQ(Read(*new_, pieces), "first SECOND") << "what is late is done in order";
}

TEST_F(MovableStoreTest, AMirrorThatStaysSilentIsGivenUpWhenMuchWaits) {
  CSilentStore silent(new_);
  Mirror(silent.Get());
  const std::string large = Tests::RandomBytes(8U << 20U, 1);
  std::size_t given = 0;
  for (int i = 0; i < 12 && !store_.HasMirrorFailed(); ++i) {
    StoredName name;
    EXPECT_EQ(SaveAt(name, 0, large), EStoreResult::kDone);
    given += large.size();
  }
  EXPECT_TRUE(store_.HasMirrorFailed());
  EXPECT_LE(given, CStoreMirror::kMostBytes + 2 * large.size());
  EXPECT_NE(Read(store_, Save("without it")), "<none>");
  silent.Speak();
  store_.EndMirror();
}

TEST_F(MovableStoreTest, HeldWritesWaitAndReadsDoNot) {
  const StoredName name = Save("bytes");
  ASSERT_TRUE(store_.HoldWrites(milliseconds(0)));
  std::atomic<bool> is_written{false};
  std::thread writer([&] {
    Save("other");
    is_written = true;
  });
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(Read(store_, name), "bytes");
    std::this_thread::yield();
  }
  EXPECT_FALSE(is_written);
  Save("the holder's own");
  store_.ReleaseWrites();
  writer.join();
}

}  // namespace
}  // namespace Tansy::Host
