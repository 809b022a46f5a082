// Runs every example of the object chapters of docs/protocol.md against a real server: what the page says is what the
// server does.
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "support/ProtocolPage.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

const std::string kPagePort = "127.0.0.1:9700";
const std::string kPageUploadId = "0b6f1c9e-5a3d-4c57-9d1e-2f8a7b604c11";

class ProtocolPageTest : public TansydTest {
 protected:
  // The page's port and upload id as they are in this run.
  std::string Here(std::string text) const {
    text = ReplaceAll(std::move(text), kPagePort, "127.0.0.1:" + std::to_string(server_.GetObjectPort()));
    return upload_id_.empty() ? text : ReplaceAll(std::move(text), kPageUploadId, upload_id_);
  }

  PageMessage RequestHere(const PageExample& example) const;
  static void CheckToken(const PageExample& example);
  void CheckAnswer(const PageExample& example, const Reply& reply);

  std::string upload_id_;
};

// The request of an example. Its signature must be that of the text shown with it; where this run's upload id takes the
// place of the page's, text and signature are made anew.
PageMessage ProtocolPageTest::RequestHere(const PageExample& example) const {
  PageMessage request = ParseMessage(Here(example.request));
  const std::string start = "quorvane " + kPageKeys.access_key + ":";
  for (auto& [name, value] : request.headers) {
    if (name == "Authorization") {
      EXPECT_NE(example.request.find(start + Signature(example.string_to_sign, kPageKeys.secret_key) + "\n"),
                std::string::npos)
          << "the page shows another signature";
      value = start + Signature(Here(example.string_to_sign), kPageKeys.secret_key);
    } else if (name == "Content-Length") {
      EXPECT_EQ(value, std::to_string(request.body.size())) << "the page shows another length";
    }
  }
  return request;
}

// A link's token holds the signature of the text shown with it.
void ProtocolPageTest::CheckToken(const PageExample& example) {
  const std::string mark = "&token=";
  const std::size_t begin = example.request.find(mark);
  ASSERT_NE(begin, std::string::npos) << "neither a header nor a token";
  const std::size_t end = example.request.find(' ', begin);
  std::string token = example.request.substr(begin + mark.size(), end - begin - mark.size());
  token = ReplaceAll(std::move(token), "%2B", "+");
  const std::string signature = Signature(example.string_to_sign, kPageKeys.secret_key);
  EXPECT_EQ(token, Base64("quorvane " + kPageKeys.access_key + ":" + signature));
}

void ProtocolPageTest::CheckAnswer(const PageExample& example, const Reply& reply) {
  static const std::regex id_pattern("<UploadId>([0-9a-f-]{36})</UploadId>");
  std::smatch id;
  if (upload_id_.empty() && std::regex_search(reply.body, id, id_pattern)) {
    upload_id_ = id[1];
  }
  const PageMessage expected = ParseMessage(Here(example.answer));
  // The upload id and the port differ in length from the page's where they stand in a body.
  ExpectSameHead(expected, reply, Here(example.answer) != example.answer);
  EXPECT_TRUE(std::regex_match(reply.body, Pattern(expected.body))) << reply.body << "\ninstead of\n" << expected.body;
}

TEST_F(ProtocolPageTest, EveryExampleIsTrue) {
  const std::vector<PageExample> examples = ReadExamples(ObjectChapter());
  ASSERT_GE(examples.size(), 20U);
  ASSERT_TRUE(server_.Start(LaunchWithPageKeys()));

  for (const PageExample& example : examples) {
    SCOPED_TRACE(example.request);
    EXPECT_FALSE(example.string_to_sign.empty());
    if (example.request.find("\nAuthorization: ") == std::string::npos) {
      CheckToken(example);
    }
    const auto connection = CConnection::Open(server_.GetObjectPort());
    ASSERT_TRUE(connection);
    ASSERT_TRUE(connection->Send(Wire(RequestHere(example))));
    CheckAnswer(example, connection->Receive());
  }
}

}  // namespace
}  // namespace system_tests
