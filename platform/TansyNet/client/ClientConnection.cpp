#include "TansyNet/client/ClientConnection.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>

#include "TansyNet/client/ClientTls.h"
#include "TansyNet/client/Resolver.h"

namespace TansyNet::details {

namespace {

using Clock = std::chrono::steady_clock;

// Gives the milliseconds until a moment, at least 0; without a limit it gives the value for "no limit".
class CTimeLeft {
 public:
  explicit CTimeLeft(int timeout_ms)
      : unlimited_(timeout_ms < 0), until_(Clock::now() + std::chrono::milliseconds(timeout_ms)) {}

  int Get() const {
    if (unlimited_) {
      return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until_ - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
  }

 private:
  const bool unlimited_;
  const Clock::time_point until_;
};

}  // namespace

int WaitTime(std::uint32_t timeout_ms) {
  if (timeout_ms == 0) {
    return -1;
  }
  return static_cast<int>(std::min<std::uint32_t>(timeout_ms, std::numeric_limits<int>::max()));
}

int ConnectToAny(CClientSocket& socket, const std::vector<SocketAddress>& addresses, int timeout_ms) {
  const CTimeLeft left(timeout_ms);
  int failure = TimedOutError();
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    const int rest = left.Get();
    if (rest == 0) {
      return TimedOutError();
    }
    // An address that does not answer must not use up the time of the addresses after it.
    const int share = rest < 0 ? rest : std::max(1, rest / static_cast<int>(addresses.size() - i));
    failure = socket.Connect(addresses[i], share);
    if (failure == 0) {
      break;
    }
  }
  return failure;
}

CClientConnection::CClientConnection() : trust_generation_(ClientTrustGeneration()), buffer_(kMaxHeadBytes) {}

CClientConnection::~CClientConnection() {
  if (tls_ != nullptr) {
    tls_->SayGoodbye();
  }
}

std::unique_ptr<CClientConnection> CClientConnection::Open(const URL& url, std::uint32_t timeout_ms,
                                                           ClientError& error) {
  std::unique_ptr<CClientConnection> connection(new CClientConnection);
  const CTimeLeft left(WaitTime(timeout_ms));
  if (!connection->Connect(url, left.Get(), error)) {
    return nullptr;
  }
  if (url.scheme == "https") {
    connection->tls_ = std::make_unique<CClientTls>(connection->socket_);
    if (!connection->tls_->Handshake(url.host, url.port, left.Get(), error)) {
      return nullptr;
    }
  }
  return connection;
}

bool CClientConnection::Connect(const URL& url, int timeout_ms, ClientError& error) {
  const CTimeLeft left(timeout_ms);
  std::vector<SocketAddress> addresses;
  if (!ResolveWithin(url.host, url.port, timeout_ms, addresses, error)) {
    return false;
  }
  const int failure = ConnectToAny(socket_, addresses, left.Get());
  if (failure != 0) {
    error = {failure == TimedOutError() ? ClientError::kTimeout : ClientError::kConnect, failure};
  }
  return failure == 0;
}

IoResult CClientConnection::TryRead(char* data, std::size_t size) {
  return tls_ != nullptr ? tls_->Read(data, size) : socket_.Read(data, size);
}

IoResult CClientConnection::TryWrite(std::string_view first, std::string_view second) {
  return tls_ != nullptr ? tls_->Write(first, second) : socket_.Write(first, second);
}

bool CClientConnection::Wait(bool for_read, bool for_write, int timeout_ms) {
  const bool own_write = tls_ != nullptr && tls_->WantsToWrite();
  return socket_.Wait(for_read, for_write || own_write, timeout_ms);
}

IoResult CClientConnection::Read(char* data, std::size_t size, int timeout_ms) {
  const CTimeLeft left(timeout_ms);
  while (true) {
    const IoResult result = TryRead(data, size);
    if (!result.MustWait()) {
      return result;
    }
    // The socket may wake for bytes of the secure protocol itself, so the time runs from the start of the call.
    const int rest = left.Get();
    if (rest == 0 || !Wait(true, false, rest)) {
      return {.status = IoStatus::kFailed, .error = TimedOutError()};
    }
  }
}

void CClientConnection::Consume(std::size_t bytes) {
  begin_ += bytes;
  if (begin_ == end_) {
    begin_ = 0;
    end_ = 0;
  }
}

bool CClientConnection::MakeRoom() {
  if (end_ == buffer_.size() && begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  return end_ < buffer_.size();
}

IoResult CClientConnection::Fill(int timeout_ms) {
  if (!MakeRoom()) {
    return {.status = IoStatus::kDone};
  }
  const IoResult result = Read(buffer_.data() + end_, buffer_.size() - end_, timeout_ms);
  end_ += result.bytes;
  return result;
}

IoResult CClientConnection::TryFill() {
  if (!MakeRoom()) {
    return {.status = IoStatus::kDone};
  }
  const IoResult result = TryRead(buffer_.data() + end_, buffer_.size() - end_);
  end_ += result.bytes;
  return result;
}

bool CClientConnection::IsAlive() {
  if (begin_ != end_) {
    return false;
  }
  char unexpected = 0;
  return TryRead(&unexpected, 1).MustWait();
}

}  // namespace TansyNet::details
