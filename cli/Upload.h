// Sends a file or standard input as one object.
#ifndef TANSY_CLI_UPLOAD_H
#define TANSY_CLI_UPLOAD_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>

#include "ObjectUrl.h"
#include "Persistence.h"
#include "Settings.h"
#include "Team.h"

namespace Tansy::Cli {

// What is not larger goes in one request.
inline constexpr std::uint64_t kLargestWhole = std::uint64_t{8} << 20;
// The usual part of a larger file. Smaller parts take less memory on both sides, which stays in the processors' caches;
// parts of 8 MiB took half as long again.
inline constexpr std::uint64_t kUsualPart = std::uint64_t{2} << 20;

// Describes what is sent, and how.
struct UploadJob {
  ObjectUrl url;
  bool may_replace = false;                 // the caller chose the name: an object may have it already
  std::optional<std::uint64_t> expected;    // the file's size; without it everything that can be read is sent
  std::uint64_t part_size = kLargestWhole;  // size of all parts but the last; nothing smaller is cut
  bool verify = false;                      // read the object back and compare
  EPatience patience = EPatience::kNone;    // for the first request: kMuch when the server has answered before
};

// Is told about the progress. Any thread may call it, but only one call runs at a time.
struct UploadListener {
  std::function<void(std::uint64_t bytes)> progress;
  std::function<void(const std::string& line)> note;
};

// Sends what `file` holds from its current position; a file with an `expected` size begins at its start. Returns the
// object's size when the server has told it. Requests whose repetition does no harm are repeated when the connection
// breaks or the server is started again. The parts of a large file are shared among the team. Throws CFailure.
std::uint64_t Upload(const Settings& settings, std::FILE* file, const UploadJob& job, CTeam& team,
                     const UploadListener& listener);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_UPLOAD_H
