// Many threads use one client.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "MultipartServer.h"
#include "ObjectClientFixture.h"

namespace Tansy::CloudStorage {
namespace {

using Tests::ScriptedRequest;

class ObjectClientThreadsTest : public ObjectClientFixture {
 protected:
  ObjectClientThreadsTest() {
    server_.Answer("DELETE /pool/missing", ErrorAnswer(404, "NoSuchKey"));
    server_.Answer("DELETE *", {});
    server_.Answer("GET /pool/stored?metadata", {.headers = {{"Object-Size", "7"}}});
    server_.Answer("GET /pool/stored", {.body = "content"});
    server_.Answer("GET /?version", {.body = "<CloudVersion><version>1</version></CloudVersion>"});
    server_.Handle([this](const ScriptedRequest& request) { return multipart_.Answer(request, server_.Address()); });
  }

  CMultipartServer multipart_;
  CObjectClient client_{Config()};
};

TEST_F(ObjectClientThreadsTest, ServesEightThreadsAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 6;
  const std::string large = folder_.Write("large", std::string(10485760, 'x'));
  std::atomic<int> failures{0};
  const auto expect = [&](bool result) { failures += result ? 0 : 1; };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      const std::string own_content = Tests::RandomBytes(1000, static_cast<unsigned>(i));
      const std::string own = folder_.Write("file" + std::to_string(i), own_content);
      for (int round = 0; round < kRounds; ++round) {
        CObjectClient copy(client_);
        std::string url;
        expect(copy.Init());
        expect(client_.UploadFile(url, own) && multipart_.Object(url) == own_content);
        url.clear();
        const std::string buffer = own_content.substr(0, 100 + static_cast<std::size_t>(round));
        expect(copy.UploadFile(url, buffer.data(), static_cast<unsigned>(buffer.size())) &&
               multipart_.Object(url) == buffer);
        url.clear();
        expect(client_.UploadFileByPieces(url, own_content.data(), 500, false) &&
               client_.UploadFileByPieces(url, own_content.data() + 500, 500, true) &&
               multipart_.Object(url) == own_content);
        char* data = nullptr;
        unsigned int size = 0;
        expect(client_.DownloadFile(&data, size, "/pool/stored"));
        const std::unique_ptr<char[]> owner(data);
        expect(std::string(data, size) == "content");
        const std::string got = folder_.Path("got" + std::to_string(i));
        expect(client_.DownloadFile("/pool/stored", got) && Tests::ReadFile(got) == "content");
        expect(client_.RemoveFileByUrl("/pool/key"));
        expect(!client_.RemoveFileByUrl("/pool/missing"));
        const LastError error = ErrorOf(copy);
        expect(error.code == 5 && error.message == "remove object rsp status code[404].");
        client_.SetTimeoutConfig(15000 + static_cast<unsigned>(round), 15000);
        std::string version;
        expect(client_.GetStorageVersion(version, {"127.0.0.1", server_.Port(), "a", "s"}) && version == "1");
        if (i == 0 && round == 0) {
          expect(client_.UploadFile(url, large) && multipart_.Object(url) == std::string(10485760, 'x'));
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace Tansy::CloudStorage
