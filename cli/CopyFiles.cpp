#include "CopyFiles.h"

#include <filesystem>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "Failure.h"
#include "LocalFile.h"
#include "Output.h"
#include "S3Download.h"
#include "S3Link.h"
#include "S3Path.h"
#include "Settings.h"
#include "TargetFolder.h"
#include "TransferOptions.h"
#include "Transfers.h"
#include "TreeCopy.h"

namespace Tansy::Cli {
namespace details {
namespace {

bool IsFolder(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_directory(NativePath(path), ignored);
}

// Notes where one of several things goes. Throws CFailure when another one goes there too.
void Claim(std::set<std::string>& targets, const std::string& target) {
  if (!targets.insert(target).second) {
    throw CFailure(kExitUsage, "two of these would go to " + Printable(target), "copy them one by one");
  }
}

// Does one copy.
class CCopy {
 public:
  CCopy(const CommandCall& call, const std::vector<std::string>& sources, const std::string& target)
      : call_(call), sources_(sources), target_(target), settings_(UseSettings(call.globals)), link_(settings_) {}

  int Run() {
    const TransferSettings transfer_settings{JobsOf(call_), call_.Has("--resume"), false};
    return IsS3Url(target_) ? ToServer(transfer_settings) : FromServer(transfer_settings);
  }

 private:
  bool IsRecursive() const { return call_.Has("-r"); }

  // A target that ends with a slash or is a mere bucket is a folder, and so is the target of several things.
  bool IsFolderTarget(const S3Path& target) const {
    return sources_.size() > 1 || target.key.empty() || target.key.ends_with('/');
  }

  int ToServer(const TransferSettings& transfer_settings) {
    const S3Path target = ParseS3Path(target_);
    // Everything is looked at before anything is sent.
    std::vector<std::pair<std::string, S3Path>> folders;
    std::vector<Transfer> transfers;
    std::set<std::string> targets;
    for (const std::string& source : sources_) {
      if (IsS3Url(source)) {
        transfers.push_back(CopyOf(ParseS3Path(source), target));
        Claim(targets, transfers.back().remote.Url());
      } else if (IsRecursive() && IsFolder(source)) {
        folders.emplace_back(source, sources_.size() > 1 ? target.Below(FolderName(source)) : target);
        Claim(targets, S3Path{target.bucket, FolderPrefix(folders.back().second.key)}.Url());
      } else if (IsFolder(source)) {
        throw CFailure(kExitUsage, Printable(source) + ": is a folder", "copy it with -r");
      } else {
        LocalFileSize(source);  // finds what is no file
        transfers.push_back({.kind = Transfer::EKind::kPut,
                             .remote = IsFolderTarget(target) ? target.Below(LastName(source)) : target,
                             .file = source});
        Claim(targets, transfers.back().remote.Url());
      }
    }
    int exit_code = kExitDone;
    for (const auto& [folder, below] : folders) {
      const int done = PutFolder(call_, settings_, folder, below);
      exit_code = exit_code != kExitDone ? exit_code : done;
    }
    const int done = CTransfers(call_.globals, link_, transfer_settings, nullptr, "cp").Run(transfers);
    return exit_code != kExitDone ? exit_code : done;
  }

  Transfer CopyOf(const S3Path& source, const S3Path& target) const {
    if (IsRecursive()) {
      throw CFailure(kExitUsage, "folders are not copied on the server", "get it, and put it again");
    }
    return {.kind = Transfer::EKind::kCopy,
            .remote = IsFolderTarget(target) ? target.Below(LastName(source.key)) : target,
            .source = source,
            .object = Find(source)};
  }

  RemoteObject Find(const S3Path& path) const {
    if (path.key.empty()) {
      throw CFailure(kExitUsage, Printable(path.Url()) + ": is a bucket", "name an object, or copy with -r");
    }
    std::optional<RemoteObject> object;
    try {
      object = FindS3Object(link_, path);
    } catch (const CFailure& failure) {
      throw failure.About(Printable(path.Url()));
    }
    if (!object) {
      throw CFailure(kExitNotFound, Printable(path.Url()) + ": there is no such object",
                     "'tansy ls' lists what there is; a folder is copied with -r");
    }
    return *object;
  }

  int FromServer(const TransferSettings& transfer_settings) {
    if (IsRecursive()) {
      return FoldersFromServer();
    }
    const bool to_folder = IsFolder(target_);
    if (sources_.size() > 1 && !to_folder) {
      throw CFailure(kExitUsage, Printable(target_) + ": is no folder",
                     "several objects go into a folder: name one, or . for this one");
    }
    if (IsSpecialFile(target_)) {
      throw CFailure(kExitUsage, Printable(target_) + ": is a device or pipe", "'tansy get' writes into one");
    }
    const std::string file = to_folder ? "" : FollowLink(target_);
    std::vector<Transfer> transfers;
    std::set<std::string> targets;
    for (const std::string& source : sources_) {
      const S3Path path = ParseS3Path(source);
      const std::string name = to_folder ? LocalNameOf(LastName(path.key)) : Utf8Path(NativePath(file).filename());
      Claim(targets, name);
      transfers.push_back({.kind = Transfer::EKind::kGet, .remote = path, .file = name, .object = {}});
    }
    for (Transfer& transfer : transfers) {
      transfer.object = Find(transfer.remote);
    }
    CTargetFolder target(to_folder ? target_ : FolderOf(file));
    return CTransfers(call_.globals, link_, transfer_settings, &target, "cp").Run(transfers);
  }

  int FoldersFromServer() {
    std::vector<std::pair<S3Path, std::string>> folders;
    std::set<std::string> targets;
    for (const std::string& source : sources_) {
      const S3Path path = ParseS3Path(source);
      std::string folder = target_;
      if (sources_.size() > 1) {
        const std::string name = path.key.empty() ? path.bucket : LastName(path.key);
        folder += (folder.ends_with('/') ? "" : "/") + LocalNameOf(name);
      }
      Claim(targets, folder);
      folders.emplace_back(path, folder);
    }
    int exit_code = kExitDone;
    for (const auto& [path, folder] : folders) {
      const int done = GetFolder(call_, settings_, path, folder);
      exit_code = exit_code != kExitDone ? exit_code : done;
    }
    return exit_code;
  }

  const CommandCall& call_;
  const std::vector<std::string>& sources_;
  const std::string& target_;
  const Settings settings_;
  const CS3Link link_;
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
