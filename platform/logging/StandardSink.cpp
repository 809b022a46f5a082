#include "logging/StandardSink.h"

#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "OSAL/Osal.h"
#include "logging/LogFile.h"
#include "logging/Text.h"

namespace logging {
namespace {

constexpr std::size_t kMaxQueueLines = 1000000;
constexpr std::chrono::seconds kFlushLimit{5};

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

spdlog::level::level_enum SpdlogLevel(int level) {
  return level <= kTrace      ? spdlog::level::debug
         : level == kNotable  ? spdlog::level::info
         : level == kDatabase ? spdlog::level::warn
                              : spdlog::level::err;
}

void Append(spdlog::memory_buf_t& buffer, std::string_view text) {
  buffer.append(text.data(), text.data() + text.size());
}

// The place where the bytes of finished lines go. Threads: one at a time.
class COutput {
 public:
  explicit COutput(std::string path) : path_(std::move(path)) {}

  // Opens the file, also again; after a failure, the file that was open before stays in use.
  bool Open(std::string& error) {
    if (path_.empty()) {
      return true;
    }
    errno = 0;
    FilePointer fresh(details::OpenForAppending(path_));
    if (!fresh) {
      error = "cannot open the log file " + path_ + ": " + std::generic_category().message(errno);
      return false;
    }
    // Without a buffer, a line is one write, so that a crash loses no finished line.
    std::setvbuf(fresh.get(), nullptr, _IONBF, 0);
    file_ = std::move(fresh);
    torn_ = false;
    return true;
  }

  // Returns false when the line could not be written whole; the next line then starts on a line of its own.
  bool WriteLine(std::string_view line) {
    if (path_.empty()) {
      return std::fwrite(line.data(), 1, line.size(), stderr) == line.size() && std::fflush(stderr) == 0;
    }
    if (torn_) {
      std::fputc('\n', file_.get());
    }
    torn_ = std::fwrite(line.data(), 1, line.size(), file_.get()) != line.size();
    std::clearerr(file_.get());
    return !torn_;
  }

 private:
  struct CloseFile {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
  };
  using FilePointer = std::unique_ptr<std::FILE, CloseFile>;

  const std::string path_;
  FilePointer file_;
  bool torn_ = false;
};

// The end of the queue on the writing thread.
class CLineSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit CLineSink(std::string path)
      : base_sink(std::make_unique<spdlog::pattern_formatter>("%Y-%m-%d %H:%M:%S.%eZ %v",
                                                              spdlog::pattern_time_type::utc, "\n")),
        output_(std::move(path)) {}

  bool Open(std::string& error) {
    const std::lock_guard lock(mutex_);
    return output_.Open(error);
  }

  void AddSecret(std::string_view secret) {
    const std::lock_guard lock(mutex_);
    if (!secret.empty() && std::find(secrets_.begin(), secrets_.end(), secret) == secrets_.end()) {
      secrets_.emplace_back(secret);
    }
  }

  // Sets the queue whose losses are reported. It is called before the first line.
  void Watch(spdlog::details::thread_pool* queue) { queue_ = queue; }

  std::uint64_t DroppedLines() const { return queue_->overrun_counter() + unwritten_.load(); }

  // Waits until `posted` lines have been taken from the queue or dropped by it.
  void WaitFor(std::uint64_t posted) {
    std::unique_lock lock(mutex_);
    const auto limit = std::chrono::steady_clock::now() + kFlushLimit;
    const auto settled = [&] { return taken_ + queue_->overrun_counter() >= posted; };
    // Nobody is notified of losses, so this wakes often.
    while (!settled() && std::chrono::steady_clock::now() < limit) {
      line_taken_.wait_for(lock, std::chrono::milliseconds(10));
    }
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    try {
      TellLosses(message.time);
      const std::string_view payload(message.payload.data(), message.payload.size());
      WriteLine(message.time, Masked(payload));
    } catch (const std::exception&) {
      ++unwritten_;  // memory ran out: this line is lost, and the next one reports it
    }
    ++taken_;
    line_taken_.notify_all();
  }

  void flush_() override {}

 private:
  std::string Masked(std::string_view payload) const {
    return details::Masked(payload, secrets_, payload.ends_with(kCutMark));
  }

  void TellLosses(spdlog::log_clock::time_point time) {
    const std::uint64_t dropped = DroppedLines();
    if (dropped != told_) {
      const std::uint64_t fresh = dropped - std::exchange(told_, dropped);
      WriteLine(time, "error platform.logging " + std::to_string(fresh) + " lines were lost");
    }
  }

  void WriteLine(spdlog::log_clock::time_point time, std::string_view text) {
    escaped_.clear();
    details::AppendEscaped(escaped_, text);
    spdlog::memory_buf_t line;
    formatter_->format(spdlog::details::log_msg(time, {}, {}, spdlog::level::off,
                                                spdlog::string_view_t(escaped_.data(), escaped_.size())),
                       line);
    if (!output_.WriteLine({line.data(), line.size()})) {
      ++unwritten_;
    }
  }

  COutput output_;
  std::vector<std::string> secrets_;
  std::string escaped_;  // kept to reuse its memory
  spdlog::details::thread_pool* queue_ = nullptr;
  std::uint64_t taken_ = 0;
  std::uint64_t told_ = 0;
  std::atomic<std::uint64_t> unwritten_{0};
  std::condition_variable line_taken_;
};

}  // namespace

struct CStandardSink::Impl {
  std::shared_ptr<CLineSink> lines;
  std::atomic<std::uint64_t> posted{0};
  // This is declared after the sink, because the queue's destructor lets its thread finish what waits.
  std::shared_ptr<spdlog::async_logger> logger;
  std::shared_ptr<spdlog::details::thread_pool> queue;
};

CStandardSink::CStandardSink(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

CStandardSink::~CStandardSink() = default;

std::shared_ptr<CStandardSink> CStandardSink::Create(const StandardSinkOptions& options, std::string& error) {
  if (options.queue_lines < 1 || options.queue_lines > kMaxQueueLines) {
    error = "the log queue must hold 1 to " + std::to_string(kMaxQueueLines) + " lines";
    return nullptr;
  }
  try {
    auto impl = std::make_unique<Impl>();
    impl->lines = std::make_shared<CLineSink>(options.file_path);
    if (!impl->lines->Open(error)) {
      return nullptr;
    }
    impl->queue =
        std::make_shared<spdlog::details::thread_pool>(options.queue_lines, 1, [] { OSAL_SetThreadName("tansy-log"); });
    impl->lines->Watch(impl->queue.get());
    impl->logger = std::make_shared<spdlog::async_logger>("tansy", impl->lines, impl->queue,
                                                          spdlog::async_overflow_policy::overrun_oldest);
    impl->logger->set_level(spdlog::level::trace);
    return std::shared_ptr<CStandardSink>(new CStandardSink(std::move(impl)));
  } catch (const std::exception& exception) {
    error = exception.what();
    return nullptr;
  }
}

void CStandardSink::Write(const Record& record) {
  spdlog::memory_buf_t payload;
  Append(payload, LevelName(record.level));
  Append(payload, " ");
  Append(payload, record.module);
  Append(payload, " ");
  if (record.repeats != 0) {
    // The count stands before the text, because a cut text must be at the end of the line for the cut to be seen.
    Append(payload, "(repeated " + std::to_string(record.repeats) + " times) ");
  }
  Append(payload, record.text);
  const spdlog::string_view_t text(payload.data(), payload.size());
  const spdlog::details::log_msg message(spdlog::source_loc{}, impl_->logger->name(), SpdlogLevel(record.level), text);
  // A line is counted once it is in the queue, because Flush must not wait for a line that found no memory.
  impl_->queue->post_log(std::shared_ptr<spdlog::async_logger>(impl_->logger), message,
                         spdlog::async_overflow_policy::overrun_oldest);
  ++impl_->posted;
}

void CStandardSink::Flush() {
  impl_->lines->WaitFor(impl_->posted.load());
}

void CStandardSink::AddSecret(std::string_view secret) {
  impl_->lines->AddSecret(secret);
}

bool CStandardSink::Reopen(std::string& error) {
  return impl_->lines->Open(error);
}

std::uint64_t CStandardSink::DroppedLines() const {
  return impl_->lines->DroppedLines();
}

}  // namespace logging
