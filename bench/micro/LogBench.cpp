// Lines of the log, as call sites write them.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "logging/Logging.h"
#include "logging/StandardSink.h"

namespace {

// The log of a tansyd, in a file that forgets.
class CLog {
 public:
  explicit CLog(unsigned repeat_window_ms) {
    logging::StandardSinkOptions options;
    options.file_path = "/dev/null";
    std::string error;
    before_ = logging::SetSink(logging::CStandardSink::Create(options, error));
    logging::SetRepeatWindow(repeat_window_ms);
  }
  ~CLog() {
    logging::Flush();
    logging::SetSink(before_);
    logging::SetRepeatWindow(0);
  }

 private:
  std::shared_ptr<logging::ISink> before_;
};

// Below the lowest level.
void FilteredLine(benchmark::State& state) {
  const CLog log(0);
  int number = 0;
  for (auto _ : state) {
    TANSY_LOG(logging::kTrace, "bench", "[%s]request %d of %s[%s(%d)]", ++number, "somebody");
  }
}
BENCHMARK(FilteredLine);

void WrittenLine(benchmark::State& state) {
  const CLog log(0);
  int number = 0;
  for (auto _ : state) {
    TANSY_LOG(logging::kNotable, "bench", "[%s]download file[%s:%d] success.[%s(%d)]", "bench", ++number);
  }
}
BENCHMARK(WrittenLine)->UseRealTime();

// One of many equal lines of a call site: it is counted, not written.
void RepeatedLine(benchmark::State& state) {
  const CLog log(1000);
  for (auto _ : state) {
    TANSY_LOG(logging::kError, "bench", "[%s]no such key[%s].[%s(%d)]", "object-0004711.jpg");
  }
}
BENCHMARK(RepeatedLine)->UseRealTime();

// The same without an argument, so that nothing has to be rendered to see that it is equal.
void RepeatedFixedLine(benchmark::State& state) {
  const CLog log(1000);
  for (auto _ : state) {
    TANSY_LOG(logging::kError, "bench", "[%s]no such key.[%s(%d)]");
  }
}
BENCHMARK(RepeatedFixedLine)->UseRealTime();

}  // namespace
