// Carries many files between folders and buckets.
#ifndef TANSY_CLI_TRANSFERS_H
#define TANSY_CLI_TRANSFERS_H

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Failure.h"
#include "Progress.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "Settings.h"
#include "TargetFolder.h"
#include "Team.h"

namespace Tansy::Cli {

// One thing to do.
struct Transfer {
  enum class EKind { kPut, kGet, kCopy, kRemoveObject, kRemoveFile };

  EKind kind = EKind::kPut;
  S3Path remote;             // the object; of a copy the one that is made
  S3Path source = {};        // of a copy
  std::string file = {};     // path of the local file to put, or the name below the target folder to get or remove
  RemoteObject object = {};  // size and tag as they were listed: to get, and to compare with; no tag: not known yet
  // The object and the file have one size; they are carried only when their bytes differ.
  bool only_when_different = false;
  std::shared_ptr<const CFailure> failure = nullptr;  // why it cannot be done, as far as that is known before
};

struct TransferSettings {
  std::size_t jobs = 4;
  bool resume = false;
  bool dry_run = false;
};

// Does what is in a list, several at a time, and prints a line about each thing done, in the order of the list.
class CTransfers {
 public:
  // `target` is the folder that files go into that are fetched, or are removed from; it is made when the first one
  // comes. It is empty when there are none.
  CTransfers(const Globals& globals, const CS3Link& link, const TransferSettings& settings, std::string target,
             const char* what);

  // Goes on when one fails. Returns the exit code of the first failure in the order of the list, or kExitDone. It may
  // be called again with a further list.
  int Run(const std::vector<Transfer>& transfers);

 private:
  std::string Do(const Transfer& transfer);
  void Put(const Transfer& transfer);
  void Get(const Transfer& transfer);
  void Copy(const Transfer& transfer) const;
  void RemoveObject(const Transfer& transfer) const;
  RemoteObject Find(const S3Path& path) const;
  bool IsDifferent(const Transfer& transfer) const;
  std::string Report(const Transfer& transfer) const;
  std::string LocalPath(const Transfer& transfer) const;
  CTargetFolder& Target();

  const Globals& globals_;
  const CS3Link& link_;
  const TransferSettings settings_;
  const std::string target_path_;
  CTeam team_;
  CProgress progress_;
  std::mutex mutex_;                     // guards the next member while it is made
  std::optional<CTargetFolder> target_;  // what Target() gives
};

// Prints what a walk left out, and its failures. Returns the exit code of the first failure, or kExitDone.
int ReportLeftOut(const Globals& globals, const std::vector<std::string>& skipped,
                  const std::vector<CFailure>& failures);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TRANSFERS_H
