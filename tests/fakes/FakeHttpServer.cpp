#include "fakes/FakeHttpServer.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <utility>

namespace Tansy::Tests {

namespace {

// Counts down to the call that has to fail; 0 counts nothing.
bool IsTurn(int& calls_until_failure) {
  return calls_until_failure > 0 && --calls_until_failure == 0;
}

std::string Describe(const FakeListener& listener) {
  const bool v6 = listener.address.find(':') != std::string::npos;
  return std::string("start ") + (listener.https ? "https " : "") + (v6 ? "[" : "") + listener.address +
         (v6 ? "]" : "") + ":" + std::to_string(listener.port);
}

}  // namespace

CFakeHttpServer& CFakeHttpServer::Instance() {
  static CFakeHttpServer instance;
  return instance;
}

void CFakeHttpServer::Reset() {
  const std::lock_guard lock(mutex_);
  listeners_.clear();
  calls_.clear();
  starts_until_failure_ = 0;
  stops_until_failure_ = 0;
  open_nothing_ = false;
  send_error_ = 0;
  has_room_ = true;
  lends_threads_ = false;
  take_chunk_ = nullptr;
  answers_.clear();
  gone_.clear();
}

std::vector<FakeListener> CFakeHttpServer::Listeners() const {
  const std::lock_guard lock(mutex_);
  return listeners_;
}

void CFakeHttpServer::ForgetCalls() {
  const std::lock_guard lock(mutex_);
  calls_.clear();
}

std::vector<std::string> CFakeHttpServer::Calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

void CFakeHttpServer::FailStart(int number, int error) {
  const std::lock_guard lock(mutex_);
  starts_until_failure_ = number;
  start_error_ = error;
}

void CFakeHttpServer::FailStop(int number, int error) {
  const std::lock_guard lock(mutex_);
  stops_until_failure_ = number;
  stop_error_ = error;
}

void CFakeHttpServer::OpenNothing(bool nothing) {
  const std::lock_guard lock(mutex_);
  open_nothing_ = nothing;
}

void CFakeHttpServer::FailSends(int error, int after) {
  const std::lock_guard lock(mutex_);
  send_error_ = error;
  sends_before_error_ = after;
}

void CFakeHttpServer::HaveRoom(bool room) {
  const std::lock_guard lock(mutex_);
  has_room_ = room;
}

int CFakeHttpServer::Claim(std::int32_t handle) {
  {
    const std::lock_guard lock(mutex_);
    if (has_room_) {
      return 0;
    }
  }
  TansyNet::HttpResponse unavailable;
  unavailable.status = 503;
  Send(handle, unavailable, {});
  return TansyNet::kNetNoMemory;
}

void CFakeHttpServer::TakeChunks(std::function<void(std::string_view)> take) {
  const std::lock_guard lock(mutex_);
  take_chunk_ = std::move(take);
}

std::int32_t CFakeHttpServer::NewHandle() {
  const std::lock_guard lock(mutex_);
  return next_handle_++;
}

std::int32_t CFakeHttpServer::Deliver(TansyNet::CHttpServer::RecvCallback callback, TansyNet::HttpServerRecv msg) {
  const std::int32_t handle = NewHandle();
  DeliverAs(handle, callback, std::move(msg));
  return handle;
}

void CFakeHttpServer::DeliverAs(std::int32_t handle, TansyNet::CHttpServer::RecvCallback callback,
                                TansyNet::HttpServerRecv msg) {
  callback(handle, msg);
}

std::size_t CFakeHttpServer::Stream(std::int32_t handle, TansyNet::CHttpServer::RecvCallback callback,
                                    TansyNet::HttpServerRecv msg, std::string_view body,
                                    const std::vector<std::size_t>& pieces) {
  msg.content_length = static_cast<std::uint32_t>(body.size());
  std::size_t delivered = 0;
  std::size_t begin = 0;
  for (bool last = false; !last && !IsAnswered(handle); ++delivered) {
    const std::size_t rest = body.size() - begin;
    const std::size_t size = delivered < pieces.size() ? std::min(pieces[delivered], rest) : rest;
    last = size == rest;
    DeliverPiece(handle, callback, msg, body.substr(begin, size), last);
    begin += size;
  }
  return delivered;
}

void CFakeHttpServer::DeliverPiece(std::int32_t handle, TansyNet::CHttpServer::RecvCallback callback,
                                   TansyNet::HttpServerRecv msg, std::string_view piece, bool last, bool wait) {
  msg.error_code = last ? TansyNet::kLastBodyPiece : TansyNet::kBodyPiece;
  msg.body = piece.empty() ? nullptr : std::make_shared<std::string>(piece);
  msg.body_size = static_cast<std::uint32_t>(piece.size());
  auto gone = std::make_shared<std::promise<void>>();
  std::future<void> token_gone = gone->get_future();
  msg.token = std::shared_ptr<const void>(gone.get(), [gone](const void*) mutable { gone->set_value(); });
  callback(handle, msg);
  msg.token.reset();
  if (wait) {
    token_gone.wait();
  }
}

FakeAnswer CFakeHttpServer::WaitForAnswer(std::int32_t handle, int timeout_ms) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return IsDone(handle); });
  const auto answer = answers_.find(handle);
  return answer != answers_.end() ? answer->second : FakeAnswer{};
}

FakeAnswer CFakeHttpServer::AnswerOf(std::int32_t handle) const {
  const std::lock_guard lock(mutex_);
  const auto answer = answers_.find(handle);
  return answer != answers_.end() ? answer->second : FakeAnswer{};
}

void CFakeHttpServer::GoAway(std::int32_t handle) {
  const std::lock_guard lock(mutex_);
  gone_.insert(handle);
}

bool CFakeHttpServer::IsOpen(std::int32_t handle) const {
  const std::lock_guard lock(mutex_);
  return handle > 0 && handle < next_handle_ && !gone_.contains(handle) && !IsDone(handle);
}

bool CFakeHttpServer::IsDone(std::int32_t handle) const {
  const auto answer = answers_.find(handle);
  return answer != answers_.end() && (answer->second.IsWhole() || answer->second.cut);
}

int CFakeHttpServer::Start(FakeListener listener, std::int32_t& handle) {
  const std::lock_guard lock(mutex_);
  calls_.push_back(Describe(listener));
  if (IsTurn(starts_until_failure_)) {
    return start_error_;
  }
  handle = 0;
  if (!open_nothing_ && listener.port != 0) {
    handle = next_handle_++;
    listener.handle = handle;
    listeners_.push_back(std::move(listener));
  }
  return 0;
}

int CFakeHttpServer::Stop(std::int32_t handle) {
  const std::lock_guard lock(mutex_);
  calls_.push_back("stop " + std::to_string(handle));
  if (IsTurn(stops_until_failure_)) {
    return stop_error_;
  }
  if (handle == 0) {
    return 0;
  }
  const auto listener = std::find_if(listeners_.begin(), listeners_.end(), [handle](const FakeListener& candidate) {
    return candidate.handle == handle && candidate.open;
  });
  if (listener == listeners_.end()) {
    return TansyNet::kNetUnknownHandle;
  }
  listener->open = false;
  return 0;
}

int CFakeHttpServer::SendResult() {
  if (send_error_ != 0 && sends_before_error_ > 0) {
    --sends_before_error_;
    return 0;
  }
  return send_error_;
}

int CFakeHttpServer::Send(std::int32_t handle, const TansyNet::HttpResponse& response, std::string_view data) {
  return Send(handle, response, data, data.size());
}

int CFakeHttpServer::SendHead(std::int32_t handle, const TansyNet::HttpResponse& response, std::uint64_t total_size) {
  return Send(handle, response, {}, total_size);
}

int CFakeHttpServer::Send(std::int32_t handle, const TansyNet::HttpResponse& response, std::string_view data,
                          std::uint64_t total_size) {
  const std::lock_guard lock(mutex_);
  FakeAnswer& answer = answers_[handle];
  ++answer.attempts;
  changed_.notify_all();
  if (answer.attempts > 1) {
    answer.cut = !answer.chunks.empty() && answer.body_size < answer.total_size;
    return answer.cut ? TansyNet::kNetAlreadyAnswered : TansyNet::kNetUnknownHandle;
  }
  answer.response = response;
  answer.total_size = total_size;
  answer.body_size = total_size;  // nothing more comes
  answer.body = data;
  return SendResult();
}

int CFakeHttpServer::SendChunk(std::int32_t handle, const TansyNet::HttpResponse& response, std::string_view data,
                               std::uint64_t total_size) {
  const std::lock_guard lock(mutex_);
  if (const int error = SendResult(); error != 0) {
    return error;
  }
  FakeAnswer& answer = answers_[handle];
  if (answer.chunks.empty()) {
    ++answer.attempts;
    answer.response = response;
    answer.total_size = total_size;
  }
  answer.chunks.push_back(static_cast<std::uint32_t>(data.size()));
  answer.body_size += data.size();
  if (take_chunk_) {
    take_chunk_(data);
  } else {
    answer.body.append(data);
  }
  changed_.notify_all();
  return 0;
}

}  // namespace Tansy::Tests

namespace TansyNet {

using Tansy::Tests::CFakeHttpServer;
using Tansy::Tests::FakeListener;

int CHttpServer::StartHttpServer(std::int32_t& handle, const std::string& address, std::uint16_t port,
                                 RecvCallback callback, bool reuse_address, const ListenerStyle& style) {
  FakeListener listener;
  listener.address = address;
  listener.port = port;
  listener.callback = callback;
  listener.style = style;
  listener.reuse_address = reuse_address;
  return CFakeHttpServer::Instance().Start(std::move(listener), handle);
}

int CHttpServer::StartHttpsServer(std::int32_t& handle, const std::string& address, std::uint16_t port,
                                  const HttpsServer& tls, RecvCallback callback, const ListenerStyle& style) {
  FakeListener listener;
  listener.https = true;
  listener.address = address;
  listener.port = port;
  listener.tls = tls;
  listener.callback = callback;
  listener.style = style;
  return CFakeHttpServer::Instance().Start(std::move(listener), handle);
}

int CHttpServer::StopServer(std::int32_t handle) {
  return CFakeHttpServer::Instance().Stop(handle);
}

bool CHttpServer::IsRequestOpen(std::int32_t handle) {
  return CFakeHttpServer::Instance().IsOpen(handle);
}

bool CHttpServer::IsThreadLent() {
  return Tansy::Tests::CFakeHttpServer::Instance().LendsThreads();
}

int CHttpServer::ClaimAnswer(std::int32_t handle, std::uint32_t) {
  return CFakeHttpServer::Instance().Claim(handle);
}

int CHttpServer::HttpServerSyncSend(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                    const char* data) {
  return CFakeHttpServer::Instance().Send(handle, response, {data, size});
}

int CHttpServer::HttpServerSendHead(std::int32_t handle, const HttpResponse& response, std::uint64_t total_size) {
  return CFakeHttpServer::Instance().SendHead(handle, response, total_size);
}

int CHttpServer::HttpServerSyncSendBigRsp(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                          const char* data, std::uint64_t total_size) {
  return CFakeHttpServer::Instance().SendChunk(handle, response, {data, size}, total_size);
}

}  // namespace TansyNet
