// Requests to the S3 door that no proper client sends. Each gets the error of S3 with its status, nothing is stored,
// and the next request is served.
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/Program.h"
#include "support/S3Sign.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using std::chrono::seconds;

constexpr const char* kUnsignedChunks = "STREAMING-UNSIGNED-PAYLOAD-TRAILER";
constexpr const char* kSignedChunks = "STREAMING-AWS4-HMAC-SHA256-PAYLOAD";
constexpr std::size_t kStreamed = 11 << 20;  // arrives in pieces

class S3BadInputTest : public TansydTest {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_s3 = true;
    launch.with_admin = true;
    ASSERT_TRUE(server_.Start(launch));
    ASSERT_EQ(Ask({"PUT", "/bucket", {}, ""}), "200");
    ASSERT_EQ(Ask({"PUT", "/bucket/k", {}, "0123456789"}), "200");
  }
  void TearDown() override {
    EXPECT_TRUE(server_.IsRunning()) << server_.GetErrors();
    EXPECT_EQ(Answer({"GET", "/bucket/k", {}, ""}).body, "0123456789");
    const std::string listed = Answer({"GET", "/bucket?list-type=2", {}, ""}).body;
    EXPECT_EQ(XmlValue(listed, "KeyCount"), "1") << listed;
    EXPECT_TRUE(server_.Stop());
  }

  Reply Answer(const Request& request, const S3Claim& claim = {}) {
    return Call(server_.GetS3Port(), S3Signed(request, server_.GetS3Port(), claim));
  }
  // "404 NoSuchKey", or the status alone.
  std::string Ask(const Request& request, const S3Claim& claim = {}) {
    const Reply reply = Answer(request, claim);
    const std::string code = XmlValue(reply.body, "Code");
    return std::to_string(reply.status) + (code.empty() ? "" : " " + code);
  }
  // A PUT in chunks whose body `make` gives. The length is that of `bytes`.
  std::string PutInChunks(const char* form, std::size_t length, const std::function<std::string(S3Chain&)>& make,
                          HeaderList headers = {}) {
    headers.emplace_back("x-amz-decoded-content-length", std::to_string(length));
    S3Chain chain;
    Request request = S3Signed({"PUT", "/bucket/bad", headers, ""}, server_.GetS3Port(), {form, 0}, &chain);
    request.body = make(chain);
    const Reply reply = Call(server_.GetS3Port(), request);
    return std::to_string(reply.status) + " " + XmlValue(reply.body, "Code");
  }
};

TEST_F(S3BadInputTest, NumbersOfListings) {
  EXPECT_EQ(Ask({"GET", "/bucket?list-type=2&max-keys=-1", {}, ""}), "400 InvalidArgument");
  EXPECT_EQ(Ask({"GET", "/bucket?max-keys=-1", {}, ""}), "400 InvalidArgument");
  EXPECT_EQ(Ask({"GET", "/bucket?max-keys=1e3", {}, ""}), "400 InvalidArgument");
  EXPECT_EQ(Ask({"GET", "/bucket?max-keys=99999999999999999999999", {}, ""}), "400 InvalidArgument");
  const Reply none = Answer({"GET", "/bucket?list-type=2&max-keys=0", {}, ""});
  EXPECT_EQ(XmlValue(none.body, "KeyCount"), "0");
  EXPECT_EQ(XmlValue(none.body, "IsTruncated"), "false");
  const Reply many = Answer({"GET", "/bucket?list-type=2&max-keys=1000000000", {}, ""});
  EXPECT_EQ(XmlValue(many.body, "KeyCount"), "1");
  EXPECT_EQ(XmlValue(many.body, "MaxKeys"), "1000");
}

TEST_F(S3BadInputTest, TokensOfOthers) {
  for (const char* token : {"", "x", "MTpr", "%00", "AAAA", "1ueGcxLPRx1Tr", "Mjpr", "%3D%3D%3D%3D", "%FF%FE"}) {
    const std::string target = std::string("/bucket?continuation-token=") + token + "&list-type=2";
    const std::string outcome = Ask({"GET", target, {}, ""});
    EXPECT_TRUE(outcome == "400 InvalidArgument" || (std::string(token) == "MTpr" && outcome == "200"))
        << token << ": " << outcome;
  }
}

TEST_F(S3BadInputTest, KeysThatAreTooLongAndKeysOfAnyByte) {
  const std::string longest(1024, 'k');
  EXPECT_EQ(Ask({"PUT", "/bucket/" + longest + "k", {}, "x"}), "400 KeyTooLongError");
  EXPECT_EQ(Ask({"PUT", "/bucket/" + longest, {}, "x"}), "200");
  EXPECT_EQ(Ask({"DELETE", "/bucket/" + longest, {}, ""}), "204");
  for (int byte = 0; byte < 256; ++byte) {
    char escape[8];
    std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned>(byte));
    // Clients write these as they are.
    const bool is_plain =
        std::isalnum(byte) != 0 ||
        (byte != 0 && std::string_view("-._~/").find(static_cast<char>(byte)) != std::string_view::npos);
    const std::string path = "/bucket/a" + (is_plain ? std::string(1, static_cast<char>(byte)) : escape) + "b";
    EXPECT_EQ(Ask({"PUT", path, {}, "any"}), "200") << byte;
    EXPECT_EQ(Answer({"GET", path, {}, ""}).body, "any") << byte;
    EXPECT_EQ(Ask({"DELETE", path, {}, ""}), "204") << byte;
  }
}

TEST_F(S3BadInputTest, ListsOfKeysThatAreTooLong) {
  std::string xml = "<Delete>";
  for (int i = 0; i < 1000001; ++i) {
    xml += "<Object><Key>k</Key></Object>";
  }
  xml += "</Delete>";
  EXPECT_EQ(Ask({"POST", "/bucket?delete=", {}, xml}), "400 MalformedXML");
  EXPECT_EQ(Ask({"POST", "/bucket?delete=", {}, "<Delete><Object><Key></Key></Object></Delete>"}), "400 MalformedXML");
  EXPECT_EQ(Ask({"POST", "/bucket?delete=", {}, "<Delete>"}), "400 MalformedXML");
  EXPECT_EQ(Ask({"POST", "/bucket?delete=", {}, ""}), "400 MalformedXML");
}

TEST_F(S3BadInputTest, PartsThatAreMissingOrOutOfOrder) {
  const std::string id = XmlValue(Answer({"POST", "/bucket/bad?uploads=", {}, ""}).body, "UploadId");
  const std::string part = "/bucket/bad?partNumber=2&uploadId=" + id;
  ASSERT_EQ(Ask({"PUT", part, {}, "tail"}), "200");
  const std::string tag = "cf1d7dca6fc89fa4c07e1d7b3d5ed4e2";  // of other bytes
  const auto complete = [&](const std::string& parts) {
    return Ask(
        {"POST", "/bucket/bad?uploadId=" + id, {}, "<CompleteMultipartUpload>" + parts + "</CompleteMultipartUpload>"});
  };
  const auto item = [&](const std::string& number) {
    return "<Part><PartNumber>" + number + "</PartNumber><ETag>" + tag + "</ETag></Part>";
  };
  EXPECT_EQ(complete(item("1")), "400 InvalidPart");
  EXPECT_EQ(complete(item("2")), "400 InvalidPart");
  EXPECT_EQ(complete(item("2") + item("1")), "400 InvalidPartOrder");
  EXPECT_EQ(complete(item("2") + item("2")), "400 InvalidPartOrder");
  EXPECT_EQ(complete(""), "400 MalformedXML");
  EXPECT_EQ(complete(item("0")), "400 MalformedXML");
  EXPECT_EQ(complete(item("10001")), "400 MalformedXML");
  for (const char* number : {"0", "10001", "-1", "x", ""}) {
    EXPECT_EQ(Ask({"PUT", "/bucket/bad?partNumber=" + std::string(number) + "&uploadId=" + id, {}, "x"}),
              "400 InvalidArgument")
        << number;
  }
  EXPECT_EQ(Ask({"PUT", "/bucket/bad?partNumber=1&uploadId=0123", {}, "x"}), "404 NoSuchUpload");
  EXPECT_EQ(Ask({"DELETE", "/bucket/bad?uploadId=" + id, {}, ""}), "204");
}

TEST_F(S3BadInputTest, ChunkSignaturesThatFailInTheMiddle) {
  for (const std::size_t size : {std::size_t{100000}, kStreamed}) {
    const std::string bytes = RandomBytes(size, 1);
    const auto body = [&](S3Chain& chain, std::size_t wrong) {
      std::string text;
      for (std::size_t at = 0; at <= bytes.size(); at += 50000) {
        std::string chunk = SignedChunk(chain, std::string_view(bytes).substr(at, 50000));
        if (at / 50000 == wrong) {
          chunk[chunk.find("chunk-signature=") + 20] ^= 1;
        }
        text += chunk;
      }
      return text;
    };
    const std::size_t chunks = size / 50000;
    for (const std::size_t wrong : {std::size_t{0}, chunks / 2, chunks}) {
      EXPECT_EQ(PutInChunks(kSignedChunks, size, [&](S3Chain& chain) { return body(chain, wrong); }),
                "403 SignatureDoesNotMatch")
          << size << ", chunk " << wrong;
    }
  }
}

TEST_F(S3BadInputTest, TrailersThatLie) {
  for (const std::size_t size : {std::size_t{1000}, kStreamed}) {
    const std::string bytes = RandomBytes(size, 2);
    const HeaderList announced = {{"x-amz-trailer", "x-amz-checksum-crc32"}};
    const auto with = [&](const std::string& trailer) {
      return PutInChunks(
          kUnsignedChunks, size, [&](S3Chain&) { return InChunks(bytes, 65536, trailer); }, announced);
    };
    EXPECT_EQ(with("x-amz-checksum-crc32:AAAAAA==\r\n"), "400 BadDigest") << size;
    EXPECT_EQ(with(""), "400 IncompleteBody") << size;
    EXPECT_EQ(with("x-amz-checksum-crc32c:AAAAAA==\r\n"), "400 InvalidRequest") << size;
    // Lengths that lie.
    for (const std::size_t length : {size - 1, size + 1, std::size_t{0}}) {
      EXPECT_EQ(PutInChunks(kUnsignedChunks, length, [&](S3Chain&) { return InChunks(bytes, 65536); }),
                "400 IncompleteBody")
          << size << " as " << length;
    }
  }
}

TEST_F(S3BadInputTest, BodiesThatAreAnnouncedTooLong) {
  for (const char* length : {"4294967296", "99999999999999999999999999"}) {
    Request request = S3Signed({"PUT", "/bucket/bad", {}, ""}, server_.GetS3Port());
    std::string text = Serialize(request, server_.GetS3Port());
    text.replace(text.find("Content-Length: 0"), 17, "Content-Length: " + std::string(length));
    const auto upload = CConnection::Open(server_.GetS3Port());
    ASSERT_NE(upload, nullptr);
    ASSERT_TRUE(upload->Send(text));
    const Reply reply = upload->Receive();
    EXPECT_EQ(reply.status, 400) << reply.body;
    EXPECT_EQ(XmlValue(reply.body, "Code"), "EntityTooLarge");
    EXPECT_EQ(XmlValue(reply.body, "Resource"), "/bucket/bad");
    EXPECT_EQ(XmlValue(reply.body, "RequestId"), reply.Header("x-amz-request-id"));
    EXPECT_EQ(reply.Header("x-amz-request-id").size(), 16U);
    EXPECT_EQ(reply.Header("Content-Type"), "application/xml");
  }
}

TEST_F(S3BadInputTest, ClocksThatAreAnHourOff) {
  for (const int offset : {-3600, 3600}) {
    EXPECT_EQ(Ask({"PUT", "/bucket/bad", {}, "x"}, {"UNSIGNED-PAYLOAD", offset}), "403 RequestTimeTooSkewed");
    EXPECT_EQ(Ask({"GET", "/bucket/k", {}, ""}, {"UNSIGNED-PAYLOAD", offset}), "403 RequestTimeTooSkewed");
  }
}

TEST_F(S3BadInputTest, AClientThatGoesAwayInTheMiddle) {
  const std::string bytes = RandomBytes(kStreamed, 3);
  for (int i = 1; i < 10; ++i) {
    const HeaderList headers = {{"x-amz-decoded-content-length", std::to_string(kStreamed)}};
    Request request = S3Signed({"PUT", "/bucket/bad", headers, ""}, server_.GetS3Port(), {kUnsignedChunks, 0});
    request.body = InChunks(bytes, 65536);
    const std::string text = Serialize(request, server_.GetS3Port());
    const auto upload = CConnection::Open(server_.GetS3Port());
    ASSERT_NE(upload, nullptr);
    upload->Send(std::string_view(text).substr(0, text.size() * static_cast<std::size_t>(i) / 10));
    upload->Reset();
  }
}

// Uploads that come whole, in chunks, in signed chunks and in pieces, each of which stops in the middle.
TEST_F(S3BadInputTest, WritersThatStandStillAreEndedAndGiveTheirMemoryBack) {
  const std::uint16_t port = server_.GetS3Port();
  const std::string small = RandomBytes(1 << 20, 5);
  const std::string large = RandomBytes(2 * kStreamed, 6);
  const auto chunked = [&](const std::string& bytes, HeaderList headers) {
    headers.emplace_back("x-amz-decoded-content-length", std::to_string(bytes.size()));
    Request request = S3Signed({"PUT", "/bucket/bad", headers, ""}, port, {kUnsignedChunks, 0});
    request.body = InChunks(bytes, 65536);
    return request;
  };
  Request around = chunked(large, {{"Transfer-Encoding", "chunked"}});
  around.body = Chunk(around.body);
  std::vector<std::unique_ptr<CConnection>> writers;
  for (const Request& request : {S3Signed({"PUT", "/bucket/bad", {}, small}, port), chunked(small, {}),
                                 S3Signed({"PUT", "/bucket/bad", {}, large}, port), chunked(large, {}), around}) {
    const std::string text = Serialize(request, port);
    writers.push_back(CConnection::Open(port));
    ASSERT_NE(writers.back(), nullptr);
    ASSERT_TRUE(writers.back()->Send(std::string_view(text).substr(0, text.size() / 4 * 3)));
  }
  const auto memory = [this] { return Call(server_.GetAdminPort(), {"GET", "/metrics", {}, ""}).body; };
  EXPECT_TRUE(WaitUntil([&] { return memory().find("tansy_memory_bytes{use=\"arriving\"} 0\n") == std::string::npos; }))
      << "nothing has arrived";
  for (const auto& writer : writers) {
    const Reply reply = writer->Receive(seconds(180));
    EXPECT_EQ(reply.status, 408) << reply.body;
    EXPECT_EQ(XmlValue(reply.body, "Code"), "InvalidRequest");
    EXPECT_TRUE(writer->IsClosedByServer());
  }
  for (const char* use : {"arriving", "work"}) {
    EXPECT_TRUE(WaitUntil([&] {
      return memory().find(std::string("tansy_memory_bytes{use=\"") + use + "\"} 0\n") != std::string::npos;
    })) << memory();
  }
}

TEST_F(S3BadInputTest, RandomBytesByTheThousand) {
  const std::string seed_bytes = RandomBytes(2000, 4);
  for (std::uint64_t seed = 1; seed <= 300; ++seed) {
    const auto connection = CConnection::Open(server_.GetS3Port());
    ASSERT_NE(connection, nullptr) << "seed " << seed;
    const HeaderList headers = {{"x-amz-decoded-content-length", "2000"}};
    Request request = S3Signed({"PUT", "/bucket/bad", headers, ""}, server_.GetS3Port(), {kUnsignedChunks, 0});
    request.body = InChunks(seed_bytes, 100);
    std::string bytes = Serialize(request, server_.GetS3Port());
    const std::string noise = RandomBytes(16, seed);
    for (std::size_t i = 0; i + 3 < noise.size(); i += 4) {
      const std::size_t position =
          static_cast<unsigned char>(noise[i]) * 256U + static_cast<unsigned char>(noise[i + 1]);
      bytes[position % bytes.size()] = noise[i + 2];
    }
    connection->Send(bytes);
    connection->FinishSending();
    connection->Receive(seconds(30));
  }
  // Bytes of chunks may have been changed, which nothing vouches for.
  Ask({"DELETE", "/bucket/bad", {}, ""});
}

}  // namespace
}  // namespace system_tests
