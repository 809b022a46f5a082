#include "CopyFiles.h"

#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "Failure.h"
#include "LocalFile.h"
#include "LocalTree.h"
#include "Output.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "Settings.h"
#include "TargetFolder.h"
#include "TransferOptions.h"
#include "TransferPlan.h"
#include "Transfers.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Notes where one of several things goes. Throws CFailure when another one goes there too.
void Claim(std::set<std::string>& targets, const std::string& target) {
  if (!targets.insert(target).second) {
    throw CFailure(kExitUsage, "two of these would go to " + Printable(target), "copy them one by one");
  }
}

std::vector<RemoteObject> ObjectsBelow(const CS3Link& link, const S3Path& remote) {
  const S3Path folder{remote.bucket, FolderPrefix(remote.key)};
  std::vector<RemoteObject> objects = AllObjects(link, folder);
  if (objects.empty() && !remote.key.empty()) {
    throw NothingBelow(folder);
  }
  return objects;
}

// Does one copy. All words are looked at before anything is carried: those that cannot be meant so end the command, and
// what is only missing becomes a failure among the others.
class CCopy {
 public:
  CCopy(const CommandCall& call, const std::vector<std::string>& sources, const std::string& target)
      : call_(call), sources_(sources), target_(target), settings_(UseSettings(call.globals)), link_(settings_) {}

  int Run() {
    if (IsS3Url(target_)) {
      PlanToServer(ParseS3Path(target_));
      return Carry("");
    }
    if (IsRecursive()) {
      PlanFoldersFromServer();
      return Carry(target_);
    }
    return FilesFromServer();
  }

 private:
  bool IsRecursive() const { return call_.Has("-r"); }

  int Carry(const std::string& folder) {
    CTransfers transfers(call_.globals, link_, {JobsOf(call_), call_.Has("--resume"), false}, folder,
                         folder.empty() ? "put" : "get");
    const int done = transfers.Run(transfers_);
    const int left_out = ReportLeftOut(call_.globals, skipped_, failures_);
    return done != kExitDone ? done : left_out;
  }

  // Calls `plan`, whose failure becomes that of the transfer.
  template <typename Plan>
  void PlanFor(Transfer transfer, const Plan& plan) {
    try {
      plan();
    } catch (const CFailure& failure) {
      transfer.failure = std::make_shared<CFailure>(failure);
      transfers_.push_back(std::move(transfer));
    }
  }

  void PlanToServer(const S3Path& target) {
    for (const std::string& source : sources_) {
      if (source == "-") {
        throw CFailure(kExitUsage, "standard input cannot be copied", "'tansy put -' sends it");
      }
      if (IsS3Url(source)) {
        PlanCopy(ParseS3Path(source), target);
      } else if (IsRecursive() && IsFolder(source)) {
        PlanFolderToServer(source, sources_.size() > 1 ? target.Below(FolderName(source)) : target);
      } else if (IsFolder(source)) {
        throw CFailure(kExitUsage, Printable(source) + ": is a folder", "copy it with -r");
      } else {
        const S3Path remote = IsFolderTarget(target) ? target.Below(LastName(source)) : target;
        Claim(claimed_, remote.Url());
        transfers_.push_back({.kind = Transfer::EKind::kPut, .remote = remote, .file = source});
      }
    }
  }

  // A target that ends with a slash or is a mere bucket is a folder, and so is the target of several things.
  bool IsFolderTarget(const S3Path& target) const {
    return sources_.size() > 1 || target.key.empty() || target.key.ends_with('/');
  }

  void PlanFolderToServer(const std::string& folder, const S3Path& remote) {
    Claim(claimed_, S3Path{remote.bucket, FolderPrefix(remote.key)}.Url());
    PlanFor({.kind = Transfer::EKind::kPut, .remote = remote, .file = folder}, [&] {
      const LocalTree tree = WalkFolder(folder);
      Append(transfers_, PlanPuts(folder, tree, remote));
      Append(failures_, tree.failures);
      for (const std::string& name : tree.skipped) {
        skipped_.push_back(PathIn(folder, name));
      }
    });
  }

  void PlanCopy(const S3Path& source, const S3Path& target) {
    if (IsRecursive()) {
      throw CFailure(kExitUsage, "folders are not copied on the server", "get it, and put it again");
    }
    CheckIsObject(source);
    const S3Path remote = IsFolderTarget(target) ? target.Below(LastName(source.key)) : target;
    Claim(claimed_, remote.Url());
    transfers_.push_back({.kind = Transfer::EKind::kCopy, .remote = remote, .source = source});
  }

  static void CheckIsObject(const S3Path& path) {
    if (path.key.empty()) {
      throw CFailure(kExitUsage, Printable(path.Url()) + ": is a bucket", "name an object, or copy with -r");
    }
  }

  int FilesFromServer() {
    if (target_ == "-") {
      throw CFailure(kExitUsage, "nothing is copied to standard output", "'tansy cat' writes to it");
    }
    // As on the server, a name that ends with a slash is that of a folder, which is made when it is missing.
    const bool to_folder = IsFolder(target_) || target_.ends_with('/');
    if (sources_.size() > 1 && !to_folder) {
      throw CFailure(kExitUsage, Printable(target_) + ": is no folder",
                     "several objects go into a folder: name one, or . for this one");
    }
    if (IsSpecialFile(target_)) {
      throw CFailure(kExitUsage, Printable(target_) + ": is a device or pipe", "'tansy get' writes into one");
    }
    const std::string file = to_folder ? "" : FollowLink(target_);
    for (const std::string& source : sources_) {
      const S3Path path = ParseS3Path(source);
      CheckIsObject(path);
      Transfer get{.kind = Transfer::EKind::kGet, .remote = path, .file = LastName(path.key)};
      PlanFor(get, [&] {
        get.file = to_folder ? LocalNameOf(get.file) : Utf8Path(NativePath(file).filename());
        transfers_.push_back(get);
      });
      Claim(claimed_, get.file);
    }
    return Carry(to_folder ? target_ : FolderOf(file));
  }

  // Several folders go into folders of their names.
  void PlanFoldersFromServer() {
    std::vector<std::pair<S3Path, std::string>> folders;
    for (const std::string& source : sources_) {
      const S3Path path = ParseS3Path(source);
      const std::string name = path.key.empty() ? path.bucket : LastName(path.key);
      folders.emplace_back(path, sources_.size() > 1 ? LocalNameOf(name) + "/" : "");
      Claim(claimed_, folders.back().second);
    }
    for (const auto& folder : folders) {
      PlanFor({.kind = Transfer::EKind::kGet, .remote = folder.first, .file = folder.second}, [&] {
        TransferPlan plan = PlanGets(ObjectsBelow(link_, folder.first), folder.first, folder.second);
        Append(transfers_, std::move(plan.transfers));
        Append(failures_, std::move(plan.failures));
      });
    }
  }

  template <typename Element>
  static void Append(std::vector<Element>& all, std::vector<Element> more) {
    all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
  }

  const CommandCall& call_;
  const std::vector<std::string>& sources_;
  const std::string& target_;
  const Settings settings_;
  const CS3Link link_;

  std::vector<Transfer> transfers_;
  std::set<std::string> claimed_;  // where they go
  std::vector<std::string> skipped_;
  std::vector<CFailure> failures_;
};

}  // namespace
}  // namespace details

int CopyFiles(const CommandCall& call, const std::vector<std::string>& sources, const std::string& target) {
  return details::CCopy(call, sources, target).Run();
}

std::string FolderName(const std::string& path) {
  std::error_code ignored;
  return LastName(Utf8Path(std::filesystem::weakly_canonical(NativePath(path), ignored)));
}

}  // namespace Tansy::Cli
