// What every store of bytes has to do, tried on each of them.
#include "ObjectStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <thread>

#include "FileStore.h"
#include "RadosPool.h"
#include "RadosStore.h"
#include "StoreFixture.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/CephCluster.h"
#include "fakes/RandomBytes.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

enum class EStore { kFileFull, kFileFast, kRados };

class ObjectStoreTest : public CStoreFixture, public testing::TestWithParam<EStore> {
 protected:
  void SetUp() override {
    std::filesystem::current_path(temp_.GetPath());
    if (GetParam() == EStore::kRados) {
      Tests::CCephCluster& cluster = Tests::CCephCluster::Shared();
      ASSERT_TRUE(ParseRadosUrl(cluster.Url(cluster.NewNamespace()), url_));
      pool_ = std::make_shared<CRadosPool>(url_);
    }
    Reopen();
  }
  void TearDown() override { std::filesystem::current_path(started_in_); }

  // The store as the next start finds it.
  void Reopen(EStoreUse use = EStoreUse::kServe) {
    store_.reset();
    store_ = GetParam() == EStore::kRados ? OpenRadosStore(pool_, use)
                                          : OpenFileStore("objects", GetParam() == EStore::kFileFull, use);
  }

  std::vector<std::string> NewNames() {
    std::vector<std::string> names;
    for (const NewBytes& bytes : store_->GetNew(0)) {
      names.push_back(LocationText(bytes.name));
    }
    return names;
  }

  std::filesystem::path started_in_ = std::filesystem::current_path();
  Tests::CTempFolder temp_;
  RadosUrl url_;
  std::shared_ptr<CRadosPool> pool_;  // null for files
};

TEST_P(ObjectStoreTest, WholeBytesComeBack) {
  for (const EContent content : {EContent::kObject, EContent::kPicture}) {
    for (const std::size_t size : {0U, 1U, 65536U, 65537U, 4U << 20U, (4U << 20U) + 1, (10U << 20U) + 7}) {
      const std::string bytes = Tests::RandomBytes(size, size);
      StoredName name;
      ASSERT_EQ(Save(bytes, name, content), EStoreResult::kDone) << size;
      EXPECT_EQ(store_->IsPicture(name), content == EContent::kPicture);
      EXPECT_TRUE(ReadAll(name) == bytes) << size;
      std::uint64_t stored = 0;
      EXPECT_EQ(store_->GetSize(name, stored), EStoreResult::kDone);
      EXPECT_EQ(stored, size);
    }
  }
}

// A server looks every few seconds.
TEST_P(ObjectStoreTest, LooksWithoutALineInTheLog) {
  const auto log = std::make_shared<Tests::CCapturingLogSink>();
  logging::SetSink(log);
  EXPECT_EQ(store_->Look(), EStoreResult::kDone);
  StoredName name;
  ASSERT_EQ(Save("bytes", name), EStoreResult::kDone);
  EXPECT_EQ(store_->Look(), EStoreResult::kDone);
  logging::SetSink(nullptr);
  EXPECT_THAT(log->Lines(), testing::IsEmpty());
}

// Ranges that begin and end at, before and behind the places where a store may cut.
TEST_P(ObjectStoreTest, RangesOfLongBytesComeBack) {
  constexpr std::uint32_t kMiB = 1U << 20U;
  const std::string bytes = Tests::RandomBytes(std::size_t{9} * kMiB + 5, 1);
  StoredName name;
  ASSERT_EQ(Save(bytes, name), EStoreResult::kDone);
  for (const std::uint32_t begin : {0U, 1U, 4 * kMiB - 1, 4 * kMiB, 4 * kMiB + 1, 8 * kMiB, 9 * kMiB + 4}) {
    for (const std::uint32_t size : {1U, 2U, 4 * kMiB, 4 * kMiB + 1, 9 * kMiB}) {
      EXPECT_TRUE(ReadRange(name, begin, size) == bytes.substr(begin, size)) << begin << "+" << size;
    }
  }
}

// Bytes that come from another store keep the names that they had there.
TEST_P(ObjectStoreTest, NamesOfAnyStoreHoldBytes) {
  const std::vector<std::string> names = {"fs01ab-cd-0123456789abcdef0123456789abcdef.d",
                                          "lg0145-67-0123456789abcdef0123456789abcde0.d",
                                          "rd0100-00-0123456789abcdef0123456789abcde1.d"};
  for (const std::string& text : names) {
    StoredName name;
    ASSERT_TRUE(ParseLocationText(text, name));
    std::uint64_t size = 0;
    EXPECT_EQ(store_->GetSize(name, size), EStoreResult::kMissing) << text;
    const std::string bytes = Tests::RandomBytes((4U << 20U) + 9, 3);
    // The end comes first, as it may with an upload in parts.
    EXPECT_EQ(store_->SaveNamed(name, 4U << 20U, bytes.data() + (4U << 20U), 9), EStoreResult::kDone) << text;
    EXPECT_EQ(store_->SaveNamed(name, 0, bytes.data(), 4U << 20U), EStoreResult::kDone);
    EXPECT_TRUE(store_->IsNew(name)) << "so that it is freed when no row comes to name it";
    EXPECT_FALSE(store_->IsPicture(name));
    Reopen();
    EXPECT_TRUE(ReadAll(name) == bytes) << text;
    EXPECT_EQ(ReadRange(name, 5, 3), bytes.substr(5, 3));
    std::vector<std::string> shown;
    EXPECT_TRUE(store_->ForEach(EContent::kObject, [&](const StoredEntry& entry) {
      shown.push_back(LocationText(entry.name));
      return true;
    }));
    EXPECT_EQ(shown, std::vector<std::string>{text});
    // The notes of what was removed before may still be there.
    EXPECT_THAT(NewNames(), testing::Contains(text));
    store_->ForgetNew({name});
    EXPECT_EQ(store_->BeginRead(name), EStoreResult::kDone);
    EXPECT_EQ(store_->Remove(name), EStoreResult::kDone);
    EXPECT_EQ(ReadRange(name, 5, 3), bytes.substr(5, 3)) << "for the reader";
    store_->EndRead(name);
    EXPECT_EQ(store_->GetSize(name, size), EStoreResult::kMissing) << text;
  }
  EXPECT_EQ(CountStored(), 0U);
}

TEST_P(ObjectStoreTest, PicturesOfAnyStoreArePicturesAndAppearWhole) {
  for (const std::string volume : {"pc01ab-cd-", "rp0100-00-"}) {
    StoredName name;
    ASSERT_TRUE(ParseLocationText(volume + "0123456789abcdef0123456789abcdef.d", name));
    EXPECT_TRUE(store_->IsPicture(name));
    const std::string bytes = Tests::RandomBytes(9U << 20U, 4);
    for (const std::string& content : {std::string("old"), bytes}) {
      EXPECT_EQ(store_->SaveNamed(name, 0, content.data(), static_cast<std::uint32_t>(content.size())),
                EStoreResult::kDone);
      EXPECT_TRUE(ReadAll(name) == content) << volume;
    }
    Reopen();
    EXPECT_TRUE(ReadAll(name) == bytes) << volume;
    for (const NewBytes& left : store_->GetNew(0)) {
      EXPECT_EQ(store_->FreeNew(left.name), EStoreResult::kDone);
    }
    EXPECT_TRUE(ReadAll(name) == bytes) << "no row will ever name it";
    EXPECT_EQ(store_->Remove(name), EStoreResult::kDone);
    EXPECT_EQ(CountStored(), 0U);
  }
}

TEST_P(ObjectStoreTest, SmallBytesOfAnotherStoreAndOwnOnesDoNotGetInEachOthersWay) {
  StoredName own;
  ASSERT_EQ(Save("own", own), EStoreResult::kDone);
  StoredName other{"lg01", "0001", "00000001000000000123456789abcdef"};
  EXPECT_EQ(store_->SaveNamed(other, 0, "other", 5), EStoreResult::kDone);
  Reopen();
  EXPECT_EQ(ReadAll(own), "own");
  EXPECT_EQ(ReadAll(other), "other");
  store_->ForgetNew({own, other});
  EXPECT_TRUE(NewNames().empty());
  EXPECT_EQ(store_->Remove(other), EStoreResult::kDone);
  EXPECT_EQ(ReadAll(own), "own");
  EXPECT_EQ(store_->Remove(own), EStoreResult::kDone);
  EXPECT_EQ(CountStored(), 0U);
}

// As the parts of an upload come: in any order, some of them twice, several at once.
TEST_P(ObjectStoreTest, PartsAtOffsetsMakeOneWhole) {
  constexpr std::size_t kPart = 3000001;
  constexpr std::size_t kParts = 8;
  const std::string bytes = Tests::RandomBytes(kPart * kParts - 17, 2);
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0, "test"), EStoreResult::kDone);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 4; ++t) {
    threads.emplace_back([this, t, &bytes, own = name]() mutable {
      for (const std::size_t part : {kParts - 1 - t, t, kParts - 1 - t}) {
        EXPECT_EQ(SaveAt(own, part * kPart, bytes.substr(part * kPart, kPart)), EStoreResult::kDone);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::uint64_t size = 0;
  ASSERT_EQ(store_->GetSize(name, size), EStoreResult::kDone);
  EXPECT_EQ(size, bytes.size());
  EXPECT_TRUE(ReadAll(name) == bytes);
}

TEST_P(ObjectStoreTest, AWholeChunkThatWasNeverWrittenReadsAsZeros) {
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0, "begin"), EStoreResult::kDone);
  ASSERT_EQ(SaveAt(name, 12U << 20U, "end"), EStoreResult::kDone);
  std::string expected(12U << 20U, '\0');
  expected.replace(0, 5, "begin");
  expected += "end";
  EXPECT_TRUE(ReadAll(name) == expected);
  EXPECT_TRUE(ReadRange(name, 5U << 20U, 1U << 20U) == std::string(1U << 20U, '\0'));
}

TEST_P(ObjectStoreTest, NothingIsLeftOfWhatWasRemoved) {
  StoredName name;
  ASSERT_EQ(Save(std::string(9U << 20U, 'x'), name), EStoreResult::kDone);
  ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
  EXPECT_EQ(CountStored(), 0U);
  EXPECT_THAT(NewNames(), testing::IsEmpty());
  ASSERT_EQ(Save(std::string(9U << 20U, 'y'), name), EStoreResult::kDone);
  ASSERT_EQ(store_->RemovePath(FilePath(name)), EStoreResult::kDone);
  EXPECT_EQ(CountStored(), 0U);
}

TEST_P(ObjectStoreTest, BytesAreNewUntilTheyAreForgotten) {
  StoredName whole;
  StoredName parts;
  StoredName picture;
  ASSERT_EQ(Save(kLargeBytes, whole), EStoreResult::kDone);
  ASSERT_EQ(SaveAt(parts, 0, "test"), EStoreResult::kDone);
  ASSERT_EQ(Save("jpeg", picture, EContent::kPicture), EStoreResult::kDone);
  EXPECT_THAT(NewNames(), testing::UnorderedElementsAre(LocationText(whole), LocationText(parts)));
  store_->ForgetNew({whole});
  EXPECT_FALSE(store_->IsNew(whole));
  EXPECT_THAT(NewNames(), testing::ElementsAre(LocationText(parts)));

  Reopen();
  EXPECT_THAT(NewNames(), testing::Contains(LocationText(parts)));
  for (const NewBytes& left : store_->GetNew(3600)) {
    EXPECT_TRUE(left.failed) << "what an earlier run was writing has failed";
  }
  store_->ForgetNew({whole});  // a restart may have forgotten that a row names it
  EXPECT_EQ(store_->FreeNew(parts), EStoreResult::kDone);
  EXPECT_EQ(store_->FreeNew(picture), EStoreResult::kDone);
  EXPECT_THAT(NewNames(), testing::IsEmpty());
  EXPECT_EQ(CountStored(), 2U);
  EXPECT_EQ(ReadAll(whole), kLargeBytes);
  EXPECT_EQ(ReadAll(picture), "jpeg");
}

TEST_P(ObjectStoreTest, ALookSeesWhatAnotherStoreIsWriting) {
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0, "test"), EStoreResult::kDone);
  const std::unique_ptr<IObjectStore> serving = std::move(store_);
  Reopen(EStoreUse::kLook);
  std::vector<StoredName> names;
  ASSERT_TRUE(store_->LookAgain(names));
  ASSERT_EQ(names.size(), 1U);
  EXPECT_EQ(names[0], name);
  EXPECT_FALSE(store_->IsNew(name));
  EXPECT_EQ(ReadAll(name), "test");
}

TEST_P(ObjectStoreTest, TheWalkShowsEverythingOnce) {
  std::map<std::string, std::uint64_t> expected;
  for (const std::size_t size : {0U, 5U, 65537U, 5U << 20U, 9U << 20U}) {
    for (const EContent content : {EContent::kObject, EContent::kPicture}) {
      StoredName name;
      ASSERT_EQ(Save(std::string(size, 'w'), name, content), EStoreResult::kDone);
      expected[FilePath(name)] = size;
    }
  }
  std::map<std::string, std::uint64_t> shown;
  for (const EContent content : {EContent::kObject, EContent::kPicture}) {
    EXPECT_TRUE(store_->ForEach(content, [&](const StoredEntry& entry) {
      EXPECT_TRUE(shown.emplace(entry.path, entry.size).second) << entry.path << " twice";
      EXPECT_EQ(FilePath(entry.name), entry.path);
      EXPECT_EQ(entry.content, content);
      EXPECT_FALSE(entry.is_temporary || entry.is_damaged);
      return true;
    }));
  }
  EXPECT_EQ(shown, expected);
}

TEST_P(ObjectStoreTest, EverySaveHasANameOfItsOwn) {
  std::set<std::string> names;
  for (int i = 0; i < 50; ++i) {
    StoredName name;
    ASSERT_EQ(Save("same", name), EStoreResult::kDone);
    names.insert(LocationText(name));
  }
  EXPECT_EQ(names.size(), 50U);
}

TEST_P(ObjectStoreTest, WhatWasReadBeforeAWriteIsReadAnew) {
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0, "first bytes"), EStoreResult::kDone);
  EXPECT_EQ(ReadRange(name, 0, 11), "first bytes");
  ASSERT_EQ(SaveAt(name, 0, "other"), EStoreResult::kDone);
  EXPECT_EQ(ReadRange(name, 0, 11), "other bytes");
  ASSERT_EQ(SaveAt(name, 11, " and more"), EStoreResult::kDone);
  EXPECT_EQ(ReadRange(name, 0, 100), "other bytes and more");
}

TEST_P(ObjectStoreTest, WhatWasReadBeforeARemovalIsGone) {
  for (const std::size_t size : {std::size_t{5}, std::size_t{200000}}) {
    StoredName name;
    const std::string bytes(size, 'x');
    ASSERT_EQ(Save(bytes, name), EStoreResult::kDone);
    EXPECT_EQ(ReadRange(name, 0, static_cast<std::uint32_t>(size)), bytes);
    EXPECT_EQ(ReadAll(name), bytes);
    ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
    EXPECT_EQ(ReadRange(name, 0, 5), "<unreadable>");
    EXPECT_EQ(ReadAll(name), "<unreadable>");
  }
}

TEST_P(ObjectStoreTest, BytesAtOffsetsLeaveHolesThatReadAsZeros) {
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0, "test"), EStoreResult::kDone);
  const StoredName first = name;
  ASSERT_EQ(SaveAt(name, 8, "tail"), EStoreResult::kDone);
  ASSERT_EQ(SaveAt(name, 0, "HE"), EStoreResult::kDone);
  EXPECT_EQ(name, first);
  EXPECT_EQ(ReadAll(name), std::string("HEst\0\0\0\0tail", 12));
}

TEST_P(ObjectStoreTest, OffsetsNearFourGibibytesWork) {
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0xFFFFFFF0ULL, "0123456789"), EStoreResult::kDone);
  ReadBuffer buffer;
  ASSERT_EQ(store_->ReadRange(name, 0xFFFFFFF2ULL, 4, buffer), EStoreResult::kDone);
  EXPECT_EQ(std::string(buffer.data.get(), buffer.size), "2345");
}

TEST_P(ObjectStoreTest, RangesEndWithTheObject) {
  for (const std::size_t padding : {std::size_t{0}, kLargeBytes.size()}) {
    StoredName name;
    ASSERT_EQ(Save(std::string(padding, 'p') + "0123456789", name), EStoreResult::kDone);
    ReadBuffer buffer;
    ASSERT_EQ(store_->ReadRange(name, padding + 2, 3, buffer), EStoreResult::kDone);
    EXPECT_EQ(std::string(buffer.data.get(), buffer.size), "234");
    ASSERT_EQ(store_->ReadRange(name, padding + 8, 100, buffer), EStoreResult::kDone);
    EXPECT_EQ(std::string(buffer.data.get(), buffer.size), "89");
    ASSERT_EQ(store_->ReadRange(name, padding + 100, 5, buffer), EStoreResult::kDone);
    EXPECT_EQ(buffer.size, 0U);
    EXPECT_NE(buffer.data, nullptr) << "nothing to read is no failure to read";
    ASSERT_EQ(store_->ReadRange(name, 0xFFFFFFFFULL, 5, buffer), EStoreResult::kDone);
    EXPECT_EQ(buffer.size, 0U);
  }
}

TEST_P(ObjectStoreTest, RemovedBytesAreGoneAndRemovingAgainIsFine) {
  for (const std::string& bytes : {std::string("x"), kLargeBytes}) {
    StoredName name;
    ASSERT_EQ(Save(bytes, name), EStoreResult::kDone);
    EXPECT_EQ(store_->Remove(name), EStoreResult::kDone);
    EXPECT_EQ(store_->Remove(name), EStoreResult::kDone);
    ReadBuffer buffer;
    std::uint64_t size = 0;
    EXPECT_EQ(store_->ReadWhole(name, buffer), EStoreResult::kMissing);
    EXPECT_EQ(store_->ReadRange(name, 0, 1, buffer), EStoreResult::kMissing);
    EXPECT_EQ(store_->GetSize(name, size), EStoreResult::kMissing);
  }
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0, "test"), EStoreResult::kDone);
  ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
  EXPECT_EQ(SaveAt(name, 0, "x"), EStoreResult::kMissing) << "a part of a removed object makes no new one";
}

TEST_P(ObjectStoreTest, NamesOfOtherVolumesAreInvalid) {
  StoredName name = {"zz99", "0000", std::string(32, '0')};
  ReadBuffer buffer;
  std::uint64_t size = 0;
  EXPECT_EQ(store_->ReadWhole(name, buffer), EStoreResult::kInvalid);
  EXPECT_EQ(store_->ReadRange(name, 0, 1, buffer), EStoreResult::kInvalid);
  EXPECT_EQ(SaveAt(name, 0, "x"), EStoreResult::kInvalid);
  EXPECT_EQ(store_->Remove(name), EStoreResult::kInvalid);
  EXPECT_EQ(store_->GetSize(name, size), EStoreResult::kInvalid);
}

TEST_P(ObjectStoreTest, ManyThreadsAtOnceKeepTheirBytesApart) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 20; ++i) {
        const std::string bytes = std::to_string(t) + ":" + std::to_string(i) + (i % 2 == 0 ? kLargeBytes : "");
        StoredName name;
        ASSERT_EQ(Save(bytes, name, i % 3 == 0 ? EContent::kPicture : EContent::kObject), EStoreResult::kDone);
        ASSERT_EQ(ReadAll(name), bytes);
        if (i % 5 == 0) {
          ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(CountStored(), 8U * 16U);
}

TEST_P(ObjectStoreTest, OneObjectIsReadWhileItIsWrittenAtOffsets) {
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0, std::string(100000, 'a')), EStoreResult::kDone);
  std::thread writer([this, name]() mutable {
    for (int i = 0; i < 20; ++i) {
      SaveAt(name, static_cast<std::uint64_t>(i) * 5000, std::string(5000, 'b'));
    }
  });
  for (int i = 0; i < 20; ++i) {
    const std::string bytes = ReadAll(name);
    EXPECT_EQ(bytes.size(), 100000U);
    EXPECT_EQ(bytes.find_first_not_of("ab"), std::string::npos);
  }
  writer.join();
  EXPECT_EQ(ReadAll(name), std::string(100000, 'b'));
}

TEST_P(ObjectStoreTest, AReaderReadsToTheLastByteWhateverIsRemoved) {
  for (const std::size_t padding : {std::size_t{0}, kLargeBytes.size()}) {
    StoredName name;
    ASSERT_EQ(Save(std::string(padding, 'p') + "0123456789", name), EStoreResult::kDone);
    ASSERT_EQ(store_->BeginRead(name), EStoreResult::kDone);
    ASSERT_EQ(store_->BeginRead(name), EStoreResult::kDone);
    ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
    store_->Tidy({});
    EXPECT_EQ(CountStored(), 0U);
    ReadBuffer buffer;
    for (int readers = 2; readers > 0; --readers) {
      ASSERT_EQ(store_->ReadRange(name, padding + 5, 5, buffer), EStoreResult::kDone) << readers;
      EXPECT_EQ(std::string(buffer.data.get(), buffer.size), "56789");
      store_->EndRead(name);
    }
    EXPECT_EQ(store_->ReadRange(name, 5, 5, buffer), EStoreResult::kMissing) << "the last reader has let go of it";
    EXPECT_EQ(store_->BeginRead(name), EStoreResult::kMissing);
  }
}

TEST_P(ObjectStoreTest, TheWalkEndsWhenTheVisitorHasSeenEnough) {
  StoredName name;
  for (const std::string& bytes : {std::string("1"), std::string("2"), kLargeBytes, kLargeBytes}) {
    ASSERT_EQ(Save(bytes, name), EStoreResult::kDone);
  }
  for (int most = 1; most <= 4; ++most) {
    int seen = 0;
    EXPECT_TRUE(store_->ForEach(EContent::kObject, [&seen, most](const StoredEntry&) { return ++seen < most; }));
    EXPECT_EQ(seen, most);
  }
}

INSTANTIATE_TEST_SUITE_P(File, ObjectStoreTest, testing::Values(EStore::kFileFull, EStore::kFileFast),
                         [](const auto& item) { return item.param == EStore::kFileFull ? "Full" : "Fast"; });
INSTANTIATE_TEST_SUITE_P(Rados, ObjectStoreTest, testing::Values(EStore::kRados), [](const auto&) { return "Pool"; });

}  // namespace
}  // namespace Tansy::Host
