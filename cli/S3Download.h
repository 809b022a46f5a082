// Gets the bytes of an object through the S3 door.
#ifndef TANSY_CLI_S3_DOWNLOAD_H
#define TANSY_CLI_S3_DOWNLOAD_H

#include <optional>

#include "RangeFetch.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "Team.h"

namespace Tansy::Cli {

// Gives the object as it is now; nothing when there is none. Throws CFailure.
std::optional<RemoteObject> FindS3Object(const CS3Link& link, const S3Path& path);

// Fetches an object, the ranges of a large one shared among the team. All bytes are those of the version
// that `object` describes: an object that was replaced or removed meanwhile is a failure. What a broken connection left
// out is asked for again. An exception of `take` ends the download and reaches the caller. Throws CFailure.
void DownloadFromS3(const CS3Link& link, const S3Path& path, const RemoteObject& object, CTeam& team,
                    const TakeBytesAt& take);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_DOWNLOAD_H
