// Picture requests that no proper client sends: the answer that is due, in bounded time and memory, and a server that
// goes on serving.
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "support/PictureSystemTest.h"

namespace system_tests {
namespace {

using std::chrono::seconds;
using testing::AnyOf;

class PictureBadInputTest : public PictureSystemTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    address_ = Store("before");
  }
  void TearDown() override {
    EXPECT_TRUE(server_.IsRunning()) << server_.GetErrors();
    EXPECT_EQ(SendPicture("GET", address_).body, "before");
    EXPECT_EQ(SendPicture("GET", Store("after")).body, "after");
    EXPECT_TRUE(server_.Stop());
  }

  // Expects this error, byte for byte.
  static void ExpectError(const Reply& reply, int status, int code, const std::string& what = "") {
    EXPECT_EQ(reply.status, status) << what;
    EXPECT_EQ(reply.body == PictureError(code), true) << what << ": " << reply.body.substr(0, 200);
    EXPECT_EQ(reply.Header("Content-Type"), "text/json; charset=utf-8") << what;
    EXPECT_NE(reply.Header("Date"), "") << what;
  }
  void ExpectBadForm(const std::string& body, const std::string& what) {
    ExpectError(Ask(FormRequest(kBoundary, body)), 400, -50001, what);
  }
  // Sends raw bytes and gives the answer, however early it comes.
  Reply ReplyTo(const std::string& bytes) {
    const auto connection = CConnection::Open(server_.GetPicturePort());
    if (connection == nullptr) {
      return {};
    }
    connection->Send(bytes);
    return connection->Receive(seconds(30));
  }
  std::string Bytes(const Request& request) { return Serialize(request, server_.GetPicturePort()); }

  std::string address_;
};

TEST_F(PictureBadInputTest, WrongMethods) {
  const std::vector<std::string> paths = {"/Quorvane/BestNode", "/pic?id=1", "/Quorvane/Picture/Write",
                                          "/Quorvane/PoolList", "/Quorvane/Version"};
  for (const std::string& path : paths) {
    for (const char* method : {"POST", "GET", "PUT", "DELETE", "OPTIONS", "PATCH", "BREW", "get"}) {
      if (method != std::string(path == kWritePath ? "POST" : "GET")) {
        ExpectError(SendPicture(method, path), 400, -50001, method + (" " + path));
      }
    }
  }
  const auto connection = CConnection::Open(server_.GetPicturePort());
  ASSERT_NE(connection, nullptr);
  ASSERT_TRUE(connection->Send(Bytes(Signed({"HEAD", "/pic", {}, ""}))));
  EXPECT_EQ(connection->Receive(kPatience, true).status, 400);
}

TEST_F(PictureBadInputTest, PathsThatAreNone) {
  for (const char* path : {"/", "/pic/", "/Pic", "//pic", "/pic%3Fid=1", "/quorvane/Version", "/Quorvane/Version/",
                           "/Quorvane/", "/Quorvane/Picture", "/Quorvane/../pic", "/%70ic", "/b/o", "*"}) {
    ExpectError(SendPicture("GET", path), 400, -50001, path);
  }
}

TEST_F(PictureBadInputTest, LengthsThatLie) {
  for (const char* length : {"0", "5", "7", "-6", "", "six", "0x6", "4294967302", "18446744073709551622"}) {
    ExpectBadForm(FormBody(kBoundary, PictureFields("123456", length)), length);
  }
  ExpectBadForm(FormBody(kBoundary, PictureFields("123456", std::string(1000000, '6'))), "a million digits");
}

TEST_F(PictureBadInputTest, BodiesThatAreNoForm) {
  ExpectBadForm("", "nothing");
  ExpectBadForm("jpeg", "no boundary");
  ExpectBadForm(FormBody("other", PictureFields("jpeg")), "another boundary");
  ExpectBadForm("--" + kBoundary, "a boundary and no more");
  ExpectBadForm("--" + kBoundary + "--", "the last boundary alone");
  ExpectBadForm("--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"Picture", "a header that is cut off");
  ExpectBadForm(RandomBytes(100000, 5), "noise");
  // The request is signed with the content type that it names.
  ExpectError(SendPicture("POST", kWritePath, FormBody(kBoundary, PictureFields("jpeg"))), 400, -50001, "no type");
  ExpectError(SendPicture("POST", kWritePath, FormBody(kBoundary, PictureFields("jpeg")),
                          {{"Content-Type", "multipart/form-data"}}),
              400, -50001, "a type without a boundary");
  ExpectError(SendPicture("POST", kWritePath, "PictureLength=4&Picture=jpeg",
                          {{"Content-Type", "application/x-www-form-urlencoded"}}),
              400, -50001, "another kind of form");
}

TEST_F(PictureBadInputTest, ABoundaryOf10Kilobytes) {
  const std::string longest(10 * 1024, 'b');
  EXPECT_EQ(PictureOutcome(Ask(FormRequest(longest, FormBody(longest, PictureFields("jpeg"))))), "200");
  const std::string longer = longest + "b";
  ExpectError(Ask(FormRequest(longer, FormBody(longer, PictureFields("jpeg")))), 400, -50001);
  // A body of nothing but beginnings of boundaries.
  std::string near;
  while (near.size() < 20 * 1000 * 1000) {
    near += "\r\n--" + longest.substr(1);
  }
  const auto begin = std::chrono::steady_clock::now();
  ExpectError(Ask(FormRequest(longest, near)), 400, -50001);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(10));
}

TEST_F(PictureBadInputTest, AMillionEmptyParts) {
  std::string parts;
  for (int i = 0; i < 1000000; ++i) {
    parts += "--" + kBoundary + "\r\n\r\n\r\n";
  }
  const std::uint64_t before = PeakMemory();
  const auto begin = std::chrono::steady_clock::now();
  // The picture behind them is beyond what a form may hold.
  ExpectBadForm(parts + FormBody(kBoundary, PictureFields("jpeg")), "a million empty parts");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(10));
  EXPECT_LT(PeakMemory() - before, 2 * parts.size() * kMemoryFactor);
}

TEST_F(PictureBadInputTest, HeadersOfAPartThatNeverEnd) {
  std::string header = "--" + kBoundary + "\r\n";
  while (header.size() < 10 * 1000 * 1000) {
    header += "Content-Disposition: form-data; name=\"Picture\"; a=\"b\"; c; d=;;\r\n";
  }
  ExpectBadForm(header, "lines");
  ExpectBadForm("--" + kBoundary + "\r\nContent-Disposition: " + std::string(10 * 1000 * 1000, ';') + "\r\n\r\nx",
                "one line");
}

// Clients send at most 32 MiB; the server takes what fits into a form of 64 MiB.
TEST_F(PictureBadInputTest, OneByteMoreThanClientsMaySend) {
  const std::string bytes = "first" + std::string(33554422, 'x') + "last..";
  ASSERT_EQ(bytes.size(), 33554433U);
  EXPECT_EQ(SendPicture("GET", Store(bytes)).body == bytes, true);
}

TEST_F(PictureBadInputTest, AFormBeyond64MebibytesIsRefusedBeforeItIsRead) {
  const std::uint64_t before = PeakMemory();
  Request request = FormRequest(kBoundary, "");
  request.headers.emplace_back("Content-Length", "67108865");
  EXPECT_EQ(ReplyTo(Bytes(request)).status, 413);
  request.headers.back().second = "18446744073709551615";
  EXPECT_THAT(ReplyTo(Bytes(request)).status, AnyOf(400, 413));
  EXPECT_LT(PeakMemory() - before, 1000000U * kMemoryFactor);
}

// Chunk follows chunk, and there is never a last one.
TEST_F(PictureBadInputTest, AFormThatNeverEndsIsCutOff) {
  Request request = FormRequest(kBoundary, "");
  request.headers.emplace_back("Transfer-Encoding", "chunked");
  const auto connection = CConnection::Open(server_.GetPicturePort());
  ASSERT_NE(connection, nullptr);
  ASSERT_TRUE(connection->Send(Bytes(request)));
  const std::string chunk = "100000\r\n" + std::string(0x100000, 'x') + "\r\n";
  int sent = 0;
  while (sent < 200 && connection->Send(chunk)) {
    ++sent;
  }
  EXPECT_LT(sent, 200);
  EXPECT_THAT(connection->Receive(seconds(30)).status, AnyOf(413, 0));
  EXPECT_TRUE(connection->IsClosedByServer(seconds(30)));
}

TEST_F(PictureBadInputTest, AFormThatIsShorterThanItSaidIsNotStored) {
  const std::string body = FormBody(kBoundary, PictureFields(RandomBytes(1000, 7)));
  Request request = FormRequest(kBoundary, body);
  const std::string bytes = Bytes(request);
  for (const std::size_t size : {bytes.size() - 1, bytes.size() - body.size() / 2, bytes.size() - body.size()}) {
    const auto connection = CConnection::Open(server_.GetPicturePort());
    ASSERT_NE(connection, nullptr);
    ASSERT_TRUE(connection->Send(bytes.substr(0, size)));
    connection->FinishSending();
    EXPECT_THAT(connection->Receive(seconds(30)).status, AnyOf(0, 400));
    EXPECT_TRUE(connection->IsClosedByServer(seconds(30)));
  }
  EXPECT_THAT(server_.GetLog(), testing::Not(testing::HasSubstr("writing")));
}

// A declared length that ends within the form: the rest is read as the next request.
TEST_F(PictureBadInputTest, AFormThatIsLongerThanItSaidIsCut) {
  const std::string body = FormBody(kBoundary, PictureFields("123456"));
  Request request = FormRequest(kBoundary, body);
  request.headers.emplace_back("Content-Length", std::to_string(body.size() - kBoundary.size() - 15));
  ExpectError(ReplyTo(Bytes(request)), 400, -50001);
}

TEST_F(PictureBadInputTest, AnUploadByTheObjectProtocolsMethodIsRefusedWhateverItsSize) {
  const std::string bytes = RandomBytes(20 * 1000 * 1000, 8);
  for (const std::size_t size : {std::size_t{0}, std::size_t{1000}, bytes.size()}) {
    ExpectError(ReplyTo(Bytes(Signed({"PUT", kWritePath, {}, bytes.substr(0, size)}))), 400, -50001);
  }
}

TEST_F(PictureBadInputTest, AnUnsignedFormIsRefusedWhateverItHolds) {
  for (const std::string& picture : {std::string("jpeg"), RandomBytes(11 * 1000 * 1000, 9)}) {
    Request request = FormRequest(kBoundary, FormBody(kBoundary, PictureFields(picture)));
    request.headers.pop_back();
    ExpectError(Ask(request), 403, -58002);
  }
  Request other = FormRequest(kBoundary, FormBody(kBoundary, PictureFields("jpeg")), {"other", "key"});
  ExpectError(Ask(other), 401, -58003);
}

TEST_F(PictureBadInputTest, HostsThatTheBestNodeCannotAnswer) {
  const std::string path = "/Quorvane/BestNode";
  const std::string port = std::to_string(server_.GetPicturePort());
  ExpectError(SendPicture("GET", path, "", {{"Host", ""}}), 400, -50001);
  ExpectError(SendPicture("GET", path, "", {{"Host", "127.0.0.1"}}), 400, -50001);
  ExpectError(SendPicture("GET", path, "", {{"Host", "[::1]"}}), 400, -50001);
  const std::vector<std::string> hosts = {
      "127.0.0.1:1",        "127.0.0.1:", "127.0.0.1:port", "127.0.0.1:0", "127.0.0.1:99999999999999999999",
      "127.0.0.1:-" + port, "[::1]:1",
  };
  for (const std::string& host : hosts) {
    ExpectError(SendPicture("GET", path, "", {{"Host", host}}), 400, -50003, host);
  }
}

TEST_F(PictureBadInputTest, ClientsThatGoAwayInTheMiddleOfAForm) {
  const std::string bytes = Bytes(FormRequest(kBoundary, FormBody(kBoundary, PictureFields(RandomBytes(200000, 10)))));
  for (std::size_t i = 1; i < 20; ++i) {
    const auto connection = CConnection::Open(server_.GetPicturePort());
    ASSERT_NE(connection, nullptr);
    connection->Send(std::string_view(bytes).substr(0, bytes.size() * i / 20));
    connection->Reset();
  }
}

}  // namespace
}  // namespace system_tests
