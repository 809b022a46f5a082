#ifndef TANSY_CLI_BUCKET_LIST_H
#define TANSY_CLI_BUCKET_LIST_H

#include <cstdint>
#include <string>
#include <vector>

namespace Tansy::Cli {

class CServerLink;
struct Settings;

struct BucketRow {
  std::string name;
  std::string location;
  std::int64_t size = -1;  // size set when the bucket was made; -1 means no limit
};

// Gives all buckets by name. Throws CFailure.
std::vector<BucketRow> ListBuckets(const CServerLink& server);

// Gives the bucket to which uploads go: the bucket that the settings name, else the only bucket of the server. Throws
// CFailure when there are none or several.
std::string ChooseBucket(const Settings& settings);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_BUCKET_LIST_H
