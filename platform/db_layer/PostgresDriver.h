#ifndef TANSY_DB_LAYER_POSTGRES_DRIVER_H
#define TANSY_DB_LAYER_POSTGRES_DRIVER_H

#include <memory>

#include "db_layer/Connect.h"

namespace db_layer {

// Gives the driver for PostgreSQL. Null when this build has none.
std::shared_ptr<IDriver> MakePostgresDriver();

// These set defaults for databases opened from now on. Both return the setting before.
bool SetPostgresDefaultDurability(bool full_durability);
int SetPostgresDefaultTimeout(int milliseconds);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRES_DRIVER_H
