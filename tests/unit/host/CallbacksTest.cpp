#include "Callbacks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "FileStore.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

// A store whose every operation ends as the test says.
class CScriptedStore final : public IObjectStore {
 public:
  EStoreResult result = EStoreResult::kDone;
  bool throws = false;

  EStoreResult SaveWhole(EContent, const char*, std::uint32_t, StoredName& name) override { return Answer(name); }
  EStoreResult SaveAt(StoredName& name, std::uint64_t, const char*, std::uint32_t) override { return Answer(name); }
  EStoreResult SaveNamed(const StoredName&, std::uint64_t, const char*, std::uint32_t) override { return result; }
  EStoreResult ReadWhole(const StoredName&, ReadBuffer&) override { return Result(); }
  EStoreResult ReadRange(const StoredName&, std::uint64_t, std::uint32_t, ReadBuffer&) override { return Result(); }
  EStoreResult Look() override { return EStoreResult::kDone; }
  std::uint32_t DownloadChunk() const override { return 0; }
  EStoreResult Remove(const StoredName&) override { return Result(); }
  bool IsPicture(const StoredName& name) const override { return name.volume == "pc01"; }
  EStoreResult BeginRead(const StoredName&) override { return Result(); }
  void EndRead(const StoredName&) override { Result(); }
  bool ForEach(EContent, const std::function<bool(const StoredEntry&)>&) override { return true; }
  EStoreResult RemovePath(const std::string&) override { return Result(); }
  EStoreResult GetSize(const StoredName&, std::uint64_t&) override { return Result(); }
  std::vector<NewBytes> GetNew(std::int64_t) const override { return {}; }
  bool IsNew(const StoredName&) const override { return false; }
  void TouchNew(const std::vector<StoredName>&) override {}
  void ForgetNew(const std::vector<StoredName>&) override {}
  EStoreResult FreeNew(const StoredName&) override { return Result(); }
  bool MakeDurable(const std::vector<std::string_view>&, std::string&) override { return true; }
  void Tidy(const std::function<bool()>&) override {}
  bool LookAgain(std::vector<StoredName>&) override { return true; }

 private:
  EStoreResult Answer(StoredName& name) {
    name = {"fs01", "0000", std::string(32, '0')};
    return Result();
  }
  EStoreResult Result() const {
    if (throws) {
      throw std::bad_alloc();
    }
    return result;
  }
};

const char* const kLocation = "pool_name:b;fs0100-00-00000000000000000000000000000000.d";
const char* const kStoragePath = "fs01\\00\\00\\00000000000000000000000000000000.d";

class CallbacksTest : public testing::Test {
 protected:
  void UseFiles() { RegisterCallbacks(OpenFileStore(temp_.GetPath(), false), config_); }
  std::shared_ptr<CScriptedStore> UseScript() {
    auto store = std::make_shared<CScriptedStore>();
    RegisterCallbacks(store, config_);
    return store;
  }
  std::string Read(const std::string& location, int flag) {
    char* data = nullptr;
    std::uint32_t size = 0;
    if (config_.read_object(data, size, location, flag) != 0) {
      return "<failed>";
    }
    std::string bytes(data, size);
    std::free(data);
    return bytes;
  }
  std::string ReadRange(const std::string& location, std::uint32_t offset, std::uint32_t size) {
    char* data = nullptr;
    if (config_.read_range(data, size, offset, location) != 0) {
      return "<failed>";
    }
    std::string bytes(data, size);
    std::free(data);
    return bytes;
  }

  Tests::CTempFolder temp_;
  CloudStorage::StorageServerConfig config_;
};

TEST_F(CallbacksTest, AnObjectGoesThroughAllFive) {
  UseFiles();
  std::string location = "pool_name:b;";
  ASSERT_EQ(config_.save_object(location, "0123456789", 10, 1), 0);
  EXPECT_THAT(location, testing::MatchesRegex("lg01[0-9a-f]{2}-[0-9a-f]{2}-[0-9a-f]{32}[.]d"));
  const std::string stored = "pool_name:b;" + location;
  EXPECT_EQ(Read(stored, 1), "0123456789");
  EXPECT_EQ(ReadRange(stored, 3, 4), "3456");
  EXPECT_EQ(ReadRange(stored, 8, 4), "89");
  std::string path = "lg01\\" + location.substr(4);
  std::replace(path.begin(), path.end(), '-', '\\');
  EXPECT_EQ(config_.remove_object(path), 0);
  EXPECT_EQ(Read(stored, 1), "<failed>");
}

TEST_F(CallbacksTest, BytesThatAnotherMayHaveByNowAreNotWritten) {
  static bool may_write = true;
  RegisterCallbacks(OpenFileStore(temp_.GetPath(), false), config_, {nullptr, [] { return may_write; }});
  std::string location = "pool_name:b;";
  ASSERT_EQ(config_.stream_save("first", 5, 0, location), 0);
  const std::string stored = "pool_name:b;" + location;
  may_write = false;
  std::string again = stored;
  EXPECT_EQ(config_.stream_save("other", 5, 0, again), 1);
  EXPECT_EQ(Read(stored, 1), "first");
  std::string fresh = "pool_name:b;";
  EXPECT_EQ(config_.stream_save("fresh", 5, 0, fresh), 0) << "nobody else knows of it";
  may_write = true;
  EXPECT_EQ(config_.stream_save("other", 5, 0, again), 0);
  EXPECT_EQ(Read(stored, 1), "other");
}

TEST_F(CallbacksTest, AStreamedObjectBeginsWithAnEmptyText) {
  UseFiles();
  std::string location = "pool_name:b;";
  ASSERT_EQ(config_.stream_save("test", 4, 0, location), 0);
  std::string next = "pool_name:b;" + location;
  ASSERT_EQ(config_.stream_save("more", 4, 4, next), 0);
  EXPECT_EQ(Read("pool_name:b;" + next, 1), "testmore");
  std::string again = "pool_name:b;" + next;
  ASSERT_EQ(config_.stream_save("AB", 2, 3, again), 0);
  EXPECT_EQ(again, next) << "the text stays what it was";
  EXPECT_EQ(Read("pool_name:b;" + next, 1), "tesABore");
}

TEST_F(CallbacksTest, APictureIsFoundByItsAddressInEveryForm) {
  UseFiles();
  std::string url;
  ASSERT_EQ(config_.save_object(url, "jpeg", 4, 0), 0);
  ASSERT_THAT(url, testing::StartsWith("/pic?id=pc01"));
  EXPECT_EQ(Read(url, 0), "jpeg");
  EXPECT_EQ(Read(url + "&Expires=1&AccessKeyId=k&Signature=a;b%3D", 0), "jpeg");
  EXPECT_EQ(Read("pool_name:b;" + url, 1), "jpeg") << "an object record that carries it";
  EXPECT_EQ(ReadRange("pool_name:b;" + url.substr(5), 1, 2), "pe");
}

TEST_F(CallbacksTest, APictureIsRemovedByItsAddressAndAnObjectIsNot) {
  UseFiles();
  std::string url;
  ASSERT_EQ(config_.save_object(url, "jpeg", 4, 0), 0);
  std::string location = "pool_name:b;";
  ASSERT_EQ(config_.save_object(location, "private", 7, 1), 0);
  EXPECT_EQ(config_.remove_object(url), 0);
  EXPECT_EQ(Read(url, 0), "<failed>");
  EXPECT_EQ(config_.remove_object("/pic?id=" + location), -16);
  EXPECT_EQ(Read("pool_name:b;" + location, 1), "private");
}

TEST_F(CallbacksTest, APictureAddressNeverLeadsToAnObject) {
  UseFiles();
  std::string location = "pool_name:b;";
  ASSERT_EQ(config_.save_object(location, "private", 7, 1), 0);
  EXPECT_EQ(Read("/pic?id=" + location, 0), "<failed>");
  EXPECT_EQ(Read("pool_name:b;/pic?id=" + location, 1), "<failed>");
}

TEST_F(CallbacksTest, ForeignTextsAreRefused) {
  UseFiles();
  for (const std::string text : {"", "/etc/passwd", "pool_name:b;/etc/passwd", "pool_name:b;../../x", "/pic?id=../x",
                                 "pool_name:b;", "/pic?", "/pic?id="}) {
    EXPECT_EQ(Read(text, 1), "<failed>") << text;
    EXPECT_EQ(ReadRange(text, 0, 1), "<failed>") << text;
    EXPECT_EQ(config_.remove_object(text), -16) << text;
  }
  std::string location = "pool_name:b;../../x";
  EXPECT_EQ(config_.stream_save("x", 1, 0, location), 1);
}

TEST_F(CallbacksTest, ResultsAreThoseThatTheServerKnows) {
  const std::shared_ptr<CScriptedStore> store = UseScript();
  char* data = nullptr;
  std::uint32_t size = 1;
  const std::pair<EStoreResult, int> rows[] = {{EStoreResult::kNoSpace, 3},
                                               {EStoreResult::kMissing, 1},
                                               {EStoreResult::kDamaged, 1},
                                               {EStoreResult::kInvalid, 1},
                                               {EStoreResult::kFailed, 1}};
  for (const auto& [result, expected] : rows) {
    store->result = result;
    std::string location = "pool_name:b;";
    EXPECT_EQ(config_.save_object(location, "x", 1, 1), expected);
    EXPECT_EQ(location, "pool_name:b;") << "a failure leaves the text alone";
    EXPECT_EQ(config_.stream_save("x", 1, 0, location), expected);
    EXPECT_EQ(config_.read_object(data, size, kLocation, 1), 1);
    EXPECT_EQ(config_.read_range(data, size, 0, kLocation), 1);
    EXPECT_EQ(config_.remove_object(kStoragePath), -16);
  }
}

TEST_F(CallbacksTest, NothingIsThrownIntoTheServer) {
  UseScript()->throws = true;
  std::string location = "pool_name:b;";
  char* data = nullptr;
  std::uint32_t size = 1;
  EXPECT_EQ(config_.save_object(location, "x", 1, 1), 1);
  EXPECT_EQ(config_.stream_save("x", 1, 0, location), 1);
  EXPECT_EQ(config_.read_object(data, size, kLocation, 1), 1);
  EXPECT_EQ(config_.read_range(data, size, 0, kLocation), 1);
  EXPECT_EQ(config_.remove_object(kStoragePath), -16);
}

}  // namespace
}  // namespace Tansy::Host
