// Uploads and downloads through a scripted S3 door: what is asked for, and what happens when something is in the way.
#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "S3Download.h"
#include "S3FakeDoor.h"
#include "S3Upload.h"
#include "fakes/RandomBytes.h"
#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

using testing::HasSubstr;
using Tests::RandomBytes;
using Tests::ScriptedAnswer;
using Tests::ScriptedRequest;

constexpr std::size_t kMiB = std::size_t{1} << 20;

// Serves one object by ranges.
ScriptedAnswer AnswerRange(const ScriptedRequest& request, const std::string& content, const std::string& tag) {
  if (request.Header("if-match") != "\"" + tag + "\"") {
    return {.status = 412, .body = "<Error><Code>PreconditionFailed</Code></Error>"};
  }
  const std::string range = request.Header("range");
  if (range.empty()) {
    return {.headers = {{"ETag", "\"" + tag + "\""}}, .body = content};
  }
  const std::size_t dash = range.find('-');
  const std::size_t begin = std::stoull(range.substr(6));
  const std::size_t end = std::stoull(range.substr(dash + 1)) + 1;
  return {.status = 206, .body = content.substr(begin, end - begin)};
}

class S3DownloadTest : public CS3FakeDoor {
 protected:
  std::string Download(const std::string& content, std::size_t getters) {
    std::string got(content.size(), '\0');
    std::mutex mutex;
    CTeam team(getters);
    DownloadFromS3(CS3Link(SettingsOfDoor()), {"b", "k"}, {"k", content.size(), "tag", ""}, team,
                   [&](const char* data, std::size_t size, std::uint64_t offset) {
                     const std::lock_guard lock(mutex);
                     got.replace(offset, size, data, size);
                   });
    return got;
  }
};

TEST_F(S3DownloadTest, FetchesLargeObjectsInRanges) {
  const std::string content = RandomBytes(20 * kMiB + 3, 1);
  server_.Handle([&](const ScriptedRequest& request) { return AnswerRange(request, content, "tag"); });
  EXPECT_TRUE(Download(content, 3) == content);
  EXPECT_EQ(server_.Requests().size(), 3u);
  server_.ClearRequests();
  EXPECT_TRUE(Download(content, 1) == content);
  EXPECT_EQ(server_.Requests().size(), 1u) << "alone it comes in one answer";
  EXPECT_EQ(Download("", 4), "");
}

TEST_F(S3DownloadTest, AsksForTheRestWhenAConnectionBreaks) {
  const std::string content = RandomBytes(kMiB, 2);
  int count = 0;
  server_.Handle([&](const ScriptedRequest& request) {
    ScriptedAnswer answer = AnswerRange(request, content, "tag");
    answer.cut_after = count++ == 1 ? 600000 : ScriptedAnswer::kNever;
    return answer;
  });
  const CS3Link link(SettingsOfDoor());
  link.Try({.path = {"b", "k"}});  // the link knows now that the address is right
  std::string got;
  CTeam team(1);
  DownloadFromS3(link, {"b", "k"}, {"k", content.size(), "tag", ""}, team,
                 [&](const char* data, std::size_t size, std::uint64_t offset) {
                   EXPECT_EQ(offset, got.size());
                   got.append(data, size);
                 });
  EXPECT_TRUE(got == content);
  EXPECT_THAT(server_.Requests().back().Header("range"), HasSubstr("bytes="));
}

TEST_F(S3DownloadTest, FailsWhenTheObjectIsAnotherOne) {
  server_.Handle([](const ScriptedRequest& request) { return AnswerRange(request, "content", "new"); });
  EXPECT_EQ(FailureOf([&] { Download("content", 1); }), "1 changed while it was read");
  server_.Handle([](const ScriptedRequest&) { return ScriptedAnswer{.body = "longer than it was"}; });
  EXPECT_EQ(FailureOf([&] { Download("content", 1); }), "1 changed while it was read");
  server_.Handle([](const ScriptedRequest&) { return ScriptedAnswer{.status = 404}; });
  EXPECT_EQ(FailureOf([&] { Download("content", 1); }), "1 changed while it was read");
}

class S3UploadTest : public CS3FakeDoor {
 protected:
  S3UploadTest() {
    server_.Answer("POST /b/k?uploads=", {.body = "<InitiateMultipartUploadResult><UploadId>id</UploadId>"
                                                  "</InitiateMultipartUploadResult>"});
    server_.Answer("POST /b/k?uploadId=id",
                   {.body = "<CompleteMultipartUploadResult></CompleteMultipartUploadResult>"});
    server_.Answer("DELETE /b/k?uploadId=id", {.status = 204});
  }

  std::uint64_t Upload(bool resume = false) {
    CTeam team(2);
    return UploadToS3(CS3Link(SettingsOfDoor()), {folder_.Path("file"), {"b", "k"}, resume}, team,
                      [this](std::uint64_t bytes) { progress_ = bytes; });
  }

  std::size_t Count(const std::string& begin) const {
    std::size_t count = 0;
    for (const ScriptedRequest& request : server_.Requests()) {
      count += (request.method + " " + request.target).starts_with(begin) ? 1 : 0;
    }
    return count;
  }

  Tests::CTempFolder folder_;
  std::uint64_t progress_ = 0;
};

TEST_F(S3UploadTest, SendsASmallFileInOneRequest) {
  server_.Answer("PUT /b/k", {.status = 200});
  folder_.Write("file", "content");
  EXPECT_EQ(Upload(), 7u);
  EXPECT_EQ(server_.Requests().size(), 1u);
  EXPECT_EQ(server_.Requests().at(0).body, "content");
  EXPECT_EQ(progress_, 7u);
}

TEST_F(S3UploadTest, SendsALargeFileInParts) {
  const std::string content = RandomBytes(17 * kMiB, 3);
  folder_.Write("file", content);
  for (const char* number : {"1", "2", "3"}) {
    server_.Answer(std::string("PUT /b/k?partNumber=") + number + "&uploadId=id",
                   {.headers = {{"ETag", std::string("\"tag") + number + "\""}}});
  }
  EXPECT_EQ(Upload(), content.size());
  EXPECT_EQ(progress_, content.size());
  std::string sent;
  for (const char* number : {"1", "2", "3"}) {
    for (const ScriptedRequest& request : server_.Requests()) {
      if (request.target == std::string("/b/k?partNumber=") + number + "&uploadId=id") {
        sent += request.body;
      }
    }
  }
  EXPECT_TRUE(sent == content);
  EXPECT_EQ(server_.Requests().back().body,
            "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>\"tag1\"</ETag></Part>"
            "<Part><PartNumber>2</PartNumber><ETag>\"tag2\"</ETag></Part>"
            "<Part><PartNumber>3</PartNumber><ETag>\"tag3\"</ETag></Part></CompleteMultipartUpload>");
  EXPECT_EQ(Count("DELETE"), 0u);
}

TEST_F(S3UploadTest, GivesAFailedUploadUp) {
  folder_.Write("file", RandomBytes(9 * kMiB, 4));
  server_.Answer("PUT /b/k?partNumber=1&uploadId=id", {.headers = {{"ETag", "\"t\""}}});
  server_.Answer("PUT *", {.status = 400, .body = "<Error><Code>InvalidRequest</Code></Error>"});
  EXPECT_THAT(FailureOf([&] { Upload(); }), HasSubstr("InvalidRequest"));
  EXPECT_EQ(Count("DELETE"), 1u);
  EXPECT_EQ(Count("POST /b/k?uploadId"), 0u) << "nothing was completed";
}

// A completion may be announced with status 200 before the server knows its result.
TEST_F(S3UploadTest, BelievesNoFailureInAGoodAnswer) {
  folder_.Write("file", RandomBytes(9 * kMiB, 5));
  server_.ClearScript();
  server_.Answer("POST /b/k?uploads=", {.body = "<InitiateMultipartUploadResult><UploadId>id</UploadId>"
                                                "</InitiateMultipartUploadResult>"});
  server_.Answer("PUT *", {.headers = {{"ETag", "\"t\""}}});
  server_.Answer("POST /b/k?uploadId=id", {.body = "<Error><Code>InternalError</Code></Error>"});
  EXPECT_THAT(FailureOf([&] { Upload(); }), HasSubstr("InternalError"));
}

constexpr char kTagOfOneMiBOfA[] = "7202826a7791073fe2787f0c94603278";    // of 1 MiB of 'a'
constexpr char kTagOfEightMiBOfA[] = "a1b8519c990697ddb77acc121efeb403";  // of 8 MiB of 'a'

class S3ResumeTest : public S3UploadTest {
 protected:
  // Lists uploads to the key, the later ones newer.
  void ListUploads(const std::vector<std::string>& ids) {
    std::string body = "<ListMultipartUploadsResult>";
    for (const std::string& id : ids) {
      body += "<Upload><Key>k</Key><UploadId>" + id + "</UploadId><Initiated>2026-01-0" + std::to_string(++time_) +
              "</Initiated></Upload>";
    }
    body += "<Upload><Key>k2</Key><UploadId>other</UploadId><Initiated>2027</Initiated></Upload>";
    server_.Answer("GET /b?encoding-type=url&prefix=k&uploads=", {.body = body + "</ListMultipartUploadsResult>"});
  }

  static std::string Part(int number, std::size_t size, const std::string& tag) {
    return "<Part><PartNumber>" + std::to_string(number) + "</PartNumber><Size>" + std::to_string(size) +
           "</Size><ETag>\"" + tag + "\"</ETag></Part>";
  }
  void ListParts(const std::string& id, const std::string& parts) {
    server_.Answer("GET /b/k?uploadId=" + id, {.body = "<ListPartsResult>" + parts + "</ListPartsResult>"});
  }

  int time_ = 0;
};

TEST_F(S3ResumeTest, GoesOnWithAnUploadThatWasBrokenOff) {
  const std::string content(17 * kMiB, 'a');
  folder_.Write("file", content);
  ListUploads({"old", "id"});
  // Parts 1 and 3 are there, part 2 is missing.
  server_.Answer("GET /b/k?uploadId=id", {.body = "<ListPartsResult><IsTruncated>true</IsTruncated>" +
                                                  Part(1, 8 * kMiB, kTagOfEightMiBOfA) + "</ListPartsResult>"});
  server_.Answer("GET /b/k?part-number-marker=1&uploadId=id",
                 {.body = "<ListPartsResult>" + Part(3, kMiB, kTagOfOneMiBOfA) + "</ListPartsResult>"});
  server_.Answer("PUT *", {.headers = {{"ETag", "\"new\""}}});
  Upload(true);
  EXPECT_EQ(Count("PUT"), 1u);
  EXPECT_EQ(Count("PUT /b/k?partNumber=2&uploadId=id"), 1u);
  EXPECT_EQ(Count("POST /b/k?uploads"), 0u);
  EXPECT_THAT(server_.Requests().back().body, HasSubstr(kTagOfEightMiBOfA));
  EXPECT_THAT(server_.Requests().back().body, HasSubstr(kTagOfOneMiBOfA));
  EXPECT_EQ(progress_, content.size());
}

// Somebody else may be sending another file to the same name at this moment.
TEST_F(S3ResumeTest, LeavesUploadsOfOtherBytesAlone) {
  folder_.Write("file", std::string(17 * kMiB, 'a'));
  ListUploads({"mine", "other-bytes", "too-long", "other-size", "empty"});
  ListParts("mine", Part(1, 8 * kMiB, kTagOfEightMiBOfA));
  ListParts("other-bytes", Part(1, 8 * kMiB, kTagOfEightMiBOfA) + Part(2, 8 * kMiB, std::string(32, '0')));
  ListParts("too-long", Part(1, 8 * kMiB, kTagOfEightMiBOfA) + Part(4, kMiB, kTagOfOneMiBOfA));
  ListParts("other-size", Part(1, 5 * kMiB, kTagOfEightMiBOfA));
  ListParts("empty", "");
  server_.Answer("PUT *", {.headers = {{"ETag", "\"new\""}}});
  server_.Answer("POST /b/k?uploadId=mine",
                 {.body = "<CompleteMultipartUploadResult></CompleteMultipartUploadResult>"});
  Upload(true);
  EXPECT_EQ(Count("PUT"), 2u);
  EXPECT_EQ(Count("PUT /b/k?partNumber=2&uploadId=mine"), 1u);
  EXPECT_EQ(Count("PUT /b/k?partNumber=3&uploadId=mine"), 1u);
  EXPECT_EQ(Count("DELETE"), 0u);
}

TEST_F(S3ResumeTest, BeginsAnewWhenNothingFits) {
  folder_.Write("file", std::string(9 * kMiB, 'a'));
  ListUploads({"other-bytes"});
  ListParts("other-bytes", Part(1, 8 * kMiB, std::string(32, '0')));
  server_.Answer("PUT *", {.headers = {{"ETag", "\"new\""}}});
  Upload(true);
  EXPECT_EQ(Count("PUT /b/k?partNumber=1&uploadId=id"), 1u);
  EXPECT_EQ(Count("PUT /b/k?partNumber=2&uploadId=id"), 1u);
}

// For example because it was begun with checksums for its parts, which this program does not send.
TEST_F(S3ResumeTest, BeginsAnewWhenTheServerRefusesToGoOn) {
  folder_.Write("file", std::string(9 * kMiB, 'a'));
  ListUploads({"odd"});
  ListParts("odd", Part(1, 8 * kMiB, kTagOfEightMiBOfA));
  server_.Answer("POST /b/k?uploadId=odd", {.status = 400, .body = "<Error><Code>InvalidRequest</Code></Error>"});
  server_.Answer("PUT *", {.headers = {{"ETag", "\"new\""}}});
  Upload(true);
  EXPECT_EQ(Count("PUT /b/k?partNumber=2&uploadId=odd"), 1u);
  EXPECT_EQ(Count("PUT /b/k?partNumber=1&uploadId=id"), 1u) << "what was there counts no more";
  EXPECT_EQ(Count("PUT /b/k?partNumber=2&uploadId=id"), 1u);
  EXPECT_EQ(Count("POST /b/k?uploadId=id"), 1u);
}

TEST_F(S3UploadTest, SaysThatTheServerIsFullAndDoesNotAskAgain) {
  folder_.Write("file", "content");
  server_.Answer("PUT /b/k", {.status = 507, .body = "<Error><Code>NotEnoughSpace</Code></Error>"});
  EXPECT_THAT(FailureOf([&] { Upload(); }), HasSubstr("5 the server has no space left"));
  EXPECT_EQ(server_.Requests().size(), 1u);
}

// A file whose bytes change at the same size replaces nothing either, whether it goes in parts or in one request.
TEST_F(S3UploadTest, ReplacesNothingWhenOnlyTheBytesChange) {
  folder_.Write("file", RandomBytes(9 * kMiB, 7));
  server_.Handle([&](const ScriptedRequest&) {
    folder_.Write("file", RandomBytes(9 * kMiB, 8));
    const auto later = std::filesystem::file_time_type::clock::now() + std::chrono::hours(1);
    std::filesystem::last_write_time(folder_.Path("file"), later);
    return ScriptedAnswer{.headers = {{"ETag", "\"t\""}}};
  });
  EXPECT_THAT(FailureOf([&] { Upload(); }), HasSubstr("file: changed while it was read"));
  EXPECT_EQ(Count("POST /b/k?uploadId"), 0u);
}

TEST_F(S3UploadTest, KeepsAnUploadThatIsToBeGoneOnWith) {
  folder_.Write("file", RandomBytes(9 * kMiB, 6));
  server_.Answer("GET /b?encoding-type=url&prefix=k&uploads=", {.body = "<ListMultipartUploadsResult/>"});
  server_.Answer("PUT *", {.status = 400, .body = "<Error><Code>InvalidRequest</Code></Error>"});
  EXPECT_THAT(FailureOf([&] { Upload(true); }), HasSubstr("InvalidRequest"));
  EXPECT_EQ(Count("DELETE"), 0u);
}

TEST_F(S3UploadTest, ReplacesNothingWhenTheFileChanges) {
  folder_.Write("file", RandomBytes(17 * kMiB, 7));
  server_.Handle([&](const ScriptedRequest&) {
    folder_.Write("file", RandomBytes(17 * kMiB, 8) + "more");
    return ScriptedAnswer{.headers = {{"ETag", "\"t\""}}};
  });
  EXPECT_THAT(FailureOf([&] { Upload(); }), HasSubstr("file: changed while it was read"));
  EXPECT_EQ(Count("POST /b/k?uploadId"), 0u);
  EXPECT_EQ(Count("DELETE"), 1u);
}

TEST_F(S3UploadTest, RefusesWhatIsNoFile) {
  EXPECT_THAT(FailureOf([&] { Upload(); }), HasSubstr("3 "));
  std::filesystem::create_directory(folder_.Path("file"));
  EXPECT_THAT(FailureOf([&] { Upload(); }), HasSubstr("2 "));
  EXPECT_TRUE(server_.Requests().empty());
}

}  // namespace
}  // namespace Tansy::Cli
