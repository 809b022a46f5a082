// Reading a trace of file calls, and adding the test's own lines to it.
#ifndef TANSY_TESTS_PROVE_POWER_TRACE_H
#define TANSY_TESTS_PROVE_POWER_TRACE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "TraceFormat.h"

namespace prove {

struct Record {
  RecordHead head;
  std::string_view name;
  std::string_view other_name;
  std::string_view data;
};

// A whole trace in memory. Throws std::runtime_error when the file cannot be read or is cut short.
class CTrace {
 public:
  explicit CTrace(const std::string& path);
  ~CTrace();
  CTrace(const CTrace&) = delete;
  CTrace& operator=(const CTrace&) = delete;

  const std::vector<Record>& GetRecords() const { return records_; }

 private:
  const char* memory_ = nullptr;
  std::size_t size_ = 0;
  std::vector<Record> records_;  // they point into the memory
};

// Adds lines to a trace that a server's process writes meanwhile. Any thread.
class CTraceMarks {
 public:
  // Makes the file, empty.
  explicit CTraceMarks(const std::string& path);
  ~CTraceMarks();
  CTraceMarks(const CTraceMarks&) = delete;
  CTraceMarks& operator=(const CTraceMarks&) = delete;

  void Write(const std::string& line);

 private:
  int descriptor_ = -1;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_TRACE_H
