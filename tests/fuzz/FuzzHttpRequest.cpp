// links: TansyNet
// Request heads and chunked bodies: the first byte says where the rest is cut in two. However a request is cut, it is
// the same request, and what follows it is the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Require.h"
#include "TansyNet/wire/RequestParser.h"

namespace {

using TansyNet::BodyFraming;
using TansyNet::CRequestParser;
using Progress = TansyNet::CRequestParser::Progress;

constexpr std::uint32_t kHeaderBytes = 2048;
constexpr std::uint64_t kBodyBytes = 4096;

struct Outcome {
  Progress progress = Progress::kNeedMore;
  std::string request;
  std::string rest;
};

// Reads one request from pieces, as a connection does.
class CReader {
 public:
  void Feed(std::string_view piece) {
    pending_ += piece;
    if (!head_done_) {
      Take([this](std::string_view& input) { return parser_.ParseHead(input); });
      head_done_ = outcome_.progress == Progress::kDone;
    }
    if (head_done_ && parser_.Head().framing == BodyFraming::kChunked) {
      Take([this](std::string_view& input) { return parser_.ParseChunks(input, body_, kBodyBytes); });
      Require(body_.size() <= kBodyBytes);
    }
  }

  bool IsOver() const { return outcome_.progress != Progress::kNeedMore; }

  Outcome Finish() {
    outcome_.rest = pending_;
    const TansyNet::RequestHead& head = parser_.Head();
    outcome_.request = head.method + '\n' + head.path + '\n' + head.query + '\n' +
                       std::to_string(static_cast<int>(head.framing)) + '\n' + std::to_string(head.content_length) +
                       (head.http11 ? "1" : "0") + (head.keep_alive ? "1" : "0") + (head.expects_continue ? "1" : "0");
    for (const auto& [name, value] : head.headers) {
      Require(!name.empty() && name.find_first_of("\r\n: ") == std::string::npos);
      Require(value.find_first_of("\r\n") == std::string::npos);
      outcome_.request += '\n' + name + ':' + value;
    }
    outcome_.request += '\n' + body_;
    return outcome_;
  }

 private:
  template <typename Parse>
  void Take(Parse parse) {
    std::string_view input = pending_;
    outcome_.progress = parse(input);
    const int status = parser_.FailureStatus();
    Require(outcome_.progress != Progress::kFailed || (status >= 400 && status < 600));
    pending_ = std::string(input);
  }

  CRequestParser parser_{kHeaderBytes};
  std::string pending_;
  std::string body_;
  bool head_done_ = false;
  Outcome outcome_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::size_t cut = text.size() * data[0] / 255;

  CReader whole;
  whole.Feed(text);
  const Outcome expected = whole.Finish();

  CReader pieces;
  pieces.Feed(text.substr(0, cut));
  if (pieces.IsOver()) {
    return 0;  // it was over before the cut
  }
  pieces.Feed(text.substr(cut));
  const Outcome actual = pieces.Finish();
  // A malformed head may be recognised later when it comes in pieces, but never differently.
  Require((expected.progress == Progress::kDone) == (actual.progress == Progress::kDone));
  if (expected.progress == Progress::kDone) {
    Require(actual.request == expected.request);
    Require(actual.rest == expected.rest);
  }
  return 0;
}
