// What a data folder notes about moves: where its catalogue and its bytes are now. Options that name a place of before
// then mean the new one, so that a tansyd that is started again as ever serves what it served.
#ifndef TANSY_HOST_MOVED_MARK_H
#define TANSY_HOST_MOVED_MARK_H

#include <set>
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

  bool operator==(const MovedMark&) const = default;
};

// These work on the file in the current folder. It may hold a password, and is readable for its owner only. Reading
// throws CStartFailure with kExitFailed when the file cannot be read; writing returns 0 or an errno value.
MovedMark ReadMovedMark();
int WriteMovedMark(const MovedMark& mark);

// Puts the new places into options that name old ones. Returns what was changed, for people; "" for nothing.
std::string FollowMoves(const MovedMark& mark, HostOptions& options);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVED_MARK_H
