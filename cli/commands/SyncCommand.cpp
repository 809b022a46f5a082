#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
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

// So many things are done at a time while the two sides are compared. There may be millions.
constexpr std::size_t kBatch = 1000;

// Runs one use of the command.
class CSync {
 public:
  CSync(const CommandCall& call, CSyncPlan::EWay way, std::string folder, S3Path remote)
      : call_(call),
        way_(way),
        folder_(std::move(folder)),
        remote_(std::move(remote)),
        settings_(UseSettings(call.globals)),
        link_(settings_),
        transfers_(call.globals, link_, {JobsOf(call), false, call.Has("--dry-run")}, IsUp() ? "" : folder_, "sync") {}

  int Run() {
    const std::unique_ptr<HostSystem::IFolder> top = OpenLocalSide();
    std::optional<CLocalWalk> walk;
    if (top != nullptr) {
      walk.emplace(*top, folder_);
    }
    const LocalTree none;
    const LocalTree& left_out = walk.has_value() ? walk->LeftOut() : none;
    Compare([&] { return walk.has_value() ? walk->Next() : std::nullopt; }, left_out);
    CheckSource(left_out);
    Finish(left_out);
    const int reported = ReportLeftOut(call_.globals, SkippedNames(left_out), AllFailures(left_out));
    return done_ != kExitDone ? done_ : reported;
  }

 private:
  bool IsUp() const { return way_ == CSyncPlan::EWay::kUp; }
  bool Removes() const { return call_.Has("--delete"); }

  // Null when the target is a folder that is not there yet.
  std::unique_ptr<HostSystem::IFolder> OpenLocalSide() const {
    std::error_code ignored;
    const bool is_missing = !IsUp() && !std::filesystem::exists(NativePath(folder_), ignored);
    return is_missing ? nullptr : OpenToWalk(folder_);
  }

  // Carries what is missing or different, and notes what is to be removed.
  void Compare(const CSyncPlan::NextFile& next, const LocalTree& left_out) {
    const auto count_files = [&]() -> std::optional<LocalEntry> {
      std::optional<LocalEntry> file = next();
      has_files_ = has_files_ || file.has_value();
      return file;
    };
    CSyncPlan plan(way_, folder_, remote_, count_files, left_out,
                   {[this](Transfer transfer) { Carry(std::move(transfer)); },
                    [this](const Transfer& removal) { NoteRemoval(removal); },
                    [this](const CFailure& failure) { failures_.push_back(failure); }});
    ListObjects(link_, {remote_.bucket, FolderPrefix(remote_.key)}, "", {.object = [&](const RemoteObject& object) {
                  has_objects_ = true;
                  plan.Take(object);
                }});
    plan.Finish();
    RunBatch();
  }

  void Carry(Transfer transfer) {
    has_carried_ = true;
    batch_.push_back(std::move(transfer));
    if (batch_.size() == kBatch) {
      RunBatch();
    }
  }

  void NoteRemoval(const Transfer& removal) {
    if (Removes()) {
      removals_.push_back(IsUp() ? removal.remote.key : removal.file);
    }
  }

  void RunBatch() {
    const int done = transfers_.Run(batch_);
    done_ = done_ != kExitDone ? done_ : done;
    batch_.clear();
  }

  // An empty source is more often a wrong name, or a disk that is not mounted, than a wish to remove everything.
  // Objects that stand for folders only do not count. One whose key cannot be a local name does: it is a failure.
  void CheckSource(const LocalTree& left_out) const {
    const bool is_empty = IsUp() ? !has_files_ && left_out.failures.empty() : !has_carried_ && failures_.empty();
    if (is_empty && Removes()) {
      throw CFailure(kExitUsage,
                     Printable(IsUp() ? folder_ : remote_.Url()) +
                         ": is empty, and --delete would remove everything on the other side",
                     "check the name; 'tansy rm -r' removes all objects of a folder");
    }
    if (!IsUp() && !has_objects_ && !remote_.key.empty()) {
      throw NothingBelow({remote_.bucket, FolderPrefix(remote_.key)});
    }
  }

  // Removals come last, and only when all else was done: what could not be carried may be the other copy of what would
  // be removed.
  void Finish(const LocalTree& left_out) {
    const bool all_is_known = left_out.failures.empty() && failures_.empty();
    if (all_is_known && done_ == kExitDone) {
      RemoveNoted();
      return;
    }
    if (Removes() && !call_.globals.quiet && (!all_is_known || !removals_.empty())) {
      PrintNote(!left_out.failures.empty() ? "note: nothing was removed, because not all folders could be read"
                : !failures_.empty()       ? "note: nothing was removed, because not all objects can become local files"
                                           : "note: nothing was removed, because not everything could be carried");
    }
  }

  void RemoveNoted() {
    for (const std::string& name : removals_) {
      batch_.push_back(IsUp() ? Transfer{.kind = Transfer::EKind::kRemoveObject, .remote = {remote_.bucket, name}}
                              : Transfer{.kind = Transfer::EKind::kRemoveFile, .remote = remote_, .file = name});
      if (batch_.size() == kBatch) {
        RunBatch();
      }
    }
    RunBatch();
  }

  // Those of the source; what a target has beside files does not matter.
  std::vector<std::string> SkippedNames(const LocalTree& left_out) const {
    std::vector<std::string> names;
    for (const std::string& name : IsUp() ? left_out.skipped : std::vector<std::string>()) {
      names.push_back(PathIn(folder_, name));
    }
    return names;
  }

  std::vector<CFailure> AllFailures(const LocalTree& left_out) const {
    std::vector<CFailure> failures = left_out.failures;
    failures.insert(failures.end(), failures_.begin(), failures_.end());
    return failures;
  }

  const CommandCall& call_;
  const CSyncPlan::EWay way_;
  const std::string folder_;
  const S3Path remote_;
  const Settings settings_;
  const CS3Link link_;
  CTransfers transfers_;
  std::vector<Transfer> batch_;
  std::vector<std::string> removals_;  // keys or names below the folder
  std::vector<CFailure> failures_;     // objects that cannot become local files
  bool has_files_ = false;
  bool has_objects_ = false;
  bool has_carried_ = false;
  int done_ = kExitDone;
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
  return IsS3Url(target) ? CSync(call, CSyncPlan::EWay::kUp, source, ParseS3Path(target)).Run()
                         : CSync(call, CSyncPlan::EWay::kDown, target, ParseS3Path(source)).Run();
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
