// Carries many files between folders and buckets.
#ifndef TANSY_CLI_TRANSFERS_H
#define TANSY_CLI_TRANSFERS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Failure.h"
#include "Progress.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "Settings.h"
#include "TargetFolder.h"

namespace Tansy::Cli {

// One thing to do.
struct Transfer {
  enum class EKind { kPut, kGet, kCopy, kRemoveObject, kRemoveFile };

  EKind kind = EKind::kPut;
  S3Path remote;             // the object; of a copy the one that is made
  S3Path source = {};        // of a copy
  std::string file = {};     // path of the local file to put, or the name below the target folder to get or remove
  RemoteObject object = {};  // the object as it was listed: to get, and to compare with
  // The object and the file have one size; they are carried only when their bytes differ.
  bool only_when_different = false;
};

struct TransferSettings {
  std::size_t jobs = 4;
  bool resume = false;
  bool dry_run = false;
};

// Does what is in a list, several at a time, and prints a line about each thing done, in the order of the list.
class CTransfers {
 public:
  // `target` is where files go that are fetched or removed; null when there are none.
  CTransfers(const Globals& globals, const CS3Link& link, const TransferSettings& settings, CTargetFolder* target,
             const char* what);

  // Goes on when one fails. Removals come last, and only when all else was done: what could not be carried may be the
  // other copy of what would be removed. Else they are left out, and a note says so. Returns the exit code of the first
  // failure in the order of the list, or kExitDone.
  int Run(const std::vector<Transfer>& transfers);

 private:
  int RunAll(const std::vector<const Transfer*>& transfers);
  std::string Do(const Transfer& transfer);
  void Put(const Transfer& transfer);
  void Get(const Transfer& transfer);
  void Copy(const Transfer& transfer) const;
  void RemoveObject(const Transfer& transfer) const;
  bool IsDifferent(const Transfer& transfer) const;
  std::string Report(const Transfer& transfer) const;
  std::string LocalPath(const Transfer& transfer) const;

  const Globals& globals_;
  const CS3Link& link_;
  const TransferSettings settings_;
  CTargetFolder* const target_;
  CProgress progress_;
  std::size_t parts_at_once_ = 1;  // of one file
};

// Prints what a walk left out, and its failures. Returns the exit code of the first failure, or kExitDone.
int ReportLeftOut(const Globals& globals, const std::vector<std::string>& skipped,
                  const std::vector<CFailure>& failures);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TRANSFERS_H
