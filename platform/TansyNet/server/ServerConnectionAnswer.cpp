// Sends answers, and ends a connection after the last one.
#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <utility>

#include "TansyNet/server/ServerConnection.h"
#include "TansyNet/wire/ResponseHead.h"
#include "logging/Logging.h"

namespace TansyNet {
namespace details {
namespace {

// This much is written before others may have the lock or the worker.
constexpr std::size_t kBytesPerTurn = std::size_t{1024} * 1024;
constexpr std::int32_t kDefaultSendTimeoutMs = 20000;
// Sockets take answers of this size at once, unless their client does not read at all.
constexpr std::size_t kSmallAnswer = std::size_t{64} * 1024;
constexpr int kUnavailable = 503;
// After the last answer, a client may go on sending this much, and this long, before it reads. Closing at once would
// reset the connection and take the answer from a client that has not read it yet; reading for ever would let anybody
// send without end.
constexpr std::uint64_t kDrainBytes = std::uint64_t{64} * 1024 * 1024;
constexpr std::int64_t kDrainMs = 10000;

// A socket reports that it takes bytes only once a good part of its buffer is free, which may be megabytes; it takes
// bytes long before that. Only an attempt shows what a slow client has made room for, so attempts are made this often.
int LookAgainMs(std::int32_t timeout_ms) {
  return std::clamp(timeout_ms / 4, 1, 1000);
}

std::int32_t TimeoutOf(const HttpResponse& response) {
  return response.send_timeout_ms > 0 ? response.send_timeout_ms : kDefaultSendTimeoutMs;
}

// Gives 16 digits: which process, and which of its requests.
std::string NameOfRequest(std::int32_t handle) {
  static const std::uint32_t process = std::random_device()();
  std::array<char, 17> name{};
  std::snprintf(name.data(), name.size(), "%08X%08X", process, static_cast<std::uint32_t>(handle));
  return name.data();
}

void Advance(std::string_view& first, std::string_view& second, std::size_t bytes) {
  const std::size_t of_first = std::min(first.size(), bytes);
  first.remove_prefix(of_first);
  second.remove_prefix(bytes - of_first);
}

}  // namespace
}  // namespace details

int CServerConnection::Answer(std::int32_t handle, const HttpResponse& response, std::string_view body) {
  CMemoryShare room(MemoryUse::kAnswers);
  const bool has_room = HasRoom(body.size()) || MakeRoom(room, body.size());
  const Lock lock(mutex_);
  if (!CheckHandle(handle)) {
    return kNetUnknownHandle;
  }
  if (phase_ == Phase::kSendingChunks) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]second answer, handle = %d[%s(%d)]", handle);
    Close();
    return kNetAlreadyAnswered;
  }
  const bool has_body = !is_head_ && StatusAllowsBody(response.status);
  if (has_body && !has_room) {
    Refuse(details::kUnavailable);
    return kNetNoMemory;
  }
  if (room.Bytes() > 0) {
    output_share_ = std::move(room);
  }
  const std::string head = TakeHead(response, body.size());
  ForgetRequest();
  return Send(head, has_body ? body : std::string_view(), details::TimeoutOf(response));
}

int CServerConnection::AnswerHead(std::int32_t handle, const HttpResponse& response, std::uint64_t total_size) {
  const Lock lock(mutex_);
  if (!CheckHandle(handle)) {
    return kNetUnknownHandle;
  }
  if (!is_head_ || phase_ == Phase::kSendingChunks) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]answer without a body, handle = %d[%s(%d)]", handle);
    constexpr int kInternalError = 500;
    Refuse(kInternalError);
    return kNetSendFailed;
  }
  const std::string head = TakeHead(response, total_size);
  ForgetRequest();
  return Send(head, {}, details::TimeoutOf(response));
}

int CServerConnection::ClaimAnswer(std::int32_t handle, std::size_t size) {
  CMemoryShare room(MemoryUse::kAnswers);
  const bool has_room = HasRoom(size) || MakeRoom(room, size);
  const Lock lock(mutex_);
  if (!CheckHandle(handle)) {
    return kNetUnknownHandle;
  }
  if (!has_room && !is_head_) {
    Refuse(details::kUnavailable);
    return kNetNoMemory;
  }
  if (room.Bytes() > 0) {
    output_share_ = std::move(room);
  }
  return 0;
}

// Whether an answer of this size needs no more room than it has.
bool CServerConnection::HasRoom(std::size_t size) const {
  if (size <= details::kSmallAnswer) {
    return true;
  }
  const Lock lock(mutex_);
  return output_share_.Bytes() >= size;
}

// Without a lock: those that make room are other connections, which may make room for each other.
bool CServerConnection::MakeRoom(CMemoryShare& room, std::size_t size) {
  const bool may_come = CMemoryAccount::Process().CanEverTake(MemoryUse::kAnswers, size);
  while (!room.Resize(size)) {
    if (!may_come || !runtime_.CutLongestStanding()) {
      return false;
    }
  }
  return true;
}

int CServerConnection::AnswerInChunks(std::int32_t handle, const HttpResponse& response, std::string_view chunk,
                                      std::uint64_t total_size) {
  Lock lock(mutex_);
  if (!CheckHandle(handle)) {
    return kNetUnknownHandle;
  }
  std::string head;
  if (phase_ != Phase::kSendingChunks) {
    head = TakeHead(response, total_size);
    upload_.reset();
    SetPhase(Phase::kSendingChunks);
    chunks_left_ = total_size;
  }
  if (chunk_under_way_ || chunk.size() > chunks_left_) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]chunk out of turn, handle = %d, size[%zu][%s(%d)]", handle,
              chunk.size());
    const bool in_turn = !chunk_under_way_;
    Close();
    return in_turn ? kNetSendFailed : kNetAlreadyAnswered;
  }
  chunk_under_way_ = true;
  const bool has_body = !is_head_ && StatusAllowsBody(response.status);
  const int result = WriteBlocking(head, has_body ? chunk : std::string_view(), details::TimeoutOf(response), lock);
  chunk_under_way_ = false;
  if (result != 0) {
    Close();
    return result;
  }
  chunks_left_ -= chunk.size();
  SetDeadline(limits_.unanswered_timeout_ms);
  if (chunks_left_ == 0) {
    ForgetRequest();
    FinishAnswer();
  }
  return 0;
}

// Builds the head of the answer, and decides whether the connection goes on after it.
std::string CServerConnection::TakeHead(const HttpResponse& response, std::uint64_t content_length) {
  // The rest of an unread body cannot be told from a next request. Reading all of it would let the client decide how
  // long that takes, so the connection ends.
  const bool body_is_read = phase_ != Phase::kUpload || UploadIsRead();
  is_ending_ = is_ending_ || origin_->closed.load(std::memory_order_acquire);
  keep_alive_ = keep_alive_ && body_is_read && !AsksToClose(response) && (!is_ending_ || HasMoreInput());
  const std::string id = RequestId(response);
  record_.Answered(response.status, is_head_ || !StatusAllowsBody(response.status) ? 0 : content_length, id);
  const Persistence persistence = !keep_alive_ ? Persistence::kClose
                                  : http11_    ? Persistence::kDefault
                                               : Persistence::kKeepAlive;
  return BuildResponseHead(response, content_length, persistence, id, record_.Times());
}

// Requests have names only for those who watch them.
std::string CServerConnection::RequestId(const HttpResponse& response) const {
  if (!record_.IsWatched() || handle_ == 0) {
    return {};
  }
  const auto own = response.headers.find("x-amz-request-id");
  return own == response.headers.end() ? details::NameOfRequest(handle_) : own->second;
}

// The request under way has ended, well or not.
void CServerConnection::EndRecord(std::uint64_t unsent) {
  if (record_.IsOpen()) {
    record_.End(transport_.Socket().PeerAddress(), unsent);
  }
}

bool CServerConnection::Describe(std::int32_t handle, RunningRequest& request) {
  const Lock lock(mutex_);
  if (!CheckHandle(handle)) {
    return false;
  }
  request.handle = handle;
  request.ip = transport_.Socket().PeerAddress();
  request.phase = phase_ == Phase::kUpload ? "upload" : phase_ == Phase::kSendingChunks ? "sending" : "handling";
  record_.Describe(request);
  return true;
}

void CServerConnection::ForgetRequest() {
  upload_.reset();
  memory_wait_.reset();
  Release(chunked_body_);
  request_ = {};
  if (handle_ != 0) {
    runtime_.Handles().Remove(handle_);
    handle_ = 0;
  }
}

// Gives what is known of a request that is refused; its head may not be read to its end.
HttpServerRecv CServerConnection::RequestSoFar() {
  HttpServerRecv msg = request_;
  if (msg.method.empty()) {
    const RequestHead& head = parser_.Head();
    msg.method = head.method;
    msg.url = head.path;
    msg.headers = head.headers;
  }
  return msg;
}

Refusal CServerConnection::MakeRefusal(int status) {
  if (origin_->style.refusal == nullptr) {
    return {LibraryAnswer(status), ReasonOf(status)};
  }
  return origin_->style.refusal(status, RequestSoFar());
}

// Sends an answer of the library's own, after which the connection ends.
CServerConnection::Next CServerConnection::Refuse(int status) {
  TANSY_LOG(logging::kNotable, "TansyNet", "[%s]request refused, status = %d, handle = %d, ip = %s, url = %s[%s(%d)]",
            status, handle_, transport_.Socket().PeerAddress().c_str(), request_.url.c_str());
  const auto [response, body] = MakeRefusal(status);
  keep_alive_ = false;
  if (!record_.IsOpen()) {
    record_.BeginUnread();
  }
  const std::string head = TakeHead(response, body.size());
  ForgetRequest();
  KeepInput({});
  Release(body_);
  Release(chunked_body_);
  Send(head, is_head_ ? std::string_view() : body, details::kDefaultSendTimeoutMs);
  return Next::kWait;
}

// Writes as much as the socket takes; the worker's thread does the rest.
int CServerConnection::Send(std::string_view head, std::string_view body, std::int32_t timeout_ms) {
  const IoStatus status = Write(head, body, head.size() + body.size());
  if (status == IoStatus::kDone) {
    FinishAnswer();
    return 0;
  }
  const std::size_t rest = head.size() + body.size();
  if (status != IoStatus::kWantWrite || !output_share_.Resize(rest)) {
    EndRecord(rest);
    Close();
    return kNetSendFailed;
  }
  output_.reserve(rest);
  output_.append(head).append(body);
  output_sent_ = 0;
  send_timeout_ms_ = timeout_ms;
  SetPhase(Phase::kSending);
  rate_.Begin(send_progress_);
  SetDeadline(details::LookAgainMs(timeout_ms));
  WatchWritable();
  return 0;
}

CServerConnection::Next CServerConnection::StepSending() {
  const IoStatus status = SendRest();
  const bool is_done = output_sent_ == output_.size();
  if (status == IoStatus::kDone && is_done) {
    FinishAnswer();
    return phase_ == Phase::kIdle && IsUnwatched() ? Next::kGoOn : Next::kWait;
  }
  if (status == IoStatus::kDone) {
    return Next::kGoOn;
  }
  if (status == IoStatus::kWantWrite) {
    WatchWritable();
    // The connection must also notice that a client is gone while nothing can be written.
    return StepWhileHandled();
  }
  Close();
  return Next::kWait;
}

IoStatus CServerConnection::SendRest() {
  std::string_view rest = std::string_view(output_).substr(output_sent_);
  std::string_view nothing;
  const IoStatus status = Write(rest, nothing, details::kBytesPerTurn);
  if (const std::size_t sent = output_.size() - rest.size(); sent > output_sent_) {
    rate_.Moved(sent - output_sent_);
    output_sent_ = sent;
    send_progress_ = SteadyMilliseconds();
    SetDeadline(details::LookAgainMs(send_timeout_ms_));
  }
  return status;
}

// A reader who moves on takes something in a quarter of a window: attempts are made that often.
std::int64_t CServerConnection::StandingSince() const {
  const std::int64_t progress = send_progress_;
  return progress == kNever || SteadyMilliseconds() - progress < limits_.least_rate_window_ms / 4 ? kNever : progress;
}

// Not on the worker's thread, so the rest of what follows progress is left to it.
void CServerConnection::CutIfStanding() {
  const Lock lock(mutex_);
  if (phase_ != Phase::kSending) {
    return;
  }
  // The client may have made room that shows only in an attempt.
  const IoStatus status = SendRest();
  if (status == IoStatus::kDone) {
    ContinueLater();
  } else if (status != IoStatus::kWantWrite) {
    Close();
  } else if (StandingSince() != kNever) {
    TANSY_LOG(logging::kNotable, "TansyNet", "[%s]reads too little, makes room, ip = %s[%s(%d)]",
              transport_.Socket().PeerAddress().c_str());
    Close();
  }
}

// The deadline of a sending came. True when it is only time for another attempt.
bool CServerConnection::SendAgain(Lock& lock) {
  const std::int64_t now = SteadyMilliseconds();
  if (phase_ != Phase::kSending || now - send_progress_ >= send_timeout_ms_) {
    return false;
  }
  // A client that reads too little keeps room that others need; a byte now and then does not count as reading.
  if (rate_.FellBelow(now) && CMemoryAccount::Process().IsShort(MemoryUse::kAnswers)) {
    return false;
  }
  SetDeadline(details::LookAgainMs(send_timeout_ms_));
  Advance(lock);
  return true;
}

// Writes until everything is written, `most` bytes are written, or the socket takes no more. What was written is
// removed from the views.
IoStatus CServerConnection::Write(std::string_view& first, std::string_view& second, std::size_t most) {
  std::size_t written = 0;
  while (!first.empty() || !second.empty()) {
    if (written >= most) {
      return IoStatus::kDone;
    }
    const IoResult result = first.empty() ? transport_.Write(second) : transport_.Write(first, second);
    if (result.status != IoStatus::kDone) {
      return result.status;
    }
    written += result.bytes;
    details::Advance(first, second, result.bytes);
  }
  return IoStatus::kDone;
}

int CServerConnection::WriteBlocking(std::string_view first, std::string_view second, std::int32_t timeout_ms,
                                     Lock& lock) {
  // This thread watches the time itself; the worker's clock looks too, in case this thread fails to.
  SetDeadline(std::int64_t{2} * timeout_ms);
  std::int64_t last_progress = SteadyMilliseconds();
  rate_.Begin(last_progress);
  while (!first.empty() || !second.empty()) {
    if (phase_ == Phase::kClosed) {
      return kNetSendFailed;
    }
    const std::size_t before = first.size() + second.size();
    const IoStatus status = Write(first, second, details::kBytesPerTurn);
    if (status != IoStatus::kDone && status != IoStatus::kWantWrite) {
      return kNetSendFailed;
    }
    const std::int64_t now = SteadyMilliseconds();
    rate_.Moved(before - first.size() - second.size());
    if (rate_.FellBelow(now) && CMemoryAccount::Process().IsShort(MemoryUse::kWork)) {
      return kNetSendTimeout;
    }
    if (first.size() + second.size() < before) {
      last_progress = now;
      SetDeadline(std::int64_t{2} * timeout_ms);
    } else if (now - last_progress >= timeout_ms) {
      return kNetSendTimeout;
    }
    const details::SocketHandle socket = transport_.Socket().NativeHandle();
    const auto left_ms = static_cast<int>(last_progress + timeout_ms - now);
    lock.unlock();
    if (status == IoStatus::kWantWrite) {
      details::WaitForSocket(socket, false, true, std::min(left_ms, details::LookAgainMs(timeout_ms)));
    }
    lock.lock();
  }
  return phase_ == Phase::kClosed ? kNetSendFailed : 0;
}

// The operating system has all of an answer.
void CServerConnection::FinishAnswer() {
  EndRecord(0);
  Release(output_);
  output_share_.Resize(0);
  if (!keep_alive_) {
    StartDraining();
    return;
  }
  if (peer_done_) {
    Close();
    return;
  }
  SetPhase(Phase::kIdle);
  SetDeadline(limits_.idle_timeout_ms);
  parser_.Reset();
  // Inside Advance the loop itself looks for input, also when another thread gets here while a callback runs. When an
  // answer came while its upload waited for storage, nobody watches the socket.
  if (IsUnwatched() && !advancing_) {
    ContinueLater();
  }
  EndIfIdle();
}

void CServerConnection::StartDraining() {
  KeepInput({});
  transport_.ShutdownSend();
  if (peer_done_) {
    Close();
    return;
  }
  SetPhase(Phase::kDraining);
  SetDeadline(details::kDrainMs);
  drain_left_ = details::kDrainBytes;
  WatchReadable();
}

}  // namespace TansyNet
