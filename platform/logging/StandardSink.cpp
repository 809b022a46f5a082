#include "logging/StandardSink.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "OSAL/Osal.h"
#include "logging/LineQueue.h"
#include "logging/LogOutput.h"
#include "logging/Text.h"

namespace logging {
namespace {

constexpr std::size_t kMaxQueueLines = 1000000;
// Lines are handed to the operating system when this much has gathered, so that a long queue is not kept twice.
constexpr std::size_t kBytesPerWrite = std::size_t{256} * 1024;

std::string_view LevelName(int level) {
  switch (level) {
    case kTrace:
      return "trace";
    case kNotable:
      return "notable";
    case kDatabase:
      return "database";
    default:
      return level < kTrace ? "debug" : "error";
  }
}

// Writes times as "2026-11-03 08:05:09.123Z". The text of a second is made once.
class CTimeText {
 public:
  void Append(std::string& out, std::chrono::system_clock::time_point time) {
    using std::chrono::floor;
    const auto second = floor<std::chrono::seconds>(time);
    if (second != second_ || text_.empty()) {
      second_ = second;
      Render();
    }
    const auto part = static_cast<int>(floor<std::chrono::milliseconds>(time - second).count());
    out += text_;
    out += static_cast<char>('0' + part / 100);
    out += static_cast<char>('0' + part / 10 % 10);
    out += static_cast<char>('0' + part % 10);
    out += 'Z';
  }

 private:
  void Render() {
    const auto day = std::chrono::floor<std::chrono::days>(second_);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(second_ - day);
    char text[64];
    const int size = std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d.", static_cast<int>(date.year()),
                                   static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                                   static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                                   static_cast<int>(clock.seconds().count()));
    text_.assign(text, static_cast<std::size_t>(std::max(size, 0)));
  }

  std::chrono::sys_seconds second_{};
  std::string text_;
};

}  // namespace

struct CStandardSink::Impl {
  explicit Impl(const StandardSinkOptions& options)
      : patience(options.patience),
        is_plain(options.is_plain),
        kept_lines(options.kept_lines),
        queue(options.queue_lines),
        output(options.file_path) {}

  void Run();
  void WriteBatch(details::CLineBatch& batch, std::uint64_t dropped);
  void TellLosses(details::CLineBatch::Time time, std::uint64_t lost);
  void Render(details::CLineBatch::Time time, std::string_view text);
  void WriteRendered();
  void Keep(std::string_view line);

  const std::chrono::milliseconds patience;
  const bool is_plain;
  const std::size_t kept_lines;
  details::CLineQueue queue;
  std::atomic<std::uint64_t> unwritten{0};  // lines that could not be written

  std::mutex mutex;  // held while lines are made ready and written; guards what follows
  details::CLogOutput output;
  std::vector<std::string> secrets;

  // Only the thread uses these.
  CTimeText time_text;
  std::string rendered;  // lines that are ready to be written
  std::size_t rendered_lines = 0;
  std::uint64_t told = 0;  // losses that the log itself has told

  std::mutex kept_mutex;  // held for a moment only, also while a line is waiting to be written; guards what follows
  std::deque<std::string> kept;
  std::uint64_t kept_last = 0;  // the number of the last of them

  std::thread thread;
};

void CStandardSink::Impl::Run() {
  OSAL_SetThreadName("tansy-log");
  details::CLineBatch batch;
  std::uint64_t dropped = 0;
  while (queue.Take(batch, dropped)) {
    const std::lock_guard lock(mutex);
    WriteBatch(batch, dropped);
  }
}

void CStandardSink::Impl::WriteBatch(details::CLineBatch& batch, std::uint64_t dropped) {
  details::CLineBatch::Time time;
  std::string_view text;
  while (batch.Next(time, text)) {
    TellLosses(time, dropped + unwritten.load());
    Render(time, text);
    if (rendered.size() >= kBytesPerWrite) {
      WriteRendered();
    }
  }
  WriteRendered();
}

// A report that cannot be written is made again before the next line.
void CStandardSink::Impl::TellLosses(details::CLineBatch::Time time, std::uint64_t lost) {
  if (lost == told || is_plain) {
    return;
  }
  WriteRendered();
  Render(time, "error platform.logging " + std::to_string(lost - told) + " lines were lost");
  if (output.Write(rendered) == 1) {
    told = lost;
  }
  rendered.clear();
  rendered_lines = 0;
}

// Appends one line to those that are ready. When memory runs out, this line is lost, and a later batch tells it.
void CStandardSink::Impl::Render(details::CLineBatch::Time time, std::string_view text) {
  const std::size_t before = rendered.size();
  try {
    if (!is_plain) {
      time_text.Append(rendered, time);
      rendered += ' ';
    }
    details::AppendEscaped(rendered, details::Masked(text, secrets, text.ends_with(kCutMark)));
    Keep(std::string_view(rendered).substr(before));
    rendered += '\n';
    ++rendered_lines;
  } catch (const std::exception&) {
    rendered.resize(before);
    ++unwritten;
  }
}

void CStandardSink::Impl::Keep(std::string_view line) {
  if (kept_lines == 0) {
    return;
  }
  std::string text(line);
  const std::lock_guard lock(kept_mutex);
  kept.push_back(std::move(text));
  ++kept_last;
  if (kept.size() > kept_lines) {
    kept.pop_front();
  }
}

void CStandardSink::Impl::WriteRendered() {
  if (rendered_lines > 0) {
    unwritten += rendered_lines - output.Write(rendered);
  }
  rendered.clear();
  rendered_lines = 0;
}

CStandardSink::CStandardSink(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

CStandardSink::~CStandardSink() {
  if (!impl_->thread.joinable()) {
    return;
  }
  if (impl_->queue.Stop(impl_->patience)) {
    impl_->thread.join();
  } else {
    impl_->thread.detach();
  }
}

std::shared_ptr<CStandardSink> CStandardSink::Create(const StandardSinkOptions& options, std::string& error) {
  if (options.queue_lines < 1 || options.queue_lines > kMaxQueueLines) {
    error = "the log queue must hold 1 to " + std::to_string(kMaxQueueLines) + " lines";
    return nullptr;
  }
  try {
    const auto impl = std::make_shared<Impl>(options);
    if (!impl->output.Open(error)) {
      return nullptr;
    }
    std::shared_ptr<CStandardSink> sink(new CStandardSink(impl));
    impl->thread = std::thread([impl] { impl->Run(); });
    return sink;
  } catch (const std::exception& exception) {
    error = exception.what();
    return nullptr;
  }
}

void CStandardSink::Write(const Record& record) {
  // The count stands before the text, because a cut text must be at the end of the line for the cut to be seen.
  std::string repeats;
  if (record.repeats != 0) {
    repeats = "(repeated " + std::to_string(record.repeats) + " times) ";
  }
  impl_->queue.Push({LevelName(record.level), " ", record.module, " ", repeats, record.text});
}

void CStandardSink::WriteLine(std::string_view text) {
  impl_->queue.Push({text});
}

void CStandardSink::Flush() {
  impl_->queue.WaitUntilWritten(impl_->patience);
}

void CStandardSink::AddSecret(std::string_view secret) {
  const std::lock_guard lock(impl_->mutex);
  auto& secrets = impl_->secrets;
  if (!secret.empty() && std::find(secrets.begin(), secrets.end(), secret) == secrets.end()) {
    secrets.emplace_back(secret);
  }
}

bool CStandardSink::Reopen(std::string& error) {
  if (impl_->output.IsStandardError()) {
    return true;  // without the lock, because the thread may be waiting for whoever reads it
  }
  const std::lock_guard lock(impl_->mutex);
  return impl_->output.Open(error);
}

std::vector<std::string> CStandardSink::LinesAfter(std::uint64_t& number) const {
  const std::lock_guard lock(impl_->kept_mutex);
  const std::uint64_t newer = impl_->kept_last - std::min(number, impl_->kept_last);
  const auto count = static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(newer, impl_->kept.size()));
  number = impl_->kept_last;
  return {impl_->kept.end() - count, impl_->kept.end()};
}

std::uint64_t CStandardSink::DroppedLines() const {
  return impl_->queue.Dropped() + impl_->unwritten.load();
}

}  // namespace logging
