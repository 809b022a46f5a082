// Multipart uploads, request by request.
#include <gmock/gmock.h>

#include "ObjectServerMultipartFixture.h"
#include "StorageServer/ObjectServer/CleanExpiredTaskThread.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "fakes/ManualClock.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::ObjectTaskInfo;
using CloudStorage::PartSizeInfo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
namespace fs = std::filesystem;

constexpr const char* kQueryInvalid = "[%s]query invalid[%s].[%s(%d)]";
constexpr const char* kNumberInvalid = "[%s]query invalid[%s], part num invalid.[%s(%d)]";
constexpr const char* kSaveFailed = "[%s]save file failed[%d].[%s(%d)]";
constexpr const char* kFileFailed = "[%s]save file failed, file_name[%s].[%s(%d)]";
constexpr const char* kRecordFailed = "[%s]save record failed.[%s(%d)]";
constexpr const char* kIllegal = "[%s]task info illegal.[%s(%d)]";

using CObjectServerMultipartTest = CObjectServerMultipartFixture;

TEST_F(CObjectServerMultipartTest, ATaskIsOpened) {
  const CManualClock clock;
  const FakeAnswer answer = Post(Path("k"), "uploads");
  const std::string upload_id = Between(answer.body, "<UploadId>", "</UploadId>");
  EXPECT_EQ(upload_id.size(), 36u);
  EXPECT_TRUE(
      IsXml(answer, Xml("<InitiateMultipartUploadResult><Bucket>" + bucket_ + "</Bucket><Key>k</Key><UploadId>" +
                        upload_id + "</UploadId></InitiateMultipartUploadResult>")));
  const auto calls = storage_.Calls("stream");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].location, "pool_name:" + bucket_ + ";");
  EXPECT_EQ(calls[0].data, "test");
  EXPECT_EQ(calls[0].offset, 0u);
  ObjectTaskInfo task;
  ASSERT_TRUE(catalogue_.GetTaskInfo(upload_id, 1, task));
  EXPECT_EQ(task.size, 0u);
  EXPECT_EQ(task.update_time, "2026-11-03 08:05:09");
  EXPECT_EQ(storage_.Bytes(task.url), "test");
  EXPECT_NE(NewTask("k"), upload_id);
}

TEST_F(CObjectServerMultipartTest, ATaskIsRefused) {
  const std::string long_key(129, 'k');
  EXPECT_TRUE(IsError(SendMessage(Message({"POST", "/none/" + long_key, "uploads", "", {}})), 404, "NoSuchBucket"));
  EXPECT_TRUE(IsError(SendMessage(Message({"POST", Path(long_key), "uploads", "", {}})), 400, "KeyTooLong"));
  EXPECT_TRUE(IsError(SendMessage(Message({"POST", Path("k"), "uploads", "", {}})), 403, "AccessDenied"));
  EXPECT_TRUE(storage_.Calls("stream").empty());
  EXPECT_EQ(Post(Path(std::string(128, 'k')), "uploads").response.status, 200);

  storage_.SetResult("stream", 3);
  EXPECT_TRUE(IsError(Post(Path("k"), "uploads"), 500, "NotEnoughSpace"));
  storage_.SetResult("stream", 2);
  EXPECT_TRUE(IsError(Post(Path("k"), "uploads"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kSaveFailed, logging::kError), 2u);
  storage_.SetResult("stream", 0);
  Database().FailStatementsWith("INSERT INTO platform.local_object_task");
  EXPECT_TRUE(IsError(Post(Path("k"), "uploads"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count("[%s]create task failed.[%s(%d)]", logging::kError), 1u);
}

TEST_F(CObjectServerMultipartTest, PartsTwoOneThree) {
  constexpr std::size_t kPart = 5 << 20;
  const std::string one = Pattern(kPart, 1);
  const std::string two = Pattern(kPart, 2);
  const std::string three = Pattern(2 << 20, 3);
  const std::string upload_id = NewTask("k");

  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 2, two), ""));
  EXPECT_TRUE(Content(FirstPartFile(upload_id, 2)) == two);
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 1, one), ""));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 3, three), ""));
  auto calls = storage_.Calls("stream");
  ASSERT_EQ(calls.size(), 3u);  // the probe, part 1, part 3
  EXPECT_EQ(calls[1].offset, 0u);
  EXPECT_EQ(calls[2].offset, 2 * kPart);
  EXPECT_THAT(calls[2].location, StartsWith("pool_name:" + bucket_ + ";fs01obj-"));

  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, kPart}, {2, kPart}, {3, 2 << 20}}), ""));
  calls = storage_.Calls("stream");
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[3].offset, kPart);
  EXPECT_TRUE(Object("k") == one + two + three);
  EXPECT_EQ(FirstPartFiles(), 0u);
  EXPECT_EQ(StateOf(upload_id), TaskState{});
}

TEST_F(CObjectServerMultipartTest, ASinglePartIsWrittenAtTheBeginning) {
  for (const int number : {1, 7}) {
    const std::string key = "k" + std::to_string(number);
    const std::string upload_id = NewTask(key);
    EXPECT_TRUE(IsXml(SendPart(key, upload_id, number, "only part"), ""));
    EXPECT_EQ(Content(FirstPartFile(upload_id, number)), "only part");
    EXPECT_EQ(storage_.Calls("stream").back().data, "test");
    // Part 1 stands for the task, so the task without it still lists it.
    EXPECT_TRUE(IsXml(Complete(key, upload_id, {{number, 9}}), ""));
    EXPECT_EQ(storage_.Calls("stream").back().offset, 0u);
    EXPECT_EQ(Object(key), "only part");
  }
}

TEST_F(CObjectServerMultipartTest, TheTasksRowsTellItsParts) {
  const CManualClock clock;
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 3, "ccc");
  SendPart("k", upload_id, 1, "aaa");
  SendPart("k", upload_id, 2, "bbb");
  const FakeAnswer answer = List("k", upload_id);
  std::vector<std::string> tags;
  std::string body = "<ListPartsResult><Bucket>" + bucket_ + "</Bucket><Key>k</Key><UploadId>" + upload_id +
                     "</UploadId><TotalNum>3</TotalNum>";
  std::size_t from = 0;
  for (int number = 1; number <= 3; ++number) {
    tags.push_back(Between(answer.body, "<ETag>", "</ETag>", from));
    EXPECT_EQ(tags.back().size(), 36u);
    from = answer.body.find("</ETag>", from) + 1;
    body += "<Part><PartNumber>" + std::to_string(number) + "</PartNumber><PartSize>3</PartSize><ETag>" + tags.back() +
            "</ETag></Part>";
  }
  EXPECT_TRUE(IsXml(answer, Xml(body + "</ListPartsResult>")));
  EXPECT_NE(tags[0], tags[1]);

  const FakeAnswer again = List("k", upload_id);
  EXPECT_NE(Between(again.body, "<ETag>", "</ETag>"), tags[0]);
  ObjectTaskInfo row;
  ASSERT_TRUE(catalogue_.GetTaskInfo(upload_id, 2, row));
  EXPECT_EQ(row.update_time, "2026-11-03 08:05:09");
  EXPECT_EQ(row.object_name, "k");
  EXPECT_EQ(row.bucket_name, bucket_);
}

TEST_F(CObjectServerMultipartTest, PartNumbersThatAreNone) {
  const std::string upload_id = NewTask("k");
  const TaskState before = StateOf(upload_id);
  for (const char* number : {"0", "-1", "x", "-", "%2B-3", "99999999999", "2147483648", "4294967297", ".5", "+"}) {
    log_->Clear();
    EXPECT_TRUE(IsError(SendPart("k", upload_id, std::string(number), "bytes"), 400, "InvalidHttpContent")) << number;
    EXPECT_EQ(log_->Count(kNumberInvalid, logging::kError), 1u) << number;
    EXPECT_EQ(StateOf(upload_id), before) << number;
  }
  log_->Clear();
  EXPECT_TRUE(IsError(SendPart("k", upload_id, std::string(), "bytes"), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kQueryInvalid, logging::kError), 1u);
}

TEST_F(CObjectServerMultipartTest, PartNumbersAsATextStreamReadsThem) {
  const std::string upload_id = NewTask("k");
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, "2abc", "bb"), ""));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, "+1", "aa"), ""));  // a plus sign is a blank in a query
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, "%2B3", "cc"), ""));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, "004", "d"), ""));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 2}, {2, 2}, {3, 2}, {4, 1}}), ""));
  EXPECT_EQ(Object("k"), "aabbccd");
}

TEST_F(CObjectServerMultipartTest, PartsThatAreRefused) {
  const std::string upload_id = NewTask("k");
  const TaskState before = StateOf(upload_id);
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 1, ""), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count("[%s]recv data empty.[%s(%d)]", logging::kError), 1u);

  const std::string query = "upload_id=" + upload_id + "&part_number=1";
  EXPECT_TRUE(IsError(SendMessage(Message({"POST", "/none/k", query, "x", {}})), 404, "NoSuchBucket"));
  EXPECT_TRUE(IsError(SendMessage(Message({"POST", Path("k"), query, "x", {}})), 403, "AccessDenied"));
  EXPECT_EQ(log_->Count("[%s]CheckAuth fail, bucket_name[%s].[%s(%d)]", logging::kError), 1u);
  EXPECT_THAT(log_->Text("[%s]CheckAuth fail, bucket_name[%s].[%s(%d)]"),
              HasSubstr("HandleUploadPartObject]CheckAuth fail, bucket_name[" + bucket_ + "]."));
  EXPECT_TRUE(IsError(Post(Path("k"), "upload_id=&part_number=1", "x"), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(Post(Path("k"), "upload_id=" + upload_id + "&part_num=1", "x"), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(Post(Path("k"), "xupload_id=" + upload_id + "&part_number=1", "x"), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kQueryInvalid, logging::kError), 3u);
  // The key's length is looked at when the task is opened, not here: no such task is the answer.
  EXPECT_TRUE(IsError(SendPart(std::string(129, 'k'), upload_id, 1, "x"), 400, "InvalidHttpContent"));
  EXPECT_EQ(StateOf(upload_id), before);
  EXPECT_EQ(FirstPartFiles(), 0u);
}

TEST_F(CObjectServerMultipartTest, UploadIdsThatAreNoNames) {
  for (const char* id :
       {"../../x", "..", "a/b", "a%2Fb", "%2e%2e%2fx", "a\\b", "a%5Cb", "a.b", "a%20b", "a:b", "a_b", "\xc3\xa4"}) {
    EXPECT_TRUE(IsError(SendPart("k", id, 1, "x"), 400, "InvalidHttpContent")) << id;
    EXPECT_TRUE(IsError(List("k", id), 400, "InvalidHttpContent")) << id;
    EXPECT_TRUE(IsError(Complete("k", id, {{1, 1}}), 400, "InvalidHttpContent")) << id;
  }
  // All of them count as missing.
  EXPECT_EQ(log_->Count(kQueryInvalid, logging::kError), 3u * 12u);
  EXPECT_EQ(FirstPartFiles(), 0u);
  EXPECT_FALSE(fs::exists("localstoragetmp"));
}

TEST_F(CObjectServerMultipartTest, APartOfAnUnknownTaskLeavesNothingBehind) {
  const std::string unknown = "01234567-89ab-4def-8123-456789abcdef";
  for (int number = 1; number <= 3; ++number) {
    EXPECT_TRUE(IsError(SendPart("k", unknown, number, "x"), 500, "ServerInternalError"));
  }
  EXPECT_EQ(log_->Count(kRecordFailed, logging::kError), 3u);
  EXPECT_EQ(StateOf(unknown), TaskState{});
  EXPECT_EQ(FirstPartFiles(), 0u);
  EXPECT_TRUE(IsError(SendPart("k", "{" + unknown + "}", 1, "x"), 500, "ServerInternalError"));
  EXPECT_TRUE(IsError(SendPart("k", std::string(5000, 'a'), 1, "x"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kFileFailed), 0u);
}

TEST_F(CObjectServerMultipartTest, APartOfAnotherObjectsTaskIsRefused) {
  const std::string other_bucket = NewBucket();
  const std::string upload_id = NewTask("k");
  const TaskState fresh = StateOf(upload_id);
  EXPECT_TRUE(IsError(SendPart("other", upload_id, 1, "x"), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(Post("/" + other_bucket + "/k", "upload_id=" + upload_id + "&part_number=2", "x"), 400,
                      "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kIllegal, logging::kError), 2u);
  EXPECT_EQ(StateOf(upload_id), fresh);
  EXPECT_EQ(FirstPartFiles(), 0u);

  SendPart("k", upload_id, 1, "aa");
  SendPart("k", upload_id, 2, "bb");
  const TaskState before = StateOf(upload_id);
  EXPECT_TRUE(IsError(SendPart("other", upload_id, 1, "x"), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(Complete("other", upload_id, {{1, 2}, {2, 2}}), 400, "InvalidXmlContent"));
  EXPECT_EQ(StateOf(upload_id), before);
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 2}, {2, 2}}), ""));
  EXPECT_EQ(Object("k"), "aabb");
}

TEST_F(CObjectServerMultipartTest, APartOfATaskThatWasSweptAway) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aa");
  ASSERT_TRUE(catalogue_.RemoveObjectTask(upload_id));
  log_->Clear();
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 2, "bb"), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kIllegal, logging::kError), 1u);
}

// The sweep removes rows and nothing else. The host looks after files and bytes.
TEST_F(CObjectServerMultipartTest, TheSweepLeavesFilesAndBytes) {
  CManualClock clock;
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aa");
  SendPart("k", upload_id, 2, "b");
  ObjectTaskInfo task;
  ASSERT_TRUE(catalogue_.GetTaskInfo(upload_id, 1, task));
  clock.Advance(259201);
  CloudStorage::CCleanExpiredTaskThread().OnTimer();
  EXPECT_FALSE(catalogue_.GetTaskInfo(upload_id, 1, task));
  EXPECT_EQ(Content(FirstPartFile(upload_id, 1)), "aa");
  EXPECT_EQ(storage_.Bytes(task.url), "tebt") << "the probe, and part 2 at its place";
  EXPECT_TRUE(storage_.Calls("remove").empty());
  PartSizeInfo first;
  EXPECT_TRUE(catalogue_.GetFirstPartInfo(upload_id, first));
  log_->Clear();
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 3, "cc"), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kIllegal, logging::kError), 1u);
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 2}, {2, 1}}), 400, "InvalidXmlContent"));
}

TEST_F(CObjectServerMultipartTest, OffsetsThatThirtyTwoBitsCannotHold) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, Pattern(1 << 16));
  SendPart("k", upload_id, 2, Pattern(1 << 16));
  const std::size_t writes = storage_.Calls("stream").size();
  // Part 65537 would begin at exactly 4 GiB.
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 65537, "x"), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 2147483647, "x"), 400, "InvalidHttpContent"));
  EXPECT_EQ(storage_.Calls("stream").size(), writes);
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{65537, 1}}), 400, "InvalidXmlContent"));
}

TEST_F(CObjectServerMultipartTest, TheLastPlaceThatThirtyTwoBitsHold) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, Pattern(1 << 16));
  SendPart("k", upload_id, 2, Pattern(1 << 16));
  const std::size_t writes = storage_.Calls("stream").size();
  // This part would end at exactly 4 GiB.
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 65536, Pattern(1 << 16)), 400, "InvalidHttpContent"));
  EXPECT_EQ(storage_.Calls("stream").size(), writes);
  storage_.SetResult("stream", 3);  // the place is found; nothing is to be stored there
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 65536, Pattern((1 << 16) - 1)), 500, "NotEnoughSpace"));
  EXPECT_EQ(storage_.Calls("stream").back().offset, 65535u * 65536u);
}

TEST_F(CObjectServerMultipartTest, AFirstPartWhoseOffsetTurnsOutTooBig) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 65537, "x");
  SendPart("k", upload_id, 1, Pattern(1 << 16));
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 1 << 16}, {65537, 1}}), 400, "InvalidHttpContent"));
  EXPECT_FALSE(HasObject("k"));
}

TEST_F(CObjectServerMultipartTest, StorageResultsOfAPart) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aa");
  storage_.SetResult("stream", 3);
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 2, "bb"), 500, "NotEnoughSpace"));
  storage_.SetResult("stream", 9);
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 2, "bb"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kSaveFailed, logging::kError), 2u);
  EXPECT_EQ(StateOf(upload_id).parts.size(), 1u);
  storage_.SetResult("stream", 0);
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 2, "bb"), ""));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 2}, {2, 2}}), ""));
  EXPECT_EQ(Object("k"), "aabb");
}

TEST_F(CObjectServerMultipartTest, APartThatCannotBeRecorded) {
  const std::string upload_id = NewTask("k");
  Database().FailStatementsWith("platform.local_object_task");
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 1, "aa"), 500, "ServerInternalError"));
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 2, "bb"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kRecordFailed, logging::kError), 2u);
  Database().Heal();
  // The part that comes next is the first one. The files stay, because rows of commits that failed may be there after a
  // crash.
  EXPECT_EQ(FirstPartFiles(), 2u);
  EXPECT_EQ(StateOf(upload_id).first_part, 0u);
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 2, "BB"), ""));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 1, "AA"), ""));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 2}, {2, 2}}), ""));
  EXPECT_EQ(Object("k"), "AABB");
  EXPECT_EQ(FirstPartFiles(), 0u);
}

TEST_F(CObjectServerMultipartTest, AFirstPartThatCannotBeKept) {
  const std::string upload_id = NewTask("k");
  std::ofstream("localstoragetmp") << "in the way of the folder";
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 1, "aa"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kFileFailed, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kFileFailed),
              HasSubstr("save file failed, file_name[./localstoragetmp\\" + upload_id + "_1]."));
  fs::remove("localstoragetmp");
  // The other parts decide the part size; the first one then reaches both places.
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 2, "bb"), ""));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 1, "AA"), ""));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 2}, {2, 2}}), ""));
  EXPECT_EQ(Object("k"), "AAbb");
}

// The host keeps the last room of the disk for itself.
class CFirstPartRooms {
 public:
  CFirstPartRooms() { CloudStorage::SetFirstPartRoomCallbacks(&Begin, &End); }
  ~CFirstPartRooms() { CloudStorage::SetFirstPartRoomCallbacks(nullptr, nullptr); }
  CFirstPartRooms(const CFirstPartRooms&) = delete;
  CFirstPartRooms& operator=(const CFirstPartRooms&) = delete;

  static inline int result = 0;
  static inline std::vector<std::string> calls = {};

 private:
  static int Begin(std::uint64_t bytes) {
    calls.push_back("begin " + std::to_string(bytes));
    return result;
  }
  static void End(std::uint64_t bytes) { calls.push_back("end " + std::to_string(bytes)); }
};

TEST_F(CObjectServerMultipartTest, TheHostIsAskedForTheRoomOfAFirstPart) {
  const CFirstPartRooms rooms;
  const std::string upload_id = NewTask("k");
  CFirstPartRooms::result = 3;
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 1, "aa"), 500, "NotEnoughSpace"));
  CFirstPartRooms::result = 2;
  EXPECT_TRUE(IsError(SendPart("k", upload_id, 1, "aa"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kSaveFailed, logging::kError), 2u);
  EXPECT_THAT(CFirstPartRooms::calls, ElementsAre("begin 2", "begin 2"));
  EXPECT_EQ(FirstPartFiles(), 0u);
  EXPECT_EQ(StateOf(upload_id).first_part, 0u);

  CFirstPartRooms::result = 0;
  CFirstPartRooms::calls.clear();
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 2, "bbb"), ""));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 1, "AAA"), ""));
  EXPECT_THAT(CFirstPartRooms::calls, ElementsAre("begin 3", "end 3")) << "the other part has no file";
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 3}, {2, 3}}), ""));
  EXPECT_EQ(Object("k"), "AAAbbb");
}

// The length of a part that was never stored must not place the others.
TEST_F(CObjectServerMultipartTest, ARefusedPartDoesNotDecideThePartSize) {
  const std::string second = NewTask("second");
  SendPart("second", second, 2, "bbbb");
  storage_.SetResult("stream", 9);
  EXPECT_TRUE(IsError(SendPart("second", second, 1, "aa"), 500, "ServerInternalError"));
  storage_.SetResult("stream", 0);
  EXPECT_EQ(StateOf(second).part_size, 0u);
  EXPECT_TRUE(IsXml(SendPart("second", second, 1, "aaaa"), ""));
  EXPECT_TRUE(IsXml(Complete("second", second, {{1, 4}, {2, 4}}), ""));
  EXPECT_EQ(Object("second"), "aaaabbbb");

  const std::string first = NewTask("first");
  SendPart("first", first, 1, "aaaa");
  Database().FailStatementsWith("UPDATE platform.local_object_task");
  EXPECT_TRUE(IsError(SendPart("first", first, 1, "aaaaaa"), 500, "ServerInternalError"));
  Database().Heal();
  EXPECT_TRUE(IsXml(SendPart("first", first, 2, "bbbb"), ""));
  EXPECT_TRUE(IsXml(SendPart("first", first, 1, "AAAA"), ""));
  EXPECT_TRUE(IsXml(Complete("first", first, {{1, 4}, {2, 4}}), ""));
  EXPECT_EQ(Object("first"), "AAAAbbbb");
}

TEST_F(CObjectServerMultipartTest, AFirstPartIsSentAgainBeforeThePartSizeIsKnown) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "a longer try");
  SendPart("k", upload_id, 1, "aaa");
  EXPECT_EQ(Content(FirstPartFile(upload_id, 1)), "aaa");
  SendPart("k", upload_id, 2, "b");
  EXPECT_EQ(storage_.Calls("stream").back().offset, 3u);
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 3}, {2, 1}}), ""));
  EXPECT_EQ(Object("k"), "aaab");
}

TEST_F(CObjectServerMultipartTest, AFirstPartIsSentAgainAfterwards) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 2, "old");
  SendPart("k", upload_id, 1, "aaa");
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 2, "NEW"), ""));
  EXPECT_EQ(storage_.Calls("stream").back().offset, 3u);
  EXPECT_EQ(Content(FirstPartFile(upload_id, 2)), "NEW");
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 3}, {2, 3}}), ""));
  EXPECT_EQ(Object("k"), "aaaNEW");
}

TEST_F(CObjectServerMultipartTest, APartIsSentAgain) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aa");
  SendPart("k", upload_id, 3, "old");
  SendPart("k", upload_id, 2, "bb");
  SendPart("k", upload_id, 3, "N");
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 2}, {2, 2}, {3, 3}}), 400, "InvalidXmlContent"));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 2}, {2, 2}, {3, 1}}), ""));
  EXPECT_EQ(Object("k"), "aabbN");
}

TEST_F(CObjectServerMultipartTest, ListingsThatAreRefused) {
  EXPECT_TRUE(IsError(List("k", "unknown"), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count("[%s]invalid task id[%s].[%s(%d)]", logging::kError), 1u);
  EXPECT_THAT(log_->Text("[%s]invalid task id[%s].[%s(%d)]"), HasSubstr("invalid task id[unknown]."));
  EXPECT_TRUE(IsError(List("k", ""), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kQueryInvalid, logging::kError), 1u);
  EXPECT_TRUE(IsError(SendMessage(Message({"GET", "/none/k", "upload_id=1", "", {}})), 404, "NoSuchBucket"));
  EXPECT_TRUE(IsError(SendMessage(Message({"GET", Path("k"), "upload_id=1", "", {}})), 403, "AccessDenied"));
}

TEST_F(CObjectServerMultipartTest, PartsBeyondTheWholeBodyLimit) {
  const std::string one = Pattern(12 << 20, 1);
  const std::string two = Pattern(11 << 20, 2);
  const std::string upload_id = NewTask("k");
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 2, two), ""));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 1, one), ""));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, one.size()}, {2, two.size()}}), ""));
  EXPECT_TRUE(Object("k") == one + two);
}

TEST_F(CObjectServerMultipartTest, MissingBucketsAndLongKeysAreLoggedForTheHandlerThatMetThem) {
  constexpr const char* kNoBucket = "[%s]bucket name not exist[%s].[%s(%d)]";
  const std::pair<const char*, FakeRequest> requests[] = {
      {"HandleMultiUploadTaskCreate", {"POST", "/none/k", "uploads", "", {}}},
      {"HandleUploadPartObject", {"POST", "/none/k", "upload_id=1&part_number=1", "x", {}}},
      {"HandleGetAllObjectTask", {"GET", "/none/k", "upload_id=1", "", {}}},
      {"HandleFinishMutiUploadTask", {"POST", "/none/k", "upload_id=1", "x", {}}}};
  for (const auto& [handler, request] : requests) {
    log_->Clear();
    EXPECT_TRUE(IsError(Send(request), 404, "NoSuchBucket"));
    EXPECT_EQ(log_->Count(kNoBucket, logging::kError), 1u) << handler;
    EXPECT_THAT(log_->Text(kNoBucket), HasSubstr(std::string(handler) + "]bucket name not exist[none].["));
  }
  constexpr const char* kTooLong = "[%s]object key is too long, objectkey[%s].[%s(%d)]";
  const std::string long_key(129, 'k');
  EXPECT_TRUE(IsError(Post(Path(long_key), "uploads"), 400, "KeyTooLong"));
  EXPECT_EQ(log_->Count(kTooLong, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kTooLong),
              HasSubstr("HandleMultiUploadTaskCreate]object key is too long, objectkey[" + long_key + "].["));
}

}  // namespace
}  // namespace Tansy::Tests
