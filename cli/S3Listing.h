#ifndef TANSY_CLI_S3_LISTING_H
#define TANSY_CLI_S3_LISTING_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Failure.h"
#include "S3Link.h"
#include "S3Path.h"

namespace Tansy::Cli {

struct RemoteObject {
  std::string key;
  std::uint64_t size = 0;
  std::string tag;       // the ETag without its quotes
  std::string modified;  // "2026-11-22T10:15:00.000Z"
};

struct RemoteBucket {
  std::string name;
  std::string created;
};

struct ListHandlers {
  std::function<void(const RemoteObject& object)> object;
  std::function<void(const std::string& prefix)> folder = [](const std::string&) {};
};

// Hands out all objects whose keys begin with the path's key, in the order of their keys, page by page. With a
// delimiter, keys that have it behind that beginning are handed out as one folder, that is, the key up to and with the
// delimiter. Throws CFailure; what the handlers throw ends the listing and reaches the caller.
void ListObjects(const CS3Link& link, const S3Path& path, const std::string& delimiter, const ListHandlers& handlers);

// Gives all of them, in the order of the bytes of their keys. Throws CFailure.
std::vector<RemoteObject> AllObjects(const CS3Link& link, const S3Path& path);

// The failure of a command for a whole folder, in which there is nothing.
CFailure NothingBelow(const S3Path& folder);

std::vector<RemoteBucket> ListS3Buckets(const CS3Link& link);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_LISTING_H
