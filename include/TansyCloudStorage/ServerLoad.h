// What the servers have and have to do, for a host that shows it to people.
// Threads: any, also while requests run. Errors: nothing throws; false is a failure, and the log says why.
#ifndef TANSY_CLOUD_STORAGE_SERVER_LOAD_H
#define TANSY_CLOUD_STORAGE_SERVER_LOAD_H

#include <cstdint>
#include <string>
#include <vector>

#include "TansyCloudStorage/Export.h"

namespace Tansy::CloudStorage {

struct ServerLoad {
  std::uint64_t tasks = 0;              // requests that wait for a thread of the message loop, and those that run there
  std::uint64_t most_tasks = 0;         // at this number requests are refused
  std::uint64_t waiting_tasks = 0;      // of `tasks`, those that no thread has begun yet
  std::uint64_t computing_threads = 0;  // threads of the loop that run a request and wait for nothing
  std::uint64_t blocked_threads = 0;    // those that wait for storage, the database or a lock
  std::uint64_t buckets = 0;            // in the catalogue
  std::uint64_t objects = 0;            // of all buckets
  std::uint64_t object_bytes = 0;       // of all objects
  std::uint64_t open_uploads = 0;       // upload tasks of the object protocol that have not ended
  std::uint64_t sweeps = 0;             // looks for uploads that everybody has forgotten, since the start
  std::uint64_t swept_uploads = 0;      // those that were found and removed
};

// Counts them. The figures are taken one after another while requests go on. It takes some microseconds per bucket.
TANSY_CLOUD_STORAGE_API bool GetServerLoad(ServerLoad& load);

struct BucketUsage {
  std::string name;  // as requests call the bucket
  std::uint64_t objects = 0;
  std::uint64_t bytes = 0;  // of its objects; uploads that have not ended do not count
};

// Appends what each bucket has, in the order of their names. Nothing is waited for: what other processes have changed
// in a shared catalogue counts once this process knows it. It takes some microseconds per bucket.
TANSY_CLOUD_STORAGE_API bool GetBucketUsage(std::vector<BucketUsage>& usage);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_SERVER_LOAD_H
