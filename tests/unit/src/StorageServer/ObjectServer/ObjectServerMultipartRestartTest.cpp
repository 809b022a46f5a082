// Multipart uploads that a restart of the server interrupts: they go on, or they are refused; they never become an
// object with holes.
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <random>

#include "ObjectServerMultipartFixture.h"

namespace Tansy::Tests {
namespace {

namespace fs = std::filesystem;

class CObjectServerMultipartRestartTest : public CObjectServerMultipartFixture {
 protected:
  // What was in memory only is lost; what is in the database and in files is read again.
  void Restart(const std::string& upload_id) {
    catalogue_.RemovePartSizeInfo(upload_id);
    EXPECT_TRUE(catalogue_.Init());
  }
  bool IsLost(const std::string& upload_id) {
    CloudStorage::PartSizeInfo info;
    return catalogue_.GetFirstPartInfo(upload_id, info) && info.is_lost;
  }
  // Expects that the task takes neither a part nor a completion any more.
  void ExpectRefused(const std::string& key, const std::string& upload_id,
                     const std::vector<std::pair<int, std::size_t>>& parts) {
    EXPECT_TRUE(IsLost(upload_id));
    const TaskState before = StateOf(upload_id);
    const std::size_t writes = storage_.Calls("stream").size();
    log_->Clear();
    EXPECT_TRUE(IsError(Complete(key, upload_id, parts), 500, "ServerInternalError"));
    EXPECT_EQ(log_->Count("[%s]GetFirstPartInfo failed, task id:%s.[%s(%d)]", logging::kError), 1u);
    for (int number = 1; number <= 4; ++number) {
      EXPECT_TRUE(IsError(SendPart(key, upload_id, number, "xxxx"), 400, "InvalidHttpContent")) << number;
    }
    EXPECT_TRUE(IsError(Complete(key, upload_id, parts), 500, "ServerInternalError"));
    EXPECT_EQ(storage_.Calls("stream").size(), writes);
    EXPECT_EQ(StateOf(upload_id), before);
    EXPECT_FALSE(HasObject(key));
  }
};

TEST_F(CObjectServerMultipartRestartTest, UploadsGoOnWhereverTheyWereInterrupted) {
  const unsigned first_seed = std::random_device()();
  for (unsigned seed = first_seed; seed != first_seed + 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string key = "k" + std::to_string(seed);
    const std::string upload_id = NewTask(key);
    const std::size_t count = 1 + random() % 6;
    const std::size_t size = 2 + random() % 3000;
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t length = i + 1 == count ? 1 + random() % size : size;
      parts.push_back(Pattern(length, static_cast<std::uint32_t>(random())));
    }
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::shuffle(order.begin(), order.end(), random);
    // Some parts come a second time, with other bytes.
    for (std::size_t again = random() % 3; again > 0; --again) {
      order.insert(order.begin() + static_cast<std::ptrdiff_t>(random() % (order.size() + 1)), random() % count);
    }
    Restart(upload_id);
    for (const std::size_t part : order) {
      parts[part] = Pattern(parts[part].size(), static_cast<std::uint32_t>(random()));
      ASSERT_TRUE(IsXml(SendPart(key, upload_id, static_cast<int>(part) + 1, parts[part]), ""));
      if (random() % 2 == 0) {
        Restart(upload_id);
        ASSERT_FALSE(IsLost(upload_id));
      }
    }
    Restart(upload_id);
    std::vector<std::pair<int, std::size_t>> list;
    std::string whole;
    for (std::size_t i = 0; i < count; ++i) {
      list.emplace_back(static_cast<int>(i) + 1, parts[i].size());
      whole += parts[i];
    }
    ASSERT_TRUE(IsXml(Complete(key, upload_id, list), ""));
    ASSERT_TRUE(Object(key) == whole);
    ASSERT_EQ(FirstPartFiles(), 0u);
  }
}

TEST_F(CObjectServerMultipartRestartTest, TheStateIsTheOneBefore) {
  const std::string upload_id = NewTask("k");
  Restart(upload_id);
  EXPECT_EQ(StateOf(upload_id).first_part, 0u);
  SendPart("k", upload_id, 2, "bbbb");
  TaskState before = StateOf(upload_id);
  Restart(upload_id);
  EXPECT_EQ(StateOf(upload_id), before);
  SendPart("k", upload_id, 3, "c");
  before = StateOf(upload_id);
  EXPECT_EQ(before.part_size, 4u);
  Restart(upload_id);
  EXPECT_EQ(StateOf(upload_id), before);
  SendPart("k", upload_id, 1, "aaaa");
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}, {2, 4}, {3, 1}}), ""));
  EXPECT_EQ(Object("k"), "aaaabbbbc");
}

TEST_F(CObjectServerMultipartRestartTest, AFirstPartThatIsGoneOrNotWholeRefusesEverything) {
  const std::pair<const char*, std::function<void(const fs::path&)>> harms[] = {
      {"gone", [](const fs::path& file) { fs::remove(file); }},
      {"cut", [](const fs::path& file) { fs::resize_file(file, 3); }},
      {"empty", [](const fs::path& file) { fs::resize_file(file, 0); }},
      {"longer", [](const fs::path& file) { fs::resize_file(file, 5); }}};
  for (const auto& [name, harm] : harms) {
    SCOPED_TRACE(name);
    const std::string alone = NewTask(std::string("alone-") + name);
    SendPart(std::string("alone-") + name, alone, 1, "aaaa");
    harm(FirstPartFile(alone, 1));
    Restart(alone);
    ExpectRefused(std::string("alone-") + name, alone, {{1, 4}});

    const std::string upload_id = NewTask(name);
    SendPart(name, upload_id, 2, "bbbb");
    SendPart(name, upload_id, 1, "aaaa");
    harm(FirstPartFile(upload_id, 2));
    Restart(upload_id);
    ExpectRefused(name, upload_id, {{1, 4}, {2, 4}});
    Restart(upload_id);
    ExpectRefused(name, upload_id, {{1, 4}, {2, 4}});
  }
}

TEST_F(CObjectServerMultipartRestartTest, APartSizeThatCannotBeToldRefusesEverything) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  SendPart("k", upload_id, 2, "bb");
  SendPart("k", upload_id, 3, "cc");
  Restart(upload_id);
  ExpectRefused("k", upload_id, {{1, 4}, {2, 2}, {3, 2}});
}

TEST_F(CObjectServerMultipartRestartTest, TwoFilesDoNotTellWhichPartWasFirst) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  SendPart("k", upload_id, 2, "bbbb");
  std::ofstream(FirstPartFile(upload_id, 2)) << "bbbb";
  Restart(upload_id);
  ExpectRefused("k", upload_id, {{1, 4}, {2, 4}});
}

// The server was killed between the file of a first part and its row: the part was never acknowledged.
TEST_F(CObjectServerMultipartRestartTest, AFileWithoutRowIsNoPart) {
  for (const int stale : {1, 3}) {
    const std::string key = "k" + std::to_string(stale);
    const std::string upload_id = NewTask(key);
    fs::create_directories("localstoragetmp");
    std::ofstream(FirstPartFile(upload_id, stale)) << "old!";
    Restart(upload_id);
    EXPECT_TRUE(IsXml(SendPart(key, upload_id, 2, "bbbb"), ""));
    Restart(upload_id);
    EXPECT_TRUE(IsXml(SendPart(key, upload_id, 1, "aaaa"), ""));
    EXPECT_TRUE(IsXml(SendPart(key, upload_id, 3, "c"), ""));
    Restart(upload_id);
    EXPECT_TRUE(IsXml(Complete(key, upload_id, {{1, 4}, {2, 4}, {3, 1}}), "")) << "stale " << stale;
    EXPECT_EQ(Object(key), "aaaabbbbc");
    EXPECT_EQ(FirstPartFiles(), 0u);
  }
}

// A first part is written beside its place and moved there: a crash in between leaves the one that was acknowledged.
TEST_F(CObjectServerMultipartRestartTest, AnUnfinishedFileIsNotTheFirstPart) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  std::ofstream(FirstPartFile(upload_id, 1).string() + ".new") << "AA";
  Restart(upload_id);
  SendPart("k", upload_id, 2, "b");
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}, {2, 1}}), ""));
  EXPECT_EQ(Object("k"), "aaaab");
}

// The part came again with another length. Its file was replaced, and its row could not be replaced.
TEST_F(CObjectServerMultipartRestartTest, AFileThatIsNotWhatTheRowSaysIsNotTakenForIt) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  Database().FailStatementsWith("UPDATE platform.local_object_task");
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 1, "AAAAAA"), 500, "ServerInternalError"));
  Database().Heal();
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}}), 500, "ServerInternalError"));
  EXPECT_FALSE(HasObject("k"));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 1, "AAAAAA"), ""));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 6}}), ""));
  EXPECT_EQ(Object("k"), "AAAAAA");
}

}  // namespace
}  // namespace Tansy::Tests
