#include "TansyNet/server/ServerConnection.h"

#include <exception>
#include <utility>

#include "TansyNet/server/LoopThreads.h"
#include "logging/Logging.h"

namespace TansyNet {
namespace details {
namespace {

// After so many steps another connection of the same worker has its turn.
constexpr int kStepsPerTurn = 16;

}  // namespace
}  // namespace details

CServerConnection::CServerConnection(CServerRuntime& runtime, CConnectionPlace place,
                                     std::shared_ptr<CServerWorker> worker, std::shared_ptr<const Endpoint> origin,
                                     std::unique_ptr<CServerSocket> socket, const TlsContextPtr& tls,
                                     const HttpServerLimits& limits)
    : runtime_(runtime),
      place_(std::move(place)),
      worker_(std::move(worker)),
      origin_(std::move(origin)),
      limits_(limits),
      deadline_(kNever),
      idle_since_(kNever),
      send_progress_(kNever),
      transport_(std::move(socket), tls),
      phase_(transport_.IsEncrypted() ? Phase::kHandshake : Phase::kIdle),
      parser_(limits.header_bytes),
      rate_(limits.least_bytes_per_second, limits.least_rate_window_ms) {}

CServerConnection::~CServerConnection() = default;

bool CServerConnection::IsBusy(Phase phase) {
  return phase >= Phase::kBody && phase <= Phase::kSendingChunks;
}

// Whether it may be closed for a new connection: nothing has been asked, or all is answered.
bool CServerConnection::MayGiveWay(Phase phase) {
  return phase == Phase::kIdle || phase == Phase::kDraining;
}

bool CServerConnection::IsReading(Phase phase) {
  return phase >= Phase::kHead && phase <= Phase::kUpload;
}

void CServerConnection::SetPhase(Phase phase) {
  const bool was_busy = IsBusy(phase_);
  phase_ = phase;
  idle_since_.store(MayGiveWay(phase) ? SteadyMilliseconds() : kNever, std::memory_order_relaxed);
  send_progress_.store(phase == Phase::kSending ? SteadyMilliseconds() : kNever, std::memory_order_relaxed);
  if (was_busy == IsBusy(phase)) {
    return;
  }
  if (was_busy) {
    runtime_.ConnectionIdle();
  } else {
    runtime_.ConnectionBusy();
  }
}

void CServerConnection::SetDeadline(std::int64_t milliseconds) {
  const bool never = milliseconds == kNever;
  deadline_.store(never ? milliseconds : SteadyMilliseconds() + milliseconds, std::memory_order_relaxed);
}

void CServerConnection::Start() {
  try {
    worker_->Adopt(shared_from_this());
  } catch (const std::exception&) {
    Abort();  // whether or not the worker has it, because nobody would watch over it
    throw;
  }
  Lock lock(mutex_);
  if (phase_ == Phase::kClosed) {
    return;
  }
  if (!transport_.IsUsable() || origin_->closed.load(std::memory_order_acquire)) {
    Close();
    return;
  }
  SetPhase(phase_);
  SetDeadline(phase_ == Phase::kHandshake ? limits_.header_timeout_ms : limits_.idle_timeout_ms);
  Advance(lock);
}

void CServerConnection::OnReadable() {
  Lock lock(mutex_);
  read_watched_ = false;
  Advance(lock);
}

void CServerConnection::OnWritable() {
  Lock lock(mutex_);
  write_watched_ = false;
  Advance(lock);
}

void CServerConnection::Advance(Lock& lock) {
  if (advancing_) {
    return;
  }
  advancing_ = true;
  try {
    int steps = details::kStepsPerTurn;
    while (Step(lock) == Next::kGoOn) {
      // After a slow callback, this may be the worker's thread no longer.
      if (--steps == 0 || !worker_->Threads().IsLeader()) {
        ContinueLater();
        break;
      }
    }
  } catch (const std::exception& problem) {
    // A step that failed cannot be continued, so this connection is closed; the others go on.
    if (!lock.owns_lock()) {
      lock.lock();
    }
    NoteFailure(problem);
    Close();
  }
  advancing_ = false;
}

CServerConnection::Next CServerConnection::Step(Lock& lock) {
  switch (phase_) {
    case Phase::kHandshake:
      return StepHandshake();
    case Phase::kIdle:
    case Phase::kHead:
      return StepHead(lock);
    case Phase::kBody:
      return StepBody(lock);
    case Phase::kChunks:
      return StepChunks(lock);
    case Phase::kUpload:
      return StepUpload();
    case Phase::kSending:
      return StepSending();
    case Phase::kHandling:
    case Phase::kSendingChunks:
      return StepWhileHandled();
    case Phase::kDraining:
      return StepDrain();
    case Phase::kClosed:
      break;
  }
  return Next::kWait;
}

CServerConnection::Next CServerConnection::StepHandshake() {
  const IoResult result = transport_.Handshake();
  if (result.status == IoStatus::kDone) {
    SetPhase(Phase::kIdle);
    SetDeadline(limits_.idle_timeout_ms);
    return Next::kGoOn;
  }
  if (result.status == IoStatus::kFailed && transport_.FallBackToPlain()) {
    constexpr int kBadRequest = 400;
    return Refuse(kBadRequest);
  }
  WaitFor(result.status);
  return Next::kWait;
}

// Bytes of a next request stay in the socket; only the question whether the client is still there matters here. A
// client that has closed only its own direction still gets its answer.
CServerConnection::Next CServerConnection::StepWhileHandled() {
  if (read_watched_ || input_waiting_ || peer_done_) {
    return Next::kWait;
  }
  switch (transport_.Socket().Peek().status) {
    case IoStatus::kDone:
      input_waiting_ = true;
      break;
    case IoStatus::kEnd:
      peer_done_ = true;
      break;
    case IoStatus::kFailed:
      Close();
      break;
    default:
      WatchReadable();
      break;
  }
  return Next::kWait;
}

CServerConnection::Next CServerConnection::StepDrain() {
  // Encrypted bytes are thrown away like others, because nobody reads them any more.
  const IoResult result = transport_.Socket().Read(worker_->Scratch(), CServerWorker::kScratchBytes);
  if (result.status != IoStatus::kDone) {
    WaitFor(result.status);
    return Next::kWait;
  }
  if (result.bytes >= drain_left_) {
    Close();
    return Next::kWait;
  }
  drain_left_ -= result.bytes;
  return Next::kGoOn;
}

// Decides what to do after an operation that did not succeed.
void CServerConnection::WaitFor(IoStatus status) {
  switch (status) {
    case IoStatus::kWantRead:
      WatchReadable();
      break;
    case IoStatus::kWantWrite:
      WatchWritable();
      break;
    default:
      NoteBrokenOff();
      Close();
      break;
  }
}

// Counts a client that left too early. Leaving between two requests, or after the last answer, is allowed.
void CServerConnection::NoteBrokenOff() {
  const char* const ip = transport_.Socket().PeerAddress().c_str();
  if (phase_ == Phase::kHandshake) {
    TANSY_LOG(logging::kNotable, "TansyNet", "[%s]TLS handshake failed[%s], ip = %s[%s(%d)]",
              transport_.HandshakeFailure(), ip);
  } else if (IsReading(phase_)) {
    TANSY_LOG(logging::kNotable, "TansyNet", "[%s]request broken off, handle = %d, ip = %s, url = %s[%s(%d)]", handle_,
              ip, request_.url.c_str());
  }
}

void CServerConnection::WatchReadable() {
  if (!read_watched_) {
    read_watched_ = true;
    transport_.Socket().WatchReadable(shared_from_this());
  }
}

void CServerConnection::WatchWritable() {
  if (!write_watched_) {
    write_watched_ = true;
    transport_.Socket().WatchWritable(shared_from_this());
  }
}

void CServerConnection::ContinueLater() {
  worker_->Post([self = shared_from_this()] {
    Lock lock(self->mutex_);
    self->Advance(lock);
  });
}

void CServerConnection::OnDeadline() {
  constexpr int kRequestTimeout = 408;
  Lock lock(mutex_);
  const std::int64_t now = SteadyMilliseconds();
  if (!IsPastDeadline(now) || SendAgain(lock)) {
    return;
  }
  if (phase_ == Phase::kClosed) {
    SetDeadline(kNever);
    worker_->Forget(this);
    return;
  }
  if (const std::int32_t handle = lost_token_.exchange(0); handle != 0) {
    TakeTokenBack(handle, lock);
    return;
  }
  if (memory_wait_) {
    Advance(lock);
    return;
  }
  const bool waits_for_storage = phase_ == Phase::kUpload && upload_->ready != nullptr;
  if (IsReading(phase_) && !waits_for_storage) {
    if (!BodyMayGoOn(now)) {
      Refuse(kRequestTimeout);
    }
    return;
  }
  if (phase_ == Phase::kIdle) {
    CloseGently();
    return;
  }
  if (phase_ == Phase::kHandshake) {
    NoteBrokenOff();
  } else if (IsBusy(phase_)) {
    TANSY_LOG(logging::kNotable, "TansyNet", "[%s]request timed out, handle = %d, ip = %s, phase = %d[%s(%d)]", handle_,
              transport_.Socket().PeerAddress().c_str(), static_cast<int>(phase_));
  }
  Close();
}

void CServerConnection::Abort() {
  const Lock lock(mutex_);
  Close();
}

void CServerConnection::CloseWhenIdle() {
  const Lock lock(mutex_);
  is_ending_ = true;
  if (phase_ == Phase::kHandshake) {
    Close();
  }
  EndIfIdle();
}

bool CServerConnection::CloseIfIdle() {
  const Lock lock(mutex_);
  if (!MayGiveWay(phase_) || (phase_ == Phase::kIdle && HasInput())) {
    return false;
  }
  CloseGently();
  return true;
}

// Requests that a client has sent already are answered first.
void CServerConnection::EndIfIdle() {
  if (!is_ending_ || phase_ != Phase::kIdle) {
    return;
  }
  if (!HasMoreInput()) {
    CloseGently();
    return;
  }
  SetDeadline(limits_.header_timeout_ms);
  if (!advancing_) {
    ContinueLater();
  }
}

bool CServerConnection::HasMoreInput() {
  return !Input().empty() || transport_.HasBuffered() || transport_.Socket().Peek().status == IoStatus::kDone;
}

void CServerConnection::CloseGently() {
  transport_.ShutdownSend();
  Close();
}

void CServerConnection::Close() {
  if (phase_ == Phase::kClosed) {
    return;
  }
  EndRecord(phase_ == Phase::kSendingChunks ? chunks_left_ : output_.size() - output_sent_);
  ForgetRequest();
  SetPhase(Phase::kClosed);
  SetDeadline(kNever);
  transport_.Socket().Stop();
  KeepInput({});
  Release(body_);
  Release(chunked_body_);
  Release(output_);
  output_share_.Resize(0);
  try {
    worker_->Post([self = shared_from_this()] { self->worker_->Forget(self.get()); });
  } catch (const std::exception&) {
    SetDeadlineAt(0);  // the worker's clock finds it
  }
}

void CServerConnection::NoteFailure(const std::exception& problem) noexcept {
  try {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]step failed, handle = %d, %s[%s(%d)]", handle_, problem.what());
  } catch (const std::exception&) {
    // There is no memory left to log this failure with.
  }
}

}  // namespace TansyNet
