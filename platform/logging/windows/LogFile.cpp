#include "logging/LogFile.h"

#include <filesystem>

namespace logging::details {

std::FILE* OpenForAppending(const std::string& path) {
  return _wfopen(std::filesystem::path(std::u8string(path.begin(), path.end())).c_str(), L"abN");
}

}  // namespace logging::details
