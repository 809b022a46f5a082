// What the writers of all databases do with a batch of writes.
#ifndef TANSY_DB_LAYER_WRITE_BATCH_H
#define TANSY_DB_LAYER_WRITE_BATCH_H

#include <vector>

#include "db_layer/GroupCommit.h"

namespace db_layer {

// Marks all of these writes as failed.
void FailAll(const std::vector<SqlWrite*>& writes, const SqlError& error);

// Asks the commit barrier whether these writes may be committed. Only what is refused leaves a text in `error`.
bool PassBarrier(const std::vector<SqlWrite*>& writes, SqlError& error);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_WRITE_BATCH_H
