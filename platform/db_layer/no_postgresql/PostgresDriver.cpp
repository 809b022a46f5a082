#include "db_layer/PostgresDriver.h"

namespace db_layer {

std::shared_ptr<IDriver> MakePostgresDriver() {
  return nullptr;
}

std::unique_ptr<IDatabaseEar> MakePostgresEar(const DBParam&, int) {
  return nullptr;
}

void SetPostgresDefaultPrelude(TransactionPrelude) {}

bool SetPostgresDefaultDurability(bool) {
  return true;
}

int SetPostgresDefaultTimeout(int milliseconds) {
  return milliseconds;
}

}  // namespace db_layer
