// Bytes of one version of an object, from the server to whoever takes them.
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

// From `begin` up to, not including, `end`.
struct ByteRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// A range as the command line gives it, "A-B" or "A-"; the end of the latter is 0. Throws CFailure with kExitUsage.
ByteRange ParseByteRange(const std::string& text);
// The bytes of an object of `size` bytes that `asked` means; an end of 0 means the object's. Throws CFailure with
// kExitUsage about `url` when none of them are there.
ByteRange Within(ByteRange asked, std::uint64_t size, const ObjectUrl& url);

// Gets each piece of a download. What it throws ends the download and passes through.
using TakeBytes = std::function<void(const char* data, std::size_t size)>;

// Fetches a range of one version, in one answer where that works. When the connection breaks, the rest is asked for
// again, and `take` goes on where it was; a server that does not tell versions apart is not asked again. All bytes are
// those of `version`: an object that was replaced meanwhile is a failure. Throws CFailure about `url`.
void Fetch(const Settings& settings, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
           const TakeBytes& take);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_DOWNLOAD_H
