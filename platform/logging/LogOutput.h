// The place where the bytes of finished lines go. Internal to the logging library.
#ifndef TANSY_LOGGING_LOG_OUTPUT_H
#define TANSY_LOGGING_LOG_OUTPUT_H

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace logging::details {

// A file, or standard error when the path is empty. Threads: one at a time.
class CLogOutput {
 public:
  explicit CLogOutput(std::string path) : path_(std::move(path)) {}

  // Threads: any.
  bool IsStandardError() const { return path_.empty(); }

  // Opens the file, also again; after a failure, the file that was open before stays in use.
  bool Open(std::string& error);

  // Writes whole lines, each with its line end, in one write of the operating system where it takes them. Returns how
  // many of them were written whole; after one that was not, the next one starts on a line of its own.
  std::size_t Write(std::string_view lines);

 private:
  struct CloseFile {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
  };
  using FilePointer = std::unique_ptr<std::FILE, CloseFile>;

  const std::string path_;
  FilePointer file_;
  bool torn_ = false;
};

}  // namespace logging::details

#endif  // TANSY_LOGGING_LOG_OUTPUT_H
