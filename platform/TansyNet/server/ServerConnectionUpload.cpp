// Receives bodies that are delivered in pieces, one piece at a time.
#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "TansyNet/server/ServerConnection.h"

namespace TansyNet {
namespace details {
namespace {

// An upload under way takes at most three pieces: the piece that is being stored, its receiver's copy, and the piece
// that is read ahead. With this size that is half of what an upload may cost, and storages that keep 4 MiB blocks write
// whole blocks.
constexpr std::size_t kPieceBytes = std::size_t{4} * 1024 * 1024;
static_assert(kPieceBytes <= kWholeBodyLimit);
// Such a piece ends with what was read last.
constexpr std::size_t kChunkedPieceRoom = kPieceBytes + CServerWorker::kScratchBytes;
constexpr int kUnavailable = 503;
constexpr std::string_view kStreamedMethod = "PUT";

}  // namespace
}  // namespace details

struct CServerConnection::PieceToken {
  PieceToken(std::weak_ptr<CServerConnection> owner, std::int32_t request)
      : connection(std::move(owner)), handle(request) {}
  PieceToken(const PieceToken&) = delete;
  PieceToken& operator=(const PieceToken&) = delete;
  ~PieceToken() {
    if (const auto target = connection.lock()) {
      target->OnTokenGone(handle);
    }
  }

  const std::weak_ptr<CServerConnection> connection;
  const std::int32_t handle;
};

CServerConnection::Next CServerConnection::BeginUpload(std::uint64_t length, std::string_view input) {
  request_.content_length = static_cast<std::uint32_t>(length);
  upload_ = std::make_unique<Upload>();
  upload_->left = length;
  StartPiece();
  upload_->filling.Consume(input);
  KeepInput(input);
  SetPhase(Phase::kUpload);
  BeginBodyTime(details::kPieceBytes);
  if (upload_->filling.Used() == 0) {
    SendContinue();
  }
  return Next::kGoOn;
}

void CServerConnection::StartPiece() {
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(upload_->left, details::kPieceBytes));
  upload_->left -= size;
  upload_->filling.Start(size, PieceUse(), upload_->store->TakeSpare());
}

MemoryUse CServerConnection::PieceUse() const {
  return upload_->is_checked ? MemoryUse::kWork : MemoryUse::kArriving;
}

CServerConnection::Next CServerConnection::StepUpload() {
  if (upload_->ready != nullptr && upload_->token_out && !TakeLostTokenBack()) {
    return Next::kWait;  // OnTokenGone continues
  }
  if (upload_->ready != nullptr) {
    DeliverPiece();
    return Next::kGoOn;
  }
  if (upload_->is_chunked) {
    return StepChunkedUpload();
  }
  CBodyBuffer& filling = upload_->filling;
  if (!filling.ClaimMemory()) {
    return AwaitMemory(PieceUse(), filling.Demand());
  }
  MemoryCame();
  const std::size_t before = filling.Used();
  const IoStatus status = ReadInto(filling);
  if (status != IoStatus::kDone) {
    WaitFor(status);
    return Next::kWait;
  }
  NoteBodyProgress(filling.Used() - before);
  if (filling.IsComplete()) {
    CountedBytes piece = filling.Take();
    piece.share.ChangeUse(MemoryUse::kWork);
    HandOver(upload_->store->Share(std::move(piece)));
  }
  return Next::kGoOn;
}

void CServerConnection::HandOver(std::shared_ptr<const std::string> piece) {
  upload_->ready = std::move(piece);
  upload_->is_checked = true;
  body_end_ = std::numeric_limits<std::int64_t>::max();
  SetDeadline(limits_.unanswered_timeout_ms);
  DeliverPiece();
}

bool CServerConnection::IsStreamedWhenChunked() const {
  return origin_->style.unknown_length == EUnknownLength::kInPieces && request_.method == details::kStreamedMethod;
}

// Small bodies come wholly before this, and are delivered so.
CServerConnection::Next CServerConnection::BeginChunkedUpload() {
  if (chunked_body_.bytes.size() < details::kPieceBytes) {
    return Next::kGoOn;
  }
  upload_ = std::make_unique<Upload>();
  upload_->is_chunked = true;
  upload_->left = 1;
  SetPhase(Phase::kUpload);
  return EndChunkedPiece();
}

// The room of a piece is claimed before the piece is read, so that a wait for it holds no other piece's room: only
// bytes that are with their handler, and come back without further room.
CServerConnection::Next CServerConnection::StepChunkedUpload() {
  if (chunked_body_.share.Bytes() < details::kChunkedPieceRoom &&
      !chunked_body_.share.Resize(details::kChunkedPieceRoom)) {
    return AwaitMemory(PieceUse(), details::kChunkedPieceRoom);
  }
  MemoryCame();
  chunked_body_.bytes.reserve(details::kChunkedPieceRoom);
  std::string_view input;
  const IoStatus status = ReadInput(input);
  if (status != IoStatus::kDone) {
    WaitFor(status);
    return Next::kWait;
  }
  std::string& bytes = chunked_body_.bytes;
  const std::size_t before = bytes.size();
  const CRequestParser::Progress progress =
      parser_.ParseChunks(input, bytes, std::numeric_limits<std::uint64_t>::max());
  if (!chunked_body_.share.Resize(std::max<std::size_t>(MemoryOf(bytes), details::kChunkedPieceRoom))) {
    return Refuse(details::kUnavailable);
  }
  if (progress == CRequestParser::Progress::kFailed) {
    return Refuse(parser_.FailureStatus());
  }
  KeepInput(input);
  NoteBodyProgress(bytes.size() - before);
  if (progress == CRequestParser::Progress::kDone) {
    upload_->left = 0;
    return EndChunkedPiece();
  }
  input_is_short_ = true;
  return bytes.size() < details::kPieceBytes ? Next::kGoOn : EndChunkedPiece();
}

CServerConnection::Next CServerConnection::EndChunkedPiece() {
  CountedBytes piece = std::exchange(chunked_body_, {});
  piece.share.ChangeUse(MemoryUse::kWork);
  HandOver(ShareBytes(std::move(piece)));
  return Next::kGoOn;
}

void CServerConnection::DeliverPiece() {
  if (upload_->ready == nullptr || upload_->token_out) {
    return;
  }
  if (handle_ == 0) {
    handle_ = runtime_.Handles().Add(shared_from_this());
  }
  const bool is_last = upload_->left == 0;
  auto message = std::make_shared<HttpServerRecv>(request_);
  message->error_code = is_last ? kLastBodyPiece : kBodyPiece;
  message->body = std::exchange(upload_->ready, nullptr);
  message->body_size = static_cast<std::uint32_t>(message->body->size());
  message->token = std::make_shared<PieceToken>(weak_from_this(), handle_);
  message->note = record_.Note();
  record_.Delivered(message->body_size);
  upload_->token_out = true;
  if (is_last) {
    upload_.reset();
    EnterHandling();
  } else {
    if (!upload_->is_chunked) {
      StartPiece();
    }
    rate_.Begin(SteadyMilliseconds());
    NoteBodyProgress(0);
  }
  runtime_.Deliver([self = shared_from_this(), handle = handle_, message = std::move(message)] {
    self->RunPiece(handle, *message);
  });
}

// This runs on a thread of the delivery pool.
void CServerConnection::RunPiece(std::int32_t handle, HttpServerRecv& message) {
  {
    const Lock lock(mutex_);
    if (!CheckHandle(handle)) {
      return;  // answered, or the client is gone
    }
  }
  // The receiver may have handed the piece on and finished it before it returns; the next piece still waits for the
  // return.
  const std::shared_ptr<const void> token = message.token;
  Call(handle, message);
}

// A destructor calls this. When there is no memory for a message to the worker, the worker's clock has to notice it.
void CServerConnection::OnTokenGone(std::int32_t handle) noexcept {
  try {
    worker_->Post([self = shared_from_this(), handle] {
      Lock lock(self->mutex_);
      self->TakeTokenBack(handle, lock);
    });
  } catch (const std::exception&) {
    // An exchange orders the two deadlines: a worker that missed the handle has set its own before this one.
    lost_token_.exchange(handle);
    SetDeadlineAt(0);
  }
}

// A token may be lost while the next piece is still being read, and the deadline that should have told about it is then
// set anew. So the piece looks for the token itself when it is complete.
bool CServerConnection::TakeLostTokenBack() {
  const std::int32_t handle = lost_token_.exchange(0);
  if (handle == 0 || !CheckHandle(handle)) {
    return false;
  }
  upload_->token_out = false;
  return true;
}

void CServerConnection::TakeTokenBack(std::int32_t handle, Lock& lock) {
  if (phase_ != Phase::kUpload || !CheckHandle(handle)) {
    return;
  }
  upload_->token_out = false;
  Advance(lock);
}

bool CServerConnection::UploadIsRead() const {
  return upload_ == nullptr || (upload_->left == 0 && upload_->ready != nullptr);
}

}  // namespace TansyNet
