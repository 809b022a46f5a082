// The end of multipart uploads: what a completion checks, does and leaves behind.
#include <gmock/gmock.h>

#include "ObjectServerMultipartFixture.h"

namespace Tansy::Tests {
namespace {

using ::testing::HasSubstr;
namespace fs = std::filesystem;

constexpr const char* kQueryInvalid = "[%s]query invalid[%s].[%s(%d)]";
constexpr const char* kSaveFailed = "[%s]save file failed[%d].[%s(%d)]";
constexpr const char* kInvalidPart = "[%s]invalid part: task_id[%s], num[%d], size[%d].[%s(%d)]";
constexpr const char* kNoFirstPart = "[%s]GetFirstPartInfo failed, task id:%s.[%s(%d)]";

using CObjectServerMultipartEndTest = CObjectServerMultipartFixture;

TEST_F(CObjectServerMultipartEndTest, CompletionsThatAreRefused) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aa");
  SendPart("k", upload_id, 2, "b");
  const TaskState before = StateOf(upload_id);
  const auto part = [](const char* number, const char* size) { return PartXml(number, size); };
  const auto refused = [&](const std::string& body) {
    const auto result = IsError(Post(Path("k"), "upload_id=" + upload_id, body), 400, "InvalidXmlContent");
    EXPECT_EQ(StateOf(upload_id), before);
    EXPECT_FALSE(HasObject("k"));
    return result;
  };
  const auto total = [](const std::string& number, const std::string& parts) {
    return "<CompleteMultipartUpload><TotalPartNum>" + number + "</TotalPartNum>" + parts +
           "</CompleteMultipartUpload>";
  };
  const std::string good = part("1", "2") + part("2", "1");

  EXPECT_TRUE(refused(""));
  EXPECT_EQ(log_->Count("[%s]recv data is null.[%s(%d)]", logging::kError), 1u);
  EXPECT_TRUE(refused("no xml"));
  EXPECT_EQ(log_->Count("[%s]invalid xml[%s].[%s(%d)]", logging::kError), 1u);
  EXPECT_THAT(log_->Text("[%s]invalid xml[%s].[%s(%d)]"), HasSubstr("invalid xml[no xml]."));
  std::string deep;
  for (int i = 0; i < 1000000; ++i) {
    deep += "<a>";
  }
  EXPECT_TRUE(refused(deep));

  for (const char* number : {"0", "-1", "", "x", "99999999999999999999", "1.5"}) {
    EXPECT_TRUE(refused(total(number, good))) << number;
  }
  EXPECT_TRUE(refused("<CompleteMultipartUpload>" + good + "</CompleteMultipartUpload>"));
  EXPECT_EQ(log_->Count("[%s]invalid total num[%s].[%s(%d)]", logging::kError), 7u);
  EXPECT_TRUE(refused("<Other><TotalPartNum>2</TotalPartNum>" + good + "</Other>"));

  log_->Clear();
  for (const std::string& parts :
       {part("1", "2"), part("1", "2") + part("2", "2"), part("1", "2") + part("3", "1"),
        part("1", "2") + part("1", "2"), part("1", "2") + part("", "1"), part("1", "2") + part("2", ""),
        part("1", "2") + part("4294967298", "1"), part("1", "2") + part("2", "4294967297"),
        part("1", "2") + part("-1", "-1"), part("1", "2") + std::string("<Part/>"), part("x", "2") + part("2", "1")}) {
    EXPECT_TRUE(refused(total("2", parts))) << parts;
  }
  EXPECT_EQ(log_->Count(kInvalidPart, logging::kError), 11u);
  EXPECT_THAT(log_->Find(kInvalidPart)[1].text,
              HasSubstr("invalid part: task_id[" + upload_id + "], num[2], size[2]."));
  EXPECT_TRUE(refused(total("4294967295", good)));
  EXPECT_TRUE(refused(total("9223372036854775807", good)));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 2}, {2, 1}}), ""));
}

TEST_F(CObjectServerMultipartEndTest, CompletionsWithoutTask) {
  EXPECT_TRUE(IsError(Complete("k", "unknown", {{1, 1}}), 400, "InvalidXmlContent"));
  EXPECT_TRUE(IsError(Post(Path("k"), "upload_id=", "x"), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kQueryInvalid, logging::kError), 1u);
  EXPECT_TRUE(IsError(SendMessage(Message({"POST", "/none/k", "upload_id=1", "x", {}})), 404, "NoSuchBucket"));
  EXPECT_TRUE(IsError(SendMessage(Message({"POST", Path("k"), "upload_id=1", "x", {}})), 403, "AccessDenied"));
}

TEST_F(CObjectServerMultipartEndTest, ACompletionBeforeAnyPartIsAnError) {
  const std::string upload_id = NewTask("k");
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 0}}), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kNoFirstPart, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kNoFirstPart), HasSubstr("GetFirstPartInfo failed, task id:" + upload_id + "."));
  EXPECT_FALSE(HasObject("k"));
  EXPECT_EQ(StateOf(upload_id).parts.size(), 1u);
}

TEST_F(CObjectServerMultipartEndTest, AFirstPartFileThatIsGoneOrCut) {
  constexpr const char* kReadFailed = "[%s]read first file failed[%s].[%s(%d)]";
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  fs::resize_file(FirstPartFile(upload_id, 1), 3);
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}}), 500, "ServerInternalError"));
  fs::resize_file(FirstPartFile(upload_id, 1), 0);
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}}), 500, "ServerInternalError"));
  fs::remove(FirstPartFile(upload_id, 1));
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}}), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kReadFailed, logging::kError), 3u);
  EXPECT_THAT(log_->Text(kReadFailed), HasSubstr("read first file failed[./localstoragetmp\\" + upload_id + "_1]."));
  EXPECT_TRUE(IsXml(SendPart("k", upload_id, 1, "AAAA"), ""));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}}), ""));
  EXPECT_EQ(Object("k"), "AAAA");
}

TEST_F(CObjectServerMultipartEndTest, ACompletionThatTheStorageRefuses) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  const TaskState before = StateOf(upload_id);
  storage_.SetResult("stream", 3);
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}}), 500, "NotEnoughSpace"));
  storage_.SetResult("stream", 4);
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}}), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kSaveFailed, logging::kError), 2u);
  EXPECT_EQ(StateOf(upload_id), before);
  storage_.SetResult("stream", 0);
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}}), ""));
  EXPECT_EQ(Object("k"), "aaaa");
}

TEST_F(CObjectServerMultipartEndTest, ACompletionThatTheCatalogueRefuses) {
  const std::string upload_id = NewTask("k");
  SendPart("k", upload_id, 1, "aaaa");
  Database().FailStatementsWith("INSERT INTO platform.local_object ");
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}}), 500, "ServerInternalError"));
  Database().Heal();
  EXPECT_EQ(log_->Count("[%s]add object failed[%d].[%s(%d)]", logging::kError), 1u);
  EXPECT_FALSE(HasObject("k"));
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}}), "")) << "another try needs nothing to be sent again";
  EXPECT_EQ(Object("k"), "aaaa");
  EXPECT_EQ(FirstPartFiles(), 0u);
}

// Object and task change together: there is no state in which the object is there and a part can still be written into
// it.
TEST_F(CObjectServerMultipartEndTest, ATaskThatCannotBeEndedMakesNoObject) {
  for (const bool replaces : {false, true}) {
    const std::string key = replaces ? "replaced" : "new";
    if (replaces) {
      NewObject(bucket_, key, "before");
    }
    const std::string upload_id = NewTask(key);
    SendPart(key, upload_id, 1, "aaaa");
    SendPart(key, upload_id, 2, "bbbb");
    const TaskState before = StateOf(upload_id);
    Database().FailStatementsWith("DELETE FROM platform.local_object_task");
    EXPECT_TRUE(IsError(Complete(key, upload_id, {{1, 4}, {2, 4}}), 500, "ServerInternalError"));
    Database().Heal();
    EXPECT_EQ(StateOf(upload_id), before);
    EXPECT_EQ(HasObject(key), replaces);
    EXPECT_EQ(
        Database().Column(
            "SELECT * FROM platform.local_object WHERE bucket_name='" + bucket_ + "' AND name='" + key + "'", "size"),
        replaces ? std::vector<std::string>{"6"} : std::vector<std::string>{});
    if (replaces) {
      EXPECT_EQ(Object(key), "before");
    }
    EXPECT_TRUE(IsXml(SendPart(key, upload_id, 2, "BBBB"), "")) << "the task goes on";
    EXPECT_TRUE(IsXml(Complete(key, upload_id, {{1, 4}, {2, 4}}), ""));
    EXPECT_EQ(Object(key), "aaaaBBBB");
    EXPECT_TRUE(
        Database().Column("SELECT * FROM platform.local_object_task WHERE task_id='" + upload_id + "'", "id").empty());
  }
}

// As a server of an older version left it when it was killed between the object and the end of the task.
TEST_F(CObjectServerMultipartEndTest, ATaskWhoseBytesAreAnObjectsIsOver) {
  const std::string upload_id = NewTask("k");
  CloudStorage::ObjectTaskInfo task;
  ASSERT_TRUE(catalogue_.GetTaskInfo(upload_id, 1, task));
  SendPart("k", upload_id, 1, "aaaa");
  SendPart("k", upload_id, 2, "bbbb");
  ASSERT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}, {2, 4}}), ""));
  task.size = 4;
  ASSERT_TRUE(catalogue_.AddObjectTask(task));
  for (int number = 1; number <= 3; ++number) {
    EXPECT_TRUE(IsError(SendPart("k", upload_id, number, "LATE"), 400, "InvalidHttpContent")) << number;
  }
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}}), 400, "InvalidXmlContent"));
  EXPECT_EQ(Object("k"), "aaaabbbb");
  EXPECT_EQ(FirstPartFiles(), 0u);
}

TEST_F(CObjectServerMultipartEndTest, SumsThatThirtyTwoBitsCannotHold) {
  NewObject(bucket_, "k", "before");
  const std::string upload_id = NewTask("k");
  const auto record = [&](std::uint32_t number, std::uint32_t size) {
    CloudStorage::ObjectTaskInfo row;
    row.task_id = upload_id;
    row.bucket_name = bucket_;
    row.object_name = "k";
    row.part_num = number;
    row.size = size;
    ASSERT_TRUE(catalogue_.InsertObjectTask(row));
  };
  SendPart("k", upload_id, 1, "aaaa");
  record(2, 0x80000000);
  record(3, 0x7FFFFFFC);
  const std::size_t writes = storage_.Calls("stream").size();
  EXPECT_TRUE(IsError(Complete("k", upload_id, {{1, 4}, {2, 0x80000000}, {3, 0x7FFFFFFC}}), 400, "InvalidXmlContent"));
  EXPECT_EQ(log_->Count(kInvalidPart, logging::kError), 1u);
  EXPECT_EQ(storage_.Calls("stream").size(), writes);
  EXPECT_EQ(Object("k"), "before");
  record(3, 0x7FFFFFFB);
  EXPECT_TRUE(IsXml(Complete("k", upload_id, {{1, 4}, {2, 0x80000000}, {3, 0x7FFFFFFB}}), "")) << "4 GiB less a byte";
}

}  // namespace
}  // namespace Tansy::Tests
