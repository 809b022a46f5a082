#include <string>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "Parallel.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "S3Path.h"
#include "ServerLink.h"
#include "Settings.h"
#include "Transfers.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::size_t kJobs = 4;
constexpr std::size_t kBatch = 1000;

std::string Remove(const CommandCall& call, const Settings& settings, const std::string& text) {
  const ObjectUrl url = ParseObjectUrl(text, settings);
  const std::string name = IsS3Url(text) ? ParseS3Path(text).Name() : url.Path();  // as it was given
  CServerLink(settings).Request(
      {.method = "DELETE", .resource = url.Path() + (call.Has("--bytes") ? "?deletefile" : "")}, Printable(name));
  if (call.globals.json) {
    return CJsonLine().Add("url", name).Add("removed", true).Text();
  }
  return call.globals.quiet ? "" : "removed " + Printable(name);
}

// With a bucket that is set, a mere name is elsewhere a key in it. It is never taken for a whole bucket here.
S3Path ParseFolder(const std::string& word, const Settings& settings) {
  S3Path folder = ParseS3Path(word);
  if (folder.key.empty() && !IsS3Url(word) && !settings.pool.empty()) {
    throw CFailure(kExitUsage,
                   "\"" + Printable(word) + "\" could be a bucket, or a folder of the bucket " +
                       Printable(settings.pool) + " that is set",
                   "write " + folder.Url() + " or " + S3Path{settings.pool, folder.bucket}.Url());
  }
  return folder;
}

// Removes what is below folders.
class CFolderRemoval {
 public:
  CFolderRemoval(const CommandCall& call, const Settings& settings)
      : link_(settings), transfers_(call.globals, link_, {.jobs = kJobs, .dry_run = call.Has("--dry-run")}, "", "rm") {}

  // Returns the exit code of the first failure, or kExitDone.
  int Remove(const S3Path& folder) {
    found_ = false;
    exit_code_ = kExitDone;
    try {
      ListObjects(link_, folder, "", {.object = [&](const RemoteObject& object) { Take(folder.bucket, object.key); }});
      if (!found_ && !folder.key.empty()) {
        throw NothingBelow(folder);
      }
    } catch (const CFailure& failure) {
      Run();
      PrintFailure(failure);
      return exit_code_ != kExitDone ? exit_code_ : failure.GetExitCode();
    }
    Run();
    return exit_code_;
  }

 private:
  // There may be millions of objects, so they are removed while the listing goes on.
  void Take(const std::string& bucket, const std::string& key) {
    found_ = true;
    batch_.push_back({.kind = Transfer::EKind::kRemoveObject, .remote = {bucket, key}});
    if (batch_.size() == kBatch) {
      Run();
    }
  }

  void Run() {
    const int done = transfers_.Run(batch_);
    exit_code_ = exit_code_ != kExitDone ? exit_code_ : done;
    batch_.clear();
  }

  const CS3Link link_;
  CTransfers transfers_;
  std::vector<Transfer> batch_;
  bool found_ = false;
  int exit_code_ = kExitDone;
};

int RemoveFolders(const CommandCall& call, const Settings& settings) {
  if (call.Has("--bytes")) {
    throw CFailure(kExitUsage, "-r does not go with --bytes",
                   "the bytes are freed when the time of --keep-removed of the server is over");
  }
  std::vector<S3Path> folders;
  for (const std::string& word : call.Arguments("URL")) {
    folders.push_back(ParseFolder(word, settings));
  }
  CFolderRemoval removal(call, settings);
  int exit_code = kExitDone;
  for (const S3Path& folder : folders) {
    const int done = removal.Remove({folder.bucket, FolderPrefix(folder.key)});
    exit_code = exit_code != kExitDone ? exit_code : done;
  }
  return exit_code;
}

int RunRemove(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  if (call.Has("-r")) {
    return RemoveFolders(call, settings);
  }
  if (call.Has("--dry-run")) {
    throw CFailure(kExitUsage, "--dry-run goes with -r", "without it, just the objects that are named are removed");
  }
  for (const std::string& text : call.Arguments("URL")) {
    ParseObjectUrl(text, settings);  // finds a word that is no URL before anything is removed
  }
  return ForEach(call.Arguments("URL"), [&](const std::string& text) { return Remove(call, settings, text); });
}

}  // namespace
}  // namespace details

CommandSpec RemoveCommand() {
  return {
      "",
      "rm",
      "remove objects",
      "Removes objects. Their bytes stay on the server's disk for as long as its option --keep-removed says, a week "
      "when nobody says otherwise; --bytes frees them at once.",
      {{.name = "URL", .help = "an object", .many = true}},
      {{"--bytes", nullptr, "free the stored bytes too"},
       {"-r", nullptr, "all objects below a folder, BUCKET/PREFIX, or all of a BUCKET"},
       {"--dry-run", nullptr, "with -r only say what would be removed"}},
      {{"tansy rm /photos/cat.jpg", "remove one object"},
       {"tansy rm --bytes /photos/a.jpg /photos/b.jpg", "remove two and free what they occupied"},
       {"tansy rm -r --dry-run photos/2025", "see first what would be removed"},
       {"tansy rm -r photos/2025", "remove a folder with all that is in it"}},
      details::RunRemove};
}

}  // namespace Tansy::Cli
