// Reading requests and delivering those that are delivered whole.
#include <exception>
#include <utility>

#include "TansyNet/server/ServerConnection.h"
#include "logging/Logging.h"

namespace TansyNet {
namespace details {
namespace {

constexpr int kLengthRequired = 411;
constexpr int kTooLarge = 413;
constexpr int kUnavailable = 503;
constexpr std::string_view kUploadMethod = "PUT";
constexpr std::string_view kFormMethod = "POST";

}  // namespace
}  // namespace details

CServerConnection::Next CServerConnection::StepHead(Lock& lock) {
  std::string_view input;
  const IoStatus status = ReadInput(input);
  if (status != IoStatus::kDone) {
    WaitFor(status);
    return Next::kWait;
  }
  if (phase_ == Phase::kIdle) {
    SetPhase(Phase::kHead);
    SetDeadline(limits_.header_timeout_ms);
    is_head_ = false;
  }
  switch (parser_.ParseHead(input)) {
    case CRequestParser::Progress::kNeedMore:
      KeepInput(input);
      input_is_short_ = true;
      return Next::kGoOn;
    case CRequestParser::Progress::kFailed:
      return Refuse(parser_.FailureStatus());
    case CRequestParser::Progress::kDone:
      break;
  }
  return BeginBody(input, lock);
}

CServerConnection::Next CServerConnection::BeginBody(std::string_view input, Lock& lock) {
  RequestHead& head = parser_.Head();
  TakeRequest(head);
  if (head.framing == BodyFraming::kChunked) {
    return BeginChunks(input);
  }
  const bool is_upload = request_.method == details::kUploadMethod;
  if (!is_upload && head.content_length > limits_.whole_body_bytes) {
    return Refuse(details::kTooLarge);
  }
  if (is_upload && head.content_length > kWholeBodyLimit) {
    return BeginUpload(head.content_length, input);
  }
  request_.content_length = static_cast<std::uint32_t>(head.content_length);
  body_.Start(head.content_length);
  body_.Consume(input);
  KeepInput(input);
  if (!body_.ClaimMemory()) {
    return Refuse(details::kUnavailable);
  }
  if (body_.IsComplete()) {
    return Deliver(lock);
  }
  SetPhase(Phase::kBody);
  SetDeadline(limits_.body_timeout_ms);
  SendContinue();
  return Next::kGoOn;
}

CServerConnection::Next CServerConnection::BeginChunks(std::string_view input) {
  KeepInput(input);
  SetPhase(Phase::kChunks);
  SetDeadline(limits_.body_timeout_ms);
  SendContinue();
  return Next::kGoOn;
}

void CServerConnection::TakeRequest(RequestHead& head) {
  keep_alive_ = keep_alive_ && head.keep_alive;
  http11_ = head.http11;
  is_head_ = head.method == "HEAD";
  request_ = {};
  request_.method = std::move(head.method);
  request_.url = std::move(head.path);
  request_.query = std::move(head.query);
  request_.ip = transport_.Socket().PeerAddress();
  request_.headers = std::move(head.headers);
}

CServerConnection::Next CServerConnection::StepBody(Lock& lock) {
  const IoStatus status = ReadInto(body_);
  if (status != IoStatus::kDone) {
    WaitFor(status);
    return Next::kWait;
  }
  if (!body_.ClaimMemory()) {
    return Refuse(details::kUnavailable);
  }
  SetDeadline(limits_.body_timeout_ms);
  return body_.IsComplete() ? Deliver(lock) : Next::kGoOn;
}

CServerConnection::Next CServerConnection::StepChunks(Lock& lock) {
  std::string_view input;
  const IoStatus status = ReadInput(input);
  if (status != IoStatus::kDone) {
    WaitFor(status);
    return Next::kWait;
  }
  // An upload whose length is not known beforehand cannot be delivered in pieces.
  const bool is_upload = request_.method == details::kUploadMethod;
  const std::uint64_t limit = is_upload ? kWholeBodyLimit : limits_.whole_body_bytes;
  std::string& bytes = chunked_body_.bytes;
  const std::size_t before = bytes.size();
  const CRequestParser::Progress progress = parser_.ParseChunks(input, bytes, limit);
  if (!chunked_body_.share.Resize(bytes.size())) {
    return Refuse(details::kUnavailable);
  }
  if (bytes.size() > before) {
    SetDeadline(limits_.body_timeout_ms);
  }
  switch (progress) {
    case CRequestParser::Progress::kNeedMore:
      KeepInput(input);
      input_is_short_ = true;
      return Next::kGoOn;
    case CRequestParser::Progress::kFailed:
      return Refuse(is_upload && parser_.FailureStatus() == details::kTooLarge ? details::kLengthRequired
                                                                               : parser_.FailureStatus());
    case CRequestParser::Progress::kDone:
      break;
  }
  KeepInput(input);
  request_.content_length = static_cast<std::uint32_t>(bytes.size());
  return Deliver(lock);
}

CServerConnection::Next CServerConnection::Deliver(Lock& lock) {
  CountedBytes body = chunked_body_.bytes.empty() ? body_.Take() : std::exchange(chunked_body_, {});
  if (!body.bytes.empty()) {
    request_.body_size = static_cast<std::uint32_t>(body.bytes.size());
    request_.body = ShareBytes(std::move(body));
  }
  HttpServerRecv message = std::exchange(request_, {});
  handle_ = runtime_.Handles().Add(shared_from_this());
  EnterHandling();
  const std::int32_t handle = handle_;
  lock.unlock();
  const auto type = message.headers.find("Content-Type");
  if (message.body != nullptr && message.method == details::kFormMethod && type != message.headers.end()) {
    ParseMultipartForm(type->second, *message.body, message.form_parts);
  }
  Call(handle, message);
  lock.lock();
  // The answer may be out already; then the next request's bytes, if there are any, have their turn.
  return phase_ == Phase::kIdle && HasInput() ? Next::kGoOn : Next::kWait;
}

void CServerConnection::Call(std::int32_t handle, HttpServerRecv& message) {
  try {
    origin_->callback(handle, message);
  } catch (const std::exception& problem) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]callback failed, handle = %d, %s[%s(%d)]", handle, problem.what());
    Abort();
  } catch (...) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]callback failed, handle = %d[%s(%d)]", handle);
    Abort();
  }
}

void CServerConnection::EnterHandling() {
  SetPhase(Phase::kHandling);
  SetDeadline(limits_.unanswered_timeout_ms);
  if (HasInput() || transport_.HasBuffered()) {
    input_waiting_ = true;
  } else {
    WatchReadable();
  }
}

// Tells a client that asked first that its body is welcome. The line is so short that a socket which does not take it
// at once has a client that does not read.
void CServerConnection::SendContinue() {
  if (!parser_.Head().expects_continue || HasInput()) {
    return;
  }
  std::string_view line = "HTTP/1.1 100 Continue\r\n\r\n";
  std::string_view nothing;
  if (Write(line, nothing, line.size()) != IoStatus::kDone) {
    Close();
  }
}

// Bytes to parse: those kept from before, or fresh ones when these are not enough. They stay valid until the next read.
IoStatus CServerConnection::ReadInput(std::string_view& input) {
  if (!Input().empty() && !input_is_short_) {
    input = Input();
    return IoStatus::kDone;
  }
  input_waiting_ = false;
  const IoResult result = transport_.Read(worker_->Scratch(), CServerWorker::kScratchBytes);
  if (result.status != IoStatus::kDone) {
    return result.status;
  }
  input_is_short_ = false;
  const std::string_view fresh(worker_->Scratch(), result.bytes);
  if (Input().empty()) {
    input = fresh;
  } else {
    input_.erase(0, input_begin_);
    input_begin_ = 0;
    input_.append(fresh);
    input = Input();
  }
  return IoStatus::kDone;
}

// Reads through the worker's own memory until a body has shown that it really comes, then straight into it.
IoStatus CServerConnection::ReadInto(CBodyBuffer& body) {
  if (body.Used() < CServerWorker::kScratchBytes) {
    const IoResult result = transport_.Read(worker_->Scratch(), CServerWorker::kScratchBytes);
    std::string_view fresh(worker_->Scratch(), result.bytes);
    body.Consume(fresh);
    KeepInput(fresh);
    return result.status;
  }
  const std::span<char> space = body.Space();
  const IoResult result = transport_.Read(space.data(), space.size());
  body.Commit(result.bytes);
  return result.status;
}

void CServerConnection::KeepInput(std::string_view input) {
  input_is_short_ = false;
  if (input.empty()) {
    input_ = std::string();
    input_begin_ = 0;
  } else if (input.data() >= input_.data() && input.data() < input_.data() + input_.size()) {
    input_begin_ = static_cast<std::size_t>(input.data() - input_.data());
  } else {
    input_.assign(input);
    input_begin_ = 0;
  }
}

}  // namespace TansyNet
