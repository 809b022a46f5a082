// Questions of the running host to the catalogue, beside the module's own: what refers to stored bytes, and what no
// longer does.
//
// Threads: any. Each call takes a pooled connection of the module "platform", which must be registered. Errors: a
// function returns false, and the log says why.
#ifndef TANSY_HOST_CATALOGUE_H
#define TANSY_HOST_CATALOGUE_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace Tansy::Host {

// Gives the ids of all upload tasks.
bool GetTaskIds(std::set<std::string>& ids);

// Says how bytes lost their row. The numbers are those of released_bytes.kind.
enum class EReleased {
  kLeft = 0,       // bytes of overwritten objects and of uploads that were never completed
  kKept = 1,       // bytes of removed objects
  kRemovedNow = 2  // bytes of removed objects; perhaps they were freed with their row
};

struct ReleasedBytes {
  std::string id;
  std::string url;
};

// Stamps entries that were never stamped with `now`, at most `limit` of them; `left` says whether there are more. Times
// are running seconds, as the catalogue counts them.
bool StampReleased(std::int64_t now, int limit, bool& left);
// Gives at most `limit` entries that were stamped at `time` or before, oldest first.
bool GetReleased(EReleased kind, std::int64_t time, int limit, std::vector<ReleasedBytes>& released);
// Counts the entries of a kind, up to `most`.
bool CountReleased(EReleased kind, int most, std::uint64_t& count);
// These forget entries, let them wait again, or turn them into kept ones.
bool ForgetReleased(const std::vector<std::string>& ids);
bool PostponeReleased(const std::vector<std::string>& ids, std::int64_t now);
bool KeepReleased(const std::vector<std::string>& ids);

// A url that stands for the bytes of all parts of an upload, or of an object that was made of them. Its parts keep
// their rows until their bytes are gone.
bool IsUrlOfParts(const std::string& url);
// Gives the urls of these parts.
bool GetParts(const std::string& url, std::vector<std::string>& urls);
bool ForgetParts(const std::string& url);

// Makes bytes of a removed object wait no longer than those of an overwritten one.
bool ReleaseSoon(const std::string& url);

// Notes bytes whose object is about to be removed: they wait as those of an overwritten object do. When it is not
// removed after all, the note is forgotten.
bool NoteReleased(const std::string& url);

// For catalogues that several tansyd share: these forget what nobody needs any more of the log of changes, of uploads
// whose node has been gone for days, and of processes that have ended long ago. All nodes wait while one of them
// writes, so the log is forgotten in steps; `left` says whether there may be more.
bool TrimChanges(bool& left);
bool ForgetUploadsOfGoneNodes();
bool ForgetGoneWriters();
// Names the other nodes that live.
bool GetOtherNodes(const std::string& own_name, std::vector<std::string>& names);

// Finds out which of these urls a row of an object, of an upload task or of a part names, or, on request, an entry of
// released bytes.
enum class EReleasedToo { kNo, kYes };
bool FindNamed(const std::vector<std::string>& urls, EReleasedToo released_too, std::set<std::string>& named);
// Gives up those of these urls that no object, no task and no part names: from then on no row can name them. A
// catalogue that another program has locked is busy: a request may still be waiting to write its row. One that refuses
// the note, as on a full disk, takes no row either.
enum class EGiveUp { kDone, kBusy, kRefused };
EGiveUp GiveUpUnnamed(const std::vector<std::string>& urls, std::int64_t now, std::set<std::string>& given_up);
// Forgets at most `limit` urls that were given up at `time` or before; `left` says whether there are more.
bool ForgetGivenUp(std::int64_t time, int limit, bool& left);

// A further key of the S3 protocol as the database has it.
struct AccessKeyRow {
  std::string name;
  std::string access_key;
  std::string sealed;
};
bool GetAccessKeys(std::vector<AccessKeyRow>& keys);
bool AddAccessKey(const AccessKeyRow& key);
bool RemoveAccessKey(const std::string& name);

// Gives the number of seconds for which servers have run on this catalogue.
bool GetRunningSeconds(std::int64_t& seconds);
bool SetRunningSeconds(std::int64_t seconds);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CATALOGUE_H
