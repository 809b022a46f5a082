// What a connection is told when it is made.
#ifndef TANSY_DB_LAYER_POSTGRESQL_POSTGRES_PARAMETERS_H
#define TANSY_DB_LAYER_POSTGRESQL_POSTGRES_PARAMETERS_H

#include <map>
#include <string>

#include "db_layer/Connect.h"

namespace db_layer {

// Keywords of libpq and their values.
using PostgresParameters = std::map<std::string, std::string>;

// Reads the address, and the parameters behind the name of the database. What is not there is left to libpq, which
// looks in the environment (PGPASSWORD, PGSSLMODE ...) and in the password file. Returns false with a reason in
// `error`.
bool ReadPostgresParameters(const DBParam& param, PostgresParameters& parameters, std::string& error);

// Adds what this library needs: time-outs, where the address has none, and the settings of the session.
void AddPostgresSettings(bool only_reads, bool full_durability, int timeout_ms, PostgresParameters& parameters);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRESQL_POSTGRES_PARAMETERS_H
