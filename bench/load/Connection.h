// One blocking HTTP/1.1 connection of a load program, plain or TLS.
#ifndef TANSY_BENCH_CONNECTION_H
#define TANSY_BENCH_CONNECTION_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct ssl_st;

namespace TansyBench {

struct Address {
  bool is_https = false;
  std::string host;  // a numeric IPv4 address
  std::uint16_t port = 0;
};

// Takes "http://IP:PORT" or "https://IP:PORT". Throws std::runtime_error for anything else.
Address ParseAddress(const std::string& url);

struct Answer {
  int status = 0;
  std::uint64_t size = 0;  // bytes of the body
  bool keeps_connection = true;
};

// Threads: one at a time. Every failure throws std::runtime_error; the connection is of no use then.
class CConnection {
 public:
  // `receive_buffer` limits what the system takes on before anybody reads; 0 leaves the choice to the system.
  explicit CConnection(const Address& address, int receive_buffer = 0);
  ~CConnection();
  CConnection(const CConnection&) = delete;
  CConnection& operator=(const CConnection&) = delete;

  void Send(std::string_view bytes);

  // Reads the head of an answer. The body is still to be read.
  Answer ReadHead();
  // Reads the body and forgets it. Without TLS the system forgets it, so that no bytes are copied.
  void SkipBody(std::uint64_t size);
  // Reads up to `most` bytes of the body; the view is valid until the next call.
  std::string_view ReadBody(std::uint64_t most);
  // Reads all of a small body.
  std::string ReadWholeBody(std::uint64_t size);

  // Returns true when the other side has closed the connection.
  bool IsClosed();

  // TLS version and cipher, "plain" without TLS.
  std::string Security() const;

 private:
  std::size_t Receive(char* buffer, std::size_t size);
  void Connect(const Address& address, int receive_buffer);

  int socket_ = -1;
  ssl_st* tls_ = nullptr;
  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace TansyBench

#endif  // TANSY_BENCH_CONNECTION_H
