// Gets bytes of one version of an object from the server and hands them to a function.
#ifndef TANSY_CLI_DOWNLOAD_H
#define TANSY_CLI_DOWNLOAD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "ObjectUrl.h"
#include "ObjectVersion.h"
#include "Settings.h"

namespace Tansy::Cli {

// Covers the bytes from `begin` up to `end`; `end` itself is not included.
struct ByteRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

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

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_DOWNLOAD_H
