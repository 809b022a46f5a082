#ifndef TANSY_HOST_MOVE_COUNTS_H
#define TANSY_HOST_MOVE_COUNTS_H

#include <vector>

#include "MoveDatabase.h"
#include "MoveTables.h"

namespace Tansy::Host {

// Throws CMoveFailure unless `target` has as many rows of each table as `source`. Clients may go on meanwhile: rows
// whose changes the log of the move holds are left out on both sides. Only the calling thread may write to `target`.
void ExpectEqualCounts(CMoveDatabase& source, CMoveDatabase& target, const std::vector<MoveTable>& tables);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_COUNTS_H
