#include "TansyNet/server/ServerTransport.h"

#include <utility>

namespace TansyNet {

CServerTransport::CServerTransport(std::unique_ptr<CServerSocket> socket, const TlsContextPtr& tls)
    : socket_(std::move(socket)),
      encrypted_(tls != nullptr),
      tls_(encrypted_ ? CTlsSession::Create(tls.get(), *socket_, CTlsSession::Side::kServer) : nullptr) {}

bool CServerTransport::FallBackToPlain() {
  if (!tls_->PeerSpeaksHttp()) {
    return false;
  }
  tls_.reset();
  encrypted_ = false;
  return true;
}

IoResult CServerTransport::Read(char* data, std::size_t size) {
  return tls_ != nullptr ? tls_->Read(data, size) : socket_->Read(data, size);
}

IoResult CServerTransport::Write(std::string_view first, std::string_view second) {
  return tls_ != nullptr ? tls_->Write(first, second) : socket_->Write(first, second);
}

void CServerTransport::ShutdownSend() {
  if (tls_ != nullptr) {
    tls_->SendCloseNotify();
  }
  socket_->ShutdownSend();
}

}  // namespace TansyNet
