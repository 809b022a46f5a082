// Opens the log's file, which differs between operating systems. Internal to the logging library.
#ifndef TANSY_LOGGING_LOG_FILE_H
#define TANSY_LOGGING_LOG_FILE_H

#include <cstdio>
#include <string>

namespace logging::details {

// Opens a file (UTF-8 path) to append bytes to it; no child process inherits it. On failure it returns null and sets
// errno; otherwise the caller closes the file with fclose.
std::FILE* OpenForAppending(const std::string& path);

}  // namespace logging::details

#endif  // TANSY_LOGGING_LOG_FILE_H
