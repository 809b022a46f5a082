// What a data folder notes about moves: where its catalogue and its bytes are now. Options that name a place of before
// then mean the new one, so that a tansyd that is started again as ever serves what it served.
#ifndef TANSY_HOST_MOVED_MARK_H
#define TANSY_HOST_MOVED_MARK_H

#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include "Options.h"

namespace Tansy::Host {

struct MovedMark {
  std::string move;                     // the id of the last move; empty: nothing was ever moved
  std::string store_id;                 // that catalogue and bytes have since then
  std::string database;                 // the address where the catalogue is now; empty: where the options say
  std::string storage;                  // the same of the bytes
  std::set<std::string> old_databases;  // addresses of places of before
  std::set<std::string> old_storages;
  // Those of them that were not freed yet, with the id of the store that they held. A place may have been given to
  // somebody else since then.
  std::map<std::string, std::string> left_databases;
  std::map<std::string, std::string> left_storages;

  bool operator==(const MovedMark&) const = default;
};

// These work on the file in the current folder. It may hold a password, and is readable for its owner only. Reading
// throws CStartFailure with kExitFailed when the file cannot be read.
MovedMark ReadMovedMark();
// Returns 0, or an errno value when the file is as it was before. When the disk fails so that neither is sure, it
// throws CMarkInDoubt: nothing must be written any more then, in the old place or in the new one, until a start has
// read the file.
int WriteMovedMark(const MovedMark& mark);

class CMarkInDoubt : public std::runtime_error {
 public:
  explicit CMarkInDoubt(const std::string& line) : std::runtime_error(line) {}
};

// Puts the new places into options that name old ones. Returns what was changed, for people; "" for nothing.
std::string FollowMoves(const MovedMark& mark, HostOptions& options);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVED_MARK_H
