#ifndef TANSY_HOST_MOVE_ORDER_H
#define TANSY_HOST_MOVE_ORDER_H

#include <string>

namespace Tansy::Host {

// What is to be moved, and where to.
struct MoveOrder {
  std::string database;  // addresses; an empty one stays where it is
  std::string storage;
  bool dry_run = false;  // only says how much there is, and how long it takes
  bool force = false;    // moves although bytes of some objects cannot be read
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_ORDER_H
