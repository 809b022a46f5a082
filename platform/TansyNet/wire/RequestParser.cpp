#include "TansyNet/wire/RequestParser.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/field.hpp>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include "TansyNet/wire/HeaderNames.h"

namespace TansyNet {

namespace http = boost::beast::http;
using BeastError = boost::beast::error_code;
using BeastView = boost::beast::string_view;

namespace details {
namespace {

constexpr int kBadRequest = 400;
constexpr int kTooLarge = 413;
constexpr int kExpectationFailed = 417;
constexpr int kHeaderTooLarge = 431;
constexpr int kNotImplemented = 501;
constexpr int kVersionNotSupported = 505;

// Each field costs several times its bytes once it is in a map.
constexpr int kMaxFields = 100;

// Fields whose names begin so belong to the S3 protocol.
constexpr std::string_view kJoinedPrefix = "x-amz-";

std::string_view View(BeastView text) {
  return {text.data(), text.size()};
}

bool AllDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Returns true when the line begins with a well-formed Content-Length. Its value is then too large for any number.
bool IsHugeLength(std::string_view line) {
  constexpr std::string_view kName = "Content-Length:";
  if (line.size() < kName.size() || !EqualNoCase(line.substr(0, kName.size()), kName)) {
    return false;
  }
  line.remove_prefix(kName.size());
  line = line.substr(0, line.find("\r\n"));
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!line.empty() && blank(line.front())) {
    line.remove_prefix(1);
  }
  while (!line.empty() && blank(line.back())) {
    line.remove_suffix(1);
  }
  return AllDigits(line);
}

// Returns true when the request line ends with a version of HTTP that is not spoken here.
bool NamesOtherVersion(std::string_view input) {
  const std::string_view line = input.substr(0, input.find("\r\n"));
  constexpr std::string_view kPattern = " HTTP/d.d";
  if (line.size() < kPattern.size()) {
    return false;
  }
  const std::string_view end = line.substr(line.size() - kPattern.size());
  if (end.ends_with("1.0") || end.ends_with("1.1")) {
    return false;
  }
  return end.substr(0, 6) == " HTTP/" && AllDigits(end.substr(6, 1)) && end[7] == '.' && AllDigits(end.substr(8));
}

// Gives the path and query of a request target in any of its forms.
std::string_view WithoutAuthority(std::string_view target) {
  const std::size_t scheme_end = target.find("://");
  if (target.front() == '/' || scheme_end == std::string_view::npos || target.find_first_of("/?") < scheme_end) {
    return target;
  }
  const std::size_t path = target.find_first_of("/?", scheme_end + 3);
  return path == std::string_view::npos ? std::string_view() : target.substr(path);
}

void SplitTarget(std::string_view target, RequestHead& head) {
  const std::string_view local = WithoutAuthority(target);
  const std::size_t mark = local.find('?');
  head.path = local.substr(0, mark);
  if (mark != std::string_view::npos) {
    head.query = local.substr(mark + 1);
  }
  if (head.path.empty()) {
    head.path = "/";
  }
}

// Finds a field that goes on in the next line. Such a request is refused, because proxies disagree about the meaning.
bool HasFoldedLine(std::string_view header) {
  return header.find("\r\n ") != std::string_view::npos || header.find("\r\n\t") != std::string_view::npos;
}

class CBeastParser final : public http::basic_parser<true> {
 public:
  explicit CBeastParser(std::uint32_t header_bytes) {
    header_limit(header_bytes);
    body_limit(boost::none);
  }

  RequestHead head;
  int failure = kBadRequest;
  std::string* body = nullptr;
  std::uint64_t body_max = 0;

 private:
  void Refuse(int status, BeastError& error) {
    failure = status;
    error = http::error::bad_value;
  }

  void on_request_impl(http::verb /*verb*/, BeastView method, BeastView target, int version,
                       BeastError& /*e*/) override {
    head.method = View(method);
    head.http11 = version >= 11;
    SplitTarget(View(target), head);
  }

  void on_response_impl(int /*status*/, BeastView /*reason*/, int /*version*/, BeastError& /*error*/) override {}

  void on_field_impl(http::field field, BeastView beast_name, BeastView beast_value, BeastError& error) override {
    if (header_complete_) {
      return;  // a trailer must not change what the header said
    }
    if (++fields_ > kMaxFields) {
      return Refuse(kHeaderTooLarge, error);
    }
    const std::string_view value = View(beast_value);
    if (field == http::field::host) {
      TakeHost(error);
    } else if (field == http::field::content_length) {
      TakeLength(value, error);
    } else if (field == http::field::transfer_encoding) {
      TakeEncoding(value, error);
    } else if (field == http::field::expect) {
      TakeExpectation(value, error);
    }
    KeepField(View(beast_name), value);
  }

  // Of several fields of one name the first counts. But the S3 protocol signs its own ones as if they were one, in the
  // order in which they came.
  void KeepField(std::string_view name, std::string_view value) {
    const auto is_same = [name](const auto& header) { return EqualNoCase(header.first, name); };
    if (EqualNoCase(name.substr(0, kJoinedPrefix.size()), kJoinedPrefix)) {
      const auto there = std::find_if(head.headers.begin(), head.headers.end(), is_same);
      if (there != head.headers.end()) {
        there->second.append(",").append(value);
        return;
      }
    }
    head.headers.try_emplace(std::string(StandardHeaderName(name)), value);
  }

  void TakeHost(BeastError& error) {
    // With two hosts, a proxy in front may have used the other one, so the request is refused.
    if (std::exchange(has_host_, true)) {
      Refuse(kBadRequest, error);
    }
  }

  void TakeLength(std::string_view value, BeastError& error) {
    // With two lengths, even equal ones, a proxy in front may have used the other one, so the request is refused.
    if (head.framing != BodyFraming::kNone || !AllDigits(value)) {
      return Refuse(kBadRequest, error);
    }
    std::uint64_t length = 0;
    const auto [end, problem] = std::from_chars(value.data(), value.data() + value.size(), length);
    if (problem != std::errc() || length > std::numeric_limits<std::uint32_t>::max()) {
      return Refuse(kTooLarge, error);
    }
    head.framing = BodyFraming::kLength;
    head.content_length = length;
  }

  void TakeEncoding(std::string_view value, BeastError& error) {
    if (head.framing != BodyFraming::kNone || !head.http11) {
      return Refuse(kBadRequest, error);
    }
    if (!EqualNoCase(value, "chunked")) {
      return Refuse(kNotImplemented, error);
    }
    head.framing = BodyFraming::kChunked;
  }

  void TakeExpectation(std::string_view value, BeastError& error) {
    if (!EqualNoCase(value, "100-continue")) {
      return Refuse(kExpectationFailed, error);
    }
    head.expects_continue = head.http11;
  }

  void on_header_impl(BeastError& /*error*/) override {
    header_complete_ = true;
    head.keep_alive = keep_alive();
  }

  void on_body_init_impl(const boost::optional<std::uint64_t>& /*length*/, BeastError& /*error*/) override {}

  std::size_t on_body_impl(BeastView data, BeastError& /*error*/) override { return data.size(); }

  void on_chunk_header_impl(std::uint64_t size, BeastView /*extensions*/, BeastError& error) override {
    if (size > body_max - std::min<std::uint64_t>(body_max, body->size())) {
      Refuse(kTooLarge, error);
    }
  }

  std::size_t on_chunk_body_impl(std::uint64_t /*remain*/, BeastView data, BeastError& /*error*/) override {
    body->append(data.data(), data.size());
    return data.size();
  }

  void on_finish_impl(BeastError& /*error*/) override {}

  bool header_complete_ = false;
  bool has_host_ = false;
  int fields_ = 0;
};

}  // namespace
}  // namespace details

struct CRequestParser::Impl {
  explicit Impl(std::uint32_t bytes) : header_bytes(bytes), parser(std::in_place, bytes) {}

  Progress Fail(int status) {
    failure = status;
    return Progress::kFailed;
  }

  const std::uint32_t header_bytes;
  std::size_t header_used = 0;
  std::optional<details::CBeastParser> parser;
  int failure = details::kBadRequest;
};

CRequestParser::CRequestParser(std::uint32_t header_bytes) : impl_(std::make_unique<Impl>(header_bytes)) {}

CRequestParser::~CRequestParser() = default;

void CRequestParser::Reset() {
  impl_->parser.emplace(impl_->header_bytes);
  impl_->header_used = 0;
}

RequestHead& CRequestParser::Head() {
  return impl_->parser->head;
}

int CRequestParser::FailureStatus() const {
  return impl_->failure;
}

CRequestParser::Progress CRequestParser::ParseHead(std::string_view& input) {
  Impl& impl = *impl_;
  // Some clients end a body with an empty line, so empty lines between two requests are skipped.
  while (!impl.parser->got_some() && input.starts_with("\r\n")) {
    input.remove_prefix(2);
    impl.header_used += 2;
  }
  if (input.empty() || (!impl.parser->got_some() && input == "\r")) {
    return impl.header_used > impl.header_bytes ? impl.Fail(details::kHeaderTooLarge) : Progress::kNeedMore;
  }
  BeastError error;
  const std::string_view offered = input;
  const std::size_t used = impl.parser->put(boost::asio::buffer(input.data(), input.size()), error);
  input.remove_prefix(used);
  if (details::HasFoldedLine(offered.substr(0, used))) {
    return impl.Fail(details::kBadRequest);
  }
  // Lines that came one by one are counted here, because the parser's own limit only covers what it sees at once.
  impl.header_used += used;
  if (error == http::error::need_more || (!error && !impl.parser->is_header_done())) {
    return impl.header_used + input.size() > impl.header_bytes ? impl.Fail(details::kHeaderTooLarge)
                                                               : Progress::kNeedMore;
  }
  if (error == http::error::header_limit || (!error && impl.header_used > impl.header_bytes)) {
    return impl.Fail(details::kHeaderTooLarge);
  }
  if (error == http::error::bad_version && details::NamesOtherVersion(offered)) {
    return impl.Fail(details::kVersionNotSupported);
  }
  if (error == http::error::bad_content_length && Head().framing == BodyFraming::kNone &&
      details::IsHugeLength(input)) {
    return impl.Fail(details::kTooLarge);
  }
  return error ? impl.Fail(impl.parser->failure) : Progress::kDone;
}

CRequestParser::Progress CRequestParser::ParseChunks(std::string_view& input, std::string& body, std::uint64_t limit) {
  Impl& impl = *impl_;
  impl.parser->body = &body;
  impl.parser->body_max = limit;
  while (!impl.parser->is_done()) {
    BeastError error;
    const std::size_t used = impl.parser->put(boost::asio::buffer(input.data(), input.size()), error);
    input.remove_prefix(used);
    if (error == http::error::need_more || (!error && input.empty() && !impl.parser->is_done())) {
      // Lengths, extensions and trailers have the same limit as headers, and only they can be left over here: the
      // parser always takes the bytes of a chunk.
      return input.size() > impl.header_bytes ? impl.Fail(details::kHeaderTooLarge) : Progress::kNeedMore;
    }
    if (error) {
      return impl.Fail(impl.parser->failure);
    }
  }
  return Progress::kDone;
}

}  // namespace TansyNet
