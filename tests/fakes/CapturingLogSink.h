// Collects what is logged, so that tests can look for it.
#ifndef TANSY_TESTS_FAKES_CAPTURING_LOG_SINK_H
#define TANSY_TESTS_FAKES_CAPTURING_LOG_SINK_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "logging/Logging.h"

namespace Tansy::Tests {

// A record that owns its texts.
struct LogLine {
  int level = 0;
  std::string module;
  std::string format;
  std::string text;
  std::uint32_t repeats = 0;
  std::thread::id thread;  // which thread logged it
};

class CCapturingLogSink : public logging::ISink {
 public:
  void Write(const logging::Record& record) override {
    const std::lock_guard lock(mutex_);
    lines_.push_back(LogLine{record.level, std::string(record.module), std::string(record.format),
                             std::string(record.text), record.repeats, std::this_thread::get_id()});
  }

  std::vector<LogLine> Lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  // Lines whose literal format is `format`, in the order in which they were written.
  std::vector<LogLine> Find(std::string_view format) const {
    std::vector<LogLine> found = Lines();
    std::erase_if(found, [&](const LogLine& line) { return line.format != format; });
    return found;
  }

  std::size_t Count(std::string_view format) const { return Find(format).size(); }
  std::size_t Count(std::string_view format, int level) const {
    const std::vector<LogLine> found = Find(format);
    return static_cast<std::size_t>(
        std::count_if(found.begin(), found.end(), [=](const LogLine& line) { return line.level == level; }));
  }

  // The rendered text of the last line with this format; empty when there is none.
  std::string Text(std::string_view format) const {
    const std::vector<LogLine> found = Find(format);
    return found.empty() ? std::string() : found.back().text;
  }

  void Clear() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

// Captures every level as long as it lives, then restores what was there before.
class CLogCapture {
 public:
  explicit CLogCapture(int lowest_level = logging::kTrace)
      : sink_(std::make_shared<CCapturingLogSink>()),
        sink_before_(logging::SetSink(sink_)),
        level_before_(logging::SetLowestLevel(lowest_level)) {}
  ~CLogCapture() {
    logging::SetLowestLevel(level_before_);
    logging::SetSink(sink_before_);
  }
  CLogCapture(const CLogCapture&) = delete;
  CLogCapture& operator=(const CLogCapture&) = delete;

  CCapturingLogSink* operator->() const { return sink_.get(); }
  CCapturingLogSink& operator*() const { return *sink_; }

 private:
  std::shared_ptr<CCapturingLogSink> sink_;
  std::shared_ptr<logging::ISink> sink_before_;
  int level_before_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_CAPTURING_LOG_SINK_H
