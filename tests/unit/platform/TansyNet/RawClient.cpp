#include "RawClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/x509.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Tansy::Tests {
namespace {

// The limit is generous, because a sanitizer on a busy machine is slow. No passing test waits this long.
constexpr int kPatienceMs = 20000;

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error("raw client: " + what + ": " + std::strerror(errno));
}

int Connect(std::uint16_t port, const RawClientOptions& options) {
  const int socket = ::socket(options.ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0) {
    Fail("socket");
  }
  if (options.receive_buffer > 0) {
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &options.receive_buffer, sizeof(options.receive_buffer));
  }
  int result = 0;
  if (options.ipv6) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = in6addr_loopback;
    result = connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } else {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    result = connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  }
  if (result != 0) {
    close(socket);
    Fail("connect");
  }
  const int one = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  return socket;
}

// The TLS library writes without MSG_NOSIGNAL. Only this thread is shielded: a server that raises the signal must not
// get away with it.
void HoldBackSigpipe() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

RawReply ParseHead(const std::string& head) {
  RawReply reply;
  reply.head = head;
  if (head.compare(0, 9, "HTTP/1.1 ") != 0) {
    throw std::runtime_error("raw client: no status line: " + head);
  }
  reply.status = std::stoi(head.substr(9, 3));
  std::size_t begin = head.find("\r\n") + 2;
  for (;;) {
    const std::size_t end = head.find("\r\n", begin);
    if (end == begin) {
      return reply;
    }
    const std::string line = head.substr(begin, end - begin);
    const std::size_t colon = line.find(": ");
    if (colon == std::string::npos) {
      throw std::runtime_error("raw client: no header line: " + line);
    }
    reply.headers.emplace(Lower(line.substr(0, colon)), line.substr(colon + 2));
    begin = end + 2;
  }
}

}  // namespace

std::string RawReply::Header(const std::string& lower_case_name) const {
  const auto found = headers.find(lower_case_name);
  return found == headers.end() ? std::string() : found->second;
}

CRawClient::CRawClient(std::uint16_t port, RawClientOptions options) : socket_(Connect(port, options)) {}

CRawClient::~CRawClient() {
  CloseSocket();
}

void CRawClient::CloseSocket() {
  if (socket_ >= 0) {
    close(socket_);
    socket_ = -1;
  }
}

void CRawClient::Send(std::string_view bytes) {
  if (!TrySend(bytes)) {
    Fail("send");
  }
}

bool CRawClient::TrySend(std::string_view bytes) {
  while (!bytes.empty()) {
    pollfd entry{.fd = socket_, .events = POLLOUT, .revents = 0};
    if (poll(&entry, 1, kPatienceMs) <= 0) {
      Fail("no room to send");
    }
    const ssize_t sent = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN) {
      return false;
    }
    bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
  }
  return true;
}

void CRawClient::WaitReadable(int timeout_ms) const {
  pollfd entry{.fd = socket_, .events = POLLIN, .revents = 0};
  errno = ETIMEDOUT;
  if (poll(&entry, 1, timeout_ms) <= 0) {
    Fail("nothing to read");
  }
}

long CRawClient::Receive(char* data, std::size_t size, int timeout_ms) {
  WaitReadable(timeout_ms);
  return recv(socket_, data, size, 0);
}

bool CRawClient::Fill(int timeout_ms) {
  std::array<char, 65536> data{};
  const long received = Receive(data.data(), data.size(), timeout_ms);
  if (received <= 0) {
    return false;
  }
  buffer_.append(data.data(), static_cast<std::size_t>(received));
  return true;
}

std::string CRawClient::ReadBytes(std::size_t size) {
  while (buffer_.size() < size) {
    if (!Fill(kPatienceMs)) {
      throw std::runtime_error("raw client: the stream ended after: " + buffer_.substr(0, 200));
    }
  }
  std::string bytes = buffer_.substr(0, size);
  buffer_.erase(0, size);
  return bytes;
}

RawReply CRawClient::ReadReply(bool bodyless) {
  constexpr std::string_view kEnd = "\r\n\r\n";
  std::size_t end = buffer_.find(kEnd);
  while (end == std::string::npos) {
    if (!Fill(kPatienceMs)) {
      throw std::runtime_error("raw client: no answer, only: " + buffer_);
    }
    end = buffer_.find(kEnd);
  }
  RawReply reply = ParseHead(ReadBytes(end + kEnd.size()));
  const std::string length = reply.Header("content-length");
  if (!bodyless && !length.empty()) {
    reply.body = ReadBytes(std::stoull(length));
  }
  return reply;
}

bool CRawClient::WaitForEnd(int timeout_ms) {
  try {
    return buffer_.empty() && !Fill(timeout_ms);
  } catch (const std::runtime_error&) {
    return false;
  }
}

bool CRawClient::IsSilent(int milliseconds) {
  pollfd entry{.fd = socket_, .events = POLLIN, .revents = 0};
  return buffer_.empty() && poll(&entry, 1, milliseconds) == 0;
}

void CRawClient::ShutdownSend() {
  shutdown(socket_, SHUT_WR);
}

void CRawClient::Reset() {
  const linger now{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
  CloseSocket();
}

CRawTlsClient::CRawTlsClient(std::uint16_t port, int version, SSL_SESSION* session)
    : CRawClient(port), context_(SSL_CTX_new(TLS_client_method())) {
  HoldBackSigpipe();
  if (version != 0) {
    SSL_CTX_set_min_proto_version(context_, version);
    SSL_CTX_set_max_proto_version(context_, version);
    SSL_CTX_set_security_level(context_, 0);
  }
  ssl_ = SSL_new(context_);
  if (session != nullptr) {
    SSL_set_session(ssl_, session);
  }
  const timeval patience{.tv_sec = kPatienceMs / 1000, .tv_usec = 0};
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  SSL_set_fd(ssl_, socket_);
  if (SSL_connect(ssl_) != 1) {
    SSL_free(ssl_);
    SSL_CTX_free(context_);
    throw std::runtime_error("raw client: no handshake");
  }
}

CRawTlsClient::~CRawTlsClient() {
  if (socket_ >= 0) {  // a socket that was reset is closed, and its number may be another client's by now
    SSL_shutdown(ssl_);
  }
  SSL_free(ssl_);
  SSL_CTX_free(context_);
}

void CRawTlsClient::Send(std::string_view bytes) {
  if (!bytes.empty() && SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) <= 0) {
    Fail("send over TLS");
  }
}

long CRawTlsClient::Receive(char* data, std::size_t size, int timeout_ms) {
  if (SSL_pending(ssl_) == 0) {
    WaitReadable(timeout_ms);
  }
  return SSL_read(ssl_, data, static_cast<int>(size));
}

bool CRawTlsClient::IsResumed() const {
  return SSL_session_reused(ssl_) == 1;
}

bool CRawTlsClient::HasSaidGoodbye() const {
  return (SSL_get_shutdown(ssl_) & SSL_RECEIVED_SHUTDOWN) != 0;
}

std::string CRawTlsClient::CipherName() const {
  return SSL_get_cipher_name(ssl_);
}

std::string CRawTlsClient::ProtocolName() const {
  return SSL_get_version(ssl_);
}

std::string CRawTlsClient::PeerCertificate() const {
  X509* const certificate = SSL_get1_peer_certificate(ssl_);
  unsigned char* der = nullptr;
  const int size = i2d_X509(certificate, &der);
  std::string text(reinterpret_cast<const char*>(der), static_cast<std::size_t>(std::max(size, 0)));
  OPENSSL_free(der);
  X509_free(certificate);
  return text;
}

SSL_SESSION* CRawTlsClient::Session() const {
  return SSL_get1_session(ssl_);
}

}  // namespace Tansy::Tests
