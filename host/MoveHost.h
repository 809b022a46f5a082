#ifndef TANSY_HOST_MOVE_HOST_H
#define TANSY_HOST_MOVE_HOST_H

#include <functional>
#include <memory>
#include <string>

#include "HostSystem/LockFile.h"
#include "MovableStore.h"
#include "Options.h"
#include "StoragePlace.h"
#include "WriteGate.h"

namespace Tansy::Host {

// What a switch gives to whoever serves. It has to be kept for as long as the new place is used.
struct MovedTo {
  HostOptions options;
  std::unique_ptr<IStoragePlace> place;                  // null: the bytes stay
  std::unique_ptr<HostSystem::CLockFile> database_lock;  // null: the catalogue stays, or has a lock of its own
};

struct MoveHost {
  HostOptions options;   // of what is served now
  bool is_node = false;  // it shares them with others, who would not follow a move: nothing is moved then
  std::shared_ptr<CMovableStore> store;
  CWriteGate* housekeeping = nullptr;  // null: none is at work
  std::function<bool()> is_stopping;
  std::function<void(const std::string& line)> say;  // for people
  std::function<void(MovedTo moved)> take_over;      // writes are held meanwhile
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_HOST_H
