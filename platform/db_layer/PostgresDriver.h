#ifndef TANSY_DB_LAYER_POSTGRES_DRIVER_H
#define TANSY_DB_LAYER_POSTGRES_DRIVER_H

#include <memory>

#include "db_layer/Connect.h"
#include "db_layer/SharedDatabase.h"

namespace db_layer {

// Gives the driver for PostgreSQL. Null when this build has none.
std::shared_ptr<IDriver> MakePostgresDriver();

// See MakeDatabaseEar. Null when this build has no driver.
std::unique_ptr<IDatabaseEar> MakePostgresEar(const DBParam& param, int timeout_ms);

// These set defaults for databases opened from now on. The first two return the setting before.
bool SetPostgresDefaultDurability(bool full_durability);
int SetPostgresDefaultTimeout(int milliseconds);
void SetPostgresDefaultPrelude(TransactionPrelude prelude);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRES_DRIVER_H
