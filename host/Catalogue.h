// The host's own questions to the catalogue, next to the module's: what refers to stored bytes, and what no longer
// does.
//
// Threads: any. Each call takes a pooled connection of the module "platform", which must be registered. Errors: false,
// with the reason in the log.
#ifndef TANSY_HOST_CATALOGUE_H
#define TANSY_HOST_CATALOGUE_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace Tansy::Host {

// A row that refers to stored bytes.
struct CatalogueRow {
  bool is_task = false;  // a part of an upload, not an object
  std::string bucket;
  std::string object;
  std::string url;
  std::uint32_t size = 0;  // low 32 bits
};

// Bytes that lost their row.
struct ReleasedBytes {
  std::string id;
  std::string url;
  std::string bucket;
  std::string object;
};

enum class EReference { kNone, kObject, kTask };

bool VisitCatalogue(const std::function<void(const CatalogueRow&)>& visitor);
// The ids of all upload tasks.
bool GetTaskIds(std::set<std::string>& ids);

// At most `limit` entries released at `time` or before, oldest first.
bool GetReleased(std::time_t time, int limit, std::vector<ReleasedBytes>& released);
// Whether a row refers to these bytes after all.
bool GetReference(const ReleasedBytes& bytes, EReference& reference);
// Forgets entries, or puts them at the end of the line.
bool ForgetReleased(const std::vector<std::string>& ids);
bool PostponeReleased(const std::vector<std::string>& ids, std::time_t time);
bool ForgetAllReleased();

bool HasObjects(bool& has_objects);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CATALOGUE_H
