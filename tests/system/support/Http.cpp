#include "support/Http.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <map>

namespace system_tests {
namespace {

using Clock = std::chrono::steady_clock;

bool SameName(const std::string& left, const std::string& right) {
  return ::strcasecmp(left.c_str(), right.c_str()) == 0;
}

std::string Find(const HeaderList& headers, const std::string& name) {
  for (const auto& [key, value] : headers) {
    if (SameName(key, name)) {
      return value;
    }
  }
  return "";
}

bool Has(const HeaderList& headers, const std::string& name) {
  return std::any_of(headers.begin(), headers.end(), [&](const auto& item) { return SameName(item.first, name); });
}

int ConnectSocket(std::uint16_t port, const ConnectOptions& options) {
  const int descriptor = ::socket(options.ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    return -1;
  }
  if (options.receive_buffer > 0) {
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &options.receive_buffer, sizeof options.receive_buffer);
  }
  const int on = 1;
  ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  timeval patience = {std::chrono::seconds(kPatience).count(), 0};
  ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  sockaddr_in ipv4 = {};
  ipv4.sin_family = AF_INET;
  ipv4.sin_port = htons(port);
  ipv4.sin_addr.s_addr = options.address.empty() ? htonl(INADDR_LOOPBACK) : ::inet_addr(options.address.c_str());
  sockaddr_in6 ipv6 = {};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_port = htons(port);
  ipv6.sin6_addr = in6addr_loopback;
  const int result = options.ipv6 ? ::connect(descriptor, reinterpret_cast<const sockaddr*>(&ipv6), sizeof ipv6)
                                  : ::connect(descriptor, reinterpret_cast<const sockaddr*>(&ipv4), sizeof ipv4);
  if (result != 0) {
    ::close(descriptor);
    return -1;
  }
  return descriptor;
}

}  // namespace

std::string Reply::Header(const std::string& name) const {
  return Find(headers, name);
}

std::string Serialize(const Request& request, std::uint16_t port) {
  std::string text = request.method + " " + request.target + " HTTP/1.1\r\n";
  if (!Has(request.headers, "Host")) {
    text += "Host: 127.0.0.1:" + std::to_string(port) + "\r\n";
  }
  for (const auto& [name, value] : request.headers) {
    text += name + ": " + value + "\r\n";
  }
  const bool has_body = !request.body.empty() || request.method == "PUT" || request.method == "POST";
  if (has_body && !Has(request.headers, "Content-Length") && !Has(request.headers, "Transfer-Encoding")) {
    text += "Content-Length: " + std::to_string(request.body.size()) + "\r\n";
  }
  return text + "\r\n" + request.body;
}

std::string StringToSign(const Request& request) {
  std::map<std::string, std::string> extensions;
  for (const auto& [name, value] : request.headers) {
    if (name.find("x-qvs") != std::string::npos) {
      extensions.emplace(name, value);
    }
  }
  std::string text = request.method + "\n" + Find(request.headers, "Content-MD5") + "\n" +
                     Find(request.headers, "Content-Type") + "\n" + Find(request.headers, "Date") + "\n";
  for (const auto& [name, value] : extensions) {
    text += value + "\n";
  }
  return text + (extensions.empty() ? "\n" : "") + request.target;
}

std::string Signature(const std::string& text, const std::string& secret_key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha1(), secret_key.data(), static_cast<int>(secret_key.size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &size);
  return Base64({reinterpret_cast<const char*>(digest), size});
}

std::string Base64(const std::string& bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::string HttpDate() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  ::gmtime_r(&now, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%a, %e %b %Y %H:%M:%S GMT", &parts);
  return text;
}

Request Signed(Request request, const Keys& keys) {
  if (!Has(request.headers, "Date")) {
    request.headers.emplace_back("Date", HttpDate());
  }
  const std::string signature = Signature(StringToSign(request), keys.secret_key);
  request.headers.emplace_back("Authorization", "quorvane " + keys.access_key + ":" + signature);
  return request;
}

struct CConnection::Impl {
  int descriptor = -1;
  SSL_CTX* context = nullptr;
  SSL* tls = nullptr;
  std::string pending;
  bool is_at_end = false;

  ~Impl() {
    SSL_free(tls);
    SSL_CTX_free(context);
    if (descriptor >= 0) {
      ::close(descriptor);
    }
  }

  bool Handshake(const ConnectOptions& options) {
    // The TLS library writes to sockets without suppressing SIGPIPE.
    static const auto before = ::signal(SIGPIPE, SIG_IGN);
    static_cast<void>(before);
    context = SSL_CTX_new(TLS_client_method());
    if (options.newest_tls != 0) {
      // Lets the library offer what the server must refuse.
      SSL_CTX_set_security_level(context, 0);
      SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
      SSL_CTX_set_max_proto_version(context, options.newest_tls);
    }
    if (!options.trust.empty()) {
      SSL_CTX_load_verify_locations(context, options.trust.c_str(), nullptr);
      SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    }
    tls = SSL_new(context);
    if (!options.trust.empty()) {
      SSL_set1_host(tls, "localhost");
    }
    SSL_ctrl(tls, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, const_cast<char*>("localhost"));
    return SSL_set_fd(tls, descriptor) == 1 && SSL_connect(tls) == 1;
  }
};

CConnection::CConnection(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
CConnection::~CConnection() = default;

std::unique_ptr<CConnection> CConnection::Open(std::uint16_t port, const ConnectOptions& options) {
  auto impl = std::make_unique<Impl>();
  impl->descriptor = ConnectSocket(port, options);
  if (impl->descriptor < 0 || (options.tls && !impl->Handshake(options))) {
    return nullptr;
  }
  return std::unique_ptr<CConnection>(new CConnection(std::move(impl)));
}

bool CConnection::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t size = std::min<std::size_t>(bytes.size(), 1 << 20);
    const ssize_t sent = impl_->tls != nullptr ? SSL_write(impl_->tls, bytes.data(), static_cast<int>(size))
                                               : ::send(impl_->descriptor, bytes.data(), size, MSG_NOSIGNAL);
    if (sent <= 0) {
      if (impl_->tls == nullptr && errno == EINTR) {
        continue;
      }
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool CConnection::Fill(Clock::time_point deadline) {
  if (impl_->is_at_end) {
    return false;
  }
  if (impl_->tls == nullptr || SSL_pending(impl_->tls) == 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd item = {impl_->descriptor, POLLIN, 0};
    if (::poll(&item, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) <= 0) {
      return false;
    }
  }
  static thread_local std::string buffer(256 * 1024, '\0');
  const ssize_t got = impl_->tls != nullptr ? SSL_read(impl_->tls, buffer.data(), static_cast<int>(buffer.size()))
                                            : ::recv(impl_->descriptor, buffer.data(), buffer.size(), 0);
  if (got <= 0) {
    impl_->is_at_end = true;
    return false;
  }
  impl_->pending.append(buffer.data(), static_cast<std::size_t>(got));
  return true;
}

Reply CConnection::Receive(std::chrono::milliseconds patience, bool to_head, bool interim) {
  const auto deadline = Clock::now() + patience;
  while (true) {
    Reply reply;
    std::size_t end = std::string::npos;
    while ((end = impl_->pending.find("\r\n\r\n")) == std::string::npos) {
      if (!Fill(deadline)) {
        return reply;
      }
    }
    const std::string head = impl_->pending.substr(0, end + 2);
    impl_->pending.erase(0, end + 4);
    reply.status = std::atoi(head.substr(std::min<std::size_t>(head.find(' ') + 1, head.size())).c_str());
    for (std::size_t begin = head.find("\r\n") + 2; begin < head.size();) {
      const std::size_t line_end = head.find("\r\n", begin);
      const std::string line = head.substr(begin, line_end - begin);
      const std::size_t colon = line.find(':');
      if (colon != std::string::npos) {
        const std::size_t value = line.find_first_not_of(' ', colon + 1);
        reply.headers.emplace_back(line.substr(0, colon), value == std::string::npos ? "" : line.substr(value));
      }
      begin = line_end + 2;
    }
    if (reply.status == 100 && !interim) {
      continue;
    }
    if (to_head || reply.status / 100 == 1 || reply.status == 204 || reply.status == 304) {
      reply.is_whole = true;
      return reply;
    }
    const std::string length_text = reply.Header("Content-Length");
    const bool to_end = length_text.empty();
    const std::size_t length = to_end ? SIZE_MAX : std::strtoull(length_text.c_str(), nullptr, 10);
    while (impl_->pending.size() < length && Fill(deadline)) {
    }
    reply.is_whole = to_end ? impl_->is_at_end : impl_->pending.size() >= length;
    reply.body = impl_->pending.substr(0, length);
    impl_->pending.erase(0, length);
    return reply;
  }
}

std::string CConnection::ReceiveBytes(std::size_t size, std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  while (impl_->pending.size() < size && Fill(deadline)) {
  }
  std::string bytes = impl_->pending.substr(0, size);
  impl_->pending.erase(0, bytes.size());
  return bytes;
}

bool CConnection::IsClosedByServer(std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  while (Fill(deadline)) {
  }
  return impl_->is_at_end;
}

void CConnection::FinishSending() {
  ::shutdown(impl_->descriptor, SHUT_WR);
}

void CConnection::Reset() {
  const linger now = {1, 0};
  ::setsockopt(impl_->descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  ::close(impl_->descriptor);
  impl_->descriptor = -1;
}

std::string CConnection::CertificateSerial() const {
  X509* certificate = impl_->tls == nullptr ? nullptr : SSL_get1_peer_certificate(impl_->tls);
  if (certificate == nullptr) {
    return "";
  }
  BIGNUM* number = ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr);
  char* text = BN_bn2hex(number);
  std::string serial = text;
  OPENSSL_free(text);
  BN_free(number);
  X509_free(certificate);
  return serial;
}

Reply Call(std::uint16_t port, const Request& request, const ConnectOptions& options) {
  const std::unique_ptr<CConnection> connection = CConnection::Open(port, options);
  if (connection == nullptr) {
    return {};
  }
  connection->Send(Serialize(request, port));  // an early answer may cut it short
  return connection->Receive(kPatience, request.method == "HEAD");
}

}  // namespace system_tests
