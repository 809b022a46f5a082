// One accepted connection of a scripted server, with or without TLS.
#ifndef TANSY_TESTS_FAKES_SCRIPTED_STREAM_H
#define TANSY_TESTS_FAKES_SCRIPTED_STREAM_H

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace Tansy::Tests {

// One thread, except Shutdown.
class Stream {
 public:
  Stream(int handle, SSL_CTX* context) : handle_(handle) {
    if (context != nullptr) {
      ssl_ = SSL_new(context);
      SSL_set_fd(ssl_, handle_);
    }
  }
  ~Stream() {
    SSL_free(ssl_);
    ::close(handle_);
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  bool Accept() {
    ERR_clear_error();
    return ssl_ == nullptr || SSL_accept(ssl_) == 1;
  }
  bool Resumed() const { return ssl_ != nullptr && SSL_session_reused(ssl_) == 1; }
  std::string ServerName() const {
    const char* const name = ssl_ != nullptr ? SSL_get_servername(ssl_, TLSEXT_NAMETYPE_host_name) : nullptr;
    return name != nullptr ? name : "";
  }

  // Appends what came; false at the end.
  bool Read(std::string& text) {
    std::vector<char> bytes(64 * 1024);
    ERR_clear_error();
    const auto got = ssl_ != nullptr ? SSL_read(ssl_, bytes.data(), static_cast<int>(bytes.size()))
                                     : ::recv(handle_, bytes.data(), bytes.size(), 0);
    if (got <= 0) {
      return false;
    }
    text.append(bytes.data(), static_cast<std::size_t>(got));
    return true;
  }

  bool Write(const char* data, std::size_t size) {
    while (size > 0) {
      ERR_clear_error();
      const auto sent = ssl_ != nullptr ? SSL_write(ssl_, data, static_cast<int>(std::min<std::size_t>(size, 1 << 20)))
                                        : ::send(handle_, data, size, MSG_NOSIGNAL);
      if (sent <= 0) {
        return false;
      }
      data += sent;
      size -= static_cast<std::size_t>(sent);
    }
    return true;
  }

  void SayGoodbye() {
    if (ssl_ != nullptr && SSL_is_init_finished(ssl_) == 1) {
      ERR_clear_error();
      SSL_shutdown(ssl_);
    }
  }

  void ResetOnClose() {
    const linger at_once{1, 0};
    ::setsockopt(handle_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  }

  // Any thread: ends whatever waits on the connection.
  void Shutdown() { ::shutdown(handle_, SHUT_RDWR); }

 private:
  const int handle_;
  SSL* ssl_ = nullptr;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_SCRIPTED_STREAM_H
