#include "TansyNet/client/ClientSocket.h"

#include <utility>

namespace TansyNet::details {

CClientSocket::~CClientSocket() {
  Close();
}

int CClientSocket::Connect(const SocketAddress& address, int timeout_ms) {
  Close();
  int outcome = 0;
  handle_ = OpenSocket(address, outcome);
  if (handle_ == kNoSocket) {
    return outcome;
  }
  outcome = StartConnect(handle_, address);
  if (ConnectGoesOn(outcome)) {
    outcome = Wait(false, true, timeout_ms) ? PendingError(handle_) : TimedOutError();
  }
  if (outcome != 0) {
    Close();
  }
  return outcome;
}

void CClientSocket::Close() {
  if (handle_ != kNoSocket) {
    CloseSocket(std::exchange(handle_, kNoSocket));
  }
}

IoResult CClientSocket::Read(char* data, std::size_t size) {
  return ReceiveBytes(handle_, data, size);
}

IoResult CClientSocket::Write(std::string_view first, std::string_view second) {
  return SendBytes(handle_, first, second);
}

bool CClientSocket::Wait(bool for_read, bool for_write, int timeout_ms) {
  return WaitForSocket(handle_, for_read, for_write, timeout_ms);
}

}  // namespace TansyNet::details
