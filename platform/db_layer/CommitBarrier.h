// What has to be done before a group of statements is committed.
#ifndef TANSY_DB_LAYER_COMMIT_BARRIER_H
#define TANSY_DB_LAYER_COMMIT_BARRIER_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace db_layer {

// Is called for each group of statements, after the group has been gathered and before it is committed, on the thread
// that commits it: one call at a time per database. It makes durable what the rows of the group name outside the
// database. So one wait for the disk serves the whole group, and no row names what a power failure may take away.
// `statements` are the texts of the group. Returns true when the group may be committed; false, with a reason in
// `error`, or an exception fails every statement of the group, and nothing of it is committed. Statements that only
// read never come here, nor does what SQLite runs outside a transaction (VACUUM, PRAGMA). The barrier must not use the
// database.
using CommitBarrier = std::function<bool(const std::vector<std::string_view>& statements, std::string& error)>;
// Sets the barrier of all databases of this process; an empty one lets every group pass. When it returns, no call of
// the barrier before is under way, and none will begin.
void SetCommitBarrier(CommitBarrier barrier);

// A driver calls this for each group, before it commits it. Returns false with a reason in `error` when the group must
// not be committed. Never throws; memory that runs out is a refusal.
bool PassCommitBarrier(const std::vector<std::string_view>& statements, std::string& error) noexcept;

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_COMMIT_BARRIER_H
