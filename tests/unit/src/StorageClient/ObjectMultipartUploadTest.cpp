#include "StorageClient/ObjectMultipartUpload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "MultipartServer.h"
#include "ObjectClientFixture.h"
#include "StorageClient/PartUploadRegistry.h"
#include "TansyBase/FileUtil.h"
#include "TansyBase/GuidUtil.h"

namespace Tansy::CloudStorage {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Tests::ScriptedAnswer;
using Tests::ScriptedRequest;

constexpr std::uint32_t kPartBytes = 2097152;
constexpr char kPartFailed[] = "[%s]upload file[%s] failed, object key[%s] failed.[%s(%d)]";

class ObjectMultipartUploadTest : public ObjectClientFixture {
 protected:
  ObjectMultipartUploadTest() {
    server_.Handle([this](const ScriptedRequest& request) { return multipart_.Answer(request, server_.Address()); });
  }

  // Gives all requests but those for parts, which have no fixed order.
  std::vector<std::string> Sequence() const {
    std::vector<std::string> sequence;
    for (const ScriptedRequest& request : server_.Requests()) {
      const std::string what = request.method + " " + request.target.substr(request.target.find('?') + 1);
      if (what.find("part_number") == std::string::npos) {
        sequence.push_back(multipart_.WithPlainIds(what));
      }
    }
    return sequence;
  }

  std::vector<ScriptedRequest> PartRequests(int number) const {
    std::vector<ScriptedRequest> requests = server_.Requests();
    std::erase_if(requests, [&](const ScriptedRequest& request) {
      return !request.target.ends_with("&part_number=" + std::to_string(number));
    });
    return requests;
  }

  // Whether the registry still knows parts of an upload.
  static bool HasParts(const std::string& upload_id) {
    std::int32_t status = 0;
    std::int32_t percent = -1;
    CPartUploadRegistry::Instance().QueryParts(upload_id, status, percent);
    return percent != -1;
  }

  CMultipartServer multipart_;
  CObjectClient client_{Config()};
};

TEST_F(ObjectMultipartUploadTest, SendsTenMebibytesInFiveParts) {
  const std::string content = Tests::RandomBytes(10485760);
  std::string url;
  ASSERT_TRUE(client_.UploadFile(url, folder_.Write("file.bin", content)));
  EXPECT_THAT(Sequence(),
              testing::ElementsAre("GET bestnode", "POST uploads", "POST upload_id=task-1", "GET metadata"));
  const std::vector<ScriptedRequest> requests = server_.Requests();
  ASSERT_EQ(requests.size(), 9u);
  EXPECT_EQ(requests[0].target, url + "?bestnode");
  ExpectRequest(requests[1], {.method = "POST", .target = url + "?uploads", .host = server_.Address()});
  for (int number = 1; number <= 5; ++number) {
    const std::vector<ScriptedRequest> parts = PartRequests(number);
    ASSERT_EQ(parts.size(), 1u);
    ExpectRequest(parts[0],
                  {.method = "POST",
                   .target = url + "?upload_id=" + multipart_.TaskId(1) + "&part_number=" + std::to_string(number),
                   .host = server_.Address(),
                   .content_type = kBinaryType,
                   .body = content.substr((static_cast<std::size_t>(number) - 1) * kPartBytes, kPartBytes),
                   .content_md5 = true});
  }
  std::string body =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><CompleteMultipartUpload><TotalPartNum>5</TotalPartNum>";
  for (int number = 1; number <= 5; ++number) {
    body += "<Part><PartNumber>" + std::to_string(number) + "</PartNumber><PartSize>2097152</PartSize><ETag/></Part>";
  }
  body += "</CompleteMultipartUpload>";
  ExpectRequest(requests[7], {.method = "POST",
                              .target = url + "?upload_id=" + multipart_.TaskId(1),
                              .host = server_.Address(),
                              .body = body,
                              .content_md5 = true});
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), content);
}

TEST_F(ObjectMultipartUploadTest, EndsWithAPartOfTheRest) {
  const std::string content = Tests::RandomBytes(10485761);
  std::string url;
  ASSERT_TRUE(client_.UploadFile(url, folder_.Write("file.bin", content)));
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), content);
  ASSERT_EQ(PartRequests(6).size(), 1u);
  EXPECT_EQ(PartRequests(6)[0].body, content.substr(10485760));
  EXPECT_THAT(server_.Requests().rbegin()[1].body,
              HasSubstr("<Part><PartNumber>6</PartNumber><PartSize>1</PartSize><ETag/></Part></Complete"));
}

TEST_F(ObjectMultipartUploadTest, SendsPartsToTheBestNodeAndTheRestToTheConfiguredServer) {
  Tests::ScriptedServer node;
  node.Handle([&](const ScriptedRequest& request) { return multipart_.Answer(request, node.Address()); });
  server_.Handle([&](const ScriptedRequest& request) { return multipart_.Answer(request, node.Address()); });
  std::string url;
  ASSERT_TRUE(client_.UploadFile(url, folder_.Write("file.bin", std::string(10485760, 'x'))));
  EXPECT_EQ(server_.Requests().size(), 4u);
  ASSERT_EQ(node.Requests().size(), 5u);
  for (const ScriptedRequest& request : node.Requests()) {
    EXPECT_EQ(request.Header("Host"), server_.Address());
  }
}

TEST_F(ObjectMultipartUploadTest, ReportsRisingValuesBelowAHundredAndThenAHundred) {
  multipart_.SetDelay(2);
  std::string url;
  ASSERT_TRUE(client_.UploadFile(url, folder_.Write("file.bin", std::string(20 * kPartBytes, 'x'))));
  const std::vector<int> progress = Progress();
  ASSERT_GE(progress.size(), 2u);
  EXPECT_EQ(progress.back(), 100);
  EXPECT_EQ(std::count(progress.begin(), progress.end(), 100), 1);
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  EXPECT_EQ(std::adjacent_find(progress.begin(), progress.end()), progress.end()) << "the same value twice";
}

TEST_F(ObjectMultipartUploadTest, ReportsAHundredOnTheWayAsNinetyNine) {
  // The count of finished parts stays with its upload id. Under an id that was used before, all parts therefore seem to
  // be finished at once.
  multipart_.UseOneTaskId(TansyBase::GuidUtil::CreateGuid());
  multipart_.SetDelay(20);
  const std::string path = folder_.Write("file.bin", std::string(8 * kPartBytes, 'x'));
  std::string url;
  ASSERT_TRUE(client_.UploadFile(url, path));
  const std::size_t first = Progress().size();
  ASSERT_TRUE(client_.UploadFile(url, path));
  const std::vector<int> all = Progress();
  EXPECT_THAT(std::vector<int>(all.begin() + static_cast<std::ptrdiff_t>(first), all.end()),
              testing::ElementsAre(99, 100));
}

TEST_F(ObjectMultipartUploadTest, TriesAPartThreeTimes) {
  std::atomic<int> failures{2};
  multipart_.SetPartHook([&](int number) -> ScriptedAnswer {
    return number == 2 && failures-- > 0 ? ErrorAnswer(500, "ServerInternalError") : ScriptedAnswer{};
  });
  const std::string content = Tests::RandomBytes(10485760);
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, folder_.Write("file.bin", content)));
  EXPECT_EQ(PartRequests(2).size(), 3u);
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), content);
  // The failures on the way stay the last error of a client that has succeeded in the end.
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "UploadPartObject rsp status code[500]."}));
}

TEST_F(ObjectMultipartUploadTest, FailsWithAPartThatFailsThreeTimes) {
  multipart_.SetPartHook(
      [](int number) -> ScriptedAnswer { return number == 4 ? ErrorAnswer(500, "NotEnoughSpace") : ScriptedAnswer{}; });
  const std::string path = folder_.Write("file.bin", std::string(10485760, 'x'));
  std::string url = "before";
  EXPECT_FALSE(client_.UploadFile(url, path));
  EXPECT_EQ(url, "before");
  EXPECT_EQ(PartRequests(4).size(), 3u);
  EXPECT_EQ(log_->Count(kPartFailed, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kPartFailed), HasSubstr("upload file[" + path + "] failed, object key["));
  EXPECT_EQ(ErrorOf(client_), (LastError{7, 0, "upload object rsp status code[500]."}));
  EXPECT_THAT(Sequence(), testing::ElementsAre("GET bestnode", "POST uploads")) << "nothing is completed";
  EXPECT_EQ(Progress().back(), 100);
}

TEST_F(ObjectMultipartUploadTest, StopsReadingWhenAPartHasFailed) {
  multipart_.SetPartHook([](int) { return ErrorAnswer(403, "AccessDenied"); });
  const std::string path = folder_.Write("file.bin", "");
  std::filesystem::resize_file(path, 100 * kPartBytes);
  std::string url;
  EXPECT_FALSE(client_.UploadFile(url, path));
  // These are at most the parts that were in the pool when the first one failed, with three attempts each.
  EXPECT_LT(server_.Requests().size(), 50u);
  EXPECT_EQ(log_->Count(kPartFailed, logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "UploadPartObject rsp status code[403]."}));
}

TEST_F(ObjectMultipartUploadTest, SendsFourPartsAtATime) {
  std::mutex mutex;
  std::condition_variable changed;
  int under_way = 0;
  int most = 0;
  int waits_that_ended_alone = 0;
  multipart_.SetPartHook([&](int) {
    std::unique_lock lock(mutex);
    most = std::max(most, ++under_way);
    changed.notify_all();
    // Nobody is answered before there are four.
    if (!changed.wait_for(lock, std::chrono::seconds(30), [&] { return most >= 4; })) {
      ++waits_that_ended_alone;
    }
    --under_way;
    return ScriptedAnswer{};
  });
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, folder_.Write("file.bin", std::string(12 * kPartBytes, 'x'))));
  EXPECT_EQ(most, 4);
  EXPECT_EQ(waits_that_ended_alone, 0);
}

TEST_F(ObjectMultipartUploadTest, FailsWithoutATask) {
  server_.Handle([this](const ScriptedRequest& request) {
    return request.target.ends_with("?bestnode") ? BestNodeAnswer(server_.Address())
                                                 : ErrorAnswer(500, "NotEnoughSpace");
  });
  const std::string path = folder_.Write("file.bin", std::string(10485760, 'x'));
  std::string url;
  EXPECT_FALSE(client_.UploadFile(url, path));
  const std::string line = "[%s]upload file[%s] failed, create part task failed.[%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("upload file[" + path + "] failed"));
  EXPECT_EQ(ErrorOf(client_), (LastError{7, 0, "upload object rsp status code[500]."}));
  EXPECT_THAT(Progress(), testing::ElementsAre(100));
}

TEST_F(ObjectMultipartUploadTest, FailsWithoutCompletion) {
  multipart_.SetFinishAnswer(ErrorAnswer(400, "InvalidXmlContent"));
  std::string url = "before";
  EXPECT_FALSE(client_.UploadFile(url, folder_.Write("file.bin", std::string(10485760, 'x'))));
  EXPECT_EQ(url, "before");
  const std::string line = "[%s]upload file[%s] failed, object key[%s], upload part[%d] failed.[%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("upload part[6] failed.")) << "the number after the last part's";
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "FinishPartTask rsp status code[400]."}));
  EXPECT_EQ(Progress().back(), 100);
}

TEST_F(ObjectMultipartUploadTest, BelievesACompletionOnlyWhenTheObjectHasItsSize) {
  multipart_.SetMetadataAnswer({.headers = {{"Object-Size", "10485759"}}});
  std::string url = "before";
  EXPECT_FALSE(client_.UploadFile(url, folder_.Write("file.bin", std::string(10485760, 'x'))));
  EXPECT_EQ(url, "before");
  EXPECT_EQ(ErrorOf(client_), (LastError{14, 0, "object size[10485759] instead of [10485760]."}));
}

TEST_F(ObjectMultipartUploadTest, SaysThatTheProgressFunctionThrew) {
  SStorageServerConfig config = Config();
  config.callback = [](UploadProgress progress) {
    if (progress.percent < 100) {
      throw std::runtime_error("from the callback");
    }
  };
  CObjectClient client(config);
  const std::string path = folder_.Write("file.bin", std::string(20 * kPartBytes, 'x'));
  std::string url = "before";
  EXPECT_FALSE(client.UploadFile(url, path));
  EXPECT_EQ(url, "before");
  EXPECT_EQ(ErrorOf(client), (LastError{10, 0, "progress function failed[from the callback]."}));
  TansyBase::CLocalFile file;
  EXPECT_EQ(file.OpenAlways(path), 0u) << "the file is closed all the same";
  file.Close();
  EXPECT_FALSE(HasParts(multipart_.TaskId(1)));
}

TEST_F(ObjectMultipartUploadTest, RefusesAFileThatBecomesShorter) {
  const std::string path = folder_.Write("file.bin", std::string(20 * kPartBytes, 'x'));
  multipart_.SetPartHook([&](int) {
    std::filesystem::resize_file(path, 10 * kPartBytes + 5);
    return ScriptedAnswer{};
  });
  std::string url;
  EXPECT_FALSE(client_.UploadFile(url, path));
  EXPECT_EQ(log_->Count("[%s]read_elements != 1, error[%d][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{3, 0, "fread file[" + path + "] failed[38]."}));
  EXPECT_EQ(client_.GetLastFailure().system_error, 38);
  EXPECT_THAT(Sequence(), testing::ElementsAre("GET bestnode", "POST uploads"));
  EXPECT_FALSE(HasParts(multipart_.TaskId(1)));
}

TEST_F(ObjectMultipartUploadTest, KeepsManyUploadsApart) {
  constexpr int kUploads = 6;
  std::vector<std::string> contents;
  std::vector<std::thread> threads;
  std::vector<int> results(kUploads);
  std::vector<std::string> urls(kUploads);
  for (int i = 0; i < kUploads; ++i) {
    contents.push_back(Tests::RandomBytes(10485760 + static_cast<std::size_t>(i) * 100000, static_cast<unsigned>(i)));
    folder_.Write(std::to_string(i), contents.back());
  }
  for (int i = 0; i < kUploads; ++i) {
    threads.emplace_back([&, i] {
      CObjectClient client(Config());
      std::string& url = urls[static_cast<std::size_t>(i)];
      results[static_cast<std::size_t>(i)] = client.UploadFile(url, folder_.Path(std::to_string(i))) ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(std::count(results.begin(), results.end(), 1), kUploads);
  for (std::size_t i = 0; i < kUploads; ++i) {
    EXPECT_TRUE(multipart_.Object(urls[i]) == contents[i]) << "object " << i << " is not its own file";
  }
}

TEST_F(ObjectMultipartUploadTest, EndsWhenAServerGivesOneIdToTwoUploads) {
  // The server decides what becomes of the objects. This test looks only at whether both calls return.
  multipart_.UseOneTaskId(TansyBase::GuidUtil::CreateGuid());
  multipart_.SetDelay(5);
  const std::string first = folder_.Write("first", std::string(6 * kPartBytes, 'x'));
  const std::string second = folder_.Write("second", std::string(9 * kPartBytes, 'x'));
  for (int round = 0; round < 3; ++round) {
    std::thread thread([&] {
      std::string url;
      CObjectClient(Config()).UploadFile(url, first);
    });
    std::string url;
    client_.UploadFile(url, second);
    thread.join();
  }
  multipart_.UseOneTaskId("");
  const std::string content = Tests::RandomBytes(10485760);
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, folder_.Write("file.bin", content))) << "the client is as good as before";
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), content);
}

}  // namespace
}  // namespace Tansy::CloudStorage
