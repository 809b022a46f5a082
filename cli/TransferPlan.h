// Decides what has to be done so that one side has what the other has. Nothing is sent or written here.
#ifndef TANSY_CLI_TRANSFER_PLAN_H
#define TANSY_CLI_TRANSFER_PLAN_H

#include <functional>
#include <optional>
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

// What becomes of the names that a sync meets.
struct SyncHandlers {
  std::function<void(Transfer transfer)> carry;
  // The target has it, and the source has not.
  std::function<void(Transfer removal)> remove;
  // An object that cannot become a local file. A local file may stand for it, so nothing is to be removed any more.
  std::function<void(const CFailure& failure)> fail;
};

// Compares the two sides of a sync, name by name in the order of their bytes, and says at once what is missing or
// different on the other side; so neither side has to be in memory. What the walk left out is not replaced by an
// object, and objects behind it are not removed. One thread uses it.
class CSyncPlan {
 public:
  enum class EWay { kUp, kDown };
  // Gives the next file in that order; nothing at the end.
  using NextFile = std::function<std::optional<LocalEntry>()>;

  // `folder` and `remote` are the two sides. `left_out` is what the walk has left out up to the last file that it gave.
  CSyncPlan(EWay way, std::string folder, S3Path remote, NextFile next, const LocalTree& left_out,
            SyncHandlers handlers);

  // Takes the next object in the order of the keys. Throws CFailure when it is not, and what the handlers throw.
  void Take(const RemoteObject& object);
  // No object follows.
  void Finish();

 private:
  void TakeFile(const RemoteObject* object);
  void TakeObject(const RemoteObject& object, const std::string& name);
  void Get(const RemoteObject& object, const std::string& name, const LocalEntry* file);

  const EWay way_;
  const std::string folder_;
  const S3Path remote_;
  const NextFile next_;
  const LocalTree& left_out_;
  const SyncHandlers handlers_;
  std::optional<LocalEntry> file_;  // the next one
  std::string last_key_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TRANSFER_PLAN_H
