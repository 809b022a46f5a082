#include "support/ProtocolPage.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <utility>

namespace system_tests {
namespace {

std::string ReadPage() {
  std::ifstream file(std::string(TANSY_DOCS) + "/protocol.md", std::ios::binary);
  std::string page{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  EXPECT_FALSE(page.empty());
  return page;
}

std::size_t PictureTitle(const std::string& page) {
  const std::size_t title = page.find("\n# The picture protocol\n");
  EXPECT_NE(title, std::string::npos);
  return title;
}

// The text of the fenced block that starts at `begin`, without the fences and the last line end.
std::string BlockAt(const std::string& page, std::size_t begin) {
  const std::size_t first = page.find('\n', begin) + 1;
  const std::size_t last = page.find("\n```", first - 1);
  return page.substr(first, last - first);
}

}  // namespace

std::string ObjectChapter() {
  const std::string page = ReadPage();
  return page.substr(0, PictureTitle(page));
}

std::string PictureChapter() {
  const std::string page = ReadPage();
  return page.substr(PictureTitle(page));
}

std::vector<PageExample> ReadExamples(const std::string& chapter) {
  std::vector<PageExample> examples;
  PageExample example;
  for (std::size_t at = chapter.find("\n```"); at != std::string::npos; at = chapter.find("\n```", at + 4)) {
    const std::string fence = chapter.substr(at + 1, chapter.find('\n', at + 1) - at - 1);
    if (fence == "```string-to-sign") {
      example.string_to_sign = BlockAt(chapter, at + 1);
    } else if (fence == "```http-request") {
      example.request = BlockAt(chapter, at + 1);
    } else if (fence == "```http-answer") {
      example.answer = BlockAt(chapter, at + 1);
      EXPECT_FALSE(example.request.empty()) << "an answer to nothing:\n" << example.answer;
      examples.push_back(std::exchange(example, {}));
    } else {
      EXPECT_EQ(fence, "```") << "a block that nobody runs";
    }
  }
  EXPECT_TRUE(example.request.empty()) << "a request without an answer:\n" << example.request;
  return examples;
}

std::string PageMessage::Header(const std::string& name) const {
  for (const auto& [other, value] : headers) {
    if (other == name) {
      return value;
    }
  }
  return "";
}

PageMessage ParseMessage(const std::string& text) {
  PageMessage message;
  const std::size_t head_end = text.find("\n\n");
  const std::string head = text.substr(0, head_end);
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

std::string Wire(const PageMessage& message) {
  std::string text = message.first_line + "\r\n";
  for (const auto& [name, value] : message.headers) {
    text += name + ": " + value + "\r\n";
  }
  return text + "\r\n" + message.body;
}

std::regex Pattern(const std::string& text) {
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  std::string pattern = std::regex_replace(text, special, R"(\$&)");
  pattern = ReplaceAll(pattern, R"(\{date\})", R"([A-Z][a-z]{2}, [ 123]\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d GMT)");
  pattern = ReplaceAll(pattern, R"(\{guid\})", R"([0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12})");
  pattern = ReplaceAll(pattern, R"(\{tag\})", R"([0-9a-f]{32})");
  pattern = ReplaceAll(pattern, R"(\{number\})", R"(\d+)");
  return std::regex(pattern);
}

void ExpectSameHead(const PageMessage& expected, const Reply& reply, bool length_may_differ) {
  EXPECT_EQ(expected.first_line.substr(9, 3), std::to_string(reply.status));
  EXPECT_TRUE(reply.is_whole);
  EXPECT_EQ(reply.headers.size(), expected.headers.size());
  for (const auto& [name, value] : expected.headers) {
    EXPECT_TRUE((length_may_differ && name == "Content-Length") || std::regex_match(reply.Header(name), Pattern(value)))
        << name << ": " << reply.Header(name) << " instead of " << value;
  }
}

Launch LaunchWithPageKeys() {
  Launch launch;
  launch.with_keys = false;
  launch.environment = {{"TANSY_ACCESS_KEY", kPageKeys.access_key}, {"TANSY_SECRET_KEY", kPageKeys.secret_key}};
  return launch;
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

}  // namespace system_tests
