// What SetCommitBarrier has set, for the drivers.
#ifndef TANSY_DB_LAYER_COMMIT_BARRIER_H
#define TANSY_DB_LAYER_COMMIT_BARRIER_H

#include <string>
#include <string_view>
#include <vector>

namespace db_layer {

// A driver calls this for each group of statements, before it commits them. Returns false with a reason in `error` when
// the group must not be committed. Never throws; memory that runs out is a refusal.
bool PassCommitBarrier(const std::vector<std::string_view>& statements, std::string& error) noexcept;

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_COMMIT_BARRIER_H
