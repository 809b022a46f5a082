// The host's HTTP library, server side.
//
// Listeners deliver every request to one plain function on one of the library's threads. The answer is sent later, from
// any thread, by the request's handle. Beast and Asio stay inside the library's sources.
#ifndef TANSY_NET_HTTP_SERVER_H
#define TANSY_NET_HTTP_SERVER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TansyNet/server/ServerSettings.h"
#include "TansyNet/wire/Headers.h"
#include "TansyNet/wire/MultipartForm.h"
#include "TansyNet/wire/ServerMessages.h"

namespace TansyNet {

// All members are static: listeners and connections belong to the process. Any thread may call any member.
class CHttpServer {
 public:
  // `handle` names the request; it is never reused while the process lives. `msg` may be moved from. Called on a thread
  // of the library, deliveries of one request one after another. Whole requests arrive on the threads that serve all
  // other clients too, so the callback hands them on and returns; pieces arrive on threads of their own and may wait.
  using RecvCallback = TansyNet::RecvCallback;

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
  // the library's threads, so the call never waits for a client. The copies count in MemoryAccount.h: when there is no
  // room for the rest of a large answer, the client gets 503 instead and the result is kNetNoMemory. Each request is
  // answered exactly once.
  static int HttpServerSyncSend(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                const char* data);
  // One chunk of an answer of `total_size` bytes; the first call sends the head too. Waits until the chunk is with the
  // operating system, at most `send_timeout_ms` without progress. The answer ends with the total's last byte.
  static int HttpServerSyncSendBigRsp(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                      const char* data, std::uint64_t total_size);

  // Whether a request waits for its answer and its client is still there, as far as the operating system has said.
  static bool IsRequestOpen(std::int32_t handle);

  // For the host: what "0.0.0.0" and "::" stand for in the starts that follow, each for the addresses of its family. A
  // family without any opens nothing and succeeds with handle 0. Empty (the default): all addresses of the machine.
  static void SetListenAddresses(const std::vector<std::string>& addresses);
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

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_SERVER_H
