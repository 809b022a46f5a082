#include "AccessLog.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <new>

#include "StartFailure.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/Operation.h"
#include "logging/StandardSink.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kQueueLines = 65536;
constexpr const char* kStandardOutput = "/dev/stdout";

bool IsSecretName(std::string_view name) {
  constexpr std::array<std::string_view, 6> kSecrets = {
      "token", "signature", "x-amz-signature", "credentials", "x-amz-security-token", "sign"};
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::find(kSecrets.begin(), kSecrets.end(), lower) != kSecrets.end();
}

struct Utc {
  explicit Utc(std::int64_t time)
      : day(std::chrono::floor<std::chrono::days>(std::chrono::sys_seconds(std::chrono::seconds(time)))),
        date(day),
        clock(std::chrono::sys_seconds(std::chrono::seconds(time)) - day) {}

  std::chrono::sys_days day;
  std::chrono::year_month_day date;
  std::chrono::hh_mm_ss<std::chrono::seconds> clock;
};

std::string Clock(const Utc& time) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%02d:%02d:%02d", static_cast<int>(time.clock.hours().count()),
                static_cast<int>(time.clock.minutes().count()), static_cast<int>(time.clock.seconds().count()));
  return text.data();
}

// As "22/Nov/2026:13:05:09 +0000".
std::string CombinedTime(std::int64_t seconds) {
  constexpr std::array kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const Utc time(seconds);
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%02u/%s/%04d:", static_cast<unsigned>(time.date.day()),
                kMonths.at(static_cast<unsigned>(time.date.month()) - 1), static_cast<int>(time.date.year()));
  return text.data() + Clock(time) + " +0000";
}

// As "2026-11-22T13:05:09Z".
std::string JsonTime(std::int64_t seconds) {
  const Utc time(seconds);
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT", static_cast<int>(time.date.year()),
                static_cast<unsigned>(time.date.month()), static_cast<unsigned>(time.date.day()));
  return text.data() + Clock(time) + "Z";
}

// A text between quotation marks, in which nothing ends them.
std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + '"';
}

std::string JsonText(std::string_view text) {
  std::string json = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7f) {
      // Bytes that are no ASCII stand for themselves, so that a line is JSON whatever a client sent.
      std::array<char, 8> escaped{};
      std::snprintf(escaped.data(), escaped.size(), "\\u%04x", byte);
      json += escaped.data();
      continue;
    }
    if (c == '"' || c == '\\') {
      json += '\\';
    }
    json += c;
  }
  return json + '"';
}

std::string OrDash(std::string_view text) {
  return text.empty() ? "-" : std::string(text);
}

std::string Milliseconds(std::int64_t nanoseconds) {
  constexpr double kPerMillisecond = 1e6;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.3f", static_cast<double>(nanoseconds) / kPerMillisecond);
  return text.data();
}

std::string Target(const TansyNet::FinishedRequest& request) {
  const std::string query = HarmlessQuery(request.query);
  return std::string(request.line) + (query.empty() ? "" : "?" + query);
}

std::string OperationText(const TansyNet::FinishedRequest& request) {
  return request.operation == nullptr ? "-"
                                      : std::string(request.operation->Service()) + "." + request.operation->Name();
}

// From its delivery until its handler began; 0 when none did.
std::int64_t Queued(const TansyNet::FinishedRequest& request) {
  return std::max<std::int64_t>(request.opened - request.delivered, 0);
}

std::int64_t Handled(const TansyNet::FinishedRequest& request) {
  return request.opened == 0 ? 0 : std::max<std::int64_t>(request.answered - request.opened, 0);
}

std::int64_t Sent(const TansyNet::FinishedRequest& request) {
  return request.answered == 0 ? 0 : std::max<std::int64_t>(request.ended - request.answered, 0);
}

std::string CombinedLine(const TansyNet::FinishedRequest& request, std::int64_t time) {
  return std::string(request.ip) + " - - [" + CombinedTime(time) + "] " + Quoted(Target(request) + " HTTP/1.1") + " " +
         std::to_string(request.status) + " " + std::to_string(request.bytes_out) + " " +
         Quoted(OrDash(request.referer)) + " " + Quoted(OrDash(request.user_agent)) + " id=" + OrDash(request.id) +
         " op=" + OperationText(request) + " in=" + std::to_string(request.bytes_in) +
         " ms=" + Milliseconds(request.ended) + " queue=" + Milliseconds(Queued(request)) +
         " handler=" + Milliseconds(Handled(request)) + " send=" + Milliseconds(Sent(request)) +
         (request.is_whole ? "" : " cut");
}

std::string JsonLine(const TansyNet::FinishedRequest& request, std::int64_t time) {
  return "{\"time\":" + JsonText(JsonTime(time)) + ",\"id\":" + JsonText(request.id) +
         ",\"peer\":" + JsonText(request.ip) + ",\"request\":" + JsonText(Target(request)) +
         ",\"operation\":" + JsonText(OperationText(request)) + ",\"status\":" + std::to_string(request.status) +
         ",\"bytes_in\":" + std::to_string(request.bytes_in) + ",\"bytes_out\":" + std::to_string(request.bytes_out) +
         ",\"whole\":" + (request.is_whole ? "true" : "false") + ",\"ms\":" + Milliseconds(request.ended) +
         ",\"queue_ms\":" + Milliseconds(Queued(request)) + ",\"handler_ms\":" + Milliseconds(Handled(request)) +
         ",\"send_ms\":" + Milliseconds(Sent(request)) + ",\"user_agent\":" + JsonText(request.user_agent) +
         ",\"referer\":" + JsonText(request.referer) + "}";
}

}  // namespace
}  // namespace details

std::string HarmlessQuery(std::string_view query) {
  std::string harmless;
  for (bool is_first = true; !query.empty(); is_first = false) {
    const std::size_t end = std::min(query.find('&'), query.size());
    const std::string_view pair = query.substr(0, end);
    const std::size_t equals = std::min(pair.find('='), pair.size());
    const std::string_view name = pair.substr(0, equals);
    harmless += is_first ? "" : "&";
    harmless += details::IsSecretName(name) ? std::string(name) + "=..." : std::string(pair);
    query.remove_prefix(std::min(end + 1, query.size()));
  }
  return harmless;
}

std::string AccessLine(EAccessLogFormat format, const TansyNet::FinishedRequest& request, std::int64_t time) {
  return format == EAccessLogFormat::kJson ? details::JsonLine(request, time) : details::CombinedLine(request, time);
}

struct CAccessLog::Impl {
  std::shared_ptr<logging::CStandardSink> sink;
  EAccessLogFormat format = EAccessLogFormat::kCombined;

  // The library calls a plain function.
  static std::mutex mutex;
  static std::shared_ptr<Impl> present;  // guarded by mutex

  static void Write(const TansyNet::FinishedRequest& request);
};

std::mutex CAccessLog::Impl::mutex;
std::shared_ptr<CAccessLog::Impl> CAccessLog::Impl::present;

// Nothing is thrown: a line for which there is no memory is lost.
void CAccessLog::Impl::Write(const TansyNet::FinishedRequest& request) {
  try {
    std::shared_ptr<Impl> log;
    {
      const std::scoped_lock lock(mutex);
      log = present;
    }
    if (log != nullptr) {
      log->sink->WriteLine(AccessLine(log->format, request, std::time(nullptr)));
    }
  } catch (const std::bad_alloc&) {
    return;
  }
}

CAccessLog::CAccessLog(const std::string& file, EAccessLogFormat format) : impl_(std::make_shared<Impl>()) {
  logging::StandardSinkOptions options;
  options.file_path = file == "-" ? details::kStandardOutput : file;
  options.queue_lines = details::kQueueLines;
  options.is_plain = true;
  std::string error;
  impl_->sink = logging::CStandardSink::Create(options, error);
  if (impl_->sink == nullptr) {
    throw CStartFailure(kExitFailed, "access log " + file + " cannot be opened: " + error);
  }
  impl_->format = format;
  {
    const std::scoped_lock lock(Impl::mutex);
    Impl::present = impl_;
  }
  TansyNet::CHttpServer::SetRequestWatch(&Impl::Write);
}

CAccessLog::~CAccessLog() {
  TansyNet::CHttpServer::SetRequestWatch(nullptr);
  const std::scoped_lock lock(Impl::mutex);
  Impl::present.reset();
}

std::string CAccessLog::Reopen() {
  std::string error;
  return impl_->sink->Reopen(error) ? "" : error;
}

std::uint64_t CAccessLog::DroppedLines() const {
  return impl_->sink->DroppedLines();
}

}  // namespace Tansy::Host
