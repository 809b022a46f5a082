#include <string>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "Parallel.h"
#include "S3Path.h"
#include "ServerLink.h"
#include "Settings.h"
#include "TreeCopy.h"

namespace Tansy::Cli {
namespace details {
namespace {

std::string Remove(const CommandCall& call, const Settings& settings, const std::string& text) {
  const ObjectUrl url = ParseObjectUrl(text, settings);
  CServerLink(settings).Request(
      {.method = "DELETE", .resource = url.Path() + (call.Has("--bytes") ? "?deletefile" : "")}, Printable(url.Path()));
  if (call.globals.json) {
    return CJsonLine().Add("url", url.Path()).Add("removed", true).Text();
  }
  return call.globals.quiet ? "" : "removed " + Printable(url.Path());
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

int RemoveFolders(const CommandCall& call, const Settings& settings) {
  if (call.Has("--bytes")) {
    throw CFailure(kExitUsage, "-r does not go with --bytes",
                   "the bytes are freed when the time of --keep-removed of the server is over");
  }
  std::vector<S3Path> folders;
  for (const std::string& word : call.Arguments("URL")) {
    folders.push_back(ParseFolder(word, settings));
  }
  int exit_code = kExitDone;
  for (const S3Path& folder : folders) {
    const int done = RemoveFolder(call, settings, folder);
    exit_code = exit_code != kExitDone ? exit_code : done;
  }
  return exit_code;
}

int RunRemove(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  if (call.Has("-r")) {
    return RemoveFolders(call, settings);
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
       {"-r", nullptr, "all objects below a folder, BUCKET/PREFIX, or all of a BUCKET"}},
      {{"tansy rm /photos/cat.jpg", "remove one object"},
       {"tansy rm --bytes /photos/a.jpg /photos/b.jpg", "remove two and free what they occupied"},
       {"tansy rm -r photos/2025", "remove a folder with all that is in it"}},
      details::RunRemove};
}

}  // namespace Tansy::Cli
