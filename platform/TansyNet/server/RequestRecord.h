// What is known of a connection's present request, until it is counted.
#ifndef TANSY_NET_SERVER_REQUEST_RECORD_H
#define TANSY_NET_SERVER_REQUEST_RECORD_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "TansyNet/RequestWatch.h"
#include "TansyNet/wire/RequestNote.h"
#include "TansyNet/wire/RequestParser.h"

namespace TansyNet {

// Its memory is used again for the connection's next request. Threads: one at a time.
class CRequestRecord {
 public:
  // The watch is called when the request ends; it may be null, and then the texts that only it needs are not kept.
  // `tells_times` makes Times say something.
  void Begin(const RequestHead& head, RequestWatch watch, bool tells_times);
  // A request whose head could not be read.
  void BeginUnread();
  bool IsOpen() const { return began_ != 0; }

  // The note that goes with the request's messages.
  const std::shared_ptr<RequestNote>& Note();
  // A body, or a piece of it, is on its way to the handler.
  void Delivered(std::uint64_t bytes);
  // An answer begins. `id` names the request; it may be empty.
  void Answered(int status, std::uint64_t bytes, std::string_view id);
  bool IsWatched() const { return watch_ != nullptr; }
  // How long what came before the answer took, as Server-Timing says it: "receive;dur=0.02, queue;dur=0.1,
  // handler;dur=3.4" in milliseconds. Empty unless it was asked for.
  std::string Times() const;
  // Counts the request. `unsent` bytes of the answer's body did not leave.
  void End(std::string_view ip, std::uint64_t unsent);

  // What OpenRequests shows of it.
  void Describe(RunningRequest& request) const;

 private:
  bool IsTimed() const { return watch_ != nullptr || tells_times_; }
  COperation* Operation() const;
  FinishedRequest Finished(std::string_view ip, std::int64_t now) const;
  void Clear();

  RequestWatch watch_ = nullptr;
  bool tells_times_ = false;
  std::shared_ptr<RequestNote> note_;
  bool is_noted_ = false;  // the note is about this request
  std::string line_;
  std::string query_;
  std::string user_agent_;
  std::string referer_;
  std::string id_;
  int status_ = 0;
  std::uint64_t bytes_in_ = 0;
  std::uint64_t bytes_out_ = 0;
  std::int64_t began_ = 0;  // 0: there is no request
  std::int64_t delivered_ = 0;
  std::int64_t answered_ = 0;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_REQUEST_RECORD_H
