// A client that sends exactly the bytes that a test wants, in the clear or over TLS, and reads answers piece by piece.
// Every wait is limited; a wait that runs out throws std::runtime_error, which fails the test.
#ifndef TANSY_TESTS_RAW_CLIENT_H
#define TANSY_TESTS_RAW_CLIENT_H

#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace Tansy::Tests {

struct RawReply {
  int status = 0;
  std::string head;                            // as it came, empty line included
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;

  std::string Header(const std::string& lower_case_name) const;
};

struct RawClientOptions {
  bool ipv6 = false;
  int receive_buffer = 0;  // bytes before the system's rounding; 0: the system's choice
};

class CRawClient {
 public:
  explicit CRawClient(std::uint16_t port, RawClientOptions options = {});
  virtual ~CRawClient();
  CRawClient(const CRawClient&) = delete;
  CRawClient& operator=(const CRawClient&) = delete;

  virtual void Send(std::string_view bytes);
  // Sends as much as the server lets it; false when the server closed before all was sent.
  bool TrySend(std::string_view bytes);
  // The next answer. `bodyless` for answers to HEAD.
  RawReply ReadReply(bool bodyless = false);
  // Waits for that many bytes of the stream.
  std::string ReadBytes(std::size_t size);
  // Whether the server ends the connection without sending anything more.
  bool WaitForEnd(int timeout_ms = 5000);
  // Whether nothing at all comes for this long.
  bool IsSilent(int milliseconds);

  void ShutdownSend();
  // Closes with RST.
  void Reset();
  int Descriptor() const { return socket_; }

 protected:
  // 0 at the end of the stream, -1 when it was reset. Waits up to `timeout_ms`, then throws.
  virtual long Receive(char* data, std::size_t size, int timeout_ms);
  void WaitReadable(int timeout_ms) const;
  void CloseSocket();

  int socket_ = -1;

 private:
  // False at the end of the stream.
  bool Fill(int timeout_ms);

  std::string buffer_;
};

// The same over TLS, without checking the server's certificate.
class CRawTlsClient : public CRawClient {
 public:
  // `version` of 0 takes the newest; otherwise such as TLS1_2_VERSION. `session` is offered for resumption.
  explicit CRawTlsClient(std::uint16_t port, int version = 0, SSL_SESSION* session = nullptr);
  ~CRawTlsClient() override;

  void Send(std::string_view bytes) override;
  bool IsResumed() const;
  // Whether the server has said that nothing more comes.
  bool HasSaidGoodbye() const;
  std::string CipherName() const;
  std::string ProtocolName() const;
  // DER of the server's certificate.
  std::string PeerCertificate() const;
  // The session so far; the caller frees it.
  SSL_SESSION* Session() const;

 protected:
  long Receive(char* data, std::size_t size, int timeout_ms) override;

 private:
  SSL_CTX* context_ = nullptr;
  SSL* ssl_ = nullptr;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_RAW_CLIENT_H
