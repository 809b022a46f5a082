#include "TansyNet/client/Exchange.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "TansyNet/client/ConnectionPool.h"
#include "TansyNet/wire/RequestHead.h"

namespace TansyNet::details {

namespace {

constexpr std::chrono::milliseconds kAnyAge{0};
constexpr std::uint64_t kPacedSlice = 16384;

std::string_view Rest(std::string_view text, std::uint64_t done) {
  return text.substr(static_cast<std::size_t>(std::min<std::uint64_t>(done, text.size())));
}

}  // namespace

bool CExchange::Run(ClientError& error) {
  URL url;
  if (!URL::Parse(request_.url, url) || !BuildRequestHead(request_, url, head_)) {
    error = {ClientError::kBadUrl, static_cast<std::int32_t>(std::errc::invalid_argument)};
    return false;
  }
  const std::string key = CConnectionPool::Key(url);
  auto connection = CConnectionPool::Instance().Take(key, HasEffects() ? CConnectionPool::kSettled : kAnyAge);
  bool kept = connection != nullptr;
  bool complete = kept && RunOn(*connection, error);
  // A server may close a kept connection at the very moment in which it is used again. The request has then not been
  // answered, but it may have been carried out, so only a request without effects is sent again.
  if (!kept || (!complete && closed_unanswered_ && !HasEffects())) {
    kept = false;
    connection = CClientConnection::Open(url, request_.connect_timeout_ms, error);
    complete = connection != nullptr && RunOn(*connection, error);
  }
  if (complete && reusable_) {
    CConnectionPool::Instance().Give(key, std::move(connection), kept);
  }
  return complete;
}

// A PUT counts as having effects too, although HTTP allows its repetition: a part that arrives a second time may arrive
// after the upload was completed, and an object after somebody else replaced it.
bool CExchange::HasEffects() const {
  return request_.method != "GET" && request_.method != "HEAD";
}

bool CExchange::RunOn(CClientConnection& connection, ClientError& error) {
  CAnswerReader reader(connection, request_.method == "HEAD", WaitTime(request_.receive_timeout_ms));
  error = {};
  closed_unanswered_ = false;
  const SendState sent = SendRequest(connection, reader, error);
  const ClientError send_error = error;
  bool complete = false;
  if (sent == SendState::kAnswered) {
    complete = reader.ReadBody(response_, sink_, error);
  } else if (send_error.kind == ClientError::kNone || send_error.kind == ClientError::kSend) {
    // A server that refuses a request may answer, stop reading and close. Its answer is worth more than the failure to
    // send the rest.
    complete = ReadFinalHead(reader, error) && reader.ReadBody(response_, sink_, error);
  }
  if (!complete && !reader.Started()) {
    if (send_error.kind != ClientError::kNone) {
      error = send_error;
    }
    closed_unanswered_ = error.kind != ClientError::kTimeout && IsClosedByPeer(error.detail);
  }
  reusable_ = complete && sent == SendState::kSent && reader.KeepsConnection();
  return complete;
}

bool CExchange::ReadFinalHead(CAnswerReader& reader, ClientError& error) {
  do {
    if (!reader.ReadHead(response_, error)) {
      return false;
    }
  } while (reader.IsInterim());
  return true;
}

CExchange::SendState CExchange::SendRequest(CClientConnection& connection, CAnswerReader& reader, ClientError& error) {
  const int timeout_ms = WaitTime(request_.send_timeout_ms);
  const std::string_view body(request_.body, static_cast<std::size_t>(request_.body_size));
  const std::uint64_t total = head_.size() + body.size();
  std::uint64_t done = 0;
  std::uint64_t announced = 0;
  while (done < total) {
    const std::string_view head = Rest(head_, done);
    const IoResult result = connection.TryWrite(head, NextSlice(body, done - (head_.size() - head.size()), announced));
    if (result.status == IoStatus::kDone) {
      done += result.bytes;
      continue;
    }
    if (!result.MustWait()) {
      error = {ClientError::kSend, result.error};
      return SendState::kFailed;
    }
    if (!connection.Wait(true, true, timeout_ms)) {
      error = {ClientError::kTimeout, TimedOutError()};
      return SendState::kFailed;
    }
    const SendState early = ReadEarlyAnswer(connection, reader, error);
    if (early != SendState::kSent) {
      return early;
    }
  }
  return SendState::kSent;
}

std::string_view CExchange::NextSlice(std::string_view body, std::uint64_t done, std::uint64_t& announced) const {
  if (!pace_) {
    return Rest(body, done);
  }
  if (done == announced && done < body.size()) {
    const std::uint64_t slice = std::min<std::uint64_t>(kPacedSlice, body.size() - done);
    pace_(static_cast<std::size_t>(slice));
    announced += slice;
  }
  return Rest(body.substr(0, static_cast<std::size_t>(announced)), done);
}

// The result kSent means that nothing has come that would be a reason to stop sending.
CExchange::SendState CExchange::ReadEarlyAnswer(CClientConnection& connection, CAnswerReader& reader,
                                                ClientError& error) {
  const IoResult result = connection.TryFill();
  if (result.MustWait()) {
    return SendState::kSent;
  }
  if (result.status != IoStatus::kDone) {
    error = {ClientError::kSend, result.status == IoStatus::kEnd ? ConnectionResetError() : result.error};
    return SendState::kFailed;
  }
  if (!reader.ReadHead(response_, error)) {
    return SendState::kFailed;
  }
  return reader.IsInterim() ? SendState::kSent : SendState::kAnswered;
}

}  // namespace TansyNet::details
