// Runs every example of docs/protocol.md against a real server: what the page says is what the server does.
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "support/TansydTest.h"

namespace system_tests {
namespace {

const Keys kPageKeys{"docs-access-key", "docs-secret-key"};
const std::string kPagePort = "127.0.0.1:9700";
const std::string kPageUploadId = "0b6f1c9e-5a3d-4c57-9d1e-2f8a7b604c11";

// One example: a request with its answer, and the text that the request's signature is made over.
struct Example {
  std::string string_to_sign;
  std::string request;
  std::string answer;
};

std::string ReadPage() {
  std::ifstream file(std::string(TANSY_DOCS) + "/protocol.md", std::ios::binary);
  const std::string page{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  // What follows is another server's, and another test's.
  return page.substr(0, page.find("\n# The picture protocol\n"));
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// The text of the fenced block that starts at `begin`, without the fences and the last line end.
std::string BlockAt(const std::string& page, std::size_t begin) {
  const std::size_t first = page.find('\n', begin) + 1;
  const std::size_t last = page.find("\n```", first - 1);
  return page.substr(first, last - first);
}

std::vector<Example> ReadExamples(const std::string& page) {
  std::vector<Example> examples;
  Example example;
  for (std::size_t at = page.find("\n```"); at != std::string::npos; at = page.find("\n```", at + 4)) {
    const std::string fence = page.substr(at + 1, page.find('\n', at + 1) - at - 1);
    if (fence == "```string-to-sign") {
      example.string_to_sign = BlockAt(page, at + 1);
    } else if (fence == "```http-request") {
      example.request = BlockAt(page, at + 1);
    } else if (fence == "```http-answer") {
      example.answer = BlockAt(page, at + 1);
      EXPECT_FALSE(example.request.empty()) << "an answer to nothing:\n" << example.answer;
      examples.push_back(std::exchange(example, {}));
    } else {
      EXPECT_EQ(fence, "```") << "a block that nobody runs";
    }
  }
  EXPECT_TRUE(example.request.empty()) << "a request without an answer:\n" << example.request;
  return examples;
}

// A message as the page shows it: lines of the head, an empty line, the body.
struct Message {
  std::string first_line;
  HeaderList headers;
  std::string body;
};

Message ParseMessage(const std::string& text) {
  Message message;
  const std::size_t head_end = text.find("\n\n");
  std::string head = text.substr(0, head_end);
  if (head_end != std::string::npos) {
    message.body = text.substr(head_end + 2);
  }
  std::size_t line_end = head.find('\n');
  message.first_line = head.substr(0, line_end);
  while (line_end != std::string::npos) {
    const std::size_t begin = line_end + 1;
    line_end = head.find('\n', begin);
    const std::string line = head.substr(begin, line_end == std::string::npos ? line_end : line_end - begin);
    if (const std::size_t colon = line.find(": "); colon != std::string::npos) {
      message.headers.emplace_back(line.substr(0, colon), line.substr(colon + 2));
    }
  }
  return message;
}

std::string Wire(const Message& message) {
  std::string text = message.first_line + "\r\n";
  for (const auto& [name, value] : message.headers) {
    text += name + ": " + value + "\r\n";
  }
  return text + "\r\n" + message.body;
}

// What the page writes, as a pattern: "{date}", "{guid}" and "{number}" stand for any of these.
std::regex Pattern(const std::string& text) {
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  std::string pattern = std::regex_replace(text, special, R"(\$&)");
  pattern = ReplaceAll(pattern, R"(\{date\})", R"([A-Z][a-z]{2}, [ 123]\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d GMT)");
  pattern = ReplaceAll(pattern, R"(\{guid\})", R"([0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12})");
  pattern = ReplaceAll(pattern, R"(\{number\})", R"(\d+)");
  return std::regex(pattern);
}

class ProtocolPageTest : public TansydTest {
 protected:
  // The page's port and upload id as they are in this run.
  std::string Here(std::string text) const {
    text = ReplaceAll(std::move(text), kPagePort, "127.0.0.1:" + std::to_string(server_.GetObjectPort()));
    return upload_id_.empty() ? text : ReplaceAll(std::move(text), kPageUploadId, upload_id_);
  }

  Message RequestHere(const Example& example) const;
  static void CheckToken(const Example& example);
  void CheckAnswer(const Example& example, const Reply& reply);

  std::string upload_id_;
};

// The request of an example. Its signature must be that of the text shown with it; where this run's upload id takes the
// place of the page's, text and signature are made anew.
Message ProtocolPageTest::RequestHere(const Example& example) const {
  Message request = ParseMessage(Here(example.request));
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
void ProtocolPageTest::CheckToken(const Example& example) {
  const std::string mark = "&token=";
  const std::size_t begin = example.request.find(mark);
  ASSERT_NE(begin, std::string::npos) << "neither a header nor a token";
  const std::size_t end = example.request.find(' ', begin);
  std::string token = example.request.substr(begin + mark.size(), end - begin - mark.size());
  token = ReplaceAll(std::move(token), "%2B", "+");
  const std::string signature = Signature(example.string_to_sign, kPageKeys.secret_key);
  EXPECT_EQ(token, Base64("quorvane " + kPageKeys.access_key + ":" + signature));
}

void ProtocolPageTest::CheckAnswer(const Example& example, const Reply& reply) {
  static const std::regex id_pattern("<UploadId>([0-9a-f-]{36})</UploadId>");
  std::smatch id;
  if (upload_id_.empty() && std::regex_search(reply.body, id, id_pattern)) {
    upload_id_ = id[1];
  }
  const Message expected = ParseMessage(Here(example.answer));
  EXPECT_EQ(expected.first_line.substr(9, 3), std::to_string(reply.status));
  EXPECT_TRUE(reply.is_whole);
  EXPECT_EQ(reply.headers.size(), expected.headers.size());
  for (const auto& [name, value] : expected.headers) {
    // The upload id and the port differ in length from the page's where they stand in a body.
    const bool length_may_differ = name == "Content-Length" && Here(example.answer) != example.answer;
    EXPECT_TRUE(length_may_differ || std::regex_match(reply.Header(name), Pattern(value)))
        << name << ": " << reply.Header(name) << " instead of " << value;
  }
  EXPECT_TRUE(std::regex_match(reply.body, Pattern(expected.body))) << reply.body << "\ninstead of\n" << expected.body;
}

TEST_F(ProtocolPageTest, EveryExampleIsTrue) {
  const std::vector<Example> examples = ReadExamples(ReadPage());
  ASSERT_GE(examples.size(), 20U);
  Launch launch;
  launch.with_keys = false;
  launch.environment = {{"TANSY_ACCESS_KEY", kPageKeys.access_key}, {"TANSY_SECRET_KEY", kPageKeys.secret_key}};
  ASSERT_TRUE(server_.Start(launch));

  for (const Example& example : examples) {
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
