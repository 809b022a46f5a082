// The host's HTTP library, server side.
//
// Listeners deliver every request to one plain function on one of the library's threads. The answer is sent later, from
// any thread, by the request's handle. Beast and Asio stay inside the library's sources.
#ifndef TANSY_NET_HTTP_SERVER_H
#define TANSY_NET_HTTP_SERVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TansyNet/RequestWatch.h"
#include "TansyNet/server/ServerSettings.h"
#include "TansyNet/wire/Headers.h"
#include "TansyNet/wire/MultipartForm.h"
#include "TansyNet/wire/ServerMessages.h"

namespace TansyNet {

// All members are static: listeners and connections belong to the process. Any thread may call any member.
class CHttpServer {
 public:
  // Takes a request. `handle` names it and is never reused while the process lives. `msg` may be moved from. The
  // library calls this on one of its threads, and deliveries of one request come one after another. Whole requests
  // arrive on the threads that serve all other clients too, so the callback must hand them on and return, unless
  // IsThreadLent. Pieces arrive on threads of their own, where the callback may wait.
  using RecvCallback = TansyNet::RecvCallback;

  // Listens on `address` ("0.0.0.0", "::" or any local address; IPv6 listeners are v6-only so that both families share
  // a port). Port 0 opens nothing and succeeds with handle 0, and so does "::" on a machine without IPv6.
  // `style` says what becomes of uploads whose length is not announced, and how refusals look.
  // `reuse_address` allows a port on which connections of an earlier listener still linger.
  static int StartHttpServer(std::int32_t& handle, const std::string& address, std::uint16_t port,
                             RecvCallback callback, bool reuse_address, const ListenerStyle& style = {});
  static int StartHttpsServer(std::int32_t& handle, const std::string& address, std::uint16_t port,
                              const HttpsServer& tls, RecvCallback callback, const ListenerStyle& style = {});
  // Stops accepting and closes idle connections. Requests under way are answered, and their connections are closed
  // after that. Stopping handle 0 succeeds.
  static int StopServer(std::int32_t handle);

  // Answers a request. It writes from the calling thread. What the socket does not take at once is copied and sent by
  // the library's threads, so the call never waits for a client. The copies count in MemoryAccount.h: when there is no
  // room for the rest of a large answer, the client gets 503 instead and the result is kNetNoMemory. Each request is
  // answered exactly once.
  static int HttpServerSyncSend(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                const char* data);
  // Answers a HEAD request as a GET would be answered with `total_size` bytes, none of which is needed. A request of
  // another method is answered 500.
  static int HttpServerSendHead(std::int32_t handle, const HttpResponse& response, std::uint64_t total_size);
  // Claims the room of an answer whose bytes are still to be read from somewhere. The result is 0, or says why there
  // will be no answer: with kNetNoMemory the client has got its 503. A later HttpServerSyncSend of this request finds
  // its room.
  static int ClaimAnswer(std::int32_t handle, std::uint32_t size);
  // Sends one chunk of an answer of `total_size` bytes; the first call sends the head too. Waits until the operating
  // system has the chunk, but at most `send_timeout_ms` without progress. The answer ends with the last byte of the
  // total.
  static int HttpServerSyncSendBigRsp(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                      const char* data, std::uint64_t total_size);

  // Says whether a request waits for its answer and its client is still there, as far as the operating system has
  // reported.
  static bool IsRequestOpen(std::int32_t handle);

  // Says whether the callback that asks may take a while with its request: when it does, another thread serves the
  // clients of its thread after some milliseconds. It suits requests that are mostly quick, because handing one over
  // costs as much as running it. False outside a callback, and for a while after a callback that was not quick.
  static bool IsThreadLent();

  // Sets what "0.0.0.0" and "::" stand for in later starts: each stands for the given addresses of its family. A family
  // without any opens nothing and succeeds with handle 0. An empty list (the default) stands for all addresses of the
  // machine. This is for the host.
  static void SetListenAddresses(const std::vector<std::string>& addresses);
  // Takes over listening sockets that somebody else has opened, by their numbers. A later start at the address and port
  // of one of them serves it instead of opening one of its own, and stopping it leaves the port open. Returns in one
  // line why one of them cannot be used, or an empty text. This is for the host.
  static std::string OfferSockets(const std::vector<std::intptr_t>& sockets);
  // Names those that no start has asked for: "127.0.0.1 port 9700".
  static std::vector<std::string> UnusedSockets();
  // Sets limits for connections that are accepted afterwards. This is for the host, not for handlers.
  static void SetLimits(const HttpServerLimits& limits);
  // Says in one line why the last start in this thread failed.
  static std::string LastError();
  // Reads the certificates of all HTTPS listeners again; connections keep the certificates they have. When a pair does
  // not load, the old one stays in use and the result is not 0.
  static int ReloadCertificates();
  // Sets who is told about each request that ends; null, the default, stands for nobody. Every answer then names its
  // request in X-Request-Id. What it asks for is counted in any case (Operation.h).
  static void SetRequestWatch(RequestWatch watch);
  // Lets each answer say in Server-Timing how long its request took to arrive, to wait and to be handled. It is off at
  // first.
  static void SetServerTiming(bool is_on);
  // Gives the requests that are delivered and not answered yet, the oldest first.
  static std::vector<RunningRequest> RunningRequests();
  static ServerLoad Load();
  // Says whether every event loop takes a step within this time. A loop that does not serves nobody. It waits for the
  // loops, so it must not be called from a callback. True when no listener was ever started.
  static bool DoLoopsAnswer(std::chrono::milliseconds patience);
  // Counts the requests that are delivered and not answered yet.
  static std::size_t OpenRequestCount();
  // Stops all listeners and waits until no request is open, at most this long. Then it closes every connection and ends
  // the library's threads. Returns true when nothing had to be cut off. A listener may be started again afterwards. It
  // must not be called from a callback.
  static bool Shutdown(std::uint32_t drain_ms);
};

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_SERVER_H
