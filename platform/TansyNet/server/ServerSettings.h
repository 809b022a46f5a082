// Settings that a host makes for its listeners, and the results that it gets.
#ifndef TANSY_NET_SERVER_SERVER_SETTINGS_H
#define TANSY_NET_SERVER_SERVER_SETTINGS_H

#include <cstdint>
#include <string>

#include "TansyNet/MemoryAccount.h"
#include "TansyNet/wire/ServerMessages.h"

namespace TansyNet {

// Takes a request; see CHttpServer::RecvCallback.
using RecvCallback = void (*)(std::int32_t handle, HttpServerRecv& msg);

// What becomes of a PUT whose length is not known beforehand, because its body is chunked, once more of it has come
// than is delivered whole.
enum class EUnknownLength {
  kRefuse,    // it is answered 411
  kInPieces,  // it is delivered in pieces, with a content_length of 0; the last one may be empty
};

// The answer to a request that the library refuses by itself.
struct Refusal {
  HttpResponse response;
  std::string body;
};

// Makes that answer in the words of a protocol. `status` is what the library would say in plain text, `msg` the request
// as far as it was read. It is called while the connection is locked, on a thread that serves others too: it must not
// wait, and must not call CHttpServer.
using RefusalMaker = Refusal (*)(int status, const HttpServerRecv& msg);

// What a listener does in the way of a protocol. The defaults suit most.
struct ListenerStyle {
  EUnknownLength unknown_length = EUnknownLength::kRefuse;
  RefusalMaker refusal = nullptr;  // null: the status with its reason in plain text
};

// Certificate of an HTTPS listener. A path given as both certificate and key names a pair beside each other (path +
// ".crt" and path + ".key") or, when there is no such pair, one PEM file that holds both. All flags are false for a
// server that asks its clients for no certificate.
struct HttpsServer {
  bool request_client_certificate = false;
  bool require_client_certificate = false;
  bool legacy_protocols = false;  // reserved and without effect: TLS 1.2 and 1.3 are always spoken
  std::string certificate_path;
  std::string private_key_path;
  std::string trust_path;  // PEM file of the authorities that sign client certificates
};

// Limits for clients. A client that breaks a limit gets the right 4xx answer where one is still possible, and its
// connection is closed.
struct HttpServerLimits {
  std::uint32_t header_bytes = 64 * 1024;
  std::uint32_t header_timeout_ms = 10000;  // for a whole request header; also for TLS handshakes
  std::uint32_t idle_timeout_ms = 60000;    // between two requests of a connection
  std::uint32_t body_timeout_ms = 30000;    // without any progress of the body
  // Limits the time for the whole of a body that nobody has checked yet, in addition to the time that its length takes
  // at the least rate.
  std::uint32_t unchecked_body_timeout_ms = 60000;
  std::uint32_t unanswered_timeout_ms = 120000;  // from the delivery of a whole request to its answer
  std::uint32_t connections = 10000;
  std::uint32_t whole_body_bytes = 64 * 1024 * 1024;  // bodies of methods other than PUT; more is answered 413
  // While memory is short, a client that sends or reads less than this rate, over a whole window, is disconnected.
  std::uint32_t least_bytes_per_second = 32 * 1024;
  std::uint32_t least_rate_window_ms = 4000;
  // The ceiling of MemoryAccount.h for the whole process. A client whose body or answer finds no room is answered 503.
  std::uint64_t memory_bytes = CMemoryAccount::kDefaultLimit;
};

// All results except 0, which is success.
enum NetError : int {
  kNetAddressInUse = 1001,
  kNetAddressInvalid = 1002,
  kNetListenFailed = 1003,
  kNetUnknownHandle = 1004,    // no such listener; or the request is answered or timed out, or its client is gone
  kNetCertificate = 1005,      // certificate or key missing, broken or not a pair; LastError says which
  kNetAlreadyAnswered = 1006,  // the head of another answer has been sent; the connection is closed
  kNetSendFailed = 1007,
  kNetSendTimeout = 1008,
  kNetPermission = 1009,
  kNetNoMemory = 1010,  // no room for what the socket does not take at once; the client got 503
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_SERVER_SETTINGS_H
