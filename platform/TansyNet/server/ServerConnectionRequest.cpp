// Reads requests, and delivers those that are delivered whole.
#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "TansyNet/server/LoopThreads.h"
#include "TansyNet/server/ServerConnection.h"
#include "logging/Logging.h"

namespace TansyNet {
namespace details {
namespace {

constexpr int kLengthRequired = 411;
constexpr int kTooLarge = 413;
constexpr int kUnavailable = 503;
constexpr std::string_view kUploadMethod = "PUT";
// Heads up to this length are not counted.
constexpr std::size_t kShortHead = std::size_t{4} * 1024;

// Those who wait may hold a sixteenth of the ceiling in all.
std::uint64_t MostWaiting() {
  constexpr std::uint64_t kHeldByOne = std::uint64_t{128} * 1024;
  return std::max<std::uint64_t>(CMemoryAccount::Process().Limit() / 16 / kHeldByOne, 1);
}

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
      if (input_.size() > details::kShortHead && !input_share_.Resize(MemoryOf(input_))) {
        return Refuse(details::kUnavailable);
      }
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
  body_.Start(head.content_length, MemoryUse::kArriving);
  body_.Consume(input);
  KeepInput(input);
  if (body_.IsComplete() && body_.ClaimMemory()) {
    return Deliver(lock);
  }
  SetPhase(Phase::kBody);
  BeginBodyTime(head.content_length);
  SendContinue();
  return Next::kGoOn;
}

CServerConnection::Next CServerConnection::BeginChunks(std::string_view input) {
  KeepInput(input);
  chunked_body_.share.ChangeUse(MemoryUse::kArriving);
  SetPhase(Phase::kChunks);
  BeginBodyTime(0);
  SendContinue();
  return Next::kGoOn;
}

void CServerConnection::TakeRequest(RequestHead& head) {
  keep_alive_ = keep_alive_ && head.keep_alive;
  http11_ = head.http11;
  is_head_ = head.method == "HEAD";
  record_.Begin(head, runtime_.Watch(), runtime_.TellsTimes());
  request_ = {};
  request_.method = std::move(head.method);
  request_.url = std::move(head.path);
  request_.query = std::move(head.query);
  request_.ip = transport_.Socket().PeerAddress();
  request_.headers = std::move(head.headers);
}

CServerConnection::Next CServerConnection::StepBody(Lock& lock) {
  if (!body_.ClaimMemory()) {
    return AwaitMemory(MemoryUse::kArriving, body_.Demand());
  }
  MemoryCame();
  if (body_.IsComplete()) {
    return Deliver(lock);
  }
  const std::size_t before = body_.Used();
  const IoStatus status = ReadInto(body_);
  if (status != IoStatus::kDone) {
    WaitFor(status);
    return Next::kWait;
  }
  NoteBodyProgress(body_.Used() - before);
  return Next::kGoOn;
}

CServerConnection::Next CServerConnection::AwaitMemory(MemoryUse use, std::size_t demand) {
  constexpr std::int64_t kLookAgainMs = 20;
  const std::int64_t now = SteadyMilliseconds();
  if (!memory_wait_) {
    if (Wait::count >= details::MostWaiting()) {
      return Refuse(details::kUnavailable);
    }
    memory_wait_.emplace();
    memory_due_ = now + limits_.body_timeout_ms;
  }
  if (now >= memory_due_ || !CMemoryAccount::Process().CanEverTake(use, demand)) {
    return Refuse(details::kUnavailable);
  }
  SetDeadlineAt(now + kLookAgainMs);
  return Next::kWait;
}

void CServerConnection::MemoryCame() {
  if (memory_wait_) {
    memory_wait_.reset();
    rate_.Begin(SteadyMilliseconds());
    NoteBodyProgress(0);
  }
}

void CServerConnection::BeginBodyTime(std::uint64_t length) {
  const std::int64_t now = SteadyMilliseconds();
  body_end_ = now + limits_.unchecked_body_timeout_ms + TimeFor(length);
  rate_.Begin(now);
  NoteBodyProgress(0);
}

// What so many bytes take at the least rate.
std::int64_t CServerConnection::TimeFor(std::uint64_t bytes) const {
  return static_cast<std::int64_t>(bytes * 1000 / std::max<std::uint64_t>(limits_.least_bytes_per_second, 1));
}

void CServerConnection::NoteBodyProgress(std::size_t bytes) {
  rate_.Moved(bytes);
  body_due_ = std::min(SteadyMilliseconds() + limits_.body_timeout_ms, body_end_);
  SetDeadlineAt(std::min(body_due_, rate_.WindowEnd()));
}

// The deadline of a body came. Returns true when it was only the end of a window in which enough was sent, or in which
// nobody needed the room.
bool CServerConnection::BodyMayGoOn(std::int64_t now) {
  if (phase_ == Phase::kHead || now >= body_due_) {
    return false;
  }
  if (rate_.FellBelow(now) && CMemoryAccount::Process().IsShort(MemoryUse::kArriving)) {
    return false;
  }
  SetDeadlineAt(std::min(body_due_, rate_.WindowEnd()));
  return true;
}

CServerConnection::Next CServerConnection::StepChunks(Lock& lock) {
  std::string_view input;
  const IoStatus status = ReadInput(input);
  if (status != IoStatus::kDone) {
    WaitFor(status);
    return Next::kWait;
  }
  // An upload whose length is not known beforehand is delivered in pieces only to who takes it so.
  const bool is_upload = request_.method == details::kUploadMethod;
  const std::uint64_t limit = IsStreamedWhenChunked() ? std::numeric_limits<std::uint64_t>::max()
                              : is_upload             ? kWholeBodyLimit
                                                      : limits_.whole_body_bytes;
  std::string& bytes = chunked_body_.bytes;
  const std::size_t before = bytes.size();
  const CRequestParser::Progress progress = parser_.ParseChunks(input, bytes, limit);
  // The final size is not known, so the body cannot wait for all of its room at once. If such bodies waited for more
  // and more room, they could wait for each other.
  if (!chunked_body_.share.Resize(MemoryOf(bytes))) {
    return Refuse(details::kUnavailable);
  }
  if (bytes.size() > before) {
    body_end_ += TimeFor(bytes.size() - before);
    NoteBodyProgress(bytes.size() - before);
  }
  switch (progress) {
    case CRequestParser::Progress::kNeedMore:
      KeepInput(input);
      input_is_short_ = true;
      return IsStreamedWhenChunked() ? BeginChunkedUpload() : Next::kGoOn;
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
  body.share.ChangeUse(MemoryUse::kWork);
  if (!body.bytes.empty()) {
    request_.body_size = static_cast<std::uint32_t>(body.bytes.size());
    request_.body = ShareBytes(std::move(body));
  }
  record_.Delivered(request_.body_size);
  HttpServerRecv message = std::exchange(request_, {});
  message.note = record_.Note();
  handle_ = runtime_.Handles().Add(shared_from_this());
  EnterHandling();
  const std::int32_t handle = handle_;
  lock.unlock();
  CallOnLoan(handle, message);
  lock.lock();
  return MustGoOnAfterCallback() ? Next::kGoOn : Next::kWait;
}

// While the callback ran, the answer may have been sent, by any thread, and what was watched may have happened, which
// nobody looked at.
bool CServerConnection::MustGoOnAfterCallback() const {
  switch (phase_) {
    case Phase::kIdle:
      return IsUnwatched();
    case Phase::kSending:
      return !write_watched_ || !read_watched_;
    case Phase::kHandling:
    case Phase::kSendingChunks:
    case Phase::kDraining:
      return !read_watched_;
    default:
      return false;
  }
}

// The callback may run the whole request: when it takes long, another thread serves the worker's other clients.
void CServerConnection::CallOnLoan(std::int32_t handle, HttpServerRecv& message) {
  const CLoopThreads::CLoan loan(worker_->Threads());
  Call(handle, message);
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

// Tells a client that asked first that it may send its body. The line is so short that a socket which does not take it
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

// Gives bytes to parse: those kept from before, or fresh ones when these are not enough. They stay valid until the next
// read.
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
    Release(input_);
    input_begin_ = 0;
    input_share_.Resize(0);
  } else if (input.data() >= input_.data() && input.data() < input_.data() + input_.size()) {
    input_begin_ = static_cast<std::size_t>(input.data() - input_.data());
  } else {
    input_.assign(input);
    input_begin_ = 0;
  }
}

}  // namespace TansyNet
