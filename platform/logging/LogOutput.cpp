#include "logging/LogOutput.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "logging/LogFile.h"

namespace logging::details {

bool CLogOutput::Open(std::string& error) {
  if (IsStandardError()) {
    return true;
  }
  errno = 0;
  FilePointer fresh(OpenForAppending(path_));
  if (!fresh) {
    error = "cannot open the log file " + path_ + ": " + std::generic_category().message(errno);
    return false;
  }
  // Without a buffer of its own, the file has everything that was handed to it, so that a crash loses no such line.
  std::setvbuf(fresh.get(), nullptr, _IONBF, 0);
  file_ = std::move(fresh);
  torn_ = false;
  return true;
}

std::size_t CLogOutput::Write(std::string_view lines) {
  std::FILE* const file = IsStandardError() ? stderr : file_.get();
  if (torn_ && std::fputc('\n', file) != EOF) {
    torn_ = false;
  }
  const std::string_view written = lines.substr(0, std::fwrite(lines.data(), 1, lines.size(), file));
  if (!written.empty()) {
    torn_ = !written.ends_with('\n');
  }
  const bool has_left = !IsStandardError() || std::fflush(file) == 0;
  std::clearerr(file);
  return has_left ? static_cast<std::size_t>(std::count(written.begin(), written.end(), '\n')) : 0;
}

}  // namespace logging::details
