// Decides what has to be done so that one side has what the other has. Nothing is sent or written here.
#ifndef TANSY_CLI_TRANSFER_PLAN_H
#define TANSY_CLI_TRANSFER_PLAN_H

#include <string>
#include <vector>

#include "Failure.h"
#include "LocalTree.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "Transfers.h"

namespace Tansy::Cli {

struct TransferPlan {
  std::vector<Transfer> transfers;
  std::vector<CFailure> failures;  // objects that cannot become local files
};

// `folder` is the path of the local tree, `remote` the bucket with the prefix that counts as the other folder,
// `objects` what is below it. Objects that stand for folders only (their keys end with a slash) are left alone.

// All files of the tree.
std::vector<Transfer> PlanPuts(const std::string& folder, const LocalTree& tree, const S3Path& remote);
// All objects. `prefix` comes before their local names: "", or a folder with its slash.
TransferPlan PlanGets(const std::vector<RemoteObject>& objects, const S3Path& remote, const std::string& prefix);
// What is missing or different on the other side; both sides are in the order of their names. With `remove`, what only
// the other side has is removed there, after the rest of the list. What the walk left out is not, and is not replaced
// by an object either. Nothing is removed when a folder could not be read, or when an object cannot become a local
// file: a local file may stand for that object.
TransferPlan PlanSyncUp(const std::string& folder, const LocalTree& tree, const S3Path& remote,
                        const std::vector<RemoteObject>& objects, bool remove);
TransferPlan PlanSyncDown(const LocalTree& tree, const S3Path& remote, const std::vector<RemoteObject>& objects,
                          bool remove);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TRANSFER_PLAN_H
