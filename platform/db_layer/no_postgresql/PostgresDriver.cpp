#include "db_layer/PostgresDriver.h"

namespace db_layer {

std::shared_ptr<IDriver> MakePostgresDriver() {
  return nullptr;
}

bool SetPostgresDefaultDurability(bool) {
  return true;
}

int SetPostgresDefaultTimeout(int milliseconds) {
  return milliseconds;
}

}  // namespace db_layer
