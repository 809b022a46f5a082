// The running host's own questions to the catalogue, next to the module's: what refers to stored bytes, and what no
// longer does.
//
// Threads: any. Each call takes a pooled connection of the module "platform", which must be registered. Errors: false,
// with the reason in the log.
#ifndef TANSY_HOST_CATALOGUE_H
#define TANSY_HOST_CATALOGUE_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace Tansy::Host {

// The ids of all upload tasks.
bool GetTaskIds(std::set<std::string>& ids);

// Bytes that lost their row. The numbers are those of released_bytes.kind.
enum class EReleased {
  kLeft = 0,       // of overwritten objects and of uploads that were never completed
  kKept = 1,       // of removed objects
  kRemovedNow = 2  // of removed objects; perhaps they were freed with their row
};

struct ReleasedBytes {
  std::string id;
  std::string url;
};

// Times are running seconds, as the catalogue counts them. Stamps entries that were never stamped with `now`, at most
// `limit`; `left` says whether there are more.
bool StampReleased(std::int64_t now, int limit, bool& left);
// At most `limit` entries that were stamped at `time` or before, oldest first.
bool GetReleased(EReleased kind, std::int64_t time, int limit, std::vector<ReleasedBytes>& released);
// Forgets entries, lets them wait again, or turns them into kept ones.
bool ForgetReleased(const std::vector<std::string>& ids);
bool PostponeReleased(const std::vector<std::string>& ids, std::int64_t now);
bool KeepReleased(const std::vector<std::string>& ids);

// Which of these urls a row of an object or of an upload task names, and, on request, an entry of released bytes.
enum class EReleasedToo { kNo, kYes };
bool FindNamed(const std::vector<std::string>& urls, EReleasedToo released_too, std::set<std::string>& named);
// Gives up those of these urls that no object and no task names: from then on no row can name them.
bool GiveUpUnnamed(const std::vector<std::string>& urls, std::int64_t now, std::set<std::string>& given_up);
// Forgets at most `limit` urls that were given up at `time` or before; `left` says whether there are more.
bool ForgetGivenUp(std::int64_t time, int limit, bool& left);

// How long servers have run on this catalogue.
bool GetRunningSeconds(std::int64_t& seconds);
bool SetRunningSeconds(std::int64_t seconds);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CATALOGUE_H
