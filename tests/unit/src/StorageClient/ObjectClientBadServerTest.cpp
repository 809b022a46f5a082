// Every operation meets every way in which a server can be wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "ObjectClientFixture.h"

namespace Tansy::CloudStorage {
namespace {

using Tests::ScriptedAnswer;
using Tests::ScriptedRequest;

// One wrong answer, and the code that clients are told.
struct BadAnswer {
  const char* name;
  ScriptedAnswer answer;
  int code;
};

std::ostream& operator<<(std::ostream& out, const BadAnswer& bad) {
  return out << bad.name;
}

const std::string kLongHeader = "X-More: " + std::string(1000, 'x') + "\r\n";

std::string ManyHeaders(int count) {
  std::string head = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < count; ++i) {
    head += kLongHeader;
  }
  return head;
}

const std::vector<BadAnswer>& AnswersThatAreNone() {
  static const std::vector<BadAnswer> answers = {
      {"ShorterThanItSays", {.headers = {{"Content-Length", "1000000"}}, .body = "short", .close = true}, 4},
      {"NegativeLength", {.raw = "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\nhello", .close = true}, 4},
      {"LengthBeyondAllNumbers",
       {.raw = "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\nhello", .close = true},
       4},
      {"TwoLengths",
       {.raw = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nContent-Length: 5\r\n\r\nhello", .close = true},
       4},
      {"LengthThatFillsTheDisk",
       {.raw = "HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n\r\nhello", .close = true},
       4},
      {"BrokenChunks",
       {.headers = {{"Transfer-Encoding", "chunked"}}, .body = "5\r\nhello\r\nZZ\r\n", .close = true},
       4},
      {"ChunksWithoutAnEnd",
       {.headers = {{"Transfer-Encoding", "chunked"}}, .body = "5\r\nhello\r\n", .close = true},
       4},
      {"EndlessHeaders", {.raw = ManyHeaders(300)}, 4},
      {"EndlessLine", {.raw = "HTTP/1.1 200 OK\r\nX-More: " + std::string(200000, 'x')}, 4},
      {"EndlessInterims",
       {.raw =
            [] {
              std::string interims;
              for (int i = 0; i < 10000; ++i) {
                interims += "HTTP/1.1 100 Continue\r\n\r\n";
              }
              return interims;
            }()},
       4},
      {"ResetInTheHead", {.raw = "HTTP/1.1 200 OK\r\nContent-Le", .reset = true}, 4},
      {"ResetInTheBody",
       {.headers = {{"Content-Length", "1000000"}}, .body = std::string(300000, 'x'), .reset = true},
       4},
      {"ClosedWithoutAWord", {.cut_after = 0}, 4},
      {"NoHttp", {.raw = "220 mail.example ESMTP\r\n", .close = true}, 4},
      {"OldHttp", {.raw = "<html>no head at all</html>", .close = true}, 4},
      {"Zeros", {.raw = std::string(1000, '\0'), .close = true}, 4},
      {"NoContent", {.status = 204}, 5},
      {"Unavailable", {.status = 503, .body = "<html>try later</html>"}, 5},
  };
  return answers;
}

class ObjectClientBadServerTest : public ObjectClientFixture, public testing::WithParamInterface<BadAnswer> {
 protected:
  ObjectClientBadServerTest() { client_.SetTimeoutConfig(2000, 2000); }

  // The server gives `answer` to requests for which `is_bad` is true; the rest of an upload goes well.
  void Serve(const std::function<bool(const ScriptedRequest&)>& is_bad) {
    server_.Handle([this, is_bad](const ScriptedRequest& request) -> ScriptedAnswer {
      if (is_bad(request)) {
        return GetParam().answer;
      }
      if (request.target.ends_with("?bestnode")) {
        return BestNodeAnswer(server_.Address());
      }
      if (request.target.ends_with("?uploads")) {
        return UploadIdAnswer("id-" + std::to_string(++uploads_));
      }
      if (request.target.ends_with("?metadata")) {
        return {.headers = {{"Object-Size", std::to_string(object_size_)}}};
      }
      return {};
    });
  }

  void ExpectFailure(bool result, const char* operation) {
    EXPECT_FALSE(result) << operation;
    EXPECT_EQ(ErrorOf(client_).code, GetParam().code) << operation << ": " << ErrorOf(client_).message;
  }

  std::atomic<int> uploads_{0};
  std::atomic<std::uint64_t> object_size_{5};
  CObjectClient client_{Config()};
};

TEST_P(ObjectClientBadServerTest, FailsEveryRequestWithItsCode) {
  Serve([](const ScriptedRequest&) { return true; });
  const std::string path = folder_.Write("file", "content");
  std::string url = "before";
  std::string piece_url;
  std::string version;
  char* data = nullptr;
  unsigned int size = 0;
  std::string range = "0-5";
  ExpectFailure(client_.UploadFile(url, path), "file");
  ExpectFailure(client_.UploadFile(url, "bytes", 5), "buffer");
  ExpectFailure(client_.UploadFileByPieces(piece_url, "bytes", 5, false), "piece");
  ExpectFailure(client_.DownloadFile(&data, size, "/pool/key"), "memory");
  ExpectFailure(client_.DownloadFile(&data, size, range, "/pool/key"), "range");
  ExpectFailure(client_.RemoveFileByUrl("/pool/key"), "removal");
  ExpectFailure(client_.RemoveObjectFileByUrl("/pool/key"), "removal of bytes");
  ExpectFailure(client_.GetStorageVersion(version, {"127.0.0.1", server_.Port(), "a", "s"}), "version");
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(url, "before");
  EXPECT_EQ(piece_url, "");
}

TEST_P(ObjectClientBadServerTest, FailsAnUploadWhereverItHappens) {
  const std::string large = folder_.Write("large", std::string(10485760, 'x'));
  for (const char* step : {"uploads", "part_number=3", "upload_id=id-"}) {
    Serve([step](const ScriptedRequest& request) {
      const std::size_t at = request.target.find(step);
      return at != std::string::npos &&
             (std::string(step) != "upload_id=id-" || request.target.find("part_number") == std::string::npos);
    });
    std::string url = "before";
    ExpectFailure(client_.UploadFile(url, large), step);
    EXPECT_EQ(url, "before");
  }
}

TEST_P(ObjectClientBadServerTest, LeavesNoFileThatLooksWhole) {
  for (const std::uint64_t size : {std::uint64_t{7}, std::uint64_t{10485760}}) {
    object_size_ = size;
    Serve([](const ScriptedRequest& request) { return !request.target.ends_with("?metadata"); });
    const std::string path = folder_.Path(std::to_string(size));
    ExpectFailure(client_.DownloadFile("/pool/key", path), "file");
    EXPECT_TRUE(!std::filesystem::exists(path) || std::filesystem::file_size(path) != size);
  }
}

INSTANTIATE_TEST_SUITE_P(Answers, ObjectClientBadServerTest, testing::ValuesIn(AnswersThatAreNone()),
                         [](const auto& bad) { return std::string(bad.param.name); });

class ObjectClientBadXmlTest : public ObjectClientFixture, public testing::WithParamInterface<std::string> {};

TEST_P(ObjectClientBadXmlTest, IsAnUnexpectedAnswer) {
  const std::string large = folder_.Write("large", std::string(10485760, 'x'));
  CObjectClient client(Config());
  server_.Handle([](const ScriptedRequest&) { return ScriptedAnswer{.body = GetParam()}; });
  std::string url = "before";
  EXPECT_FALSE(client.UploadFile(url, "bytes", 5));
  EXPECT_EQ(ErrorOf(client).code, 5);
  EXPECT_TRUE(ErrorOf(client).message.starts_with("get best node rsp msg invalid["));
  std::string version = "before";
  EXPECT_FALSE(client.GetStorageVersion(version, {"127.0.0.1", server_.Port(), "a", "s"}));
  EXPECT_TRUE(ErrorOf(client).message.starts_with("get storage version rsp msg invalid["));
  server_.Handle([this](const ScriptedRequest& request) {
    return request.target.ends_with("?bestnode") ? BestNodeAnswer(server_.Address())
                                                 : ScriptedAnswer{.body = GetParam()};
  });
  EXPECT_FALSE(client.UploadFile(url, large));
  EXPECT_TRUE(ErrorOf(client).message.starts_with("CreatePartTask rsp msg invalid["));
  EXPECT_EQ(url, "before");
  EXPECT_EQ(version, "before");
}

INSTANTIATE_TEST_SUITE_P(Bodies, ObjectClientBadXmlTest,
                         testing::Values("", "ok", "{\"json\": true}", "<open>", "<a></b>", "<a/><b/>",
                                         std::string("<a>\0</a>", 8), "<!DOCTYPE a [<!ENTITY e \"x\">]><a>&e;</a>",
                                         std::string(100000, '<')));

class ObjectClientRedirectTest : public ObjectClientFixture {
 protected:
  CObjectClient client_{Config()};
};

TEST_F(ObjectClientRedirectTest, DoesNotRunInCircles) {
  // Each of these two servers redirects its clients to the other one.
  Tests::ScriptedServer other;
  const auto to = [](const Tests::ScriptedServer& server) {
    return ScriptedAnswer{.status = 302, .headers = {{"Location", server.Url("/pool/key")}}};
  };
  server_.Handle([&](const ScriptedRequest& request) {
    return request.target.ends_with("?metadata") ? ScriptedAnswer{.headers = {{"Object-Size", "5"}}} : to(other);
  });
  other.Handle([&](const ScriptedRequest&) { return to(server_); });
  char* data = nullptr;
  unsigned int size = 0;
  EXPECT_FALSE(client_.DownloadFile(&data, size, "/pool/key"));
  EXPECT_EQ(ErrorOf(client_).code, 5);
  EXPECT_EQ(server_.Requests().size() + other.Requests().size(), 2u);
  EXPECT_FALSE(client_.DownloadFile("/pool/key", folder_.Path("file")));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 302, "DownloadBigObject rsp status code[302]."}));
  EXPECT_EQ(server_.Requests().size() + other.Requests().size(), 5u) << "the size, the object and one redirect";
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("file")));
}

TEST_F(ObjectClientRedirectTest, FollowsNoRedirectOfOtherRequests) {
  server_.Handle([this](const ScriptedRequest&) {
    return ScriptedAnswer{.status = 302, .headers = {{"Location", server_.Url("/pool/key")}}};
  });
  std::string url;
  std::string version;
  EXPECT_FALSE(client_.UploadFile(url, "bytes", 5));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "get best node rsp status code[302]."}));
  EXPECT_FALSE(client_.RemoveFileByUrl("/pool/key"));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "remove object rsp status code[302]."}));
  EXPECT_FALSE(client_.GetStorageVersion(version, {"127.0.0.1", server_.Port(), "a", "s"}));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "get storage version rsp status code[302]."}));
  EXPECT_EQ(server_.Requests().size(), 3u);
}

// Names are put into the request as they are, up to any length; what the server says about them is reported.
TEST_F(ObjectClientRedirectTest, SendsNamesOfAnyKindOrSaysThatItCannot) {
  const auto longest = std::string(128, 'n');
  server_.Handle([this](const ScriptedRequest& request) {
    const std::string key = request.target.substr(6, request.target.find('?') - 6);
    return key.size() > 128                        ? ErrorAnswer(400, "KeyTooLong")
           : request.target.ends_with("?bestnode") ? BestNodeAnswer(server_.Address())
                                                   : ScriptedAnswer{};
  });
  for (const std::string& name : {longest, std::string("-rf"), std::string("--"),
                                  std::string("gr\xc3\xb6\xc3\x9f"
                                              "e.txt"),
                                  std::string("a'b\"c")}) {
    std::string url = name;
    EXPECT_TRUE(client_.UploadFileByPiecesAndFileName(url, "bytes", 5, true, true)) << name;
    EXPECT_EQ(url, "/pool/" + name);
  }
  std::string url = longest + "n";
  EXPECT_FALSE(client_.UploadFileByPiecesAndFileName(url, "bytes", 5, true, true));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "get best node rsp status code[400]."}));
  url = "two words";
  EXPECT_FALSE(client_.UploadFileByPiecesAndFileName(url, "bytes", 5, true, true));
  EXPECT_EQ(ErrorOf(client_).code, 4);
  EXPECT_EQ(url, "two words");
}

}  // namespace
}  // namespace Tansy::CloudStorage
