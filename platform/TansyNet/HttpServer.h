// The host's HTTP library, server side.
//
// Listeners deliver every request to one plain function on one of the library's threads; the answer is sent later, from
// any thread, by the request's handle. Beast and Asio stay inside the library's sources.
#ifndef TANSY_NET_HTTP_SERVER_H
#define TANSY_NET_HTTP_SERVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace TansyNet {

// Header names and values, ordered byte by byte. Standard names arrive in their standard spelling whatever the client
// sent
// ("Authorization", "Content-MD5", "Host", "Range"), except that "Content-Md5" stays itself; all other names as sent.
// Of a name that is sent twice the first value counts.
using Headers = std::map<std::string, std::string>;

// Delivery states of a request.
inline constexpr std::int32_t kWholeRequest = 0;
inline constexpr std::int32_t kBodyPiece = -1;      // more pieces follow
inline constexpr std::int32_t kLastBodyPiece = -2;  // the last piece

// A PUT body up to this size is delivered whole, a larger one in pieces of at most this size.
inline constexpr std::uint32_t kWholeBodyLimit = 10485760;

// One field of a multipart/form-data body; the views point into the request's body and live as long as that does.
struct FormPart {
  std::string_view name;
  std::string_view file_name;
  std::string_view content_type;
  std::string_view data;
};

// A delivered request, or one piece of it. Copying it copies pointers, never bytes.
struct HttpServerRecv {
  std::int32_t error_code = kWholeRequest;
  std::string method;
  std::string url;                          // path, as sent, without the query
  std::string query;                        // as sent, without the "?"
  std::string ip;                           // peer address
  std::shared_ptr<const std::string> body;  // bytes of this delivery, immutable; null when there are none
  std::uint32_t body_size = 0;              // bytes of this delivery
  std::uint32_t content_length = 0;         // declared length of the whole body
  Headers headers;
  std::vector<FormPart> form_parts;  // of a whole multipart/form-data body, in its order
  // One piece at a time: the next piece of this request is delivered when the last copy of this token is gone. Whoever
  // keeps a delivery, or a copy of its bytes that is not stored yet, keeps the token. Null for whole requests.
  std::shared_ptr<const void> token;
};

// An answer without its body.
struct HttpResponse {
  std::int32_t status = 200;
  std::int32_t send_timeout_ms = 20000;  // a client that takes nothing for this long is disconnected
  std::int32_t close_connection = 0;     // not 0: the connection is closed after the answer
  std::string content_type = "application/xml; charset=\"UTF-8\"";
  std::string content_encoding;
  std::string location;
  std::string cache_control = "no-cache";
  Headers headers;  // sent as they are, after those above
};

// Certificate of an HTTPS listener. A path given as both certificate and key names a pair beside each other (path +
// ".crt" and path + ".key") or, when there is no such pair, one PEM file that holds both. All flags are false for a
// server that asks its clients for no certificate.
struct HttpsServer {
  bool request_client_certificate = false;
  bool require_client_certificate = false;
  bool legacy_protocols = false;  // reserved: TLS 1.2 and 1.3 are spoken whatever it says
  std::string certificate_path;
  std::string private_key_path;
  std::string trust_path;  // PEM file of the authorities that sign client certificates
};

// What a client may do. Breaking a limit gets the right 4xx where an answer is still possible, and a closed connection.
struct HttpServerLimits {
  std::uint32_t header_bytes = 64 * 1024;
  std::uint32_t header_timeout_ms = 10000;  // from the first byte of a request to the end of its header; TLS handshakes
  std::uint32_t idle_timeout_ms = 60000;    // between two requests of a connection
  std::uint32_t body_timeout_ms = 30000;    // without any progress of the body
  std::uint32_t unanswered_timeout_ms = 120000;  // from the delivery of a whole request to its answer
  std::uint32_t connections = 10000;
  std::uint32_t whole_body_bytes = 64 * 1024 * 1024;  // bodies of methods other than PUT; more is answered 413
  // Bodies of all requests together, from their first byte until the last copy of their message is gone; a client whose
  // body finds no room is answered 503.
  std::uint64_t body_memory_bytes = std::uint64_t{2} << 30;
};

// Results other than 0 (success).
enum NetError : int {
  kNetAddressInUse = 1001,
  kNetAddressInvalid = 1002,
  kNetListenFailed = 1003,
  kNetUnknownHandle = 1004,    // no such listener; or the request is answered, timed out, or its client is gone
  kNetCertificate = 1005,      // certificate or key missing, broken, or not belonging together; LastError says which
  kNetAlreadyAnswered = 1006,  // the head of another answer is out; the connection is closed
  kNetSendFailed = 1007,
  kNetSendTimeout = 1008,
  kNetPermission = 1009,
};

// All members are static: listeners and connections belong to the process. Any thread may call any member.
class CHttpServer {
 public:
  // `handle` names the request; it is never reused while the process lives. `msg` may be moved from. Called on a thread
  // of the library, deliveries of one request one after another. Whole requests arrive on the threads that serve all
  // other clients too, so the callback hands them on and returns; pieces arrive on threads of their own and may wait.
  using RecvCallback = void (*)(std::int32_t handle, HttpServerRecv& msg);

  // Listens on `address` ("0.0.0.0", "::" or any local one; IPv6 listeners are v6-only so that both families share a
  // port). Port 0 opens nothing and succeeds with handle 0, and so does "::" on a machine without IPv6. `reuse_address`
  // allows a port whose last connections still linger.
  static int StartHttpServer(std::int32_t& handle, const std::string& address, std::uint16_t port,
                             RecvCallback callback, bool reuse_address);
  static int StartHttpsServer(std::int32_t& handle, const std::string& address, std::uint16_t port,
                              const HttpsServer& tls, RecvCallback callback);
  // Stops accepting, closes idle connections; requests under way are answered and their connections then closed.
  // Stopping handle 0 succeeds.
  static int StopServer(std::int32_t handle);

  // Answers a request. Writes from the calling thread; what the socket does not take at once is copied and finished by
  // the library's threads, so the call never waits for a client. Each request is answered exactly once.
  static int HttpServerSyncSend(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                const char* data);
  // One chunk of an answer of `total_size` bytes; the first call sends the head too. Waits until the chunk is with the
  // operating system, at most `send_timeout_ms` without progress. The answer ends with the total's last byte.
  static int HttpServerSyncSendBigRsp(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                      const char* data, std::uint64_t total_size);

  // For the host, not for handlers. Limits count for connections accepted afterwards.
  static void SetLimits(const HttpServerLimits& limits);
  // Why the last start in this thread failed, one line.
  static std::string LastError();
  // Reads the certificates of all HTTPS listeners again; connections keep the ones they have. A pair that does not load
  // leaves the old one in place and makes the result non-zero.
  static int ReloadCertificates();
  // Requests delivered and not answered yet.
  static std::size_t OpenRequestCount();
  // Stops all listeners, waits until no request is open, at most this long, then closes every connection and ends the
  // library's threads. True when nothing had to be cut off. Starting a listener afterwards works. Not from a callback.
  static bool Shutdown(std::uint32_t drain_ms);
};

// Splits a multipart/form-data body. `content_type` names the boundary. False when there is none or it never occurs. A
// missing last boundary ends the last part with the body. At most `max_parts` parts are returned.
bool ParseMultipartForm(std::string_view content_type, std::string_view body, std::vector<FormPart>& parts,
                        std::size_t max_parts = 1000);

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_SERVER_H
