// Reads and writes local files by name, and explains their errors to people.
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

// The limit is this number, because the protocol counts an object's bytes in 32 bits.
inline constexpr std::uint64_t kLargestObject = 0xFFFFFFFF;

struct CloseStdioFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using StdioFile = std::unique_ptr<std::FILE, CloseStdioFile>;

// Converts a path in UTF-8 for the system's own functions.
std::filesystem::path NativePath(const std::string& path);
std::string Utf8Path(const std::filesystem::path& path);

// Gives the folder that holds `path`; it is "." for a mere name.
std::string FolderOf(const std::string& path);
// Gives the path of `name` in a folder.
std::string PathIn(const std::string& folder, const std::string& name);
// Gives the file behind a link at `path`, else `path`. Throws CFailure.
std::string FollowLink(const std::string& path);

// Says whether `path` leads to a folder.
bool IsFolder(const std::string& path);
// Says whether `path` leads to something that is neither a file nor a folder: a device, a pipe, a socket.
bool IsSpecialFile(const std::string& path);

// Explains the errno value `error` for the file or folder `path`.
CFailure FailureOfFile(const std::string& path, int error);

// Gives the size of a regular local file that fits into an object. Throws CFailure when there is no such file, when it
// is a folder or too large, or when its size cannot be read.
std::uint64_t LocalFileSize(const std::string& path);
// Throws CFailure.
StdioFile OpenForReading(const std::string& path);
// Makes the file, or empties an existing one. Throws CFailure.
StdioFile OpenForWriting(const std::string& path);
// Writes all of the bytes; `path` is for the message. Throws CFailure, with kExitNoSpace when the disk is full.
void WriteTo(std::FILE* file, const std::string& path, const char* data, std::size_t size);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_LOCAL_FILE_H
