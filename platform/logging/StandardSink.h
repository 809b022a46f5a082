// The log of a stand-alone host: a file or standard error, written by a thread of its own.
#ifndef TANSY_LOGGING_STANDARD_SINK_H
#define TANSY_LOGGING_STANDARD_SINK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "logging/Logging.h"

namespace logging {

struct StandardSinkOptions {
  std::string file_path;           // UTF-8; lines are appended; empty: standard error
  std::size_t queue_lines = 4096;  // lines that may wait for the writing thread (1 to 1,000,000)
  // How long a file or a pipe may take nothing before Flush and the destructor wait no longer.
  std::chrono::milliseconds patience{5000};
  // Lines are what WriteLine gets, without time and level in front of them; the sink takes no records.
  bool is_plain = false;
  std::size_t kept_lines = 0;  // so many of the last ones can be asked for (LinesAfter)
};

// Lines look like "2026-11-03 08:05:09.123Z error platform.LocalStorage [Tansy::...]text[file(5)]", times in UTC.
//
// A caller never waits for the disk: when the queue is full its oldest line is dropped, and before the next line
// another one says how many were dropped. Texts of clients cannot forge a line: control characters and bytes that are
// no UTF-8 are written escaped. Registered secrets are masked in everything that is written.
//
// Threads: any thread may call any member. The destructor writes what waits and ends the thread. A thread that waits
// for a pipe which nobody empties is left behind with its lines; the program should then end without destroying static
// objects.
class CStandardSink : public ISink {
 public:
  // Returns null when the file cannot be opened or the options make no sense; `error` then says why, in one line.
  static std::shared_ptr<CStandardSink> Create(const StandardSinkOptions& options, std::string& error);

  ~CStandardSink() override;
  CStandardSink(const CStandardSink&) = delete;
  CStandardSink& operator=(const CStandardSink&) = delete;

  void Write(const Record& record) override;
  // Adds a line of a plain sink. The text has no line end.
  void WriteLine(std::string_view text);
  // Waits until the operating system has the lines written so far, but not longer than `patience`.
  void Flush() override;

  // Masks every occurrence of this text from now on, also in lines that still wait. An empty text is ignored.
  void AddSecret(std::string_view secret);

  // Opens the file again under its name, after a log rotation has moved it away. Returns false when that fails; the old
  // file then stays in use. For standard error it returns true.
  bool Reopen(std::string& error);

  // Gives the kept lines whose number is above `number`, as they were written, without their line ends; the first line
  // of a process has number 1. `number` becomes that of the last line there was.
  std::vector<std::string> LinesAfter(std::uint64_t& number) const;

  // Counts the lines dropped since the start because the queue was full or the file could not be written.
  std::uint64_t DroppedLines() const;

 private:
  struct Impl;
  explicit CStandardSink(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;  // shared with the thread, which may be left behind
};

}  // namespace logging

#endif  // TANSY_LOGGING_STANDARD_SINK_H
