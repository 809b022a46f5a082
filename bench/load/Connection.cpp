#include "Connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>

namespace TansyBench {
namespace {

constexpr std::size_t kBuffer = std::size_t{256} << 10;

std::runtime_error SystemFailure(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

SSL_CTX* TlsContext() {
  static SSL_CTX* const context = [] {
    SSL_CTX* made = SSL_CTX_new(TLS_client_method());
    if (made != nullptr) {
      SSL_CTX_set_verify(made, SSL_VERIFY_NONE, nullptr);  // the certificates are made for the run
    }
    return made;
  }();
  return context;
}

// The value of a header of an answer, without regard to the case of its name; empty when there is none.
std::string_view HeaderValue(std::string_view head, std::string_view name) {
  while (!head.empty()) {
    const std::size_t end = std::min(head.find("\r\n"), head.size());
    const std::string_view line = head.substr(0, end);
    head.remove_prefix(std::min(end + 2, head.size()));
    if (line.size() <= name.size() || line[name.size()] != ':') {
      continue;
    }
    const bool is_same = std::equal(name.begin(), name.end(), line.begin(),
                                    [](char a, char b) { return std::tolower(a) == std::tolower(b); });
    if (is_same) {
      std::string_view value = line.substr(name.size() + 1);
      value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
      return value;
    }
  }
  return {};
}

template <typename Number>
Number ParseNumber(std::string_view text, const std::string& what) {
  Number number{};
  const auto [position, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || position != text.data() + text.size()) {
    throw std::runtime_error(what + " is \"" + std::string(text) + "\"");
  }
  return number;
}

// Takes a whole head, up to and with the empty line.
Answer ParseHead(std::string_view head) {
  Answer answer;
  if (!head.starts_with("HTTP/1.1 ") || head.size() < 12) {
    throw std::runtime_error("the answer is not HTTP/1.1");
  }
  answer.status = ParseNumber<int>(head.substr(9, 3), "the status");
  const std::string_view length = HeaderValue(head, "Content-Length");
  if (answer.status != 204 && answer.status != 304) {
    answer.size = ParseNumber<std::uint64_t>(length, "the answer's Content-Length");
  }
  answer.keeps_connection = HeaderValue(head, "Connection") != "close";
  return answer;
}

}  // namespace

Address ParseAddress(const std::string& url) {
  Address address;
  address.is_https = url.starts_with("https://");
  const std::size_t begin = address.is_https ? 8 : 7;
  const std::size_t colon = url.rfind(':');
  if ((!address.is_https && !url.starts_with("http://")) || colon < begin) {
    throw std::runtime_error("not an address: " + url);
  }
  address.host = url.substr(begin, colon - begin);
  address.port = ParseNumber<std::uint16_t>(std::string_view(url).substr(colon + 1), "the port");
  return address;
}

CConnection::CConnection(const Address& address, int receive_buffer) : buffer_(new char[kBuffer]) {
  Connect(address, receive_buffer);
  if (!address.is_https) {
    return;
  }
  tls_ = SSL_new(TlsContext());
  if (tls_ == nullptr || SSL_set_fd(tls_, socket_) != 1 || SSL_connect(tls_) != 1) {
    SSL_free(tls_);
    close(socket_);
    throw std::runtime_error("the TLS handshake failed");
  }
}

void CConnection::Connect(const Address& address, int receive_buffer) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(address.port);
  if (inet_pton(AF_INET, address.host.c_str(), &peer.sin_addr) != 1) {
    throw std::runtime_error("not a numeric address: " + address.host);
  }
  socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket_ < 0) {
    throw SystemFailure("socket");
  }
  const int on = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (receive_buffer > 0) {
    setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  }
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    const std::runtime_error failure = SystemFailure("connect");
    close(socket_);
    throw failure;
  }
}

CConnection::~CConnection() {
  SSL_free(tls_);
  close(socket_);
}

void CConnection::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = tls_ != nullptr ? SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size()))
                                         : send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) {
      throw SystemFailure("sending");
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

std::size_t CConnection::Receive(char* buffer, std::size_t size) {
  const ssize_t got = tls_ != nullptr ? SSL_read(tls_, buffer, static_cast<int>(size)) : recv(socket_, buffer, size, 0);
  if (got <= 0) {
    throw got == 0 ? std::runtime_error("the server closed the connection") : SystemFailure("receiving");
  }
  return static_cast<std::size_t>(got);
}

Answer CConnection::ReadHead() {
  if (begin_ == end_) {
    begin_ = end_ = 0;
  }
  while (true) {
    const std::string_view have(buffer_.get() + begin_, end_ - begin_);
    const std::size_t end = have.find("\r\n\r\n");
    if (end != std::string_view::npos) {
      begin_ += end + 4;
      return ParseHead(have.substr(0, end + 4));
    }
    if (end_ == kBuffer) {
      throw std::runtime_error("the head of the answer is too long");
    }
    end_ += Receive(buffer_.get() + end_, kBuffer - end_);
  }
}

std::string_view CConnection::ReadBody(std::uint64_t most) {
  if (begin_ == end_) {
    begin_ = 0;
    end_ = Receive(buffer_.get(), static_cast<std::size_t>(std::min<std::uint64_t>(most, kBuffer)));
  }
  const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(most, end_ - begin_));
  const std::string_view piece(buffer_.get() + begin_, size);
  begin_ += size;
  return piece;
}

void CConnection::SkipBody(std::uint64_t size) {
  const std::uint64_t buffered = std::min<std::uint64_t>(size, end_ - begin_);
  begin_ += static_cast<std::size_t>(buffered);
  size -= buffered;
  while (size > 0) {
    if (tls_ != nullptr) {
      size -= ReadBody(size).size();
      continue;
    }
    const ssize_t got =
        recv(socket_, nullptr, static_cast<std::size_t>(std::min<std::uint64_t>(size, 4 << 20)), MSG_TRUNC);
    if (got <= 0) {
      throw std::runtime_error("the server closed the connection in the middle of a body");
    }
    size -= static_cast<std::uint64_t>(got);
  }
}

std::string CConnection::ReadWholeBody(std::uint64_t size) {
  std::string body;
  while (body.size() < size) {
    body += ReadBody(size - body.size());
  }
  return body;
}

bool CConnection::IsClosed() {
  char byte = 0;
  const ssize_t got = recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

std::string CConnection::Security() const {
  return tls_ != nullptr ? std::string(SSL_get_version(tls_)) + "/" + SSL_get_cipher_name(tls_) : "plain";
}

}  // namespace TansyBench
