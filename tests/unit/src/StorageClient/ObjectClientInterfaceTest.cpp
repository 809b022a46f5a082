#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "MultipartServer.h"
#include "ObjectClientFixture.h"
#include "TansyBase/FileUtil.h"
#include "TansyNet/HttpClient.h"
#include "fakes/Ipv6Loopback.h"

namespace Tansy::CloudStorage {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using Tests::ScriptedAnswer;
using Tests::ScriptedRequest;

constexpr char kGuid[] = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";
constexpr char kPathNodeFailed[] = "[%s]upload file[%s] failed, get best node failed.[%s(%d)]";

class ObjectClientInterfaceTest : public ObjectClientFixture {
 protected:
  // Best-node requests get this server's address, and all others get `answer`.
  void ServeUploads(ScriptedAnswer answer = {}) {
    server_.Handle([this, answer](const ScriptedRequest& request) {
      return request.target.ends_with("?bestnode") ? BestNodeAnswer(server_.Address()) : answer;
    });
  }

  // A client whose server does not run.
  SStorageServerConfig DeadConfig() {
    SStorageServerConfig config = Config();
    config.upload_port = 1;
    config.download_port = 1;
    return config;
  }

  CObjectClient client_{Config()};
};

// ---- configuration

TEST_F(ObjectClientInterfaceTest, AcceptsAWholeConfiguration) {
  EXPECT_TRUE(client_.Init());
  EXPECT_TRUE(client_.Uninit());
  EXPECT_EQ(ErrorOf(client_), (LastError{0, 0, ""}));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(ObjectClientInterfaceTest, RefusesAConfigurationWithAnEmptyField) {
  const std::string line = "[%s]sk[%s] , ak[%s], ip[%s], pool name[%s] is invalid.[%s(%d)]";
  for (std::string SStorageServerConfig::*field : {&SStorageServerConfig::sk, &SStorageServerConfig::ak,
                                                   &SStorageServerConfig::ip, &SStorageServerConfig::pool_name}) {
    SStorageServerConfig config = Config();
    config.*field = "";
    CObjectClient client(config);
    log_->Clear();
    EXPECT_FALSE(client.Init());
    EXPECT_EQ(log_->Count(line, logging::kError), 1u);
    EXPECT_EQ(ErrorOf(client), (LastError{2, 0, "ak/sk empty or ip & pool name empty."}));
  }
  SStorageServerConfig config = Config();
  config.pool_name = "";
  CObjectClient(config).Init();
  // The labels of the two keys are exchanged.
  EXPECT_THAT(log_->Text(line), HasSubstr("sk[" + std::string(kAccessKey) + "] , ak[" + kSecretKey +
                                          "], ip[127.0.0.1], pool name[] is invalid."));
  EXPECT_THAT(log_->Text(line), StartsWith("[Tansy::CloudStorage::CObjectClient::Init]"));
}

TEST_F(ObjectClientInterfaceTest, RefusesAConfigurationWithoutPorts) {
  const std::string line = "[%s]upload port[%d] , download port[%d] is invalid.[%s(%d)]";
  for (std::uint32_t SStorageServerConfig::*field :
       {&SStorageServerConfig::upload_port, &SStorageServerConfig::download_port}) {
    SStorageServerConfig config = Config();
    config.upload_port = 7;
    config.download_port = 8;
    config.*field = 0;
    CObjectClient client(config);
    EXPECT_FALSE(client.Init());
    EXPECT_EQ(ErrorOf(client), (LastError{2, 0, "upload port or download port is 0."}));
  }
  EXPECT_EQ(log_->Count(line, logging::kError), 2u);
  EXPECT_THAT(log_->Text(line), HasSubstr("upload port[7] , download port[0] is invalid."));
}

TEST_F(ObjectClientInterfaceTest, LooksAtTheKeysBeforeThePorts) {
  CObjectClient client{SStorageServerConfig{}};
  EXPECT_FALSE(client.Init());
  EXPECT_EQ(ErrorOf(client), (LastError{2, 0, "ak/sk empty or ip & pool name empty."}));
}

TEST_F(ObjectClientInterfaceTest, WorksWithoutInit) {
  server_.Answer("DELETE /pool/key", {});
  EXPECT_TRUE(client_.RemoveFileByUrl("/pool/key"));
}

TEST_F(ObjectClientInterfaceTest, KeepsACopyOfTheConfiguration) {
  server_.Answer("DELETE /pool/key", {});
  auto config = std::make_unique<SStorageServerConfig>(Config());
  CObjectClient client(*config);
  config->ip = "changed";
  config.reset();
  EXPECT_TRUE(client.RemoveFileByUrl("/pool/key"));
}

TEST_F(ObjectClientInterfaceTest, SharesItsStateWithItsCopies) {
  CObjectClient copy(client_);
  CObjectClient assigned(DeadConfig());
  assigned = client_;
  EXPECT_FALSE(copy.RemoveFileByUrl("/pool/missing"));
  const LastError expected{5, 0, "remove object rsp status code[404]."};
  EXPECT_EQ(ErrorOf(client_), expected);
  EXPECT_EQ(ErrorOf(copy), expected);
  EXPECT_EQ(ErrorOf(assigned), expected);

  // Time-outs are shared too.
  server_.Answer("GET /pool/slow", {.silent = true});
  assigned.SetTimeoutConfig(50, 50);
  char* data = nullptr;
  unsigned int size = 0;
  EXPECT_FALSE(client_.DownloadFile(&data, size, "/pool/slow"));
  EXPECT_THAT(ErrorOf(copy).message, StartsWith("SendObjectMsg msg failed[7:"));
}

TEST_F(ObjectClientInterfaceTest, OutlivesItsOriginal) {
  auto original = std::make_unique<CObjectClient>(Config());
  CObjectClient copy(*original);
  original.reset();
  server_.Answer("DELETE /pool/key", {});
  EXPECT_TRUE(copy.RemoveFileByUrl("/pool/key"));
}

TEST_F(ObjectClientInterfaceTest, KeepsTheLastErrorThroughSuccesses) {
  EXPECT_FALSE(client_.RemoveFileByUrl("/pool/missing"));
  server_.Answer("DELETE /pool/key", {});
  EXPECT_TRUE(client_.RemoveFileByUrl("/pool/key"));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "remove object rsp status code[404]."}));
}

TEST_F(ObjectClientInterfaceTest, KeepsTheSecondCodeUntilThereIsAnother) {
  EXPECT_FALSE(client_.DownloadFile("/pool/missing", folder_.Path("file")));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 404, "DownloadBigObject rsp status code[404]."}));
  EXPECT_FALSE(client_.RemoveFileByUrl("/pool/missing"));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 404, "remove object rsp status code[404]."}));
}

// ---- uploading files

TEST_F(ObjectClientInterfaceTest, UploadsASmallFile) {
  ServeUploads();
  const std::string content = Tests::RandomBytes(100000);
  const std::string path = folder_.Write("movie.mp4", content);
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, path));
  EXPECT_THAT(url, MatchesRegex("/pool/" + std::string(kGuid) + "\\.mp4"));
  ASSERT_EQ(server_.Requests().size(), 2u);
  ExpectRequest(server_.Requests()[0],
                {.method = "GET", .target = url + "?bestnode", .host = server_.Address(), .content_type = kXmlType});
  ExpectRequest(server_.Requests()[1], {.method = "PUT",
                                        .target = url,
                                        .host = server_.Address(),
                                        .content_type = kBinaryType,
                                        .body = content,
                                        .content_md5 = true});
  EXPECT_THAT(Progress(), ElementsAre(100));
  // The file is free again, and as it was.
  EXPECT_EQ(Tests::ReadFile(path), content);
  TansyBase::CLocalFile file;
  EXPECT_EQ(file.OpenAlways(path), 0u);
  file.Close();
}

TEST_F(ObjectClientInterfaceTest, UploadsToTheBestNode) {
  Tests::ScriptedServer node;
  node.Handle([](const ScriptedRequest&) { return ScriptedAnswer{}; });
  server_.Handle([&](const ScriptedRequest&) { return BestNodeAnswer(node.Address()); });
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, folder_.Write("file", "x")));
  EXPECT_EQ(server_.Requests().size(), 1u);
  ASSERT_EQ(node.Requests().size(), 1u);
  EXPECT_EQ(node.Requests()[0].Header("Host"), server_.Address());
}

TEST_F(ObjectClientInterfaceTest, TakesTheExtensionOfTheFilesOwnName) {
  ServeUploads();
  const struct {
    const char* name;
    const char* extension;
  } cases[] = {{"b.mp4", ".mp4"},     {"archive.tar.gz", ".gz"}, {"plain", ""},          {"dir.old/file", ""},
               {"dir.old/f.x", ".x"}, {".hidden", ".hidden"},    {"ends-with-dot.", "."}};
  for (const auto& [name, extension] : cases) {
    std::string url;
    EXPECT_TRUE(client_.UploadFile(url, folder_.Write(name, "x"))) << name;
    EXPECT_EQ(url.substr(std::string("/pool/").size() + 36), extension) << name;
  }
}

TEST_F(ObjectClientInterfaceTest, TakesABackslashForASeparator) {
  ServeUploads();
  folder_.Write("dir.old/file", "x");
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, folder_.Path("dir.old") + "\\file"));
  EXPECT_THAT(url, MatchesRegex("/pool/" + std::string(kGuid)));
}

TEST_F(ObjectClientInterfaceTest, UploadsFilesWithAnyName) {
  ServeUploads();
  for (const char* name : {"-rf", "two words.txt", "\xc3\xa4\xe6\x96\x87.txt", "--", "a'b.txt"}) {
    std::string url;
    EXPECT_TRUE(client_.UploadFile(url, folder_.Write(name, name))) << name;
    EXPECT_EQ(server_.Requests().back().body, name);
  }
}

TEST_F(ObjectClientInterfaceTest, UploadsNothingUnderAnExtensionThatIsNoTarget) {
  ServeUploads();
  std::string url = "before";
  EXPECT_FALSE(client_.UploadFile(url, folder_.Write("notes. final", "x")));
  EXPECT_THAT(ErrorOf(client_).message, StartsWith("Send get best node msg failed[1:"));
  EXPECT_EQ(url, "before");
}

TEST_F(ObjectClientInterfaceTest, MakesAndUploadsAMissingFile) {
  ServeUploads();
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, folder_.Path("new.bin")));
  EXPECT_TRUE(std::filesystem::exists(folder_.Path("new.bin")));
  EXPECT_EQ(server_.Requests().back().method, "PUT");
  EXPECT_EQ(server_.Requests().back().body, "");
  EXPECT_THAT(Progress(), ElementsAre(100));
}

TEST_F(ObjectClientInterfaceTest, UploadsUpToTheLastByteBelowTenMebibytesAsOneObject) {
  ServeUploads();
  const std::string content = Tests::RandomBytes(10485759);
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, folder_.Write("file", content)));
  ASSERT_EQ(server_.Requests().size(), 2u);
  EXPECT_EQ(server_.Requests()[1].method, "PUT");
  EXPECT_EQ(server_.Requests()[1].body, content);
}

TEST_F(ObjectClientInterfaceTest, NeedsAPathToUpload) {
  std::string url;
  EXPECT_FALSE(client_.UploadFile(url, ""));
  EXPECT_EQ(log_->Count("[%s]path is empty.[%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{2, 0, "file path is empty."}));
  EXPECT_TRUE(Progress().empty());
}

TEST_F(ObjectClientInterfaceTest, SaysWhyAFileCannotBeOpened) {
  const std::string path = folder_.Path("no-such-folder/file");
  std::string url;
  EXPECT_FALSE(client_.UploadFile(url, path));
  const std::string line = "[%s]open file failed[%s], error[%d].[%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("open file failed[" + path + "], error[3]."));
  EXPECT_EQ(ErrorOf(client_), (LastError{3, 0, "open file[" + path + "] failed[3]."}));
  EXPECT_TRUE(Progress().empty());
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(ObjectClientInterfaceTest, DoesNotShareTheFile) {
  const std::string path = folder_.Write("file", "x");
  TansyBase::CLocalFile holder;
  ASSERT_EQ(holder.OpenAlways(path), 0u);
  std::string url;
  EXPECT_FALSE(client_.UploadFile(url, path));
  EXPECT_EQ(ErrorOf(client_), (LastError{3, 0, "open file[" + path + "] failed[32]."}));
  holder.Close();
}

TEST_F(ObjectClientInterfaceTest, RefusesAFolder) {
  std::string url;
  EXPECT_FALSE(client_.UploadFile(url, folder_.Path("")));
  EXPECT_EQ(ErrorOf(client_).code, 3);
}

TEST_F(ObjectClientInterfaceTest, RefusesAFileWhoseSizeNeedsMoreThanThirtyTwoBits) {
  ServeUploads();
  const std::string path = folder_.Write("huge", "");
  std::filesystem::resize_file(path, (std::uint64_t{4} << 30) + 5);  // a hole: its low 32 bits are 5
  std::string url;
  EXPECT_FALSE(client_.UploadFile(url, path));
  EXPECT_EQ(log_->Count("[%s]ftell file failed!file[%s],errno[%d][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{3, 0, "ftell file[" + path + "] failed[223]."}));
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_THAT(Progress(), ElementsAre(100));
}

TEST_F(ObjectClientInterfaceTest, RefusesAFileThatBecomesShorter) {
  const std::string path = folder_.Write("file", std::string(100000, 'x'));
  server_.Handle([&](const ScriptedRequest&) {
    std::filesystem::resize_file(path, 50000);
    return BestNodeAnswer(server_.Address());
  });
  std::string url = "before";
  EXPECT_FALSE(client_.UploadFile(url, path));
  EXPECT_EQ(log_->Count("[%s]read_elements != 1, error[%d][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{3, 0, "fread file[" + path + "] failed[38]."}));
  EXPECT_EQ(server_.Requests().size(), 1u);
  EXPECT_EQ(url, "before");
  EXPECT_THAT(Progress(), ElementsAre(100));
}

TEST_F(ObjectClientInterfaceTest, ReportsAHundredAfterAFailureToo) {
  CObjectClient client(DeadConfig());
  const std::string path = folder_.Write("file", "x");
  std::string url = "before";
  EXPECT_FALSE(client.UploadFile(url, path));
  EXPECT_EQ(log_->Count(kPathNodeFailed, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kPathNodeFailed), HasSubstr("upload file[" + path + "] failed"));
  EXPECT_THAT(ErrorOf(client).message, StartsWith("Send get best node msg failed[3:"));
  EXPECT_THAT(Progress(), ElementsAre(100));
  EXPECT_EQ(url, "before");
}

TEST_F(ObjectClientInterfaceTest, SaysTheSameOfAFailedSingleUpload) {
  ServeUploads(ErrorAnswer(500, "NotEnoughSpace"));
  std::string url = "before";
  EXPECT_FALSE(client_.UploadFile(url, folder_.Write("file", "x")));
  EXPECT_EQ(log_->Count(kPathNodeFailed, logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{7, 0, "upload object rsp status code[500]."}));
  EXPECT_THAT(Progress(), ElementsAre(100));
  EXPECT_EQ(url, "before");
  // The file is free for another attempt.
  ServeUploads();
  EXPECT_TRUE(client_.UploadFile(url, folder_.Path("file")));
}

TEST_F(ObjectClientInterfaceTest, UploadsWithoutAProgressCallback) {
  ServeUploads();
  SStorageServerConfig config = Config();
  config.callback = nullptr;
  CObjectClient client(config);
  std::string url;
  EXPECT_TRUE(client.UploadFile(url, folder_.Write("file", "x")));
}

TEST_F(ObjectClientInterfaceTest, KeepsWhatACallbackThrows) {
  ServeUploads();
  SStorageServerConfig config = Config();
  config.callback = [](UploadProgress) { throw std::runtime_error("from the callback"); };
  CObjectClient client(config);
  const std::string path = folder_.Write("file", "x");
  std::string url;
  EXPECT_FALSE(client.UploadFile(url, path));
  EXPECT_THAT(log_->Text("[%s][Client]operation failed, exception[%s][%s(%d)]"), HasSubstr("[from the callback]"));
  EXPECT_EQ(ErrorOf(client), (LastError{10, 0, "progress function failed[from the callback]."}));
  EXPECT_EQ(client.GetLastFailure().code, ClientError::kHostCallback);
  TansyBase::CLocalFile file;
  EXPECT_EQ(file.OpenAlways(path), 0u) << "the file is closed all the same";
  file.Close();

  config.callback = [](UploadProgress) { throw 5; };
  CObjectClient other(config);
  EXPECT_FALSE(other.UploadFile(url, path));
  EXPECT_EQ(log_->Count("[%s][Client]operation failed, exception of unknown type[%s(%d)]"), 1u);
  EXPECT_EQ(ErrorOf(other), (LastError{10, 0, "progress function failed[exception of unknown type]."}));
}

TEST_F(ObjectClientInterfaceTest, FailsWhenItsConfigurationCannotBeCopied) {
  struct SThrowing {
    SThrowing() = default;
    SThrowing(const SThrowing& other) : copies(other.copies) {
      if (++*copies > 1) {
        throw std::bad_alloc();
      }
    }
    SThrowing& operator=(const SThrowing&) = delete;
    void operator()(UploadProgress) const {}
    std::shared_ptr<int> copies = std::make_shared<int>(0);
  };
  SStorageServerConfig config = Config();
  config.callback = SThrowing();
  CObjectClient client(config);
  std::string url = "before";
  EXPECT_FALSE(client.Init());
  EXPECT_FALSE(client.UploadFile(url, folder_.Write("file", "x")));
  EXPECT_FALSE(client.UploadFile(url, "x", 1));
  EXPECT_FALSE(client.UploadFileByPieces(url, "x", 1, false));
  EXPECT_FALSE(client.GetStorageVersion(url, {"127.0.0.1", server_.Port(), "a", "s"}));
  client.SetTimeoutConfig(1, 1);
  EXPECT_EQ(ErrorOf(client).code, 11);
  EXPECT_EQ(client.GetLastFailure().code, ClientError::kOutOfResources);
  EXPECT_EQ(url, "before");
  EXPECT_TRUE(server_.Requests().empty());
}

// ---- uploading buffers

TEST_F(ObjectClientInterfaceTest, UploadsABuffer) {
  ServeUploads();
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, "bytes", 5));
  EXPECT_THAT(url, MatchesRegex("/pool/" + std::string(kGuid) + "\\.pfile"));
  ASSERT_EQ(server_.Requests().size(), 2u);
  EXPECT_EQ(server_.Requests()[0].target, url + "?bestnode");
  ExpectRequest(server_.Requests()[1], {.method = "PUT",
                                        .target = url,
                                        .host = server_.Address(),
                                        .content_type = kBinaryType,
                                        .body = "bytes",
                                        .content_md5 = true});
  EXPECT_TRUE(Progress().empty());
}

TEST_F(ObjectClientInterfaceTest, UploadsABufferOfThirtyTwoMebibytesAndNotOneByteMore) {
  ServeUploads();
  const std::string data(33554433, 'x');
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, data.data(), 33554432));
  EXPECT_EQ(server_.Requests().back().body.size(), 33554432u);
  server_.ClearRequests();
  EXPECT_FALSE(client_.UploadFile(url, data.data(), 33554433));
  const std::string line = "[%s]upload file failed, size[%d] exceed.[%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("size[33554433] exceed."));
  EXPECT_EQ(ErrorOf(client_), (LastError{2, 0, "file size exceed 32M."}));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(ObjectClientInterfaceTest, UploadsAnEmptyBuffer) {
  ServeUploads();
  std::string url;
  EXPECT_TRUE(client_.UploadFile(url, nullptr, 0));
  EXPECT_EQ(server_.Requests().back().Header("Content-Length"), "0");
}

TEST_F(ObjectClientInterfaceTest, SaysWhatFailedOfABuffer) {
  std::string url = "before";
  CObjectClient dead(DeadConfig());
  EXPECT_FALSE(dead.UploadFile(url, "bytes", 5));
  const std::string node = "[%s]upload file failed, object key[%s] get best node failed.[%s(%d)]";
  EXPECT_EQ(log_->Count(node, logging::kError), 1u);
  EXPECT_THAT(log_->Text(node), HasSubstr(".pfile] get best node failed."));

  ServeUploads(ErrorAnswer(403, "AccessDenied"));
  EXPECT_FALSE(client_.UploadFile(url, "bytes", 5));
  EXPECT_EQ(log_->Count("[%s]upload file failed, object key[%s] upload failed.[%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "upload object rsp status code[403]."}));
  EXPECT_EQ(url, "before");
}

// ---- downloading and removing

TEST_F(ObjectClientInterfaceTest, DownloadsIntoMemory) {
  server_.Answer("GET /pool/key", {.body = "content"});
  char* data = nullptr;
  unsigned int size = 0;
  EXPECT_TRUE(client_.DownloadFile(&data, size, "/pool/key"));
  const std::unique_ptr<char[]> owner(data);
  EXPECT_EQ(size, 7u);
  EXPECT_STREQ(data, "content");
  EXPECT_FALSE(server_.Requests().at(0).HasHeader("Range"));
}

TEST_F(ObjectClientInterfaceTest, DownloadsARange) {
  server_.Answer("GET /pool/key", {.body = "cont"});
  char* data = nullptr;
  unsigned int size = 0;
  std::string range = "0-4";
  EXPECT_TRUE(client_.DownloadFile(&data, size, range, "/pool/key"));
  const std::unique_ptr<char[]> owner(data);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(server_.Requests().at(0).Header("Range"), "bytes=0-4");
}

TEST_F(ObjectClientInterfaceTest, DownloadsIntoAFile) {
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", "7"}}});
  server_.Answer("GET /pool/key", {.body = "content"});
  EXPECT_TRUE(client_.DownloadFile("/pool/key", folder_.Path("\xc3\xa4 file")));
  EXPECT_EQ(folder_.Read("\xc3\xa4 file"), "content");
  EXPECT_THAT(Progress(), ElementsAre(100));
}

TEST_F(ObjectClientInterfaceTest, SaysWhichDownloadFailed) {
  char* data = nullptr;
  unsigned int size = 5;
  std::string range = "1-2";
  const std::string line = "[%s]download file failed, url[%s].[%s(%d)]";
  const std::string range_line = "[%s]download file failed, url[%s], range[%s].[%s(%d)]";
  EXPECT_FALSE(client_.DownloadFile(&data, size, "/pool/missing"));
  EXPECT_FALSE(client_.DownloadFile("/pool/missing", folder_.Path("file")));
  EXPECT_EQ(log_->Count(line, logging::kError), 2u);
  EXPECT_THAT(log_->Text(line), HasSubstr("url[/pool/missing]."));
  EXPECT_FALSE(client_.DownloadFile(&data, size, range, "/pool/missing"));
  EXPECT_EQ(log_->Count(range_line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(range_line), HasSubstr("url[/pool/missing], range[1-2]."));
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(size, 5u);
}

TEST_F(ObjectClientInterfaceTest, RemovesObjects) {
  server_.Answer("DELETE /pool/key", {});
  server_.Answer("DELETE /pool/key?deletefile", {});
  EXPECT_TRUE(client_.RemoveFileByUrl("/pool/key"));
  EXPECT_TRUE(client_.RemoveObjectFileByUrl("/pool/key"));
  ASSERT_EQ(server_.Requests().size(), 2u);
  EXPECT_EQ(server_.Requests()[0].target, "/pool/key");
  EXPECT_EQ(server_.Requests()[1].target, "/pool/key?deletefile");
  const std::string line = "[%s]Remove file failed, url[%s].[%s(%d)]";
  EXPECT_EQ(log_->Count(line), 0u);
  EXPECT_FALSE(client_.RemoveFileByUrl("/pool/missing"));
  EXPECT_FALSE(client_.RemoveObjectFileByUrl("/pool/missing"));
  EXPECT_EQ(log_->Count(line, logging::kError), 2u);
}

TEST_F(ObjectClientInterfaceTest, FailsWithoutItsState) {
  CObjectClient client(Config());
  Strip(client);
  char* data = nullptr;
  unsigned int size = 0;
  std::string range = "0-1";
  std::string url;
  EXPECT_FALSE(client.Init());
  EXPECT_EQ(log_->Count("[%s]config ptr is null.[%s(%d)]", logging::kError), 1u);
  EXPECT_FALSE(client.UploadFile(url, "x", 1));
  EXPECT_EQ(log_->Count("[%s]upload file failed, ptr_conf_ is null.[%s(%d)]", logging::kError), 1u);
  EXPECT_FALSE(client.DownloadFile(&data, size, "/pool/key"));
  EXPECT_EQ(log_->Count("[%s]download file failed, ptr_conf_ is null, url[%s].[%s(%d)]", logging::kError), 1u);
  EXPECT_FALSE(client.DownloadFile(&data, size, range, "/pool/key"));
  EXPECT_EQ(log_->Count("[%s]download file failed, ptr_conf_ is null, url[%s], range[%s].[%s(%d)]", logging::kError),
            1u);
  EXPECT_FALSE(client.RemoveFileByUrl("/pool/key"));
  EXPECT_FALSE(client.RemoveObjectFileByUrl("/pool/key"));
  EXPECT_EQ(log_->Count("[%s]Remove file failed, ptr_conf_ is null, url[%s].[%s(%d)]", logging::kError), 2u);
  EXPECT_FALSE(client.DownloadFile("/pool/key", folder_.Path("file")));
  EXPECT_EQ(log_->Count("[%s]Init failed, server_config is nullptr.[%s(%d)]", logging::kError), 1u);
  EXPECT_FALSE(client.UploadFile(url, folder_.Write("file", "x")));
  EXPECT_FALSE(client.UploadFile(url, std::string(33554433, 'x').data(), 33554433));
  EXPECT_FALSE(client.GetStorageVersion(url, {"127.0.0.1", server_.Port(), "a", "s"}));
  client.SetTimeoutConfig(1, 1);
  EXPECT_EQ(ErrorOf(client), (LastError{11, 0, ""}));
  EXPECT_EQ(client.GetLastFailure().code, ClientError::kOutOfResources);
  EXPECT_TRUE(client.Uninit());
  EXPECT_TRUE(server_.Requests().empty());
}

// ---- version

TEST_F(ObjectClientInterfaceTest, AsksTheVersionOfAnotherServer) {
  CObjectClient client(DeadConfig());
  server_.Answer("GET /?version", {.body = "<CloudVersion><version>1.2.3</version></CloudVersion>"});
  SStorageServerInfo info{"127.0.0.1", server_.Port(), "OTHERKEY", "other-secret"};
  std::string version;
  EXPECT_TRUE(client.GetStorageVersion(version, info));
  EXPECT_EQ(version, "1.2.3");
  const ScriptedRequest request = server_.Requests().at(0);
  EXPECT_EQ(request.target, "/?version");
  EXPECT_EQ(request.Header("Host"), server_.Address());
  EXPECT_EQ(request.Header("Content-Type"), kXmlType);
  EXPECT_FALSE(request.HasHeader("Content-MD5"));
  // The signed resource is without the path, unlike that of every other request.
  EXPECT_EQ(request.Header("Authorization"),
            "quorvane OTHERKEY:" +
                ReferenceSignature("GET\n\n" + std::string(kXmlType) + "\n" + request.Header("Date") + "\n\n?version",
                                   "other-secret"));
  EXPECT_EQ(log_->Count("[%s][Client]send url[%s][%s(%d)]", logging::kNotable), 1u);
  EXPECT_EQ(log_->Count("[%s][Client]get storage version success, version[%s][%s(%d)]", logging::kNotable), 1u);
}

TEST_F(ObjectClientInterfaceTest, TakesAMissingVersionForEmpty) {
  server_.Answer("GET /?version", {.body = "<Other/>"});
  std::string version = "before";
  EXPECT_TRUE(client_.GetStorageVersion(version, {"127.0.0.1", server_.Port(), "a", "s"}));
  EXPECT_EQ(version, "");
}

TEST_F(ObjectClientInterfaceTest, SaysWhyThereIsNoVersion) {
  std::string version = "before";
  EXPECT_FALSE(client_.GetStorageVersion(version, {"127.0.0.1", 1, "a", "s"}));
  EXPECT_EQ(log_->Count("[%s][Client]send get storage version failed, error[%d:%d][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_).code, 4);
  EXPECT_THAT(ErrorOf(client_).message, StartsWith("Send get storage version msg failed[3:"));

  server_.Answer("GET /?version", ErrorAnswer(400, "URLNotSupport"));
  EXPECT_FALSE(client_.GetStorageVersion(version, {"127.0.0.1", server_.Port(), "a", "s"}));
  EXPECT_EQ(log_->Count("[%s][Client]get storage version failed, error[%d:%s][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "get storage version rsp status code[400]."}));

  server_.ClearScript();
  server_.Answer("GET /?version", {.body = "1.2.3"});
  EXPECT_FALSE(client_.GetStorageVersion(version, {"127.0.0.1", server_.Port(), "a", "s"}));
  EXPECT_EQ(log_->Count("[%s][Client]get storage version failed, invalid xml[%s][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "get storage version rsp msg invalid[1.2.3]."}));
  EXPECT_EQ(version, "before");
}

// ---- HTTPS

class ObjectClientHttpsTest : public ObjectClientFixture {
 protected:
  ObjectClientHttpsTest() : ObjectClientFixture({.https = true}) {
    TansyNet::HttpClient::SetTlsTrust({.trust_file = server_.CertificateFile()});
  }
  ~ObjectClientHttpsTest() override { TansyNet::HttpClient::SetTlsTrust({}); }

  SStorageServerConfig HttpsConfig() {
    SStorageServerConfig config = Config();
    config.is_https = true;
    return config;
  }
};

TEST_F(ObjectClientHttpsTest, UploadsOverHttpsUnderTheConfiguredHost) {
  server_.Handle([this](const ScriptedRequest& request) {
    return request.target.ends_with("?bestnode") ? BestNodeAnswer(server_.Address()) : ScriptedAnswer{};
  });
  CObjectClient client(HttpsConfig());
  std::string url;
  EXPECT_TRUE(client.UploadFile(url, "bytes", 5));
  ASSERT_EQ(server_.Requests().size(), 2u);
  ExpectRequest(server_.Requests()[1], {.method = "PUT",
                                        .target = url,
                                        .host = server_.Address(),
                                        .content_type = kBinaryType,
                                        .body = "bytes",
                                        .content_md5 = true});
  EXPECT_THAT(log_->Text("[%s][Client]send url[%s][%s(%d)]"), HasSubstr("[https://" + server_.Address() + url + "]"));
}

TEST_F(ObjectClientHttpsTest, FollowsRedirectsToHttpsOnly) {
  server_.Answer("GET /pool/key", {.status = 302, .headers = {{"Location", server_.Url("/new")}}});
  server_.Answer("GET /pool/plain", {.status = 302, .headers = {{"Location", "http://127.0.0.1/new"}}});
  server_.Answer("GET /new", {.body = "moved"});
  CObjectClient client(HttpsConfig());
  char* data = nullptr;
  unsigned int size = 0;
  EXPECT_TRUE(client.DownloadFile(&data, size, "/pool/key"));
  const std::unique_ptr<char[]> owner(data);
  EXPECT_EQ(std::string(data, size), "moved");
  EXPECT_FALSE(client.DownloadFile(&data, size, "/pool/plain"));
  EXPECT_EQ(ErrorOf(client), (LastError{6, 0, "redirect url error[http://127.0.0.1/new]."}));
}

TEST_F(ObjectClientHttpsTest, DoesNotTalkToAServerThatItDoesNotTrust) {
  TansyNet::HttpClient::SetTlsTrust({});
  CObjectClient client(HttpsConfig());
  EXPECT_FALSE(client.RemoveFileByUrl("/pool/key"));
  EXPECT_THAT(ErrorOf(client).message, StartsWith("send remove object failed[4:"));
  EXPECT_TRUE(server_.Requests().empty());
}

// ---- IPv6

class ObjectClientIpv6Test : public ObjectClientFixture {
 protected:
  ObjectClientIpv6Test()
      : ObjectClientFixture({.https = false, .address = Tests::HasIpv6Loopback() ? "::1" : "127.0.0.1"}) {
    server_.Handle([this](const ScriptedRequest& request) { return multipart_.Answer(request, node_); });
  }
  void SetUp() override {
    if (!Tests::HasIpv6Loopback()) {
      GTEST_SKIP() << Tests::kNoIpv6Loopback;
    }
  }

  // An upload in every way and a download.
  void ExpectAllToWork(const std::string& ip) {
    SStorageServerConfig config = Config();
    config.ip = ip;
    CObjectClient client(config);
    std::string url;
    EXPECT_TRUE(client.UploadFile(url, "bytes", 5)) << ErrorOf(client);
    std::string piece;
    EXPECT_TRUE(client.UploadFileByPieces(piece, "one", 3, false)) << ErrorOf(client);
    EXPECT_TRUE(client.UploadFileByPieces(piece, "two", 3, true)) << ErrorOf(client);
    EXPECT_EQ(multipart_.Object(piece), "onetwo");
    char* data = nullptr;
    unsigned int size = 0;
    EXPECT_TRUE(client.DownloadFile(&data, size, url)) << ErrorOf(client);
    delete[] data;
    EXPECT_TRUE(client.DownloadFile(url, folder_.Path("file"))) << ErrorOf(client);
    for (const ScriptedRequest& request : server_.Requests()) {
      EXPECT_EQ(request.Header("Host"), "[::1]:" + std::to_string(server_.Port())) << request.target;
    }
  }

  CMultipartServer multipart_;
  std::string node_ = server_.Address();
};

TEST_F(ObjectClientIpv6Test, TalksToAnAddressWithAndWithoutBrackets) {
  ExpectAllToWork("::1");
  ExpectAllToWork("[::1]");
}

TEST_F(ObjectClientIpv6Test, TalksToANodeWithoutBrackets) {
  node_ = "::1:" + std::to_string(server_.Port());
  ExpectAllToWork("::1");
}

TEST_F(ObjectClientIpv6Test, NamesTheAddressThatFailed) {
  SStorageServerConfig config = Config();
  config.ip = "::1";
  config.upload_port = 1;
  CObjectClient client(config);
  EXPECT_FALSE(client.RemoveFileByUrl("/pool/key"));
  EXPECT_EQ(client.GetLastFailure().address, "[::1]:1");
}

}  // namespace
}  // namespace Tansy::CloudStorage
