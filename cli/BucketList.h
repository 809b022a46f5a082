#ifndef TANSY_CLI_BUCKET_LIST_H
#define TANSY_CLI_BUCKET_LIST_H

#include <cstdint>
#include <string>
#include <vector>

namespace Tansy::Cli {

class CServerLink;

struct BucketRow {
  std::string name;
  std::string location;
  std::int64_t size = -1;  // as it was set when the bucket was made; -1: no limit
};

// All buckets by name. Throws CFailure.
std::vector<BucketRow> ListBuckets(const CServerLink& server);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_BUCKET_LIST_H
