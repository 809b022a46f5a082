#include "TansyNet/client/AnswerReader.h"

#include <algorithm>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>
#include <chrono>
#include <cstring>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

#include "TansyNet/wire/HeaderNames.h"

namespace TansyNet::details {

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::string_view;

namespace {

using Clock = std::chrono::steady_clock;

// A server that sends more interim answers than this is treated as one that never sends the final answer.
constexpr int kMaxInterimHeads = 16;

ClientError BadAnswer(http::error reason) {
  return {ClientError::kBadAnswer, static_cast<std::int32_t>(reason)};
}

int TimeLeft(Clock::time_point until) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(left, 0));
}

ClientError TooLarge() {
  return {ClientError::kTooLarge, static_cast<std::int32_t>(std::errc::file_too_large)};
}

}  // namespace

// Parses the head and, of a body in chunks, finds the bytes between the chunk lines. Bodies of other kinds do not pass
// through it.
class CAnswerReader::CParser : public http::basic_parser<false> {
 public:
  explicit CParser(bool to_head) {
    header_limit(kMaxHeadBytes);
    body_limit(boost::none);
    eager(true);
    skip(to_head);
  }

  void SetSink(IBodySink* sink) { sink_ = sink; }
  bool sink_is_full() const { return sink_is_full_; }
  int status() const { return status_; }
  Headers& headers() { return headers_; }

 private:
  void on_request_impl(http::verb, string_view, string_view, int, error_code&) override {}

  void on_response_impl(int code, string_view, int, error_code&) override { status_ = code; }

  void on_field_impl(http::field, string_view name, string_view value, error_code&) override {
    if (is_header_done()) {
      return;  // a trailer, which is ignored
    }
    const std::string_view spelling = StandardHeaderName({name.data(), name.size()});
    headers_.emplace(std::string(spelling), std::string(value.data(), value.size()));
  }

  void on_header_impl(error_code&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}

  std::size_t on_body_impl(string_view, error_code& error) override {
    error = http::error::unexpected_body;
    return 0;
  }

  void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}

  std::size_t on_chunk_body_impl(std::uint64_t, string_view body, error_code& error) override {
    string_view rest = body;
    while (!rest.empty()) {
      const std::span<char> window = sink_->Window();
      const std::size_t bytes = std::min(window.size(), rest.size());
      std::memcpy(window.data(), rest.data(), bytes);
      rest.remove_prefix(bytes);
      if (!sink_->Filled(bytes)) {
        sink_is_full_ = true;
        error = http::error::body_limit;
        return 0;
      }
    }
    return body.size();
  }

  void on_finish_impl(error_code&) override {}

  IBodySink* sink_ = nullptr;
  bool sink_is_full_ = false;
  int status_ = 0;
  Headers headers_;
};

CAnswerReader::CAnswerReader(CClientConnection& connection, bool to_head, int timeout_ms)
    : connection_(connection), to_head_(to_head), timeout_ms_(timeout_ms) {}

CAnswerReader::~CAnswerReader() = default;

bool CAnswerReader::Report(const IoResult& result, ClientError& error) const {
  if (result.status == IoStatus::kDone) {
    error = BadAnswer(http::error::header_limit);  // the line does not fit into the whole buffer
  } else if (result.status == IoStatus::kEnd) {
    error =
        started_ ? BadAnswer(http::error::partial_message) : ClientError{ClientError::kReceive, ConnectionResetError()};
  } else {
    const bool timed_out = result.error == TimedOutError();
    error = {timed_out ? ClientError::kTimeout : ClientError::kReceive, result.error};
  }
  return false;
}

bool CAnswerReader::ParseBuffered(ClientError& error, std::size_t& used) {
  error_code failure;
  const std::string_view input = connection_.Buffered();
  used = parser_->put(boost::asio::buffer(input.data(), input.size()), failure);
  connection_.Consume(used);
  if (failure && failure != http::error::need_more) {
    error = parser_->sink_is_full() ? TooLarge() : ClientError{ClientError::kBadAnswer, failure.value()};
    return false;
  }
  return true;
}

bool CAnswerReader::ReadHead(CHttpClientResponse& response, ClientError& error) {
  parser_ = std::make_unique<CParser>(to_head_);
  parser_->eager(false);  // stop behind the head, however much of the body has come with it
  std::size_t head_bytes = 0;
  bool more = connection_.Buffered().empty();
  // A head is small, so once it has begun, all of the rest must come within one time-out, even when bytes keep
  // trickling in.
  std::optional<Clock::time_point> until;
  while (!parser_->is_header_done()) {
    if (more) {
      const IoResult result = connection_.Fill(until ? TimeLeft(*until) : timeout_ms_);
      if (result.status != IoStatus::kDone || result.bytes == 0) {
        return Report(result, error);
      }
    }
    started_ = true;
    if (!until && timeout_ms_ >= 0) {
      until = Clock::now() + std::chrono::milliseconds(timeout_ms_);
    }
    std::size_t used = 0;
    if (!ParseBuffered(error, used)) {
      return false;
    }
    // The parser consumes lines as soon as it has read them, so only their sum shows a head without an end.
    head_bytes += used;
    if (head_bytes > kMaxHeadBytes) {
      error = BadAnswer(http::error::header_limit);
      return false;
    }
    more = true;
  }
  // 101 would switch to a protocol that was not requested.
  const bool unusable = parser_->status() < 100 || parser_->status() == 101;
  if (unusable || (IsInterim() && ++interim_heads_ > kMaxInterimHeads)) {
    error = BadAnswer(http::error::bad_status);
    return false;
  }
  response.status = parser_->status();
  response.headers = std::move(parser_->headers());
  response.content_length = parser_->content_length().value_or(0);
  return true;
}

bool CAnswerReader::IsInterim() const {
  return parser_ != nullptr && parser_->status() >= 100 && parser_->status() < 200;
}

bool CAnswerReader::ReadBody(CHttpClientResponse& response, IBodySink& sink, ClientError& error) {
  const bool none = parser_->is_done();
  if (!sink.Begin(none ? 0 : response.content_length)) {
    error = TooLarge();
    return false;
  }
  if (none) {
    return true;
  }
  bool complete = false;
  if (parser_->chunked()) {
    complete = ReadChunks(sink, error);
  } else if (parser_->content_length()) {
    return ReadKnownLength(*parser_->content_length(), sink, error);
  } else {
    complete = ReadUntilClose(sink, error);
  }
  response.content_length = sink.Size();
  return complete;
}

bool CAnswerReader::DrainBuffer(std::uint64_t limit, IBodySink& sink, std::uint64_t& drained) {
  drained = 0;
  while (drained < limit && !connection_.Buffered().empty()) {
    const std::string_view input = connection_.Buffered();
    const std::span<char> window = sink.Window();
    const auto bytes =
        static_cast<std::size_t>(std::min<std::uint64_t>(std::min(window.size(), input.size()), limit - drained));
    std::memcpy(window.data(), input.data(), bytes);
    connection_.Consume(bytes);
    drained += bytes;
    if (!sink.Filled(bytes)) {
      return false;
    }
  }
  return true;
}

bool CAnswerReader::ReadKnownLength(std::uint64_t length, IBodySink& sink, ClientError& error) {
  std::uint64_t done = 0;
  DrainBuffer(length, sink, done);
  while (done < length) {
    const std::span<char> window = sink.Window();
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(window.size(), length - done));
    const IoResult result = connection_.Read(window.data(), wanted, timeout_ms_);
    if (result.status != IoStatus::kDone) {
      return Report(result, error);
    }
    sink.Filled(result.bytes);
    done += result.bytes;
  }
  return true;
}

bool CAnswerReader::ReadUntilClose(IBodySink& sink, ClientError& error) {
  std::uint64_t drained = 0;
  bool fits = DrainBuffer(std::numeric_limits<std::uint64_t>::max(), sink, drained);
  while (fits) {
    const std::span<char> window = sink.Window();
    const IoResult result = connection_.Read(window.data(), window.size(), timeout_ms_);
    if (result.status == IoStatus::kEnd && !result.truncated) {
      return true;
    }
    if (result.status != IoStatus::kDone) {
      return Report(result, error);
    }
    fits = sink.Filled(result.bytes);
  }
  error = TooLarge();
  return false;
}

bool CAnswerReader::ReadChunks(IBodySink& sink, ClientError& error) {
  parser_->eager(true);
  parser_->SetSink(&sink);
  bool more = connection_.Buffered().empty();
  while (!parser_->is_done()) {
    if (more) {
      const IoResult result = connection_.Fill(timeout_ms_);
      if (result.status != IoStatus::kDone || result.bytes == 0) {
        return Report(result, error);
      }
    }
    std::size_t used = 0;
    if (!ParseBuffered(error, used)) {
      return false;
    }
    more = true;
  }
  return true;
}

bool CAnswerReader::KeepsConnection() const {
  return parser_ != nullptr && parser_->is_header_done() && parser_->keep_alive() && connection_.Buffered().empty();
}

}  // namespace TansyNet::details
