// Gets bytes of one version of an object from the server and hands them to a function.
#ifndef TANSY_CLI_DOWNLOAD_H
#define TANSY_CLI_DOWNLOAD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "ByteRange.h"
#include "ObjectUrl.h"
#include "ObjectVersion.h"
#include "Settings.h"

namespace Tansy::Cli {

// Reads a range as the command line gives it, "A-B" or "A-"; the end of the latter is 0. Throws CFailure with
// kExitUsage.
ByteRange ParseByteRange(const std::string& text);
// Gives the bytes that `asked` means in an object of `size` bytes; an end of 0 means the object's end. Throws CFailure
// with kExitUsage about `url` when none of them are there.
ByteRange Within(ByteRange asked, std::uint64_t size, const ObjectUrl& url);

// Receives each piece of a download. An exception of it ends the download and reaches the caller.
using TakeBytes = std::function<void(const char* data, std::size_t size)>;

// Fetches a range of one version, in one answer where that works. When the connection breaks, the rest is requested
// again, and `take` goes on where it was; but a server that does not identify versions is not asked again. All bytes
// are those of `version`: an object that was replaced meanwhile is a failure. Throws CFailure about `url`.
void Fetch(const Settings& settings, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
           const TakeBytes& take);

// Receives a piece of a download and its place in the object. Several threads call it at once, for different places.
using TakeBytesAt = std::function<void(const char* data, std::size_t size, std::uint64_t offset)>;

// Does the same, a large range in pieces of which `getters` come at the same time; but a server that does not identify
// versions is asked for everything at once.
void FetchInPieces(const Settings& settings, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
                   std::size_t getters, const TakeBytesAt& take);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_DOWNLOAD_H
