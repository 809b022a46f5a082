// Gets bytes of one version of an object from the server and hands them to a function.
#ifndef TANSY_CLI_DOWNLOAD_H
#define TANSY_CLI_DOWNLOAD_H

#include <cstdint>
#include <string>

#include "ByteRange.h"
#include "ObjectUrl.h"
#include "ObjectVersion.h"
#include "RangeFetch.h"
#include "Settings.h"
#include "Team.h"

namespace Tansy::Cli {

// Reads a range as the command line gives it, "A-B" or "A-"; the end of the latter is 0. Throws CFailure with
// kExitUsage.
ByteRange ParseByteRange(const std::string& text);
// Gives the bytes that `asked` means in an object of `size` bytes; an end of 0 means the object's end. Throws CFailure
// with kExitUsage about `url` when none of them are there.
ByteRange Within(ByteRange asked, std::uint64_t size, const ObjectUrl& url);

// Fetches a range of one version, in one answer where that works. When the connection breaks, the rest is requested
// again, and `take` goes on where it was; but a server that does not identify versions is not asked again. All bytes
// are those of `version`: an object that was replaced meanwhile is a failure. Throws CFailure about `url`.
void Fetch(const Settings& settings, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
           const TakeBytes& take);

// Does the same, the pieces of a large range shared among the team; but a server that does not identify versions is
// asked for everything at once.
void FetchInPieces(const Settings& settings, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
                   CTeam& team, const TakeBytesAt& take);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_DOWNLOAD_H
