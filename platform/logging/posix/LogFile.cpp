#include "logging/LogFile.h"

namespace logging::details {

std::FILE* OpenForAppending(const std::string& path) {
  return std::fopen(path.c_str(), "abe");
}

}  // namespace logging::details
