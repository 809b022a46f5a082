// A server on loopback that records the requests that it gets, byte for byte, and plays the answers that it is told,
// wrong and broken ones included.
//
//   ScriptedServer server;
//   server.Answer("PUT /b/k", {.status = 200, .body = "ok"});
//   server.Answer("GET /b/*", {.status = 404, .headers = {{"Content-Type", "application/xml"}}, .body = "<Error/>"});
//   ... send something to "http://" + server.Address() ...
//   EXPECT_EQ(server.Requests().at(0).Header("Date"), "...");
//
// A rule is a method, a blank and a target with its query; a trailing "*" stands for any rest. Several answers for one
// rule are played one after another, the last one again and again. The first rule that fits counts; a request that fits
// none is answered by the handler, or 404 with the body "nothing scripted".
//
// Threads: any. The destructor closes every connection and waits for the server's threads. Compile ScriptedServer.cpp
// and TestCertificate.cpp into the test program and link OpenSSL::SSL and OpenSSL::Crypto.
#ifndef TANSY_TESTS_FAKES_SCRIPTED_SERVER_H
#define TANSY_TESTS_FAKES_SCRIPTED_SERVER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fakes/TestCertificate.h"

namespace Tansy::Tests {

using HeaderLines = std::vector<std::pair<std::string, std::string>>;

struct ScriptedRequest {
  int connection = 0;  // 1 for the first connection that the server accepted
  std::string method;
  std::string target;   // path and query
  std::string head;     // as it came, empty line included
  HeaderLines headers;  // in their order, spelled as they came
  std::string body = {};
  bool complete = false;    // the whole body came
  std::string server_name;  // that the client asked for in its TLS handshake

  // The value of the first header of that name, compared without case; "" when there is none.
  std::string Header(const std::string& name) const;
  bool HasHeader(const std::string& name) const;
};

struct ScriptedAnswer {
  static constexpr std::size_t kNever = static_cast<std::size_t>(-1);

  int status = 200;
  HeaderLines headers = {};  // "Content-Length" is added unless it, or "Transfer-Encoding", is among them
  std::string body = {};
  std::string raw = {};  // when not empty, these bytes are the whole answer

  std::string on_head = {};        // sent at once when the head is there, before the body is read
  int delay_ms = 0;                // before the first byte
  std::size_t piece = 0;           // when not 0: the answer goes out in pieces of this size ...
  int piece_delay_ms = 0;          // ... with this pause between them
  std::size_t cut_after = kNever;  // only so many bytes go out, then the connection is closed
  bool silent = false;             // no answer at all; the connection stays open
  bool close = false;              // the connection is closed after the answer
  bool reset = false;              // closing means RST, not FIN
  bool before_body = false;        // answers as soon as the head is there, and reads no more; implies `close`
  bool rude_tls = false;           // closes without the TLS farewell
};

struct ScriptedServerOptions {
  bool https = false;
  std::string address = "127.0.0.1";  // or "::1"
  std::uint16_t port = 0;             // 0: a free one
  // Of an https server; empty: a self-signed one for localhost, 127.0.0.1 and ::1. Certificates of signers may follow
  // the server's own.
  TestCertificate certificate = {};
  int newest_tls = 0;      // such as TLS1_2_VERSION; 0: the newest there is
  int receive_buffer = 0;  // bytes, before the system's rounding; 0: the system's choice
};

class ScriptedServer {
 public:
  using Handler = std::function<ScriptedAnswer(const ScriptedRequest&)>;

  explicit ScriptedServer(ScriptedServerOptions options = {});
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  void Answer(const std::string& rule, ScriptedAnswer answer);
  // Answers whatever no rule fits.
  void Handle(Handler handler);
  // Forgets all rules and the handler.
  void ClearScript();

  std::uint16_t Port() const;
  std::string Address() const;                       // "127.0.0.1:4711", "[::1]:4711"
  std::string Url(const std::string& target) const;  // scheme, address and target
  // The certificate of an https server in a file that lives as long as the server.
  const std::string& CertificateFile() const;

  // Everything received so far, in the order in which the requests were complete.
  std::vector<ScriptedRequest> Requests() const;
  // Waits until that many requests have come; false after the time-out.
  bool WaitForRequests(std::size_t count, int timeout_ms = 5000) const;
  void ClearRequests();

  // How many connections were accepted, and how many of their TLS handshakes resumed a session.
  int ConnectionCount() const;
  int ResumedCount() const;
  // Closes the connections that are open now, as a server does that has waited long enough.
  void CloseConnections();
  // Waits until no connection is open; false after the time-out.
  bool WaitForNoConnections(int timeout_ms = 5000) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_SCRIPTED_SERVER_H
