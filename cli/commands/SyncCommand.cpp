#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "LocalFile.h"
#include "LocalTree.h"
#include "Output.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "Settings.h"
#include "TransferOptions.h"
#include "TransferPlan.h"
#include "Transfers.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Runs one use of the command.
class CSync {
 public:
  explicit CSync(const CommandCall& call) : call_(call), settings_(UseSettings(call.globals)), link_(settings_) {}

  int Up(const std::string& folder, const S3Path& remote) {
    LocalTree tree = WalkFolder(folder);
    if (tree.failures.empty()) {
      CheckSource(tree.files.empty(), folder);
    }
    const TransferPlan plan = PlanSyncUp(folder, tree, remote, Objects(remote), Removes());
    tree.files = {};  // there may be millions
    for (std::string& name : tree.skipped) {
      name = PathIn(folder, name);
    }
    return Run(plan, tree.skipped, tree.failures, "");
  }

  int Down(const S3Path& remote, const std::string& folder) {
    std::vector<RemoteObject> objects = Objects(remote);
    LocalTree tree = TreeAt(folder);
    const TransferPlan plan = PlanSyncDown(tree, remote, objects, Removes());
    CheckSource(HasNothingToCarry(plan), remote.Url());
    if (objects.empty() && !remote.key.empty()) {
      throw NothingBelow({remote.bucket, FolderPrefix(remote.key)});
    }
    objects = {};  // there may be millions
    tree.files = {};
    return Run(plan, {}, tree.failures, folder);
  }

 private:
  bool Removes() const { return call_.Has("--delete"); }

  std::vector<RemoteObject> Objects(const S3Path& remote) const {
    return AllObjects(link_, {remote.bucket, FolderPrefix(remote.key)});
  }

  // An empty source is more often a wrong name, or a disk that is not mounted, than a wish to remove everything.
  void CheckSource(bool is_empty, const std::string& source) const {
    if (is_empty && Removes()) {
      throw CFailure(kExitUsage,
                     Printable(source) + ": is empty, and --delete would remove everything on the other side",
                     "check the name; 'tansy rm -r' removes all objects of a folder");
    }
  }

  // Objects that stand for folders only do not count. One whose key cannot be a local name does: it is a failure.
  static bool HasNothingToCarry(const TransferPlan& plan) {
    return plan.failures.empty() &&
           std::none_of(plan.transfers.begin(), plan.transfers.end(),
                        [](const Transfer& transfer) { return transfer.kind == Transfer::EKind::kGet; });
  }

  static LocalTree TreeAt(const std::string& folder) {
    std::error_code ignored;
    return std::filesystem::exists(NativePath(folder), ignored) ? WalkFolder(folder) : LocalTree{};
  }

  int Run(const TransferPlan& plan, const std::vector<std::string>& skipped, const std::vector<CFailure>& walk_failures,
          const std::string& target) {
    CTransfers transfers(call_.globals, link_, {JobsOf(call_), false, call_.Has("--dry-run")}, target, "sync");
    const int done = transfers.Run(plan.transfers);
    std::vector<CFailure> failures = walk_failures;
    failures.insert(failures.end(), plan.failures.begin(), plan.failures.end());
    if (!failures.empty() && Removes() && !call_.globals.quiet) {
      PrintNote(walk_failures.empty() ? "note: nothing was removed, because not all objects can become local files"
                                      : "note: nothing was removed, because not all folders could be read");
    }
    const int left_out = ReportLeftOut(call_.globals, skipped, failures);
    return done != kExitDone ? done : left_out;
  }

  const CommandCall& call_;
  const Settings settings_;
  const CS3Link link_;
};

int RunSync(const CommandCall& call) {
  const std::string source = call.Argument("SOURCE");
  const std::string target = call.Argument("TARGET");
  if (IsS3Url(source) == IsS3Url(target)) {
    throw CFailure(kExitUsage, IsS3Url(source) ? "both sides are on the server" : "neither side is on the server",
                   "one side is a local folder, the other one s3://BUCKET/PREFIX");
  }
  JobsOf(call);
  ApplyRateLimit(call);
  CSync sync(call);
  return IsS3Url(target) ? sync.Up(source, ParseS3Path(target)) : sync.Down(ParseS3Path(source), target);
}

}  // namespace
}  // namespace details

CommandSpec SyncCommand() {
  return {
      "",
      "sync",
      "make one folder like another, here and on the server",
      "Copies from a local folder to one on the server, or back, what is missing there or different: another size, or "
      "other bytes by the digest that the server keeps. Times do not matter. Nothing is removed without --delete, and "
      "nothing at all when the source is empty, a folder could not be read, or anything could not be carried. Links "
      "and devices are left out. The same command goes on after it was broken off: what is there already is not "
      "carried "
      "again, and a file that was under way begins anew.",
      {{.name = "SOURCE", .help = "a local folder or s3://BUCKET/PREFIX", .complete = EComplete::kFiles},
       {.name = "TARGET", .help = "the other one", .complete = EComplete::kFiles}},
      WithTransferOptions({{"--delete", nullptr, "remove in the target what the source does not have"},
                           {"--dry-run", nullptr, "only say what would be done"}}),
      {{"tansy sync pictures s3://photos/pictures", "bring the server up to date"},
       {"tansy sync --delete --dry-run pictures s3://photos/pictures", "see first what would be removed"},
       {"tansy sync s3://photos/pictures pictures", "bring this machine up to date"}},
      details::RunSync};
}

}  // namespace Tansy::Cli
