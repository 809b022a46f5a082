// Moving bytes between local files, standard streams and objects.
#ifndef TANSY_CLI_TRANSFER_H
#define TANSY_CLI_TRANSFER_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "ObjectUrl.h"
#include "Settings.h"
#include "TansyCloudStorage/ObjectClient.h"

namespace Tansy::Cli {

struct CloseStdioFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using StdioFile = std::unique_ptr<std::FILE, CloseStdioFile>;

// Size of a regular local file. Throws CFailure: there is none, it is a folder, it cannot be asked.
std::uint64_t LocalFileSize(const std::string& path);
// Throws CFailure.
StdioFile OpenForReading(const std::string& path);
// Makes the file, or empties it. Throws CFailure.
StdioFile OpenForWriting(const std::string& path);
// Writes all of it; `path` is for the message. Throws CFailure, with kExitNoSpace when the disk is full.
void WriteTo(std::FILE* file, const std::string& path, const char* data, std::size_t size);

// Size of a stored object. Throws CFailure about `url`.
std::uint64_t ObjectSize(const Settings& settings, const ObjectUrl& url);

// A byte range as the command line gives it: from `begin` up to, not including, `end`.
struct ByteRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;  // 0: the object's end
};
// "A-B" or "A-". Throws CFailure with kExitUsage.
ByteRange ParseByteRange(const std::string& text);

// Fetches bytes of an object piece by piece. `take` gets each piece; `progress` the bytes so far. Throws CFailure.
void FetchPieces(const Settings& settings, const ObjectUrl& url, ByteRange range, std::uint64_t object_size,
                 const std::function<void(const char* data, std::size_t size)>& take,
                 const std::function<void(std::uint64_t bytes)>& progress);

// How an object is sent piece by piece.
struct PieceUpload {
  std::string key;                                    // empty: the module makes one
  std::uint64_t piece_size = std::uint64_t{8} << 20;  // of all pieces but the last
  std::uint64_t expected = 0;                         // the file's size; 0 with `bounded` false: read to the end
  bool bounded = false;                               // exactly `expected` bytes, fewer are a failure
};

// Reads `file` and sends it; returns the object's path and sets `sent` to its size. Throws CFailure.
std::string SendPieces(const Settings& settings, CloudStorage::CObjectClient& client, std::FILE* file,
                       const PieceUpload& upload, std::uint64_t& sent,
                       const std::function<void(std::uint64_t bytes)>& progress);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TRANSFER_H
