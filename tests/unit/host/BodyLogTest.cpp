#include "BodyLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <thread>

#include "fakes/FailingAllocation.h"
#include "fakes/ManualClock.h"
#include "fakes/PowerCutFolder.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::string Read(const CBodyLog& log, const StoredName& name) {
  BodyPlace place;
  if (const int error = log.Find(name, place)) {
    return error == ENOENT ? "<missing>" : "<not to be opened>";
  }
  std::string bytes(place.size, '\0');
  std::size_t done = 0;
  if (place.file->ReadAt(bytes.data(), bytes.size(), place.offset, done) != 0 || done < bytes.size()) {
    return "<unreadable>";
  }
  return IsWhole(place, bytes.data()) ? bytes : "<damaged>";
}

// A log in memory, whose power can be cut and whose operations can fail.
class BodyLogTest : public testing::Test {
 protected:
  BodyLogTest() { Reopen(); }

  void Reopen(CBodyLog::EMode mode = CBodyLog::EMode::kFull) {
    plan_ = std::make_shared<Tests::PowerCutPlan>();
    log_.reset();
    folder_ = std::make_unique<Tests::CPowerCutFolder>(root_, plan_);
    log_ = std::make_unique<CBodyLog>(*folder_, mode);
    ASSERT_EQ(log_->Load(), 0);
  }
  void CutPower() {
    root_->Cut();
    Reopen();
  }
  void FailAt(int operation, int error = EIO) {
    plan_->operations = 0;
    plan_->fail_at = operation;
    plan_->error = error;
  }
  StoredName Append(const std::string& body) {
    StoredName name;
    EXPECT_EQ(log_->Append(body, name), 0);
    return name;
  }
  bool MakeDurable(const std::vector<std::string_view>& statements = {}) {
    return log_->MakeDurable(statements, reason_);
  }
  std::string Read(const StoredName& name) { return Host::Read(*log_, name); }
  std::vector<std::string> Bodies() {
    std::vector<std::string> bodies;
    log_->ForEach([&](const StoredEntry& entry) {
      bodies.push_back(entry.is_damaged ? "<damaged>" : Read(entry.name));
      return true;
    });
    return bodies;
  }
  std::vector<StoredName> Unsettled() {
    std::vector<StoredName> names;
    for (const NewBytes& bytes : New()) {
      names.push_back(bytes.name);
    }
    return names;
  }
  std::vector<NewBytes> New(std::int64_t seconds = 0) {
    std::vector<NewBytes> bodies;
    log_->AddUnsettled(seconds, bodies);
    return bodies;
  }
  std::map<std::string, std::shared_ptr<Tests::PowerCutNode>>& Files() { return root_->entries.at("lg01")->entries; }
  std::string& FileBytes(const std::string& name) { return Files().at(name)->bytes; }
  // Counts the segments whose file is open.
  std::size_t OpenFiles() {
    std::size_t count = 0;
    for (const auto& [name, node] : Files()) {
      const auto on_disk = root_->entries.at("lg01")->entries_on_disk.find(name);
      const bool is_on_disk = on_disk != root_->entries.at("lg01")->entries_on_disk.end() && on_disk->second == node;
      count += node.use_count() > (is_on_disk ? 2 : 1) ? 1 : 0;
    }
    return count;
  }
  // Settles everything and lets the log close what a run before has left.
  void SettleAndTidy() {
    for (const StoredName& name : Unsettled()) {
      log_->Settle(name);
    }
    log_->Tidy();
  }
  // A segment with an index that holds these bodies.
  std::vector<StoredName> MakeSealed(const std::vector<std::string>& bodies) {
    std::vector<StoredName> names;
    for (const std::string& body : bodies) {
      names.push_back(Append(body));
    }
    EXPECT_TRUE(MakeDurable());
    Reopen();
    SettleAndTidy();
    return names;
  }

  std::shared_ptr<Tests::PowerCutNode> root_ = [] {
    auto node = std::make_shared<Tests::PowerCutNode>();
    node->is_folder = true;
    return node;
  }();
  std::shared_ptr<Tests::PowerCutPlan> plan_;
  std::unique_ptr<Tests::CPowerCutFolder> folder_;
  std::unique_ptr<CBodyLog> log_;
  std::string reason_;
};

TEST_F(BodyLogTest, BodiesOfEverySizeComeBackAlsoAfterARestart) {
  std::map<std::string, StoredName> names;
  for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 4096U, kLongestSmallBody}) {
    const std::string body(size, static_cast<char>('a' + size % 26));
    names[body] = Append(body);
  }
  for (int run = 0; run < 3; ++run) {
    for (const auto& [body, name] : names) {
      EXPECT_EQ(Read(name), body) << run;
    }
    EXPECT_EQ(Bodies().size(), names.size());
    Reopen();
    SettleAndTidy();  // by its index the next time
  }
}

TEST_F(BodyLogTest, NamesAreLocationsThatParseAndLeadNowhereElse) {
  const StoredName name = Append("body");
  StoredName parsed;
  ASSERT_TRUE(ParseLocationText(LocationText(name), parsed)) << LocationText(name);
  EXPECT_EQ(parsed, name);
  EXPECT_EQ(name.volume, "lg01");
  for (const std::size_t digit : {3U, 12U, 20U, 31U}) {  // of the segment, the key and the nonce
    StoredName other = name;
    other.id[digit] = other.id[digit] == '0' ? '1' : '0';
    EXPECT_EQ(Read(other), "<missing>") << digit;
  }
  StoredName elsewhere = name;
  elsewhere.folder = "ffff";
  EXPECT_EQ(Read(elsewhere), "<missing>");
}

TEST_F(BodyLogTest, WhatWasMadeDurableSurvivesAPowerCutAndNothingElseIsPromised) {
  const StoredName first = Append("first");
  const StoredName second = Append("second");
  ASSERT_TRUE(MakeDurable());
  const StoredName third = Append("third");
  CutPower();
  EXPECT_EQ(Read(first), "first");
  EXPECT_EQ(Read(second), "second");
  EXPECT_EQ(Read(third), "<missing>");
  const StoredName fourth = Append("fourth");
  ASSERT_TRUE(MakeDurable());
  CutPower();
  EXPECT_EQ(Read(first), "first");
  EXPECT_EQ(Read(fourth), "fourth");
}

TEST_F(BodyLogTest, OneFlushServesAllAndNoneIsMadeForNothing) {
  Append("first");
  ASSERT_TRUE(MakeDurable());
  for (int i = 0; i < 10; ++i) {
    Append("more");
  }
  plan_->operations = 0;
  ASSERT_TRUE(MakeDurable());
  EXPECT_EQ(plan_->operations, 1);
  ASSERT_TRUE(MakeDurable());
  EXPECT_EQ(plan_->operations, 1);
}

// Fails each operation in turn, with a power cut right afterwards.
TEST_F(BodyLogTest, NoFailureOnTheWayHurtsWhatWasDurableBefore) {
  bool done = false;
  for (int fail_at = 0; !done; ++fail_at) {
    ASSERT_LT(fail_at, 50) << "the plan never ran through";
    root_->entries.clear();
    root_->entries_on_disk.clear();
    Reopen();
    const StoredName first = Append("first");
    ASSERT_TRUE(MakeDurable());
    Reopen();  // so that a new segment is begun as well
    FailAt(fail_at);
    StoredName second;
    done = log_->Append("second", second) == 0 && MakeDurable();
    if (!done) {
      EXPECT_THAT(Bodies(), ElementsAre("first")) << "a failed write leaves nothing, operation " << fail_at;
    }
    FailAt(-1);
    const StoredName third = Append("third");
    ASSERT_TRUE(MakeDurable()) << "operation " << fail_at;
    CutPower();
    EXPECT_EQ(Read(first), "first") << "operation " << fail_at;
    EXPECT_EQ(Read(third), "third") << "operation " << fail_at;
    EXPECT_EQ(!done || Read(second) == "second", true);
  }
}

// A write that a full disk cut short leaves a gap in the middle.
TEST_F(BodyLogTest, WhatLiesBehindAGapIsFoundAgain) {
  const StoredName first = Append("first");
  FailAt(0, ENOSPC);
  StoredName cut;
  EXPECT_EQ(log_->Append(std::string(1000, 'c'), cut), ENOSPC);
  EXPECT_TRUE(cut.id.empty());
  FailAt(-1);
  const StoredName last = Append("last");
  EXPECT_TRUE(MakeDurable());
  CutPower();
  EXPECT_EQ(Read(first), "first");
  EXPECT_EQ(Read(last), "last");
  EXPECT_THAT(Bodies(), ElementsAre("first", "last"));
}

TEST_F(BodyLogTest, ATornTailIsCutOffWhereverItIsTorn) {
  const StoredName first = Append("first");
  const StoredName torn = Append("the second body");
  const std::string whole = FileBytes("00000001.log");
  BodyPlace place;
  ASSERT_EQ(log_->Find(torn, place), 0);
  for (std::size_t size = place.offset - BodyFormat::kRecordHeadBytes; size < place.offset + place.size; ++size) {
    FileBytes("00000001.log") = whole.substr(0, size);
    Reopen();
    EXPECT_EQ(Read(first), "first") << size;
    EXPECT_EQ(Read(torn), "<missing>") << size;
    EXPECT_EQ(Read(Append("third")), "third");
    Files().erase("00000002.log");
  }
}

TEST_F(BodyLogTest, ADamagedBodyIsToldFromAWholeOne) {
  const StoredName first = Append("first body");
  const StoredName second = Append("second body");
  std::string& bytes = FileBytes("00000001.log");
  bytes[bytes.find("first")] = 'F';
  EXPECT_EQ(Read(first), "<damaged>");
  EXPECT_EQ(Read(second), "second body");
  for (int run = 0; run < 2; ++run) {
    Reopen();
    EXPECT_EQ(Read(first), "<damaged>") << "it is there, but it is not what was stored";
    EXPECT_THAT(Bodies(), ElementsAre("<damaged>", "second body"));
    SettleAndTidy();
  }
}

// What a client sends must never be taken for a record, whatever it holds.
TEST_F(BodyLogTest, RecordsWithinBodiesAreNotFound) {
  std::string forged;
  BodyFormat::AppendRecord(forged, 0, 48, "forged", BodyFormat::BodyCrc(0, 48, "forged"));
  const StoredName outer = Append(forged + forged);
  std::string& bytes = FileBytes("00000001.log");
  bytes[BodyFormat::kSegmentHeadBytes] = 'X';  // the outer record's head
  Reopen();
  EXPECT_THAT(Bodies(), IsEmpty());
  EXPECT_EQ(Read(outer), "<missing>");
}

// The end of a file says whether it has an index, and a client may have sent these bytes.
TEST_F(BodyLogTest, ABodyThatLooksLikeAnIndexIsNotTakenForOne) {
  const StoredName first = Append("first");
  const std::size_t body_at = FileBytes("00000001.log").size() + BodyFormat::kRecordHeadBytes;
  const std::string before(8, 'x');
  const std::string body =
      before +
      BodyFormat::EncodeIndex({1, 7, 0}, static_cast<std::uint32_t>(body_at + before.size()), {}, std::string_view());
  const StoredName second = Append(body);
  ASSERT_TRUE(FileBytes("00000001.log").ends_with(body));
  Reopen();
  SettleAndTidy();
  EXPECT_EQ(Read(first), "first");
  EXPECT_EQ(Read(second), body);
}

TEST_F(BodyLogTest, ABodyThatFindsNoMemoryIsNotThereAfterwardsOrStillCountsAsNew) {
  const std::string body(100, 'x');
  StoredName name;
  std::vector<StoredName> stored;
  const auto keep_segment = [&] {
    stored.push_back(Append("another one"));
    log_->Settle(stored.back());
  };
  const auto append = [&] {
    name = {};
    log_->Append(body, name);
  };
  keep_segment();
  Tests::FailEachAllocation(append, [&](std::size_t number, bool) {
    if (!name.id.empty()) {
      stored.push_back(name);
    }
    log_->Tidy();
    Reopen();
    const std::vector<StoredName> known = Unsettled();
    log_->ForEach([&](const StoredEntry& entry) {
      EXPECT_TRUE(
          std::count(stored.begin(), stored.end(), entry.name) + std::count(known.begin(), known.end(), entry.name) > 0)
          << "nobody would ever free this one, allocation " << number;
      return true;
    });
    keep_segment();
  });
}

TEST_F(BodyLogTest, AFailedFlushLosesWhatItWasAboutAndNothingElse) {
  const StoredName durable = Append("durable");
  ASSERT_TRUE(MakeDurable());
  const StoredName lost = Append("lost");
  FailAt(0);
  EXPECT_FALSE(MakeDurable());
  EXPECT_THAT(reason_, HasSubstr("not made durable"));
  FailAt(-1);
  EXPECT_EQ(Read(lost), "<missing>");
  EXPECT_EQ(Read(durable), "durable");

  // Its row may come with a later group, and must not be written.
  const std::string row = "INSERT INTO t (url) VALUES ('" + LocationText(lost) + "')";
  EXPECT_TRUE(MakeDurable({"INSERT INTO t (url) VALUES ('" + LocationText(durable) + "')", "DELETE FROM t"}));
  EXPECT_FALSE(MakeDurable({"DELETE FROM t", row}));
  const StoredName next = Append("next");
  EXPECT_NE(next.id.substr(0, 8), lost.id.substr(0, 8)) << "nothing more is added to that segment";
  EXPECT_TRUE(MakeDurable());
  EXPECT_FALSE(MakeDurable({row}));

  const std::vector<NewBytes> unsettled = New();
  EXPECT_TRUE(std::any_of(unsettled.begin(), unsettled.end(), [&lost](const NewBytes& bytes) {
    return bytes.name == lost && bytes.failed;
  })) << "it is given up soon";
  // Its row may come even later than that.
  log_->Remove(lost);
  log_->Remove(durable);
  SettleAndTidy();
  EXPECT_FALSE(MakeDurable({row}));
  EXPECT_TRUE(MakeDurable({"DELETE FROM t"}));
}

TEST_F(BodyLogTest, WhatWasDurableBeforeAFailedFlushOrCameAfterItSurvives) {
  const StoredName durable = Append("durable");
  ASSERT_TRUE(MakeDurable());
  const StoredName lost = Append("lost");
  FailAt(0);
  ASSERT_FALSE(MakeDurable());
  FailAt(-1);
  const StoredName next = Append("next");
  ASSERT_TRUE(MakeDurable());
  log_->Tidy();
  CutPower();
  EXPECT_EQ(Read(lost), "<missing>");
  EXPECT_EQ(Read(durable), "durable");
  EXPECT_EQ(Read(next), "next");
}

TEST_F(BodyLogTest, RemovedBodiesStayRemoved) {
  const StoredName first = Append("first");
  const StoredName second = Append("second");
  log_->Remove(first);
  log_->Remove(first);
  EXPECT_EQ(Read(first), "<missing>");
  Reopen();
  EXPECT_EQ(Read(first), "<missing>");
  EXPECT_EQ(Read(second), "second");
  SettleAndTidy();
  Reopen();
  EXPECT_EQ(Read(first), "<missing>") << "the index says so";
  const StoredName third = MakeSealed({"third", "fourth"})[0];
  log_->Remove(third);
  log_->Remove(second);
  Reopen();
  EXPECT_EQ(Read(third), "<missing>") << "it was removed after the index had been written";
  EXPECT_THAT(Bodies(), ElementsAre("fourth"));
}

TEST_F(BodyLogTest, ALostOrDamagedIndexIsMadeUpForByASearch) {
  const std::vector<StoredName> names = MakeSealed({"first", "second"});
  const std::string sealed = FileBytes("00000001.log");
  const std::size_t index = sealed.find("BODYINDX") - 2 * (BodyFormat::kIndexEntryBytes + 1);
  for (std::size_t at = index; at < sealed.size(); ++at) {
    FileBytes("00000001.log") = sealed.substr(0, at);
    Reopen();
    EXPECT_THAT(Bodies(), ElementsAre("first", "second")) << "cut off at " << at;
    FileBytes("00000001.log") = sealed;
    FileBytes("00000001.log")[at] ^= 0x10;
    Reopen();
    EXPECT_THAT(Bodies(), ElementsAre("first", "second")) << "damaged at " << at;
  }
}

// A power failure may keep any part of what was not flushed, and leave anything in the place of the rest.
TEST_F(BodyLogTest, AnIndexOfWhichAPartDidNotReachTheDiskRemovesNothing) {
  constexpr std::size_t kSector = 512;
  std::vector<std::string> bodies;
  for (int i = 0; i < 2000; ++i) {
    bodies.push_back(std::to_string(i));
  }
  MakeSealed(bodies);
  const std::shared_ptr<Tests::PowerCutNode> file = Files().at("00000001.log");
  const std::string whole = file->bytes;
  const std::size_t flushed = file->bytes_on_disk.size();
  ASSERT_NE(whole.find("BODYINDX"), std::string::npos);
  ASSERT_LT(flushed, whole.size()) << "nothing could be lost";
  for (std::size_t sector = flushed / kSector * kSector; sector < whole.size(); sector += kSector) {
    file->bytes = whole;
    for (std::size_t at = std::max(sector, flushed); at < std::min(sector + kSector, whole.size()); ++at) {
      file->bytes[at] = BodyFormat::kDead;
    }
    Reopen();
    EXPECT_EQ(Bodies().size(), bodies.size()) << "sector at " << sector;
  }
}

TEST_F(BodyLogTest, WhatIsRemovedWhileTheIndexIsWrittenStaysRemoved) {
  const StoredName first = Append("first");
  const StoredName second = Append("second");
  ASSERT_TRUE(MakeDurable());
  Reopen();
  plan_->during_sync = [&] { log_->Remove(second); };
  SettleAndTidy();
  ASSERT_NE(FileBytes("00000001.log").find("BODYINDX"), std::string::npos);
  Reopen();
  EXPECT_EQ(Read(first), "first");
  EXPECT_EQ(Read(second), "<missing>");
}

TEST_F(BodyLogTest, AnIndexReplacesADamagedHead) {
  MakeSealed({"first", "second"});
  FileBytes("00000001.log")[0] = 'X';
  Reopen();
  EXPECT_THAT(Bodies(), ElementsAre("first", "second"));
}

TEST_F(BodyLogTest, AFileInWhichNothingIsFoundIsShownAndLeftAlone) {
  Append("body");
  FileBytes("00000001.log")[0] = 'X';
  Reopen();
  std::vector<std::string> paths;
  log_->ForEach([&paths](const StoredEntry& entry) {
    EXPECT_TRUE(entry.is_damaged);
    EXPECT_TRUE(entry.name.id.empty());
    paths.push_back(entry.path);
    return true;
  });
  EXPECT_THAT(paths, ElementsAre("lg01/00000001.log"));
  log_->Tidy();
  EXPECT_EQ(Files().count("00000001.log"), 1U);
  EXPECT_EQ(Append("next").id.substr(0, 8), "00000002");
}

TEST_F(BodyLogTest, ASegmentWhoseMakingWasCutShortIsRemoved) {
  for (const std::size_t size : {0U, 20U, BodyFormat::kSegmentHeadBytes}) {
    Append("body");
    Files().begin()->second->bytes = std::string(size, '\0');
    Reopen();
    EXPECT_THAT(Files(), IsEmpty()) << size;
  }
}

// A disk that is broken for a moment may refuse the removal too. The next body must not stumble over what is left.
TEST_F(BodyLogTest, AFileThatCouldNotBeMadeIsInNobodysWay) {
  constexpr int kHead = 3;  // behind the log's folder, its sync and the file
  FailAt(kHead);
  StoredName name;
  EXPECT_EQ(log_->Append("refused", name), EIO);
  EXPECT_THAT(Files(), IsEmpty());
  Files()["00000001.log"] = std::make_shared<Tests::PowerCutNode>();
  const StoredName next = Append("taken");
  EXPECT_TRUE(MakeDurable());
  CutPower();
  EXPECT_EQ(Read(next), "taken");
}

TEST_F(BodyLogTest, NewBodiesAreKnownOverRestartsUntilTheyAreSettled) {
  Tests::CManualClock clock;
  const StoredName first = Append("first");
  const StoredName second = Append("second");
  const StoredName third = Append("third");
  clock.Advance(10);
  EXPECT_EQ(New(10).size(), 3U);
  EXPECT_EQ(New(11).size(), 0U);
  EXPECT_EQ(New().front().untouched_seconds, 10);
  EXPECT_FALSE(New().front().failed);
  log_->Settle(first);
  log_->Settle(third);
  EXPECT_FALSE(log_->IsUnsettled(first));
  EXPECT_TRUE(log_->IsUnsettled(second));
  log_->Tidy();
  Reopen();
  EXPECT_THAT(Unsettled(), UnorderedElementsAre(second, third)) << "the third is behind one that was not settled";
  EXPECT_TRUE(New().front().failed) << "whoever wrote it is gone";
  log_->Settle(second);
  log_->Remove(third);
  log_->Tidy();
  Reopen();
  EXPECT_THAT(Unsettled(), IsEmpty());
  EXPECT_EQ(Read(second), "second");
}

TEST_F(BodyLogTest, ASegmentFullOfUnsettledBodiesDoesNotWaitForEverForItsIndex) {
  std::vector<StoredName> names;
  for (int run = 0; run < 12; ++run) {
    names.push_back(Append("body " + std::to_string(run)));
    Reopen();
  }
  log_->Tidy();
  std::size_t sealed = 0;
  for (const auto& [name, node] : Files()) {
    sealed += node->bytes.find("BODYINDX") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(sealed, 4U) << "all but eight";
  Reopen();
  EXPECT_EQ(Unsettled().size(), names.size()) << "the index remembers who is not settled";
}

TEST_F(BodyLogTest, SegmentsInWhichNothingIsLeftGo) {
  const std::vector<StoredName> names = MakeSealed({"first", "second"});
  const StoredName active = Append("third");
  for (const StoredName& name : {names[0], names[1], active}) {
    log_->Remove(name);
  }
  log_->Tidy();
  EXPECT_THAT(Files(), IsEmpty());
  root_->Cut();
  EXPECT_THAT(Files(), IsEmpty()) << "for good";
  EXPECT_EQ(Read(Append("again")), "again");
}

// What is kept for long may leave a few bodies in each of very many segments.
TEST_F(BodyLogTest, HoweverManySegmentsThereAreOnlySomeAreOpen) {
  constexpr std::size_t kSegments = 700;
  constexpr std::size_t kMostOpen = 520;
  const auto body = [](std::size_t number) { return "body " + std::to_string(number); };
  std::vector<StoredName> names;
  for (std::size_t i = 0; i < kSegments; ++i) {
    names.push_back(Append(body(i)));
    Append("another body");
    Reopen();
  }
  SettleAndTidy();
  EXPECT_LE(OpenFiles(), kMostOpen);
  Reopen();
  EXPECT_LE(OpenFiles(), kMostOpen);
  BodyPlace held;
  ASSERT_EQ(log_->Find(names[1], held), 0);
  for (std::size_t i = 0; i < kSegments; ++i) {
    EXPECT_EQ(Read(names[i]), body(i));
  }
  EXPECT_LE(OpenFiles(), kMostOpen);
  EXPECT_EQ(Bodies().size(), 2 * kSegments);

  FailAt(0, EMFILE);
  EXPECT_EQ(Read(names[0]), "<not to be opened>") << "which is not the same as missing";
  EXPECT_EQ(Read(names[1]), body(1)) << "somebody reads it, so it is still open";
  EXPECT_EQ(Read(names[0]), body(0));
  for (std::size_t i = 0; i < kSegments; i += 2) {
    log_->Remove(names[i]);
  }
  log_->Tidy();
  EXPECT_LE(OpenFiles(), kMostOpen);
  Reopen();
  for (std::size_t i = 0; i < kSegments; ++i) {
    EXPECT_EQ(Read(names[i]), i % 2 == 0 ? "<missing>" : body(i));
  }
}

TEST_F(BodyLogTest, ARemovalThatFindsNoMemoryToOpenItsSegmentRemovesNothing) {
  const StoredName name = MakeSealed({"body", "another body"})[0];
  Tests::CPowerCutFolder files(root_->entries.at("lg01"), plan_);
  SegmentFolder folder(files);
  std::shared_ptr<CBodySegment> segment;
  ASSERT_EQ(CBodySegment::Open(folder, 1, CBodySegment::EOpen::kServe, segment), 0);
  BodyId id;
  ASSERT_TRUE(ParseBodyId(name, id));
  bool is_removed = false;
  const auto remove = [&] {
    segment->CloseFile();
    EXPECT_EQ(folder.open, 0U);
    segment->Remove(id.key);
    is_removed = true;
  };
  Tests::FailEachAllocation(remove, [&](std::size_t number, bool) {
    BodyPlace place;
    EXPECT_EQ(segment->Find(id.key, place), is_removed ? ENOENT : 0) << "allocation " << number;
  });
  EXPECT_TRUE(is_removed);
}

// A file that somebody kept open would hold its space.
TEST_F(BodyLogTest, ASegmentThatIsGoneIsNotKeptOpen) {
  for (const CBodyLog::EMode mode : {CBodyLog::EMode::kFull, CBodyLog::EMode::kFast}) {
    Reopen(mode);
    const StoredName name = Append("body");
    if (mode == CBodyLog::EMode::kFull) {
      ASSERT_TRUE(MakeDurable());
    }
    ASSERT_EQ(Files().size(), 1U);
    const std::weak_ptr<Tests::PowerCutNode> file = Files().begin()->second;
    log_->Remove(name);
    log_->Tidy();
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_TRUE(file.expired()) << (mode == CBodyLog::EMode::kFull ? "full" : "fast");
  }
}

TEST_F(BodyLogTest, SegmentsThatAreMostlyGapsAreWrittenAnew) {
  const std::vector<StoredName> names = MakeSealed({"kept one", std::string(5000, 'r'), "kept two"});
  BodyPlace before;
  ASSERT_EQ(log_->Find(names[2], before), 0);
  log_->Remove(names[1]);
  log_->Tidy([] { return true; });
  EXPECT_GT(FileBytes("00000001.log").size(), 5000U) << "a stop does not wait for that";
  log_->Tidy();
  EXPECT_LT(FileBytes("00000001.log").size(), 500U);
  EXPECT_EQ(Read(names[0]), "kept one");
  EXPECT_EQ(Read(names[1]), "<missing>");
  EXPECT_EQ(Read(names[2]), "kept two");
  std::string bytes(before.size, '\0');
  std::size_t done = 0;
  EXPECT_EQ(before.file->ReadAt(bytes.data(), bytes.size(), before.offset, done), 0);
  EXPECT_EQ(bytes, "kept two") << "who reads at the old place reads on";
  for (const bool cut : {false, true}) {
    cut ? CutPower() : Reopen();
    EXPECT_THAT(Bodies(), ElementsAre("kept one", "kept two"));
    EXPECT_THAT(Unsettled(), IsEmpty());
  }
  FileBytes("00000001.log").resize(FileBytes("00000001.log").size() - 1);  // no index
  Reopen();
  EXPECT_EQ(Read(names[2]), "kept two") << "names stay where bodies move";
  log_->Remove(names[0]);
  log_->Remove(names[2]);
  log_->Tidy();
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(BodyLogTest, TidyingThatIsInterruptedAnywhereLosesNothing) {
  for (const bool is_removed_last : {false, true}) {
    bool done = false;
    for (int fail_at = 0; !done; ++fail_at) {
      ASSERT_LT(fail_at, 50) << "the plan never ran through";
      root_->entries.clear();
      root_->entries_on_disk.clear();
      Reopen();
      const std::vector<StoredName> names = MakeSealed({"kept one", std::string(5000, 'r'), "kept two"});
      const StoredName other = MakeSealed({"in another segment"})[0];
      log_->Remove(names[1]);
      if (is_removed_last) {
        log_->Remove(names[0]);
        log_->Remove(names[2]);
      }
      FailAt(fail_at, ENOSPC);
      log_->Tidy();
      done = plan_->operations <= fail_at;
      for (const bool cut : {false, true}) {
        cut ? CutPower() : Reopen();
        SCOPED_TRACE("operation " + std::to_string(fail_at) + (cut ? ", power cut" : ", restart"));
        EXPECT_EQ(Read(other), "in another segment");
        if (!is_removed_last) {
          EXPECT_EQ(Read(names[0]), "kept one");
          EXPECT_EQ(Read(names[2]), "kept two");
        }
        if (!cut) {
          EXPECT_EQ(Read(names[1]), "<missing>");
        }
        log_->Tidy();
        EXPECT_EQ(Files().count("00000001.log.tmp"), 0U);
      }
    }
  }
}

TEST(BodyLogRoomTest, TheRoomOfGapsIsGivenBackOnceNobodyReadsThere) {
  Tests::CTempFolder temp;
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> root = HostSystem::OpenFolder(temp.GetPath(), error);
  ASSERT_NE(root, nullptr);
  const auto room = [&temp] {
    struct stat info = {};
    EXPECT_EQ(::stat(temp.Path("lg01/00000001.log").c_str(), &info), 0);
    return info.st_blocks * 512;
  };
  CBodyLog log(*root, CBodyLog::EMode::kFull);
  ASSERT_EQ(log.Load(), 0);
  const std::string body(60000, 'x');
  std::vector<StoredName> names(20);
  for (StoredName& name : names) {
    ASSERT_EQ(log.Append(body, name), 0);
  }
  std::string reason;
  ASSERT_TRUE(log.MakeDurable({}, reason));
  std::unique_ptr<HostSystem::IFolder> folder;
  ASSERT_EQ(root->OpenFolder("lg01", folder), 0);
  SegmentFolder segment_folder(*folder);
  std::shared_ptr<CBodySegment> segment;
  ASSERT_EQ(CBodySegment::Open(segment_folder, 1, CBodySegment::EOpen::kServe, segment), 0);
  BodyId id;
  BodyPlace read_at;
  for (std::size_t i = 1; i < names.size(); ++i) {
    ASSERT_TRUE(ParseBodyId(names[i], id));
    ASSERT_EQ(segment->Find(id.key, read_at), 0);
    ASSERT_TRUE(segment->Remove(id.key));
  }
  segment->FreeGaps();
  EXPECT_GE(room(), 1200000) << "somebody still reads a removed body";
  read_at = {};
  segment->FreeGaps();
  EXPECT_LT(room(), 100000);
  ASSERT_TRUE(ParseBodyId(names[0], id));
  BodyPlace place;
  ASSERT_EQ(segment->Find(id.key, place), 0);
  EXPECT_EQ(Read(log, names[0]) == body, true);
  CBodyLog again(*root, CBodyLog::EMode::kFull);
  ASSERT_EQ(again.Load(), 0);
  EXPECT_EQ(Read(again, names[0]) == body, true);
  EXPECT_EQ(Read(again, names[1]), "<missing>");
}

TEST(BodyLogRoomTest, ADiskWithoutRoomForACopyStillGetsTheRoomOfGaps) {
  Tests::CTempFolder temp;
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> root = HostSystem::OpenFolder(temp.GetPath(), error);
  ASSERT_NE(root, nullptr);
  const auto look = [&temp] {
    struct stat info = {};
    EXPECT_EQ(::stat(temp.Path("lg01/00000001.log").c_str(), &info), 0);
    return info;
  };
  const auto plan = std::make_shared<Tests::PowerCutPlan>();
  Tests::CPowerCutFolder disk(std::make_shared<Tests::PowerCutNode>(), plan);
  CStoreRoom room(disk);
  CBodyLog log(*root, CBodyLog::EMode::kFull, &room);
  ASSERT_EQ(log.Load(), 0);
  const std::string body(60000, 'x');
  std::vector<StoredName> names(30);
  for (StoredName& name : names) {
    ASSERT_EQ(log.Append(body, name), 0);
    log.Settle(name);
  }
  std::string reason;
  ASSERT_TRUE(log.MakeDurable({}, reason));
  const auto file = look().st_ino;
  for (std::size_t i = 1; i < names.size(); ++i) {
    log.Remove(names[i]);
  }
  plan->room = 1;
  log.Tidy();  // closes the segment
  log.Tidy();
  EXPECT_EQ(look().st_ino, file) << "a copy would take the last room";
  EXPECT_LT(look().st_blocks * 512, 100000);
  EXPECT_EQ(Read(log, names[0]) == body, true);
  plan->room = std::uint64_t{1} << 39;
  log.Tidy();
  EXPECT_NE(look().st_ino, file) << "with room again, it is written anew";
  EXPECT_EQ(Read(log, names[0]) == body, true);
}

TEST(BodyLogRoomTest, WhenRoomIsShortSmallGapsAreGivenBackToo) {
  Tests::CTempFolder temp;
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> root = HostSystem::OpenFolder(temp.GetPath(), error);
  ASSERT_NE(root, nullptr);
  const auto used = [&temp] {
    struct stat info = {};
    EXPECT_EQ(::stat(temp.Path("lg01/00000001.log").c_str(), &info), 0);
    return info.st_blocks * 512;
  };
  const auto plan = std::make_shared<Tests::PowerCutPlan>();
  Tests::CPowerCutFolder disk(std::make_shared<Tests::PowerCutNode>(), plan);
  CStoreRoom room(disk);
  CBodyLog log(*root, CBodyLog::EMode::kFull, &room);
  ASSERT_EQ(log.Load(), 0);
  std::vector<StoredName> names(60);
  for (std::size_t i = 0; i < names.size(); ++i) {
    ASSERT_EQ(log.Append(std::string(60000, static_cast<char>(i)), names[i]), 0);
    log.Settle(names[i]);
  }
  std::string reason;
  ASSERT_TRUE(log.MakeDurable({}, reason));
  for (std::size_t i = 0; i < names.size(); i += 3) {
    log.Remove(names[i]);
  }
  plan->room = std::uint64_t{1} << 39;
  log.Tidy();
  EXPECT_GT(used(), 3600000) << "as long as there is room, a few gaps are not worth the work";
  plan->room = std::uint64_t{1} << 20;
  log.Tidy();  // closes the segment
  log.Tidy();
  EXPECT_LT(used(), 2600000);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string bytes = Read(log, names[i]);
    EXPECT_EQ(bytes == (i % 3 == 0 ? "<missing>" : std::string(60000, static_cast<char>(i))), true) << i;
  }
  BodyId id;
  StoredName next;
  ASSERT_EQ(log.Append("next", next), 0);
  ASSERT_TRUE(ParseBodyId(next, id));
  EXPECT_EQ(id.segment, 2U);
}

// The end of the process between two steps of writing a segment anew, as the next start finds it.
TEST_F(BodyLogTest, AHalfWrittenCopyIsRemovedAtTheNextStart) {
  const StoredName name = MakeSealed({"body"})[0];
  Files()["00000001.log.tmp"] = std::make_shared<Tests::PowerCutNode>();
  FileBytes("00000001.log.tmp") = "half";
  Reopen();
  EXPECT_EQ(Files().count("00000001.log.tmp"), 0U);
  EXPECT_EQ(Read(name), "body");
}

TEST_F(BodyLogTest, ASegmentTakesALimitedNumberOfRecords) {
  StoredName first = Append("");
  StoredName last;
  for (int i = 0; i < 65536; ++i) {
    ASSERT_EQ(log_->Append("", last), 0);
  }
  EXPECT_EQ(first.id.substr(0, 8), "00000001");
  EXPECT_EQ(last.id.substr(0, 8), "00000002");
  ASSERT_TRUE(MakeDurable()) << "both segments are flushed";
  CutPower();
  EXPECT_EQ(Read(first), "");
  EXPECT_EQ(Read(last), "");
}

TEST_F(BodyLogTest, ALookChangesNothingAndSeesWhatAnotherProcessDoes) {
  const StoredName first = Append("first");
  const std::string before = FileBytes("00000001.log");
  Tests::CPowerCutFolder folder(root_, plan_);
  CBodyLog look(folder, CBodyLog::EMode::kLook);
  ASSERT_EQ(look.Load(), 0);
  EXPECT_EQ(Host::Read(look, first), "first");
  const StoredName second = Append("second");
  EXPECT_EQ(Host::Read(look, second), "<missing>");
  ASSERT_EQ(look.Load(), 0);
  EXPECT_EQ(Host::Read(look, second), "second");
  std::vector<NewBytes> unsettled;
  look.AddUnsettled(0, unsettled);
  EXPECT_EQ(unsettled.size(), 2U);
  EXPECT_TRUE(FileBytes("00000001.log").starts_with(before));
}

TEST(BodyLogThreadsTest, ManyAppendRemoveReadFlushAndTidyAtOnce) {
  Tests::CTempFolder temp;
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> root = HostSystem::OpenFolder(temp.GetPath(), error);
  ASSERT_NE(root, nullptr);
  std::map<std::string, StoredName> kept;
  std::mutex mutex;
  {
    CBodyLog log(*root, CBodyLog::EMode::kFull);
    ASSERT_EQ(log.Load(), 0);
    std::atomic<bool> stop{false};
    std::thread housekeeper([&log, &stop] {
      while (!stop) {
        std::vector<NewBytes> unsettled;
        log.AddUnsettled(0, unsettled);
        for (const NewBytes& bytes : unsettled) {
          log.Settle(bytes.name);
        }
        log.Tidy();
      }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < 6; ++t) {
      writers.emplace_back([&, t] {
        for (int i = 0; i < 150; ++i) {
          const std::string body = std::to_string(t) + ":" + std::to_string(i) + std::string(20000, 'x');
          StoredName name;
          std::string reason;
          ASSERT_EQ(log.Append(body, name), 0);
          ASSERT_EQ(Read(log, name), body);
          if (i % 8 == 0) {
            ASSERT_TRUE(log.MakeDurable({}, reason)) << reason;
          }
          if (i % 5 != 0) {
            log.Remove(name);
            continue;
          }
          const std::lock_guard lock(mutex);
          kept[body] = name;
        }
      });
    }
    for (std::thread& writer : writers) {
      writer.join();
    }
    stop = true;
    housekeeper.join();
  }
  CBodyLog log(*root, CBodyLog::EMode::kFull);
  ASSERT_EQ(log.Load(), 0);
  std::size_t count = 0;
  log.ForEach([&count](const StoredEntry& entry) {
    EXPECT_FALSE(entry.is_damaged);
    return ++count > 0;
  });
  EXPECT_EQ(count, kept.size());
  for (const auto& [body, name] : kept) {
    EXPECT_EQ(Read(log, name) == body, true);
  }
}

}  // namespace
}  // namespace Tansy::Host
