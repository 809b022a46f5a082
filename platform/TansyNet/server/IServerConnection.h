// A connection, as the classes that manage many connections see it.
#ifndef TANSY_NET_SERVER_I_SERVER_CONNECTION_H
#define TANSY_NET_SERVER_I_SERVER_CONNECTION_H

#include <cstdint>
#include <limits>
#include <string_view>

#include "TansyNet/RequestWatch.h"
#include "TansyNet/server/Endpoint.h"
#include "TansyNet/wire/ServerMessages.h"

namespace TansyNet {

class IServerConnection {
 public:
  virtual ~IServerConnection() = default;

  // This may be called only on the thread of the connection's worker.
  virtual bool IsPastDeadline(std::int64_t now) const = 0;
  virtual void OnDeadline() = 0;

  // Any thread. When it began to wait for a request, or for its client's end after the last answer, in
  // SteadyMilliseconds; kNever while it has something to do.
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
  virtual std::int64_t IdleSince() const = 0;
  // Returns false when a request has come in the meantime.
  virtual bool CloseIfIdle() = 0;
  // When the client of an answer that is being sent last took some of it; kNever while it goes on or there is none.
  virtual std::int64_t StandingSince() const = 0;
  // Closes, unless the client turns out to have read on.
  virtual void CutIfStanding() = 0;
  virtual const Endpoint& Origin() const = 0;
  // Tells what is known of a request under way. Returns false when the connection does not wait for its answer.
  virtual bool Describe(std::int32_t handle, RunningRequest& request) = 0;
  // Closes at once.
  virtual void Abort() = 0;
  // Closes as soon as no request is under way.
  virtual void CloseWhenIdle() = 0;

  // These are the answers of CHttpServer, with its results. Threads: any.
  virtual int ClaimAnswer(std::int32_t handle, std::size_t size) = 0;
  virtual int Answer(std::int32_t handle, const HttpResponse& response, std::string_view body) = 0;
  virtual int AnswerHead(std::int32_t handle, const HttpResponse& response, std::uint64_t total_size) = 0;
  virtual int AnswerInChunks(std::int32_t handle, const HttpResponse& response, std::string_view chunk,
                             std::uint64_t total_size) = 0;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_I_SERVER_CONNECTION_H
