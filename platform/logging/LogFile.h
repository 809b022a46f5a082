// Opening the log's file, where operating systems differ. Internal to the logging library.
#ifndef TANSY_LOGGING_LOG_FILE_H
#define TANSY_LOGGING_LOG_FILE_H

#include <cstdio>
#include <string>

namespace logging::details {

// Opens a file (UTF-8 path) to append bytes to it; no child process gets it. Null, and errno set, on failure; otherwise
// for the caller to fclose.
std::FILE* OpenForAppending(const std::string& path);

}  // namespace logging::details

#endif  // TANSY_LOGGING_LOG_FILE_H
