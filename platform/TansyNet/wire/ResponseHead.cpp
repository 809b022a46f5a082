#include "TansyNet/wire/ResponseHead.h"

#include <algorithm>
#include <array>
#include <boost/beast/http/status.hpp>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <iterator>
#include <string_view>

#include "TansyBase/HttpDate.h"
#include "TansyNet/wire/HeaderNames.h"

namespace TansyNet {
namespace details {
namespace {

constexpr std::string_view kLineEnd = "\r\n";

void AppendNumber(std::string& text, std::uint64_t number) {
  std::array<char, 20> digits{};
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  text.append(digits.data(), end);
}

// Control characters are left out. A line end in a value would let the source of the value write headers of its own.
void AppendValue(std::string& text, std::string_view value) {
  const auto harmless = [](char c) { return c == '\t' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f); };
  if (std::all_of(value.begin(), value.end(), harmless)) {
    text += value;
    return;
  }
  std::copy_if(value.begin(), value.end(), std::back_inserter(text), harmless);
}

void AppendHeader(std::string& text, std::string_view name, std::string_view value) {
  text += name;
  text += ": ";
  AppendValue(text, value);
  text += kLineEnd;
}

void AppendIfSet(std::string& text, std::string_view name, std::string_view value) {
  if (!value.empty()) {
    AppendHeader(text, name, value);
  }
}

bool IsFraming(std::string_view name) {
  return EqualNoCase(name, "Content-Length") || EqualNoCase(name, "Transfer-Encoding") ||
         EqualNoCase(name, "Connection") || EqualNoCase(name, "Keep-Alive");
}

// The text is made once per second and thread.
std::string_view DateText() {
  thread_local std::time_t second = -1;
  thread_local std::string text;
  const std::time_t now = std::time(nullptr);
  if (now != second) {
    text = TansyBase::HttpDate::Format(now, '0');
    second = now;
  }
  return text;
}

// Replaces a status that is not final, because it would confuse the client about what follows.
int FinalStatus(int status) {
  constexpr int kInternalError = 500;
  return status >= 200 && status <= 999 ? status : kInternalError;
}

void AppendOwnHeaders(std::string& text, const Headers& headers) {
  bool dated = false;
  for (const auto& [name, value] : headers) {
    if (IsToken(name) && !IsFraming(name)) {
      dated = dated || EqualNoCase(name, "Date");
      AppendHeader(text, name, value);
    }
  }
  if (!dated) {
    AppendHeader(text, "Date", DateText());
  }
}

}  // namespace
}  // namespace details

std::string ReasonOf(int status) {
  namespace http = boost::beast::http;
  const auto known = http::int_to_status(static_cast<unsigned>(status));
  return known == http::status::unknown ? "Unknown" : std::string(http::obsolete_reason(known));
}

bool StatusAllowsBody(int status) {
  constexpr int kNoContent = 204;
  constexpr int kNotModified = 304;
  return status != kNoContent && status != kNotModified;
}

bool AsksToClose(const HttpResponse& response) {
  if (response.close_connection != 0) {
    return true;
  }
  const auto found = response.headers.find("Connection");
  return found != response.headers.end() && EqualNoCase(found->second, "close");
}

std::string BuildResponseHead(const HttpResponse& response, std::uint64_t content_length, Persistence persistence,
                              std::string_view request_id, std::string_view times) {
  constexpr std::size_t kUsualSize = 512;
  const int status = details::FinalStatus(response.status);
  std::string text;
  text.reserve(kUsualSize);
  text += "HTTP/1.1 ";
  details::AppendNumber(text, static_cast<std::uint64_t>(status));
  text += ' ';
  text += ReasonOf(status);
  text += details::kLineEnd;
  details::AppendIfSet(text, "Content-Type", response.content_type);
  if (StatusAllowsBody(status)) {
    text += "Content-Length: ";
    details::AppendNumber(text, content_length);
    text += details::kLineEnd;
  }
  details::AppendIfSet(text, "Content-Encoding", response.content_encoding);
  details::AppendIfSet(text, "Location", response.location);
  details::AppendIfSet(text, "Cache-Control", response.cache_control);
  details::AppendOwnHeaders(text, response.headers);
  details::AppendIfSet(text, "X-Request-Id", request_id);
  details::AppendIfSet(text, "Server-Timing", times);
  if (persistence != Persistence::kDefault) {
    details::AppendHeader(text, "Connection", persistence == Persistence::kClose ? "close" : "keep-alive");
  }
  text += details::kLineEnd;
  return text;
}

HttpResponse LibraryAnswer(int status) {
  HttpResponse response;
  response.status = status;
  response.close_connection = 1;
  response.content_type = "text/plain; charset=utf-8";
  return response;
}

}  // namespace TansyNet
