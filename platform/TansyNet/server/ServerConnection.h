// One client's connection: it reads requests, delivers them and sends the answers.
#ifndef TANSY_NET_SERVER_SERVER_CONNECTION_H
#define TANSY_NET_SERVER_SERVER_CONNECTION_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "TansyNet/MemoryAccount.h"
#include "TansyNet/server/BodyBuffer.h"
#include "TansyNet/server/Endpoint.h"
#include "TansyNet/server/IServerConnection.h"
#include "TansyNet/server/LeastRate.h"
#include "TansyNet/server/RequestRecord.h"
#include "TansyNet/server/ServerRuntime.h"
#include "TansyNet/server/ServerSettings.h"
#include "TansyNet/server/ServerSocket.h"
#include "TansyNet/server/ServerTlsContext.h"
#include "TansyNet/server/ServerTransport.h"
#include "TansyNet/server/ServerWorker.h"
#include "TansyNet/wire/RequestParser.h"

namespace TansyNet {

// A connection serves one request at a time. Reading happens on its worker's thread. The thread that answers writes the
// answer, and the worker finishes it when the socket is full. The lock guards the whole state; it is never held while a
// callback runs or a thread waits for the client.
//
// While a request is being handled, nothing is read beyond it: the connection only watches whether the client leaves.
class CServerConnection final : public IServerConnection,
                                public ISocketEvents,
                                public std::enable_shared_from_this<CServerConnection> {
 public:
  // `tls` is null for plain HTTP.
  CServerConnection(CServerRuntime& runtime, CConnectionPlace place, std::shared_ptr<CServerWorker> worker,
                    std::shared_ptr<const Endpoint> origin, std::unique_ptr<CServerSocket> socket,
                    const TlsContextPtr& tls, const HttpServerLimits& limits);
  ~CServerConnection() override;
  CServerConnection(const CServerConnection&) = delete;
  CServerConnection& operator=(const CServerConnection&) = delete;

  // This runs on the worker's thread.
  void Start();
  void OnReadable() override;
  void OnWritable() override;
  bool IsPastDeadline(std::int64_t now) const override { return now >= deadline_.load(std::memory_order_relaxed); }
  void OnDeadline() override;

  // Threads: any.
  std::int64_t IdleSince() const override { return idle_since_.load(std::memory_order_relaxed); }
  bool CloseIfIdle() override;
  std::int64_t StandingSince() const override;
  void CutIfStanding() override;
  const Endpoint& Origin() const override { return *origin_; }
  bool Describe(std::int32_t handle, RunningRequest& request) override;
  void Abort() override;
  void CloseWhenIdle() override;
  int ClaimAnswer(std::int32_t handle, std::size_t size) override;
  int Answer(std::int32_t handle, const HttpResponse& response, std::string_view body) override;
  int AnswerHead(std::int32_t handle, const HttpResponse& response, std::uint64_t total_size) override;
  int AnswerInChunks(std::int32_t handle, const HttpResponse& response, std::string_view chunk,
                     std::uint64_t total_size) override;

 private:
  using Lock = std::unique_lock<std::mutex>;

  enum class Phase {
    kHandshake,
    kIdle,           // between two requests
    kHead,           // a request has begun
    kBody,           // a body of known length, delivered whole
    kChunks,         // a chunked body, delivered whole
    kUpload,         // a body delivered in pieces
    kHandling,       // all is delivered; the answer has not come yet
    kSending,        // the worker sends the rest of an answer
    kSendingChunks,  // AnswerInChunks has begun
    kDraining,       // the last answer is sent; bytes that still come are thrown away
    kClosed,
  };
  enum class Next { kGoOn, kWait };

  // A body on its way to its receiver, piece by piece.
  struct Upload {
    std::uint64_t left = 0;  // bytes of the body after the piece that is being filled
    CBodyBuffer filling;
    std::shared_ptr<CPieceStore> store = std::make_shared<CPieceStore>();
    std::shared_ptr<const std::string> ready;  // a full piece that waits for the token of the piece before it
    bool token_out = false;
    bool is_checked = false;  // a handler has seen the first piece
    bool is_chunked = false;  // the pieces are made of chunked_body_; `left` is 0 once the last chunk has come
  };
  struct PieceToken;

  // Counts the connections whose bodies wait for room: each holds the bytes that came before it was known to wait.
  struct Wait {
    Wait() { ++count; }
    ~Wait() { --count; }
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    inline static std::atomic<std::uint64_t> count{0};
    CMemoryWait memory;
  };

  static bool IsBusy(Phase phase);
  static bool MayGiveWay(Phase phase);
  static bool IsReading(Phase phase);
  void SetPhase(Phase phase);
  void SetDeadline(std::int64_t milliseconds);
  void SetDeadlineAt(std::int64_t time) { deadline_.store(time, std::memory_order_relaxed); }

  // These are in ServerConnection.cpp.
  void Advance(Lock& lock);
  Next Step(Lock& lock);
  Next StepHandshake();
  Next StepSending();
  Next StepWhileHandled();
  Next StepDrain();
  void WaitFor(IoStatus status);
  void NoteBrokenOff();
  void NoteFailure(const std::exception& problem) noexcept;
  void WatchReadable();
  void WatchWritable();
  void ContinueLater();
  // Tells the client that the connection ends, which matters over TLS, and closes it.
  void CloseGently();
  void Close();
  void EndIfIdle();
  bool HasMoreInput();
  // Returns true when nobody will wake the connection although it has something to read.
  bool IsUnwatched() const { return HasInput() || !read_watched_; }
  bool MustGoOnAfterCallback() const;

  // These are in ServerConnectionRequest.cpp.
  Next StepHead(Lock& lock);
  // Waits for room for a body: its bytes stay with the client until others have given some room back.
  Next AwaitMemory(MemoryUse use, std::size_t demand);
  void MemoryCame();
  // Sets the times within which a body has to come.
  void BeginBodyTime(std::uint64_t length);
  std::int64_t TimeFor(std::uint64_t bytes) const;
  void NoteBodyProgress(std::size_t bytes);
  bool BodyMayGoOn(std::int64_t now);
  Next StepBody(Lock& lock);
  Next StepChunks(Lock& lock);
  Next BeginBody(std::string_view input, Lock& lock);
  Next BeginChunks(std::string_view input);
  Next Deliver(Lock& lock);
  void EnterHandling();
  void SendContinue();
  IoStatus ReadInput(std::string_view& input);
  IoStatus ReadInto(CBodyBuffer& body);
  std::string_view Input() const { return std::string_view(input_).substr(input_begin_); }
  bool HasInput() const { return input_waiting_ || input_begin_ < input_.size(); }
  void KeepInput(std::string_view input);
  void TakeRequest(RequestHead& head);
  void Call(std::int32_t handle, HttpServerRecv& message);
  void CallOnLoan(std::int32_t handle, HttpServerRecv& message);

  // These are in ServerConnectionUpload.cpp.
  Next BeginUpload(std::uint64_t length, std::string_view input);
  Next StepUpload();
  bool IsStreamedWhenChunked() const;
  Next BeginChunkedUpload();
  Next StepChunkedUpload();
  Next EndChunkedPiece();
  void HandOver(std::shared_ptr<const std::string> piece);
  void StartPiece();
  MemoryUse PieceUse() const;
  void DeliverPiece();
  void RunPiece(std::int32_t handle, HttpServerRecv& message);
  void OnTokenGone(std::int32_t handle) noexcept;
  void TakeTokenBack(std::int32_t handle, Lock& lock);
  bool TakeLostTokenBack();
  bool UploadIsRead() const;

  // These are in ServerConnectionAnswer.cpp.
  Next Refuse(int status);
  Refusal MakeRefusal(int status);
  HttpServerRecv RequestSoFar();
  bool CheckHandle(std::int32_t handle) const { return handle_ == handle && handle != 0; }
  std::string TakeHead(const HttpResponse& response, std::uint64_t content_length);
  void ForgetRequest();
  std::string RequestId(const HttpResponse& response) const;
  void EndRecord(std::uint64_t unsent);
  int Send(std::string_view head, std::string_view body, std::int32_t timeout_ms);
  bool MakeRoom(CMemoryShare& room, std::size_t size);
  bool HasRoom(std::size_t size) const;
  IoStatus SendRest();
  IoStatus Write(std::string_view& first, std::string_view& second, std::size_t most);
  int WriteBlocking(std::string_view first, std::string_view second, std::int32_t timeout_ms, Lock& lock);
  bool SendAgain(Lock& lock);
  void FinishAnswer();
  void StartDraining();

  // These do not change.
  CServerRuntime& runtime_;
  const CConnectionPlace place_;
  const std::shared_ptr<CServerWorker> worker_;
  const std::shared_ptr<const Endpoint> origin_;
  const HttpServerLimits limits_;

  std::atomic<std::int64_t> deadline_;
  std::atomic<std::int64_t> idle_since_;
  std::atomic<std::int64_t> send_progress_;  // when the socket last took some of output_; kNever while there is none
  std::atomic<std::int32_t> lost_token_{0};  // a request whose token is gone, when there was no memory to say so

  mutable std::mutex mutex_;
  // Everything below is guarded by mutex_.
  CServerTransport transport_;
  Phase phase_;
  bool read_watched_ = false;
  bool write_watched_ = false;
  bool advancing_ = false;      // the worker is inside Advance, perhaps in a callback and without the lock
  bool input_waiting_ = false;  // the socket has bytes, and nobody watches for them
  bool peer_done_ = false;      // the client sends no more

  std::string input_;  // bytes read but not taken yet, from input_begin_ on; uses no memory while there are none
  std::size_t input_begin_ = 0;
  CMemoryShare input_share_{MemoryUse::kArriving};  // of a long head that has not come wholly
  bool input_is_short_ = false;                     // input_ was looked at and does not hold enough
  CRequestParser parser_;
  CBodyBuffer body_;
  CountedBytes chunked_body_;
  std::unique_ptr<Upload> upload_;
  HttpServerRecv request_;  // the request that is being read; empty before its head is known and after its answer
  CRequestRecord record_;   // what is counted of the request under way

  std::int64_t body_due_ = 0;  // when the body's next bytes must have come
  std::int64_t body_end_ = 0;  // when all of a body that nobody has checked must have come
  std::optional<Wait> memory_wait_;
  std::int64_t memory_due_ = 0;  // when a body that waits for room is refused
  CLeastRate rate_;              // rate of the body or the answer under way

  std::int32_t handle_ = 0;  // handle of the request that waits for its answer
  bool keep_alive_ = true;
  bool is_ending_ = false;  // the connection closes when no request is under way or has come
  bool http11_ = true;
  bool is_head_ = false;

  std::string output_;  // the part of an answer that the socket did not take
  std::size_t output_sent_ = 0;
  CMemoryShare output_share_{MemoryUse::kAnswers};
  std::int32_t send_timeout_ms_ = 0;
  std::uint64_t chunks_left_ = 0;
  bool chunk_under_way_ = false;
  std::uint64_t drain_left_ = 0;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_SERVER_CONNECTION_H
