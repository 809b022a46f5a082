// Sends a local file through the S3 door.
#ifndef TANSY_CLI_S3_UPLOAD_H
#define TANSY_CLI_S3_UPLOAD_H

#include <cstdint>
#include <functional>
#include <string>

#include "S3Link.h"
#include "S3Path.h"
#include "Team.h"

namespace Tansy::Cli {

// What is not larger goes in one request; a larger file goes in parts of this size, of which only the last is smaller.
inline constexpr std::uint64_t kS3PartBytes = std::uint64_t{8} << 20;

struct S3UploadJob {
  std::string file;
  S3Path path;
  // Go on with the newest unfinished upload to this name of which all parts have the file's bytes, if there is one.
  // They are not sent again. After a failure the upload stays, so that the next call can go on with it.
  bool resume = false;
};

// Sends the file, the parts of a large one shared among the team, and returns its size. An object of this name is
// replaced in one step, when all bytes are there; a file that changes meanwhile replaces nothing. `progress` is told
// how many bytes of the file are done; any thread may call it, one at a time. Throws CFailure.
std::uint64_t UploadToS3(const CS3Link& link, const S3UploadJob& job, CTeam& team,
                         const std::function<void(std::uint64_t bytes)>& progress);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_UPLOAD_H
