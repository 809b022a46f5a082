// Runs every example of the picture chapter of docs/protocol.md against a real server.
#include <iconv.h>

#include <string>
#include <utility>
#include <vector>

#include "support/PictureSystemTest.h"
#include "support/ProtocolPage.h"

namespace system_tests {
namespace {

const std::string kPagePort = "9701";
const std::string kPagePicture = "pc014f-a2-9c1e5b7d30844f6fa2d1c0b96e58377a.d";
const std::string kSignatureMark = "&Signature=";

// Messages of errors, as the page shows them; text that is not GBK comes out empty.
std::string GbkToUtf8(std::string text) {
  const iconv_t converter = ::iconv_open("UTF-8", "GBK");
  std::string utf8(text.size() * 3, '\0');
  char* in = text.data();
  char* out = utf8.data();
  std::size_t in_left = text.size();
  std::size_t out_left = utf8.size();
  const bool done = ::iconv(converter, &in, &in_left, &out, &out_left) != static_cast<std::size_t>(-1);
  ::iconv_close(converter);
  utf8.resize(done ? utf8.size() - out_left : 0);
  return utf8;
}

class PicturePageTest : public PictureSystemTest {
 protected:
  // The page's port and picture as they are in this run.
  std::string Here(std::string text) const {
    const std::string port = std::to_string(server_.GetPicturePort());
    text = ReplaceAll(std::move(text), "127.0.0.1:" + kPagePort, "127.0.0.1:" + port);
    text = ReplaceAll(std::move(text), "\"" + kPagePort + "\"", "\"" + port + "\"");
    return picture_.empty() ? text : ReplaceAll(std::move(text), kPagePicture, picture_);
  }
  // Text and signature of an example must belong together on the page; the result is the signature of the same text in
  // this run.
  std::string SignatureHere(const PageExample& example, const std::string& shown) const {
    EXPECT_EQ(shown, Signature(example.string_to_sign, kPageKeys.secret_key)) << "the page shows another signature";
    return Signature(Here(example.string_to_sign), kPageKeys.secret_key);
  }
  PageMessage RequestHere(const PageExample& example) const;
  void SignLink(const PageExample& example, std::string& target_line) const;
  void CheckAnswer(const PageExample& example, const Reply& reply);

  std::string picture_;
};

PageMessage PicturePageTest::RequestHere(const PageExample& example) const {
  PageMessage request = ParseMessage(Here(example.request));
  if (request.Header("Content-Type").find("multipart/form-data") != std::string::npos) {
    request.body = ReplaceAll(request.body, "\n", "\r\n");
  }
  bool is_signed = false;
  for (auto& [name, value] : request.headers) {
    if (name == "Authorization") {
      const std::size_t colon = value.find(':') + 1;
      value = value.substr(0, colon) + SignatureHere(example, value.substr(colon));
      is_signed = true;
    } else if (name == "Content-Length") {
      EXPECT_EQ(value, std::to_string(request.body.size())) << "the page shows another length";
    }
  }
  if (request.first_line.find(kSignatureMark) != std::string::npos) {
    SignLink(example, request.first_line);
    is_signed = true;
  }
  EXPECT_EQ(is_signed, !example.string_to_sign.empty()) << "a text without its signature, or the reverse";
  return request;
}

void PicturePageTest::SignLink(const PageExample& example, std::string& target_line) const {
  const std::size_t begin = target_line.find(kSignatureMark) + kSignatureMark.size();
  const std::size_t size = target_line.find_first_of("& ", begin) - begin;
  const std::vector<std::pair<std::string, std::string>> escapes = {{"%2B", "+"}, {"%2F", "/"}, {"%3D", "="}};
  std::string shown = target_line.substr(begin, size);
  for (const auto& [escaped, plain] : escapes) {
    shown = ReplaceAll(shown, escaped, plain);
  }
  std::string signature = SignatureHere(example, shown);
  for (const auto& [escaped, plain] : escapes) {
    signature = ReplaceAll(signature, plain, escaped);
  }
  target_line.replace(begin, size, signature);
}

void PicturePageTest::CheckAnswer(const PageExample& example, const Reply& reply) {
  if (const std::string address = JsonText(reply.body, "PictureUrl"); picture_.empty() && !address.empty()) {
    picture_ = address.substr(address.find('=') + 1);
  }
  const PageMessage expected = ParseMessage(Here(example.answer));
  // A port of this run may have another number of digits.
  ExpectSameHead(expected, reply, example.answer.find(kPagePort) != std::string::npos);
  const std::string body = GbkToUtf8(reply.body);
  EXPECT_TRUE(std::regex_match(body, Pattern(expected.body))) << body << "\ninstead of\n" << expected.body;
}

TEST_F(PicturePageTest, EveryExampleIsTrue) {
  const std::vector<PageExample> examples = ReadExamples(PictureChapter());
  ASSERT_GE(examples.size(), 13U);
  ASSERT_TRUE(server_.Start(LaunchWithPageKeys()));

  for (const PageExample& example : examples) {
    SCOPED_TRACE(example.request);
    const auto connection = CConnection::Open(server_.GetPicturePort());
    ASSERT_TRUE(connection);
    ASSERT_TRUE(connection->Send(Wire(RequestHere(example))));
    CheckAnswer(example, connection->Receive());
  }
}

// Compares the page's table of errors with what the server sends, for the errors that this server gives.
TEST_F(PicturePageTest, TheTableOfErrorsHasTheMessagesOfTheServer) {
  const std::string chapter = PictureChapter();
  for (const auto& [code, status] : {std::pair(-50001, 400), std::pair(-50002, 500), std::pair(-50003, 400),
                                     std::pair(-50004, 500), std::pair(-58002, 403), std::pair(-58003, 401)}) {
    const std::string message = JsonText(ReplaceAll(GbkToUtf8(PictureError(code)), "\": ", "\":"), "Message");
    EXPECT_THAT(chapter, testing::HasSubstr("| " + std::to_string(code) + " | " + std::to_string(status) + " | " +
                                            message + " | "));
  }
}

}  // namespace
}  // namespace system_tests
