#include "Transfers.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <utility>

#include "LocalFile.h"
#include "LocalTree.h"
#include "Output.h"
#include "Parallel.h"
#include "S3Download.h"
#include "S3Upload.h"
#include "TagCheck.h"
#include "TansyNet/S3Signing.h"
#include "TreeFile.h"

namespace Tansy::Cli {
namespace details {
namespace {

using EKind = Transfer::EKind;

const char* NameOf(EKind kind) {
  switch (kind) {
    case EKind::kPut:
      return "put";
    case EKind::kGet:
      return "get";
    case EKind::kCopy:
      return "copy";
    case EKind::kRemoveObject:
    case EKind::kRemoveFile:
      break;
  }
  return "remove";
}

bool IsRemoval(EKind kind) {
  return kind == EKind::kRemoveObject || kind == EKind::kRemoveFile;
}

// An object that is not known yet may be none, and then no folder is made for it.
bool IsKnownGet(const Transfer& transfer) {
  return transfer.kind == EKind::kGet && !transfer.object.tag.empty();
}

bool IsLocal(EKind kind) {
  return kind == EKind::kGet || kind == EKind::kRemoveFile;
}

}  // namespace
}  // namespace details

CTransfers::CTransfers(const Globals& globals, const CS3Link& link, const TransferSettings& settings,
                       std::string target, const char* what)
    : globals_(globals),
      link_(link),
      settings_(settings),
      target_path_(std::move(target)),
      team_(settings.jobs),
      progress_(globals, what) {}

int CTransfers::Run(const std::vector<Transfer>& transfers) {
  if (!settings_.dry_run && std::any_of(transfers.begin(), transfers.end(), details::IsKnownGet)) {
    Target();  // one failure says it for all of them
  }
  return ForEachNumber(transfers.size(), team_, [&](std::size_t number) { return Do(transfers[number]); });
}

// Returns the line to print.
std::string CTransfers::Do(const Transfer& transfer) {
  if (transfer.failure != nullptr) {
    throw CFailure(*transfer.failure);
  }
  const bool is_local = details::IsLocal(transfer.kind);
  try {
    if (transfer.only_when_different && !IsDifferent(transfer)) {
      return "";
    }
    if (!settings_.dry_run) {
      switch (transfer.kind) {
        case Transfer::EKind::kPut:
          Put(transfer);
          break;
        case Transfer::EKind::kGet:
          Get(transfer);
          break;
        case Transfer::EKind::kCopy:
          Copy(transfer);
          break;
        case Transfer::EKind::kRemoveObject:
          RemoveObject(transfer);
          break;
        case Transfer::EKind::kRemoveFile:
          Target().RemoveFile(transfer.file);
          break;
      }
    }
    return Report(transfer);
  } catch (const CFailure& failure) {
    // Some failures name their file or object already.
    const std::string subject = is_local ? LocalPath(transfer) : transfer.remote.Url();
    const std::string what = failure.what();
    for (const std::string& name : {subject, transfer.file, transfer.remote.Url(), transfer.source.Url()}) {
      if (what.starts_with(Printable(name) + ":")) {
        throw;
      }
    }
    throw failure.About(Printable(subject));
  }
}

void CTransfers::Put(const Transfer& transfer) {
  const std::size_t number = progress_.Add(transfer.file, LocalFileSize(transfer.file));
  UploadToS3(link_, {transfer.file, transfer.remote, settings_.resume}, team_,
             [&](std::uint64_t bytes) { progress_.Update(number, bytes); });
  progress_.Finish(number);
}

void CTransfers::Get(const Transfer& transfer) {
  const RemoteObject object = transfer.object.tag.empty() ? Find(transfer.remote) : transfer.object;
  const std::size_t number = progress_.Add(transfer.file, object.size);
  CTreeFile file(Target(), transfer.file);
  std::atomic<std::uint64_t> bytes{0};
  DownloadFromS3(link_, transfer.remote, object, team_, [&](const char* data, std::size_t size, std::uint64_t offset) {
    file.WriteAt(data, size, offset);
    progress_.Update(number, bytes += size);
  });
  file.Commit();
  progress_.Finish(number);
}

// The server copies the bytes itself. Some servers announce success before they know it, and tell of a failure in the
// answer's body.
void CTransfers::Copy(const Transfer& transfer) const {
  const std::string source =
      TansyNet::S3Signing::PercentEncodePath("/" + transfer.source.bucket + "/" + transfer.source.key);
  const LinkOutcome outcome =
      link_.TryPatiently({.method = "PUT",
                          .path = transfer.remote,
                          .headers = {{"x-amz-copy-source", source},
                                      {"x-amz-copy-source-if-match", "\"" + Find(transfer.source).tag + "\""}}});
  if (!IsDone(outcome) || !outcome.ErrorCode().empty()) {
    throw link_.FailureOf(outcome);
  }
}

void CTransfers::RemoveObject(const Transfer& transfer) const {
  const LinkOutcome outcome = link_.TryPatiently({.method = "DELETE", .path = transfer.remote});
  if (!IsDone(outcome)) {
    throw link_.FailureOf(outcome);
  }
}

RemoteObject CTransfers::Find(const S3Path& path) const {
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

CTargetFolder& CTransfers::Target() {
  const std::lock_guard lock(mutex_);
  if (!target_) {
    target_.emplace(target_path_);
  }
  return *target_;
}

bool CTransfers::IsDifferent(const Transfer& transfer) const {
  const std::string path = details::IsLocal(transfer.kind) ? LocalPath(transfer) : transfer.file;
  return !IsFileOfTag(path, transfer.object.size, transfer.object.tag);
}

std::string CTransfers::LocalPath(const Transfer& transfer) const {
  return details::IsLocal(transfer.kind) ? PathIn(target_path_, transfer.file) : transfer.file;
}

std::string CTransfers::Report(const Transfer& transfer) const {
  const bool is_local = details::IsLocal(transfer.kind);
  const std::string subject = is_local ? LocalPath(transfer) : transfer.remote.Name();
  if (globals_.json) {
    CJsonLine line;
    line.Add("action", details::NameOf(transfer.kind)).Add(is_local ? "file" : "url", subject);
    if (transfer.kind == Transfer::EKind::kPut) {
      line.Add("file", transfer.file);
    } else if (transfer.kind == Transfer::EKind::kGet) {
      line.Add("url", transfer.remote.Name());
    } else if (transfer.kind == Transfer::EKind::kCopy) {
      line.Add("source", transfer.source.Name());
    }
    return line.Add("dry_run", settings_.dry_run).Text();
  }
  if (settings_.dry_run) {
    return std::string("would ") + details::NameOf(transfer.kind) + " " + Printable(subject);
  }
  if (globals_.quiet) {
    return "";
  }
  return (details::IsRemoval(transfer.kind) ? "removed " : "") + Printable(subject);
}

int ReportLeftOut(const Globals& globals, const std::vector<std::string>& skipped,
                  const std::vector<CFailure>& failures) {
  if (!globals.quiet) {
    for (const std::string& name : skipped) {
      PrintNote("note: " + Printable(name) +
                (IsOwnHiddenFile(LastName(name)) ? ": belongs to a download that was broken off; it is left out"
                                                 : ": is no regular file; it is left out"));
    }
  }
  for (const CFailure& failure : failures) {
    PrintFailure(failure);
  }
  return failures.empty() ? kExitDone : failures.front().GetExitCode();
}

}  // namespace Tansy::Cli
