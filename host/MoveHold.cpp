#include "MoveHold.h"

#include "db_layer/DbLayer.h"

namespace Tansy::Host {

CHeldWrites::CHeldWrites(CMovableStore& store, std::chrono::milliseconds patience)
    : store_(store), begin_(Clock::now()) {
  if (!store_.HoldWrites(patience)) {
    return;
  }
  is_held_ = db_layer::Module_Hold("platform", static_cast<int>(patience.count()));
  if (!is_held_) {
    store_.ReleaseWrites();
  }
}

CHeldWrites::~CHeldWrites() {
  if (is_held_) {
    db_layer::Module_Release("platform");
    store_.ReleaseWrites();
  }
}

std::chrono::milliseconds CHeldWrites::Lasts() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin_);
}

}  // namespace Tansy::Host
