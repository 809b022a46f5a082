#include "NewBytesLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "fakes/ManualClock.h"
#include "fakes/PowerCutFolder.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

StoredName Name(char digit) {
  return {"fs01", "abcd", std::string(32, digit)};
}

class NewBytesLogTest : public testing::Test {
 protected:
  NewBytesLogTest() { Restart(); }

  void Restart() {
    int error = 0;
    root_ = HostSystem::OpenFolder(temp_.GetPath(), error);
    log_ = std::make_unique<CNewBytesLog>(*root_);
    EXPECT_EQ(log_->Load(), 0);
  }
  void Store(char digit) {
    ASSERT_EQ(log_->Add(Name(digit)), 0);
    log_->EndWrite(Name(digit), true);
  }
  // First digits of the names that are untouched for so long.
  std::string Untouched(std::int64_t seconds) const {
    std::string digits;
    for (const NewBytes& bytes : log_->GetUntouched(seconds)) {
      digits += bytes.name.id[0];
    }
    std::sort(digits.begin(), digits.end());
    return digits;
  }
  // The notes that are on the disk.
  std::vector<std::string> Pages() const {
    std::vector<HostSystem::FolderEntry> entries;
    EXPECT_EQ(root_->List(entries), 0);
    std::vector<std::string> names;
    for (const HostSystem::FolderEntry& entry : entries) {
      names.push_back(entry.name);
    }
    return names;
  }

  Tests::CManualClock clock_;
  Tests::CTempFolder temp_;
  std::unique_ptr<HostSystem::IFolder> root_;
  std::unique_ptr<CNewBytesLog> log_;
};

TEST_F(NewBytesLogTest, AgesCountFromTheLastWrite) {
  Store('a');
  clock_.Advance(10);
  Store('b');
  log_->BeginWrite(Name('a'));
  clock_.Advance(100);
  EXPECT_EQ(Untouched(0), "b") << "one is being written";
  log_->EndWrite(Name('a'), true);
  EXPECT_EQ(Untouched(1), "b");
  clock_.Advance(1);
  EXPECT_EQ(Untouched(1), "ab");
  log_->Touch({Name('b'), Name('c')});
  EXPECT_EQ(Untouched(1), "a");
}

TEST_F(NewBytesLogTest, AFailedWriteNeedsNoAge) {
  Store('a');
  log_->BeginWrite(Name('a'));
  log_->EndWrite(Name('a'), false);
  EXPECT_EQ(Untouched(1000), "a");
  log_->BeginWrite(Name('a'));
  log_->EndWrite(Name('a'), true);
  EXPECT_EQ(Untouched(1000), "") << "sent again";
}

TEST_F(NewBytesLogTest, WhatIsNotForgottenIsKnownAfterACrash) {
  Store('a');
  ASSERT_EQ(log_->Add(Name('b')), 0);  // dies in the middle of the write
  Store('c');
  log_->Forget(Name('c'));
  Restart();
  EXPECT_EQ(Untouched(1000), "abc") << "what was forgotten a moment ago is looked at once more";
}

TEST_F(NewBytesLogTest, PagesGoWhenAllTheirNamesAreForgotten) {
  Store('a');
  Store('b');
  log_->TurnPage();
  Store('c');
  EXPECT_THAT(Pages(), UnorderedElementsAre("new.1", "new.2"));
  log_->Forget(Name('a'));
  log_->TurnPage();
  EXPECT_THAT(Pages(), UnorderedElementsAre("new.1", "new.2"));
  log_->Forget(Name('b'));
  log_->TurnPage();
  EXPECT_THAT(Pages(), ElementsAre("new.2"));
  Restart();
  EXPECT_EQ(Untouched(0), "c");
  Store('d');
  EXPECT_THAT(Pages(), UnorderedElementsAre("new.2", "new.3")) << "the notes of an earlier run are not written to";
  log_->Forget(Name('c'));
  log_->Forget(Name('d'));
  log_->TurnPage();
  EXPECT_THAT(Pages(), IsEmpty());
  Store('e');
  Restart();
  EXPECT_EQ(Untouched(0), "e");
}

TEST(NewBytesLogPowerTest, ATurnedPageSurvivesAPowerCut) {
  const auto node = std::make_shared<Tests::PowerCutNode>();
  node->is_folder = true;
  Tests::CPowerCutFolder root(node, std::make_shared<Tests::PowerCutPlan>());
  CNewBytesLog log(root);
  ASSERT_EQ(log.Add(Name('a')), 0);
  log.TurnPage();
  ASSERT_EQ(log.Add(Name('b')), 0);
  node->Cut();
  CNewBytesLog next(root);
  ASSERT_EQ(next.Load(), 0);
  EXPECT_TRUE(next.Contains(Name('a')));
  EXPECT_FALSE(next.Contains(Name('b'))) << "too young to have been flushed";
}

TEST_F(NewBytesLogTest, TornLinesAndStrangersNameNothing) {
  temp_.Write("new.1", LocationText(Name('a')) + "\n" + std::string(40, '\0') + "\n../../etc\n" +
                           LocationText(Name('b')) + "\n" + LocationText(Name('c')).substr(0, 20));
  temp_.Write("new.x", LocationText(Name('d')) + "\n");
  temp_.Write("new.02", LocationText(Name('e')) + "\n");
  Restart();
  EXPECT_EQ(Untouched(0), "ab");
  std::vector<StoredName> names;
  EXPECT_EQ(CNewBytesLog::Read(*root_, names), 0);
  EXPECT_THAT(names, ElementsAre(Name('a'), Name('b')));
}

}  // namespace
}  // namespace Tansy::Host
