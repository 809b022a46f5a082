#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ObjectClientFixture.h"
#include "StorageClient/HostProgress.h"
#include "StorageClient/ObjectProtoClient.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::CloudStorage {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Tests::ScriptedAnswer;
using Tests::ScriptedRequest;
using Tests::ScriptedServer;

constexpr char kSendFailed[] = "[%s][Client]send download object failed, url:%s[%s(%d)]";
constexpr char kStatusFailed[] = "[%s][Client]send download object failed, url:%s, status code:%d, body:%s[%s(%d)]";
constexpr char kBadLocation[] = "[%s][Client]send download object failed, invalid new Location:%s[%s(%d)]";
constexpr char kRedirectSendFailed[] = "[%s][Client]send download object failed, redirect url:%s[%s(%d)]";
constexpr char kOpenFailed[] = "[%s][Client]recv file, open file failed:%s,%s, error[%d][%s(%d)]";
constexpr char kWriteFailed[] = "[%s][Client]recv file, write failed:%s, error:%d[%s(%d)]";

constexpr std::uint32_t kMiB = 1048576;

// The bytes that a "Range: bytes=A-B" of the protocol asks for: B is not included.
std::string RangeOf(const ScriptedRequest& request, const std::string& content) {
  unsigned long long begin = 0;
  unsigned long long end = content.size();
  std::sscanf(request.Header("Range").c_str(), "bytes=%llu-%llu", &begin, &end);
  return content.substr(begin, end - begin);
}

// Answers as an object server with one object does.
ScriptedServer::Handler ServeObject(const std::shared_ptr<const std::string>& content) {
  return [content](const ScriptedRequest& request) -> ScriptedAnswer {
    if (request.target.ends_with("?metadata")) {
      return {.headers = {{"Object-Size", std::to_string(content->size())}}};
    }
    return {.body = RangeOf(request, *content)};
  };
}

// While it lives, no file of this process grows beyond the limit: a disk that is full.
class CFullDisk {
 public:
  explicit CFullDisk(std::uint64_t limit) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit now = before_;
    now.rlim_cur = limit;
    setrlimit(RLIMIT_FSIZE, &now);
  }
  ~CFullDisk() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  CFullDisk(const CFullDisk&) = delete;
  CFullDisk& operator=(const CFullDisk&) = delete;

 private:
  rlimit before_{};
  void (*handler_)(int);
};

class ObjectProtoClientDownloadTest : public ObjectClientFixture {
 protected:
  ObjectProtoClientDownloadTest() { Use(Config()); }

  // A download keeps its state in the object, so each gets a fresh one.
  void Use(const SStorageServerConfig& config) {
    impl_ = std::make_shared<ObjectImpl>(config);
    Renew();
  }
  void Renew() {
    client_ = std::make_unique<CObjectProtoClient>();
    ASSERT_TRUE(client_->Init(impl_));
  }

  LastError Error() const {
    LastError error;
    const SLastErrorTexts texts = impl_->last_error.GetTexts();
    error = {static_cast<int>(texts.code), texts.second, texts.message};
    return error;
  }

  SClientFailure Failure() const { return impl_->last_error.GetFailure(); }

  bool DownloadToMemory(std::string& content, const std::string& range = "") {
    char* data = nullptr;
    unsigned int size = 0;
    if (!client_->DownloadObject(&data, &size, range, "/pool/key")) {
      EXPECT_EQ(data, nullptr);
      return false;
    }
    const std::unique_ptr<char[]> owner(data);
    EXPECT_EQ(data[size], '\0');
    content.assign(data, size);
    return true;
  }

  bool DownloadToFile(const std::string& name = "file") {
    return client_->DownloadObject(folder_.Path(name), "/pool/key");
  }

  void AnswerMetadata(std::uint64_t size) {
    server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", std::to_string(size)}}});
  }

  std::vector<std::string> Ranges() const {
    std::vector<std::string> ranges;
    for (const ScriptedRequest& request : server_.Requests()) {
      if (request.HasHeader("Range")) {
        ranges.push_back(request.Header("Range"));
      }
    }
    return ranges;
  }

  // Returns true when nobody holds the file open.
  bool IsFree(const std::string& name) const {
    TansyBase::CLocalFile file;
    const std::uint32_t error = file.OpenAlways(folder_.Path(name));
    file.Close();
    EXPECT_TRUE(error == 0 || error == 32) << error;
    return error == 0;
  }

  std::shared_ptr<ObjectImpl> impl_;
  std::unique_ptr<CObjectProtoClient> client_;
};

// ---- into memory

TEST_F(ObjectProtoClientDownloadTest, FetchesAnObject) {
  const std::string content = Tests::RandomBytes(300000);
  server_.Answer("GET /pool/key", {.body = content});
  std::string got;
  EXPECT_TRUE(DownloadToMemory(got));
  EXPECT_EQ(got, content);
  ASSERT_EQ(server_.Requests().size(), 1u);
  ExpectRequest(server_.Requests()[0], {.method = "GET", .target = "/pool/key", .host = server_.Address()});
  EXPECT_TRUE(Progress().empty());
}

TEST_F(ObjectProtoClientDownloadTest, FetchesFromTheDownloadPortUnderTheUploadPortsName) {
  SStorageServerConfig config = Config();
  config.upload_port = 4711;
  Use(config);
  server_.Answer("GET /pool/key", {.body = "x"});
  std::string got;
  EXPECT_TRUE(DownloadToMemory(got));
  ExpectRequest(server_.Requests().at(0), {.method = "GET", .target = "/pool/key", .host = "127.0.0.1:4711"});
}

TEST_F(ObjectProtoClientDownloadTest, FetchesARange) {
  server_.Answer("GET /pool/key", {.body = "0123456789"});
  std::string got;
  EXPECT_TRUE(DownloadToMemory(got, "10-20"));
  EXPECT_EQ(got, "0123456789");
  ExpectRequest(
      server_.Requests().at(0),
      {.method = "GET", .target = "/pool/key", .host = server_.Address(), .more_headers = {{"Range", "bytes=10-20"}}});
}

TEST_F(ObjectProtoClientDownloadTest, NeedsAPlaceForTheObject) {
  unsigned int size = 0;
  EXPECT_FALSE(client_->DownloadObject(nullptr, &size, "", "/pool/key"));
  EXPECT_EQ(Error(), (LastError{2, 0, "no place for the object."}));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(ObjectProtoClientDownloadTest, FetchesAnEmptyObject) {
  server_.Answer("GET /pool/key", {});
  std::string got = "before";
  EXPECT_TRUE(DownloadToMemory(got));
  EXPECT_EQ(got, "");
}

TEST_F(ObjectProtoClientDownloadTest, FetchesAnObjectThatComesInChunks) {
  server_.Answer("GET /pool/key",
                 {.headers = {{"Transfer-Encoding", "chunked"}}, .body = "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n"});
  std::string got;
  EXPECT_TRUE(DownloadToMemory(got));
  EXPECT_EQ(got, "hello world");
}

TEST_F(ObjectProtoClientDownloadTest, SaysWhyThereIsNoObject) {
  std::string got;
  server_.Answer("GET /pool/key", ErrorAnswer(404, "NoSuchBucket"));
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error(), (LastError{8, 0, "NoSuchBucket"}));
  EXPECT_EQ(log_->Count(kStatusFailed, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kStatusFailed), HasSubstr("url:http://" + server_.Address() +
                                                   ", status code:404, body:<Error><Code>NoSuchBucket</Code>"));

  server_.ClearScript();
  server_.Answer("GET /pool/key", ErrorAnswer(404, "NoSuchKey"));
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error(), (LastError{9, 0, "NoSuchKey"}));

  server_.ClearScript();
  server_.Answer("GET /pool/key", ErrorAnswer(400, "NoSuchKey, NoSuchBucket"));
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error(), (LastError{8, 0, "NoSuchBucket"})) << "whatever the status, and the bucket first";

  server_.ClearScript();
  server_.Answer("GET /pool/key", {.status = 206, .body = "part"});
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error(), (LastError{5, 0, "DownloadObject rsp status code[206]."})) << "only 200 is success";
}

TEST_F(ObjectProtoClientDownloadTest, SaysThatNoAnswerCame) {
  server_.Answer("GET /pool/key", {.cut_after = 0});
  std::string got;
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error().code, 4);
  EXPECT_THAT(Error().message, StartsWith("SendObjectMsg msg failed[6:"));
  EXPECT_EQ(log_->Count(kSendFailed, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kSendFailed), HasSubstr("url:/pool/key["));
}

TEST_F(ObjectProtoClientDownloadTest, RefusesABodyShorterThanAnnounced) {
  server_.Answer("GET /pool/key", {.headers = {{"Content-Length", "1000000"}}, .body = "short", .close = true});
  std::string got;
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error().code, 4);
}

TEST_F(ObjectProtoClientDownloadTest, FollowsARedirect) {
  for (const int status : {301, 302}) {
    ScriptedServer target;
    target.Answer("GET /elsewhere/object?token=1", {.body = "moved"});
    server_.ClearScript();
    server_.Answer("GET /pool/key",
                   {.status = status, .headers = {{"Location", target.Url("/elsewhere/object?token=1")}}});
    std::string got;
    EXPECT_TRUE(DownloadToMemory(got, "5-10"));
    EXPECT_EQ(got, "moved");
    // The new path is what is signed; the Host header still names the configured server.
    ExpectRequest(target.Requests().at(0), {.method = "GET",
                                            .target = "/elsewhere/object?token=1",
                                            .host = server_.Address(),
                                            .more_headers = {{"Range", "bytes=5-10"}}});
  }
}

TEST_F(ObjectProtoClientDownloadTest, TakesALocationFromItsStart) {
  // The scheme is looked for anywhere, but what stands before it stays part of the new base.
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", "URL=" + server_.Url("/new")}}});
  std::string got;
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_THAT(Error().message, StartsWith("SendObjectMsg msg failed[1:"));
  EXPECT_THAT(log_->Text(kRedirectSendFailed), HasSubstr("redirect url:URL=" + server_.Url("/new") + "["));
}

TEST_F(ObjectProtoClientDownloadTest, RefusesAnUnusableLocation) {
  for (const std::string& location :
       {std::string("ftp://127.0.0.1/x"), std::string("/path/only"), std::string("http://no-path-behind"),
        std::string("https://127.0.0.1/secure"), std::string()}) {
    log_->Clear();
    server_.ClearScript();
    server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", location}}});
    std::string got;
    EXPECT_FALSE(DownloadToMemory(got)) << location;
    EXPECT_EQ(Error(), (LastError{6, 0, "redirect url error[" + location + "]."}));
    EXPECT_EQ(log_->Count(kBadLocation, logging::kError), 1u);
    EXPECT_THAT(log_->Text(kBadLocation), HasSubstr("invalid new Location:" + location + "["));
  }
  server_.ClearScript();
  server_.Answer("GET /pool/key", {.status = 301});
  std::string got;
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error(), (LastError{6, 0, "redirect url error[]."}));
}

TEST_F(ObjectProtoClientDownloadTest, NamesTheWantedStatusWhenARedirectFails) {
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", server_.Url("/new")}}});
  server_.Answer("GET /new", ErrorAnswer(404, "NoSuchKey"));
  std::string got;
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error(), (LastError{5, 0, "DownloadObject rsp status code[200]."}));
  const std::string line = "[%s][Client]send download object failed, redirect url:%s, status code:%d, body:%s[%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("status code:404, body:<Error>"));
}

TEST_F(ObjectProtoClientDownloadTest, FollowsOneRedirectOnly) {
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", server_.Url("/pool/key")}}});
  std::string got;
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(server_.Requests().size(), 2u);
  EXPECT_EQ(Error(), (LastError{5, 0, "DownloadObject rsp status code[200]."}));
}

TEST_F(ObjectProtoClientDownloadTest, SaysThatTheRedirectedServerDoesNotAnswer) {
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", "http://127.0.0.1:1/x"}}});
  std::string got;
  EXPECT_FALSE(DownloadToMemory(got));
  EXPECT_EQ(Error().code, 4);
  EXPECT_EQ(log_->Count(kRedirectSendFailed, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kRedirectSendFailed), HasSubstr("redirect url:http://127.0.0.1:1/x["));
}

// ---- into a file, streamed

TEST_F(ObjectProtoClientDownloadTest, NeedsAPath) {
  EXPECT_FALSE(client_->DownloadObject("", "/pool/key"));
  EXPECT_EQ(Error(), (LastError{2, 0, "file path is empty."}));
  EXPECT_EQ(log_->Count("[%s][Client]send download object failed, url:%s,file part empty.[%s(%d)]", logging::kError),
            1u);
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(ObjectProtoClientDownloadTest, StreamsASmallObject) {
  const std::string content = Tests::RandomBytes(700000);
  AnswerMetadata(content.size());
  server_.Answer("GET /pool/key", {.body = content});
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), content);
  EXPECT_TRUE(IsFree("file"));
  ASSERT_EQ(server_.Requests().size(), 2u);
  ExpectRequest(server_.Requests()[0],
                {.method = "GET", .target = "/pool/key?metadata", .host = server_.Address(), .content_type = kXmlType});
  ExpectRequest(server_.Requests()[1], {.method = "GET", .target = "/pool/key", .host = server_.Address()});
  EXPECT_EQ(log_->Count("[%s][Client]download object[%s] success[%s(%d)]", logging::kNotable), 1u);
  EXPECT_EQ(log_->Count("[%s][Client]send url[%s][%s(%d)]", logging::kTrace), 2u);
  // 256 KiB a piece of 700000 bytes.
  EXPECT_THAT(Progress(), ElementsAre(37, 74, 100));
}

TEST_F(ObjectProtoClientDownloadTest, StreamsUpToTheLastByteBelowTenMebibytes) {
  server_.Handle(ServeObject(std::make_shared<const std::string>(Tests::RandomBytes(10485759))));
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(server_.Requests().size(), 2u);
  EXPECT_TRUE(Ranges().empty());
  EXPECT_EQ(folder_.Read("file"), Tests::RandomBytes(10485759));
}

TEST_F(ObjectProtoClientDownloadTest, OverwritesAnExistingFileFromItsStart) {
  folder_.Write("file", "0123456789");
  AnswerMetadata(3);
  server_.Answer("GET /pool/key", {.body = "abc"});
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), "abc3456789");
}

TEST_F(ObjectProtoClientDownloadTest, MakesNoFileOfAnEmptyObject) {
  AnswerMetadata(0);
  server_.Answer("GET /pool/key", {});
  EXPECT_TRUE(DownloadToFile());
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("file")));
  EXPECT_TRUE(Progress().empty());
}

TEST_F(ObjectProtoClientDownloadTest, GoesOnWithoutMetadata) {
  server_.Answer("GET /pool/key?metadata", ErrorAnswer(404, "NoSuchKey"));
  server_.Answer("GET /pool/key", {.body = "abc"});
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), "abc");
  const std::string line = "[%s][Client]get best node failed, error[%d:%s][%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), StartsWith("[Tansy::CloudStorage::CObjectProtoClient::GetObjectSize]"));

  Renew();
  server_.ClearScript();
  server_.Answer("GET /pool/key?metadata", {.cut_after = 0});
  server_.Answer("GET /pool/key", {.body = "def"});
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), "def");
  EXPECT_EQ(log_->Count("[%s][Client]send get metadata failed, error[%d:%d][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(Error(), (LastError{0, 0, ""}));

  for (const std::string& size : {std::string(""), std::string("many"), std::string("-20000000")}) {
    Renew();
    server_.ClearScript();
    server_.ClearRequests();
    server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", size}}});
    server_.Answer("GET /pool/key", {.body = "ghi"});
    EXPECT_TRUE(DownloadToFile()) << size;
    EXPECT_EQ(folder_.Read("file"), "ghi");
    EXPECT_TRUE(Ranges().empty());
  }
}

TEST_F(ObjectProtoClientDownloadTest, KeepsWhatComesWithoutALength) {
  AnswerMetadata(11);
  server_.Answer("GET /pool/key",
                 {.headers = {{"Transfer-Encoding", "chunked"}}, .body = "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n"});
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), "hello world");
  EXPECT_TRUE(Progress().empty()) << "of how much is not known";
}

TEST_F(ObjectProtoClientDownloadTest, ReportsAStatusAsSecondCode) {
  AnswerMetadata(3);
  server_.Answer("GET /pool/key", ErrorAnswer(404, "NoSuchKey"));
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error(), (LastError{5, 404, "DownloadBigObject rsp status code[404]."}));
  const std::string line = "[%s][Client]send download object failed, url:%s, error[%d][%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("url:/pool/key, error[404]"));
  EXPECT_EQ(Failure().code, ClientError::kUnexpectedAnswer);
  EXPECT_EQ(Failure().http_status, 404);
  EXPECT_EQ(Failure().error_code, "NoSuchKey");
  EXPECT_EQ(Failure().request, "GET /pool/key");
  EXPECT_EQ(Failure().address, server_.Address());
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("file")));
}

TEST_F(ObjectProtoClientDownloadTest, ReportsACutStream) {
  AnswerMetadata(700000);
  server_.Answer("GET /pool/key", {.body = Tests::RandomBytes(700000), .cut_after = 400000});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error().code, 4);
  EXPECT_NE(Error().second, 0);
  EXPECT_THAT(Error().message, StartsWith("Send download big object msg failed["));
  EXPECT_THAT(Error().message, HasSubstr(":" + std::to_string(Error().second) + "]."));
  const std::string line = "[%s][Client]send download object failed, url:%s, error[%d,%d][%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_TRUE(IsFree("file"));
}

TEST_F(ObjectProtoClientDownloadTest, ReportsAServerThatIsNotThere) {
  SStorageServerConfig config = Config();
  config.download_port = 1;
  Use(config);
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error().code, 4);
  EXPECT_THAT(Error().message, StartsWith("Send download big object msg failed[3:"));
}

TEST_F(ObjectProtoClientDownloadTest, WaitsForAStreamAsLongAsConfigured) {
  AnswerMetadata(3);
  server_.Answer("GET /pool/key", {.silent = true});
  impl_->receive_timeout_ms = 50;
  EXPECT_FALSE(DownloadToFile());
  EXPECT_THAT(Error().message, StartsWith("Send download big object msg failed[7:"));
}

TEST_F(ObjectProtoClientDownloadTest, ReportsAFileThatCannotBeMade) {
  AnswerMetadata(700000);
  server_.Answer("GET /pool/key", {.body = Tests::RandomBytes(700000)});
  EXPECT_FALSE(DownloadToFile("no-such-folder/file"));
  EXPECT_EQ(Error(), (LastError{5, 1000003, "DownloadBigObject rsp status code[1000003]."}));
  EXPECT_EQ(log_->Count(kOpenFailed, logging::kError), 1u);
  const std::string path = folder_.Path("no-such-folder/file");
  EXPECT_THAT(log_->Text(kOpenFailed), HasSubstr("open file failed:" + path + "," + path + ", error[3]"));
}

TEST_F(ObjectProtoClientDownloadTest, ReportsAFileThatIsHeldOpen) {
  TansyBase::CLocalFile holder;
  ASSERT_EQ(holder.OpenAlways(folder_.Path("file")), 0u);
  AnswerMetadata(3);
  server_.Answer("GET /pool/key", {.body = "abc"});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error(), (LastError{5, 1000032, "DownloadBigObject rsp status code[1000032]."}));
  EXPECT_EQ(Failure().code, ClientError::kLocalFile) << "the record says what it was";
  EXPECT_EQ(Failure().text, "open file[" + folder_.Path("file") + "] failed[32].");
  EXPECT_EQ(Failure().system_error, 32);
  holder.Close();
}

TEST_F(ObjectProtoClientDownloadTest, ReportsADiskThatIsFull) {
  AnswerMetadata(700000);
  server_.Answer("GET /pool/key", {.body = Tests::RandomBytes(700000)});
  {
    const CFullDisk full(300000);
    EXPECT_FALSE(DownloadToFile());
  }
  EXPECT_EQ(Error(), (LastError{5, -1002, "DownloadBigObject rsp status code[-1002]."}));
  EXPECT_EQ(Failure().code, ClientError::kLocalFile);
  EXPECT_EQ(Failure().text, "write file[" + folder_.Path("file") + "] failed[223].");
  EXPECT_EQ(log_->Count(kWriteFailed, logging::kError), 1u) << "what comes after it is dropped";
  EXPECT_TRUE(IsFree("file"));
}

TEST_F(ObjectProtoClientDownloadTest, DropsDataThatComesAfterTheEnd) {
  AnswerMetadata(3);
  server_.Answer("GET /pool/key", {.body = "abc"});
  EXPECT_TRUE(DownloadToFile());
  TansyNet::CHttpClientResponse rsp;
  rsp.status = 200;
  client_->RecvMsgCallback(rsp, "more", 4, {}, false);
  EXPECT_EQ(log_->Count("[%s][Client]recv file, open file failed:%s[%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(folder_.Read("file"), "abc");
}

TEST_F(ObjectProtoClientDownloadTest, StreamsFromWhereItIsRedirectedTo) {
  ScriptedServer target;
  target.Answer("GET /pool/key", {.body = "moved"});
  AnswerMetadata(5);
  // Only scheme, host and port of the new place count: the path stays the one asked for.
  server_.Answer("GET /pool/key", {.status = 301, .headers = {{"Location", target.Url("/other/path")}}});
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), "moved");
  ASSERT_EQ(target.Requests().size(), 1u);
  ExpectRequest(target.Requests()[0], {.method = "GET", .target = "/pool/key", .host = server_.Address()});
  EXPECT_TRUE(IsFree("file"));
}

TEST_F(ObjectProtoClientDownloadTest, RefusesToStreamFromAnUnusableLocation) {
  AnswerMetadata(5);
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", "/pool/key2"}}});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error(), (LastError{6, 0, "redirect url error[/pool/key2]."}));
  EXPECT_EQ(log_->Count(kBadLocation, logging::kError), 1u);
}

TEST_F(ObjectProtoClientDownloadTest, ReportsAStatusBehindARedirectAsSecondCode) {
  ScriptedServer target;
  target.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", target.Url("/pool/key")}}});
  AnswerMetadata(5);
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", target.Url("/pool/key")}}});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(target.Requests().size(), 1u) << "one redirect only";
  EXPECT_EQ(Error(), (LastError{5, 302, "DownloadBigObject rsp status code[302]."}));
  const std::string line = "[%s][Client]send download object failed, redirect url:%s, status code:%d[%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("redirect url:" + target.Url("/pool/key") + ", status code:302"));
}

TEST_F(ObjectProtoClientDownloadTest, ReportsARedirectToNobody) {
  AnswerMetadata(5);
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", "http://127.0.0.1:1/pool/key"}}});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error().code, 4);
  EXPECT_NE(Error().second, 0);
  EXPECT_THAT(Error().message, StartsWith("Send download big object msg failed[3:"));
  EXPECT_EQ(log_->Count(kRedirectSendFailed, logging::kError), 1u);
}

TEST_F(ObjectProtoClientDownloadTest, WritesNothingAfterTheFirstErrorOfTheFile) {
  // The first of three pieces finds no room. Written from the second on, the file would begin in the middle.
  AnswerMetadata(700000);
  server_.Answer("GET /pool/key", {.body = Tests::RandomBytes(700000)});
  {
    const CFullDisk full(100);
    EXPECT_FALSE(DownloadToFile());
  }
  EXPECT_EQ(Error(), (LastError{5, -1002, "DownloadBigObject rsp status code[-1002]."}));
  EXPECT_EQ(log_->Count(kWriteFailed, logging::kError), 1u);
  EXPECT_EQ(folder_.Read("file"), Tests::RandomBytes(100));
}

TEST_F(ObjectProtoClientDownloadTest, FollowsNoOtherRedirect) {
  for (const int status : {300, 303, 304, 305, 307, 308, 309}) {
    ScriptedServer target;
    Use(Config());
    server_.ClearScript();
    server_.Answer("GET /pool/key", {.status = status, .headers = {{"Location", target.Url("/pool/key")}}});
    std::string got;
    EXPECT_FALSE(DownloadToMemory(got)) << status;
    const std::string code = std::to_string(status);
    EXPECT_EQ(Error(), (LastError{5, 0, "DownloadObject rsp status code[" + code + "]."}));
    AnswerMetadata(3);
    EXPECT_FALSE(DownloadToFile()) << status;
    EXPECT_EQ(Error(), (LastError{5, status, "DownloadBigObject rsp status code[" + code + "]."}));
    Renew();
    server_.ClearScript();
    AnswerMetadata(10 * kMiB);
    server_.Answer("GET /pool/key", {.status = status, .headers = {{"Location", target.Url("/pool/key")}}});
    EXPECT_FALSE(DownloadToFile("ranges" + code)) << status;
    EXPECT_TRUE(target.Requests().empty()) << status;
  }
}

TEST_F(ObjectProtoClientDownloadTest, ClosesTheFileWhenTheProgressFunctionThrows) {
  SStorageServerConfig config = Config();
  config.callback = [](UploadProgress) { throw std::runtime_error("from the callback"); };
  for (const std::uint32_t size : {700000u, 10 * kMiB}) {
    Use(config);
    server_.ClearScript();
    server_.Handle(ServeObject(std::make_shared<const std::string>(Tests::RandomBytes(size))));
    EXPECT_THROW(DownloadToFile(), SHostCallbackError);
    EXPECT_TRUE(IsFree("file")) << size;
  }
}

// ---- into a file, in ranges

TEST_F(ObjectProtoClientDownloadTest, FetchesTenMebibytesInRanges) {
  const auto content = std::make_shared<const std::string>(Tests::RandomBytes(10 * kMiB));
  server_.Handle(ServeObject(content));
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), *content);
  EXPECT_THAT(Ranges(),
              ElementsAre("bytes=0-1048576", "bytes=1048576-2097152", "bytes=2097152-3145728", "bytes=3145728-4194304",
                          "bytes=4194304-5242880", "bytes=5242880-6291456", "bytes=6291456-7340032",
                          "bytes=7340032-8388608", "bytes=8388608-9437184", "bytes=9437184-10485760"));
  ExpectRequest(server_.Requests().at(1), {.method = "GET",
                                           .target = "/pool/key",
                                           .host = server_.Address(),
                                           .more_headers = {{"Range", "bytes=0-1048576"}}});
  EXPECT_THAT(Progress(), ElementsAre(10, 20, 30, 40, 50, 60, 70, 80, 90, 100));
  EXPECT_TRUE(IsFree("file"));
  EXPECT_EQ(log_->Count("[%s][Client]download object[%s] success[%s(%d)]", logging::kNotable), 1u);
}

TEST_F(ObjectProtoClientDownloadTest, EndsWithARangeOfTheRest) {
  const auto content = std::make_shared<const std::string>(Tests::RandomBytes(10 * kMiB + 1));
  server_.Handle(ServeObject(content));
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), *content);
  const std::vector<std::string> ranges = Ranges();
  EXPECT_EQ(ranges.size(), 11u);
  EXPECT_EQ(ranges.back(), "bytes=10485760-10485761");
}

TEST_F(ObjectProtoClientDownloadTest, OverwritesAnExistingFileInRanges) {
  const auto content = std::make_shared<const std::string>(Tests::RandomBytes(10 * kMiB));
  folder_.Write("file", std::string(10 * kMiB, 'o') + "tail");
  server_.Handle(ServeObject(content));
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), *content + "tail");
}

TEST_F(ObjectProtoClientDownloadTest, FollowsARedirectForEachRange) {
  const auto content = std::make_shared<const std::string>(Tests::RandomBytes(10 * kMiB));
  ScriptedServer target;
  target.Handle(ServeObject(content));
  AnswerMetadata(content->size());
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", target.Url("/pool/moved")}}});
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), *content);
  EXPECT_EQ(target.Requests().size(), 10u);
  ExpectRequest(target.Requests().back(), {.method = "GET",
                                           .target = "/pool/moved",
                                           .host = server_.Address(),
                                           .more_headers = {{"Range", "bytes=9437184-10485760"}}});
}

TEST_F(ObjectProtoClientDownloadTest, SaysThatTheFileForRangesCannotBeMade) {
  AnswerMetadata(10 * kMiB);
  EXPECT_FALSE(DownloadToFile("no-such-folder/file"));
  EXPECT_EQ(log_->Count(kOpenFailed, logging::kError), 1u);
  const std::string path = folder_.Path("no-such-folder/file");
  EXPECT_EQ(Error(), (LastError{3, 1000003, "open file[" + path + "] failed[3]."}));
  EXPECT_EQ(Failure().code, ClientError::kLocalFile);
  EXPECT_EQ(Failure().system_error, 3);
  EXPECT_EQ(server_.Requests().size(), 1u);
}

TEST_F(ObjectProtoClientDownloadTest, LeavesTheFileOpenAfterARangeWithABadStatus) {
  AnswerMetadata(10 * kMiB);
  server_.Answer("GET /pool/key", ErrorAnswer(404, "NoSuchKey"));
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error(), (LastError{9, 0, "NoSuchKey"}));
  EXPECT_EQ(log_->Count(kStatusFailed, logging::kError), 1u);
  EXPECT_FALSE(IsFree("file"));
  Renew();
  EXPECT_FALSE(IsFree("file")) << "the end of the object does not close it either";
  EXPECT_FALSE(DownloadToFile()) << "the earlier attempt holds the file";
  EXPECT_THAT(log_->Text(kOpenFailed), HasSubstr("error[32]"));
}

TEST_F(ObjectProtoClientDownloadTest, LeavesTheFileOpenAfterABadRedirectOfARange) {
  AnswerMetadata(10 * kMiB);
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", "nowhere"}}});
  EXPECT_FALSE(DownloadToFile("location"));
  EXPECT_EQ(Error().code, 6);
  EXPECT_FALSE(IsFree("location"));

  Renew();
  server_.ClearScript();
  AnswerMetadata(10 * kMiB);
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", "http://127.0.0.1:1/x"}}});
  EXPECT_FALSE(DownloadToFile("send"));
  EXPECT_EQ(Error().code, 4);
  EXPECT_FALSE(IsFree("send"));

  Renew();
  server_.ClearScript();
  AnswerMetadata(10 * kMiB);
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", server_.Url("/missing")}}});
  EXPECT_FALSE(DownloadToFile("status"));
  EXPECT_EQ(Error(), (LastError{5, 0, "DownloadObject rsp status code[200]."}));
  EXPECT_FALSE(IsFree("status"));
}

TEST_F(ObjectProtoClientDownloadTest, ClosesTheFileAfterARangeThatNobodyAnswers) {
  AnswerMetadata(10 * kMiB);
  server_.Answer("GET /pool/key", {.cut_after = 0});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error().code, 4);
  EXPECT_EQ(log_->Count(kSendFailed, logging::kError), 1u);
  EXPECT_TRUE(IsFree("file"));
}

TEST_F(ObjectProtoClientDownloadTest, ClosesTheFileWhenTheDiskIsFull) {
  server_.Handle(ServeObject(std::make_shared<const std::string>(Tests::RandomBytes(10 * kMiB))));
  {
    const CFullDisk full(3 * kMiB + 5);
    EXPECT_FALSE(DownloadToFile());
  }
  EXPECT_EQ(log_->Count(kWriteFailed, logging::kError), 1u);
  EXPECT_EQ(Error(), (LastError{3, -1002, "write file[" + folder_.Path("file") + "] failed[223]."}));
  EXPECT_EQ(Failure().system_error, 223) << "of a limit; a full disk has 112";
  EXPECT_TRUE(IsFree("file"));
}

// An object that is replaced by one of equal size after so many ranges.
class CReplacedObject {
 public:
  CReplacedObject(std::string first_tag, std::string second_tag, int ranges_before)
      : first_tag_(std::move(first_tag)), second_tag_(std::move(second_tag)), ranges_before_(ranges_before) {}

  ScriptedAnswer operator()(const ScriptedRequest& request) {
    const bool metadata = request.target.ends_with("?metadata");
    const bool replaced = !metadata && (*ranges_)++ >= ranges_before_;
    ScriptedAnswer answer;
    if (metadata) {
      answer.headers.emplace_back("Object-Size", std::to_string(10 * kMiB));
    } else {
      answer.body.assign(kMiB, replaced ? 'n' : 'o');
    }
    const std::string& tag = replaced ? second_tag_ : first_tag_;
    if (!tag.empty() && !(metadata && no_tag_in_metadata_)) {
      answer.headers.emplace_back("ETag", tag);
    }
    return answer;
  }

  CReplacedObject& WithoutTagInMetadata() {
    no_tag_in_metadata_ = true;
    return *this;
  }

 private:
  const std::string first_tag_;
  const std::string second_tag_;
  const int ranges_before_;
  const std::shared_ptr<std::atomic<int>> ranges_ = std::make_shared<std::atomic<int>>(0);  // the server copies
  bool no_tag_in_metadata_ = false;
};

TEST_F(ObjectProtoClientDownloadTest, DoesNotMixTwoVersions) {
  server_.Handle(CReplacedObject("\"old\"", "\"new\"", 3));
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error(), (LastError{13, 0, "object changed while it was read."}));
  EXPECT_EQ(Failure().request, "GET /pool/key");
  EXPECT_EQ(server_.Requests().size(), 5u) << "no range after the change";
  EXPECT_EQ(std::filesystem::file_size(folder_.Path("file")), 3 * kMiB);
  EXPECT_TRUE(IsFree("file"));

  // The object is replaced between the question for its size and the first range.
  Renew();
  server_.Handle(CReplacedObject("\"old\"", "\"new\"", 0));
  EXPECT_FALSE(DownloadToFile("first"));
  EXPECT_EQ(Error().code, 13);

  // These ranges lack the tag that the server gave before, so nobody knows to which version they belong.
  Renew();
  server_.Handle(CReplacedObject("\"old\"", "", 3));
  EXPECT_FALSE(DownloadToFile("untagged"));
  EXPECT_EQ(Error().code, 13);

  // A server that names no tag together with the size is held to that of its first range.
  Renew();
  server_.Handle(CReplacedObject("\"old\"", "\"new\"", 3).WithoutTagInMetadata());
  EXPECT_FALSE(DownloadToFile("late"));
  EXPECT_EQ(Error().code, 13);
}

TEST_F(ObjectProtoClientDownloadTest, TakesRangesOfOneVersion) {
  server_.Handle(CReplacedObject("\"old\"", "", 10));
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(server_.Requests().size(), 11u);
  EXPECT_EQ(folder_.Read("file"), std::string(10 * kMiB, 'o'));
  Renew();
  server_.ClearRequests();
  server_.Handle(CReplacedObject("\"old\"", "", 10).WithoutTagInMetadata());
  EXPECT_TRUE(DownloadToFile("late"));
  EXPECT_EQ(server_.Requests().size(), 12u)
      << "the tag of the ranges says nothing about the size, which is asked again";
}

TEST_F(ObjectProtoClientDownloadTest, ComparesTheSizesWhenOnlyTheRangesHaveATag) {
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", std::to_string(10 * kMiB)}}});
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", std::to_string(10 * kMiB + 1)}}});
  server_.Answer("GET /pool/key", {.headers = {{"ETag", "\"larger\""}}, .body = std::string(kMiB, 'x')});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error(), (LastError{13, 0, "object changed while it was read."}));
}

// Another server has the same object, but perhaps not the same name for its version.
TEST_F(ObjectProtoClientDownloadTest, HoldsRedirectedRangesToTheTagOfTheFirst) {
  ScriptedServer target;
  server_.Answer("GET /pool/key?metadata",
                 {.headers = {{"Object-Size", std::to_string(10 * kMiB)}, {"ETag", "\"here\""}}});
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", target.Url("/pool/key")}}});
  target.Handle(CReplacedObject("\"there\"", "", 10));
  EXPECT_TRUE(DownloadToFile());
  EXPECT_EQ(folder_.Read("file"), std::string(10 * kMiB, 'o'));

  Renew();
  target.Handle(CReplacedObject("\"there\"", "\"new\"", 3));
  EXPECT_FALSE(DownloadToFile("changed"));
  EXPECT_EQ(Error().code, 13);
}

TEST_F(ObjectProtoClientDownloadTest, ComparesTheSizesOfAServerWithoutTags) {
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", std::to_string(10 * kMiB)}}});
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", std::to_string(10 * kMiB + 1)}}});
  server_.Answer("GET /pool/key", {.body = std::string(kMiB, 'x')});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(Error(), (LastError{13, 0, "object changed while it was read."}));
  EXPECT_TRUE(IsFree("file"));

  // The object is gone at the end.
  Renew();
  server_.ClearScript();
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", std::to_string(10 * kMiB)}}});
  server_.Answer("GET /pool/key?metadata", ErrorAnswer(404, "NoSuchKey"));
  server_.Answer("GET /pool/key", {.body = std::string(kMiB, 'x')});
  EXPECT_FALSE(DownloadToFile("gone"));
  EXPECT_EQ(Error(), (LastError{5, 0, "get metadata rsp status code[404]."}));
  EXPECT_EQ(Failure().error_code, "NoSuchKey");
  EXPECT_TRUE(IsFree("gone"));
}

TEST_F(ObjectProtoClientDownloadTest, RefusesARangeOfAnotherLength) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{kMiB - 1}, std::size_t{kMiB + 1}}) {
    Renew();
    server_.ClearScript();
    server_.ClearRequests();
    AnswerMetadata(10 * kMiB);
    server_.Answer("GET /pool/key", {.body = std::string(size, 'x')});
    const std::string name = std::to_string(size);
    EXPECT_FALSE(DownloadToFile(name));
    EXPECT_EQ(Error(), (LastError{5, 0, "DownloadObject rsp status code[200]."}));
    EXPECT_EQ(server_.Requests().size(), 2u);
    EXPECT_TRUE(IsFree(name));
  }
}

TEST_F(ObjectProtoClientDownloadTest, RefusesARangeThatWouldFillTheMemory) {
  AnswerMetadata(10 * kMiB);
  server_.Answer("GET /pool/key", {.body = std::string(3 * kMiB, 'x')});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_THAT(Error().message, StartsWith("SendObjectMsg msg failed[9:"));
}

TEST_F(ObjectProtoClientDownloadTest, SurvivesASizeThatCannotBeTrue) {
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", "9223372036854775807"}}});
  server_.Answer("GET /pool/key", {.body = "x"});
  EXPECT_FALSE(DownloadToFile());
  EXPECT_EQ(server_.Requests().size(), 2u);
}

}  // namespace
}  // namespace Tansy::CloudStorage
