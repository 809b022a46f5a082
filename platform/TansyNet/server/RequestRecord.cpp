#include "TansyNet/server/RequestRecord.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "TansyNet/Operation.h"

namespace TansyNet {
namespace details {
namespace {

// Requests that no server took: what was sent was no request, was too large or too slow.
COperation refused_requests("http", "Refused");

std::string_view FieldOf(const Headers& headers, const char* name) {
  const auto found = headers.find(name);
  return found == headers.end() ? std::string_view() : std::string_view(found->second);
}

// From `begin`, when that and the time itself are known.
std::int64_t Since(std::int64_t begin, std::int64_t time) {
  return time == 0 ? 0 : std::max<std::int64_t>(time - begin, 0);
}

std::string DurationText(std::int64_t nanoseconds) {
  constexpr double kNanosecondsPerMillisecond = 1e6;
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), ";dur=%.3f", static_cast<double>(nanoseconds) / kNanosecondsPerMillisecond);
  return text.data();
}

}  // namespace
}  // namespace details

void CRequestRecord::Begin(const RequestHead& head, RequestWatch watch, bool tells_times) {
  Clear();
  began_ = SteadyNanoseconds();
  watch_ = watch;
  tells_times_ = tells_times;
  line_.assign(head.method).append(1, ' ').append(head.path);
  if (watch != nullptr) {
    query_ = head.query;
    user_agent_ = details::FieldOf(head.headers, "User-Agent");
    referer_ = details::FieldOf(head.headers, "Referer");
  }
}

void CRequestRecord::BeginUnread() {
  Clear();
  began_ = SteadyNanoseconds();
}

const std::shared_ptr<RequestNote>& CRequestRecord::Note() {
  if (is_noted_) {
    return note_;
  }
  // A handler of the request before may still hold the note, and write to it.
  if (note_ == nullptr || note_.use_count() > 1) {
    note_ = std::make_shared<RequestNote>();
  } else {
    note_->operation.store(nullptr, std::memory_order_relaxed);
    note_->opened.store(0, std::memory_order_relaxed);
  }
  note_->is_timed = IsTimed();
  is_noted_ = true;
  return note_;
}

void CRequestRecord::Delivered(std::uint64_t bytes) {
  bytes_in_ += bytes;
  if (IsTimed() && delivered_ == 0) {
    delivered_ = SteadyNanoseconds();
  }
}

void CRequestRecord::Answered(int status, std::uint64_t bytes, std::string_view id) {
  status_ = status;
  bytes_out_ = bytes;
  if (IsTimed()) {
    answered_ = SteadyNanoseconds();
    id_ = id;
  }
}

std::string CRequestRecord::Times() const {
  if (!tells_times_) {
    return {};
  }
  const std::int64_t opened = is_noted_ ? note_->opened.load(std::memory_order_relaxed) : 0;
  // What never came about took no time.
  const std::int64_t delivered = std::clamp(delivered_, began_, answered_);
  const std::int64_t handled = std::clamp(opened, delivered, answered_);
  return "receive" + details::DurationText(delivered - began_) + ", queue" +
         details::DurationText(handled - delivered) + ", handler" + details::DurationText(answered_ - handled);
}

void CRequestRecord::End(std::string_view ip, std::uint64_t unsent) {
  if (began_ == 0) {
    return;
  }
  const std::int64_t now = SteadyNanoseconds();
  const bool is_answered = status_ != 0;
  bytes_out_ -= std::min(unsent, bytes_out_);
  COperation* const known = Operation();
  COperation& operation = known == nullptr ? details::refused_requests : *known;
  operation.Count(is_answered ? status_ : kClientLeft, now - began_, bytes_in_, bytes_out_);
  if (watch_ != nullptr) {
    FinishedRequest request = Finished(ip, now);
    request.operation = known;
    request.is_whole = is_answered && unsent == 0;
    watch_(request);
  }
  Clear();
}

COperation* CRequestRecord::Operation() const {
  return is_noted_ ? note_->operation.load(std::memory_order_relaxed) : nullptr;
}

FinishedRequest CRequestRecord::Finished(std::string_view ip, std::int64_t now) const {
  FinishedRequest request;
  request.id = id_;
  request.ip = ip;
  request.line = line_;
  request.query = query_;
  request.user_agent = user_agent_;
  request.referer = referer_;
  request.status = status_ == 0 ? kClientLeft : status_;
  request.bytes_in = bytes_in_;
  request.bytes_out = bytes_out_;
  request.delivered = details::Since(began_, delivered_);
  request.opened = is_noted_ ? details::Since(began_, note_->opened.load(std::memory_order_relaxed)) : 0;
  request.answered = details::Since(began_, answered_);
  request.ended = now - began_;
  return request;
}

void CRequestRecord::Describe(RunningRequest& request) const {
  request.line = line_;
  request.operation = Operation();
  request.nanoseconds = SteadyNanoseconds() - began_;
  request.bytes_in = bytes_in_;
}

void CRequestRecord::Clear() {
  is_noted_ = false;
  line_.clear();
  query_.clear();
  user_agent_.clear();
  referer_.clear();
  id_.clear();
  status_ = 0;
  bytes_in_ = bytes_out_ = 0;
  began_ = delivered_ = answered_ = 0;
}

}  // namespace TansyNet
