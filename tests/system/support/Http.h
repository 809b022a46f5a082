// A small HTTP client for tests: it sends exactly what it is told, also what no proper client would.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_HTTP_H
#define TANSY_TESTS_SYSTEM_SUPPORT_HTTP_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Tansyd.h"

namespace system_tests {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct Request {
  std::string method = "GET";
  std::string target = "/";  // path and query
  HeaderList headers;
  std::string body;
};

struct Reply {
  int status = 0;  // 0: no answer
  HeaderList headers;
  std::string body;
  bool is_whole = false;  // as long as it said

  std::string Header(const std::string& name) const;  // "" when missing; any spelling
};

// A request as bytes, with Host and, for a body or a method that has one, Content-Length.
std::string Serialize(const Request& request, std::uint16_t port);

// The text that a signature is made over, and the Authorization value.
std::string StringToSign(const Request& request);
std::string Signature(const std::string& text, const std::string& secret_key);
std::string Base64(const std::string& bytes);
std::string HttpDate();
// Adds Date (unless there is one) and Authorization.
Request Signed(Request request, const Keys& keys = {});

struct ConnectOptions {
  bool tls = false;
  bool ipv6 = false;
  std::string address;     // IPv4, of this machine; empty: 127.0.0.1, or ::1 with ipv6
  int newest_tls = 0;      // TLS1_2_VERSION and the like; 0: any
  std::string trust;       // PEM file: the server's certificate must be good for "localhost"
  int receive_buffer = 0;  // bytes; 0: the system's choice
};

// One connection to the server on this machine.
class CConnection {
 public:
  // Null when it cannot be made, the TLS handshake included.
  static std::unique_ptr<CConnection> Open(std::uint16_t port, const ConnectOptions& options = {});
  ~CConnection();
  CConnection(const CConnection&) = delete;
  CConnection& operator=(const CConnection&) = delete;

  bool Send(std::string_view bytes);
  // The next answer; `to_head` says that it has no body whatever its header says. Interim answers (100) are passed over
  // unless `interim` is given.
  Reply Receive(std::chrono::milliseconds patience = kPatience, bool to_head = false, bool interim = false);
  // At most `size` raw bytes, fewer at the end of the connection or of patience.
  std::string ReceiveBytes(std::size_t size, std::chrono::milliseconds patience = kPatience);
  // True when the server closes the connection, within `patience`.
  bool IsClosedByServer(std::chrono::milliseconds patience = kPatience);
  // Says that nothing more will be sent.
  void FinishSending();
  // Ends the connection as a broken network would.
  void Reset();
  std::string CertificateSerial() const;

 private:
  struct Impl;
  explicit CConnection(std::unique_ptr<Impl> impl);
  bool Fill(std::chrono::steady_clock::time_point deadline);
  std::unique_ptr<Impl> impl_;
};

// One request on a connection of its own.
Reply Call(std::uint16_t port, const Request& request, const ConnectOptions& options = {});

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_HTTP_H
