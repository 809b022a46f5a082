// Examples of docs/protocol.md: blocks "string-to-sign", "http-request" and "http-answer".
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_PROTOCOL_PAGE_H
#define TANSY_TESTS_SYSTEM_SUPPORT_PROTOCOL_PAGE_H

#include <regex>
#include <string>
#include <vector>

#include "support/Http.h"
#include "support/Tansyd.h"

namespace system_tests {

// The keys that the page's signatures are made with.
inline const Keys kPageKeys{"docs-access-key", "docs-secret-key"};

// One example: a request with its answer, and the text that the request's signature is made over.
struct PageExample {
  std::string string_to_sign;
  std::string request;
  std::string answer;
};

// The page's chapters, each from its title to the next one.
std::string ObjectChapter();
std::string PictureChapter();

// The examples in their order. A block that belongs to none is reported.
std::vector<PageExample> ReadExamples(const std::string& chapter);

// A message as the page shows it: lines of the head, an empty line, the body.
struct PageMessage {
  std::string first_line;
  HeaderList headers;
  std::string body;

  std::string Header(const std::string& name) const;  // "" when missing
};
PageMessage ParseMessage(const std::string& text);
// As bytes for a connection.
std::string Wire(const PageMessage& message);

// What the page writes, as a pattern: "{date}", "{guid}", "{tag}" and "{number}" stand for any of these.
std::regex Pattern(const std::string& text);

// Whether status and headers are those of `expected`. The page may show another "Content-Length" where
// `length_may_differ`: when what stands in this run's body for a text of the page is not as long as that.
void ExpectSameHead(const PageMessage& expected, const Reply& reply, bool length_may_differ);

// A tansyd with the page's keys.
Launch LaunchWithPageKeys();

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to);

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_PROTOCOL_PAGE_H
