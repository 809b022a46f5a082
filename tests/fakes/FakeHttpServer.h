// Stands in for the HTTP library's server: listeners are recorded, requests are delivered by the test, answers are
// kept.
//
//   auto& http = CFakeHttpServer::Instance();
//   http.Reset();
//   const std::int32_t handle = http.Deliver(&CObjectServer::RecvMsgCallBack, request);
//   const FakeAnswer answer = http.WaitForAnswer(handle);
//
// A program that compiles FakeHttpServer.cpp in uses it instead of the real TansyNet::CHttpServer.
#ifndef TANSY_TESTS_FAKES_FAKE_HTTP_SERVER_H
#define TANSY_TESTS_FAKES_FAKE_HTTP_SERVER_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "TansyNet/HttpServer.h"

namespace Tansy::Tests {

struct FakeListener {
  std::int32_t handle = 0;
  bool https = false;
  std::string address;
  std::uint16_t port = 0;
  bool reuse_address = false;  // HTTP only
  TansyNet::HttpsServer tls;   // HTTPS only
  TansyNet::CHttpServer::RecvCallback callback = nullptr;
  TansyNet::ListenerStyle style;
  bool open = true;
};

// What a client saw.
struct FakeAnswer {
  TansyNet::HttpResponse response;
  std::string body;
  std::uint64_t body_size = 0;        // of all bytes sent, also those that the test took itself
  std::uint64_t total_size = 0;       // as announced in the head
  std::vector<std::uint32_t> chunks;  // sizes of the chunks of a big answer
  int attempts = 0;                   // answers given to this request; one is right
  bool cut = false;                   // a second answer came after the head: the connection was closed

  // False when nothing was answered (in time).
  bool IsThere() const { return attempts > 0; }
  bool IsWhole() const { return IsThere() && !cut && body_size == total_size; }
};

// Threads: any.
class CFakeHttpServer {
 public:
  static CFakeHttpServer& Instance();

  // Forgets listeners, answers and failures. Handles go on counting: none is ever used twice.
  void Reset();

  // Listeners. Calls are written down as "start 0.0.0.0:9700", "start https [::]:9743", "stop 3".
  std::vector<FakeListener> Listeners() const;
  std::vector<std::string> Calls() const;
  void ForgetCalls();
  // The start (stop) of this number, counted from 1 from now on, fails with `error`.
  void FailStart(int number, int error);
  void FailStop(int number, int error);
  // Makes starts succeed with handle 0, as they do for port 0.
  void OpenNothing(bool nothing);

  // Sends fail with `error` (0: they work again) after this many more have succeeded.
  void FailSends(int error, int after = 0);

  // Whether there is room for large answers. Without it they get 503 when their room is claimed.
  void HaveRoom(bool room);

  // Whether the threads that deliver requests are lent to their callbacks. They are not, unless a test says so.
  void LendThreads(bool lend) { lends_threads_ = lend; }
  bool LendsThreads() const { return lends_threads_; }

  // The chunks of big answers go to `take` instead of into the answers' bodies. Null: they are kept again.
  void TakeChunks(std::function<void(std::string_view chunk)> take);

  std::int32_t NewHandle();
  // Hands a whole request to `callback` and returns its handle.
  std::int32_t Deliver(TansyNet::CHttpServer::RecvCallback callback, TansyNet::HttpServerRecv msg);
  void DeliverAs(std::int32_t handle, TansyNet::CHttpServer::RecvCallback callback, TansyNet::HttpServerRecv msg);

  // Delivers `body` in pieces of these sizes (the last one takes the rest) as the library does: a piece follows when
  // the token of the one before is gone, and none follows an answer. Returns how many pieces were delivered.
  std::size_t Stream(std::int32_t handle, TansyNet::CHttpServer::RecvCallback callback, TansyNet::HttpServerRecv msg,
                     std::string_view body, const std::vector<std::size_t>& pieces);
  // One piece of a stream; waits until its token is gone unless told not to.
  void DeliverPiece(std::int32_t handle, TansyNet::CHttpServer::RecvCallback callback, TansyNet::HttpServerRecv msg,
                    std::string_view piece, bool last, bool wait = true);

  // Waits for the answer, a big one to its end or its breaking off.
  FakeAnswer WaitForAnswer(std::int32_t handle, int timeout_ms = 10000);
  // What there is now.
  FakeAnswer AnswerOf(std::int32_t handle) const;
  // Says that the client of a request is gone.
  void GoAway(std::int32_t handle);
  // Whether a request waits for its answer and its client is there.
  bool IsOpen(std::int32_t handle) const;
  bool IsAnswered(std::int32_t handle) const { return AnswerOf(handle).IsThere(); }

  // The module calls these in place of the library.
  int Start(FakeListener listener, std::int32_t& handle);
  int Stop(std::int32_t handle);
  int Claim(std::int32_t handle);
  int Send(std::int32_t handle, const TansyNet::HttpResponse& response, std::string_view data);
  int SendHead(std::int32_t handle, const TansyNet::HttpResponse& response, std::uint64_t total_size);
  int SendChunk(std::int32_t handle, const TansyNet::HttpResponse& response, std::string_view data,
                std::uint64_t total_size);

 private:
  int Send(std::int32_t handle, const TansyNet::HttpResponse& response, std::string_view data,
           std::uint64_t total_size);
  CFakeHttpServer() = default;

  bool IsDone(std::int32_t handle) const;
  int SendResult();

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::int32_t next_handle_ = 1;
  std::vector<FakeListener> listeners_;
  std::vector<std::string> calls_;
  int starts_until_failure_ = 0;
  int start_error_ = 0;
  int stops_until_failure_ = 0;
  int stop_error_ = 0;
  bool open_nothing_ = false;
  int send_error_ = 0;
  int sends_before_error_ = 0;
  bool has_room_ = true;
  std::atomic<bool> lends_threads_{false};
  std::function<void(std::string_view)> take_chunk_;
  std::map<std::int32_t, FakeAnswer> answers_;
  std::set<std::int32_t> gone_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_FAKE_HTTP_SERVER_H
