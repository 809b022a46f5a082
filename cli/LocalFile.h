// Local files that are read and written by name, and what their errors mean to people.
#ifndef TANSY_CLI_LOCAL_FILE_H
#define TANSY_CLI_LOCAL_FILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "Failure.h"

namespace Tansy::Cli {

// The protocol counts an object's bytes in 32 bits.
inline constexpr std::uint64_t kLargestObject = 0xFFFFFFFF;

struct CloseStdioFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using StdioFile = std::unique_ptr<std::FILE, CloseStdioFile>;

// A path as the system's own functions take it; `path` is UTF-8.
std::filesystem::path NativePath(const std::string& path);
std::string Utf8Path(const std::filesystem::path& path);

// The folder that holds `path`, "." for a name alone.
std::string FolderOf(const std::string& path);
// The file behind a link at `path`, else `path`. Throws CFailure.
std::string FollowLink(const std::string& path);

// What the errno value `error` means for the file or folder `path`.
CFailure FailureOfFile(const std::string& path, int error);

// Size of a regular local file that fits into an object. Throws CFailure: there is none, it is a folder, it is too
// large, it cannot be asked.
std::uint64_t LocalFileSize(const std::string& path);
// Throws CFailure.
StdioFile OpenForReading(const std::string& path);
// Makes the file, or empties it. Throws CFailure.
StdioFile OpenForWriting(const std::string& path);
// Writes all of it; `path` is for the message. Throws CFailure, with kExitNoSpace when the disk is full.
void WriteTo(std::FILE* file, const std::string& path, const char* data, std::size_t size);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_LOCAL_FILE_H
