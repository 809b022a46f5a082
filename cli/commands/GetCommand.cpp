#include <algorithm>
#include <atomic>
#include <vector>

#include "Commands.h"
#include "CopyFiles.h"
#include "Download.h"
#include "Failure.h"
#include "KeptDownload.h"
#include "LocalFile.h"
#include "ObjectUrl.h"
#include "ObjectVersion.h"
#include "Output.h"
#include "Parallel.h"
#include "PartialFile.h"
#include "Progress.h"
#include "S3Path.h"
#include "Settings.h"
#include "TargetFolder.h"
#include "TransferOptions.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Gives the file into which an object goes: the file that was named, or a file with the object's own name in the folder
// that was named, or here.
std::string TargetOf(const std::string& file, const ObjectUrl& url) {
  const std::string& key = url.file_name.empty() ? url.key : url.file_name;
  const bool is_folder = !file.empty() && IsFolder(file);
  if (!file.empty() && !is_folder) {
    return file;
  }
  // The name comes from the server, so it must not lead to another folder.
  if (key == "." || key == ".." || key.find('\\') != std::string::npos || key != Printable(key)) {
    throw CFailure(kExitUsage, "\"" + Printable(key) + "\" is no name for a local file", "name one after the URL");
  }
  return is_folder ? PathIn(file, key) : key;
}

// Holds what the words of a command line mean: URLs, and after them perhaps the place where the objects go.
struct Words {
  std::vector<std::string> urls;
  std::string file;         // "": here
  bool is_guessed = false;  // the last word counts as a URL only because it cannot be a local file
};

// The last of several words is a local name unless it cannot be one: a whole address, or a path in a folder that is not
// there, where nothing could be written.
Words ReadWords(std::vector<std::string> words) {
  if (words.size() == 1) {
    return {std::move(words), "", false};
  }
  const std::string& last = words.back();
  const bool is_address = last.find("://") != std::string::npos;
  const bool may_be_url = last.starts_with("/") && !IsFolder(last) && !IsFolder(FolderOf(last));
  if (is_address || may_be_url) {
    return {std::move(words), "", !is_address};
  }
  Words read{std::move(words), "", false};
  read.file = read.urls.back();
  read.urls.pop_back();
  if (read.urls.size() > 1 && !IsFolder(read.file)) {
    throw CFailure(kExitUsage, Printable(read.file) + ": is no folder",
                   "several objects go into a folder: name one, or . for this one");
  }
  return read;
}

// Runs one use of the command.
class CGet {
 public:
  CGet(const CommandCall& call, Words words)
      : call_(call),
        words_(std::move(words)),
        settings_(UseSettings(call.globals)),
        asked_(call.Has("--range") ? ParseByteRange(call.Option("--range")) : ByteRange{}),
        progress_(call.globals, "get") {}

  int Run() {
    CheckWords();
    return ForEachNumber(words_.urls.size(), team_,
                         [this](std::size_t number) { return Get(ParseObjectUrl(words_.urls[number], settings_)); });
  }

 private:
  void CheckWords() const {
    std::vector<std::string> targets;
    for (const std::string& text : words_.urls) {
      const ObjectUrl url = ParseObjectUrl(text, settings_);
      if (words_.file != "-") {
        targets.push_back(TargetOf(words_.file, url));
        if (std::count(targets.begin(), targets.end(), targets.back()) > 1) {
          throw CFailure(kExitUsage, "two objects would go to " + Printable(targets.back()), "get them one by one");
        }
      }
    }
    if (words_.urls.size() > 1 && call_.Has("--range")) {
      throw CFailure(kExitUsage, "--range goes with one object", "get them one by one");
    }
    if (words_.is_guessed) {
      // The object is asked for first, so that nothing is written when the last word was a mistyped folder.
      AskVersion(settings_, ParseObjectUrl(words_.urls.back(), settings_));
    }
  }

  // Returns the line to print.
  std::string Get(const ObjectUrl& url) {
    const ObjectVersion version = AskVersion(settings_, url);
    const ByteRange range = Within(asked_, version.size, url);
    if (words_.file == "-") {
      Fetch(settings_, url, range, version, PrintBytes);
      return "";
    }
    const std::string target = TargetOf(words_.file, url);
    const std::size_t number = progress_.Add(url.key, range.end - range.begin);
    if (call_.Has("--resume")) {
      GetKept(url, range, version, target, number);
    } else if (IsSpecialFile(target)) {
      GetInto(target, target, url, range, version, number);
    } else {
      CPartialFile partial(target);
      if (partial.OpenForPieces()) {
        GetInPieces(partial, url, range, version, number);
      } else {
        GetInto(partial.Path(), target, url, range, version, number);
      }
      partial.Commit();
    }
    progress_.Finish(number);
    return Report(url, target, range.end - range.begin);
  }

  // Failures name `target`. A special file takes its bytes one after another.
  void GetInto(const std::string& path, const std::string& target, const ObjectUrl& url, ByteRange range,
               const ObjectVersion& version, std::size_t number) {
    const StdioFile file = OpenForWriting(path);
    std::uint64_t bytes = 0;
    Fetch(settings_, url, range, version, [&](const char* data, std::size_t size) {
      WriteTo(file.get(), target, data, size);
      progress_.Update(number, bytes += size);
    });
  }

  void GetInPieces(CPartialFile& partial, const ObjectUrl& url, ByteRange range, const ObjectVersion& version,
                   std::size_t number) {
    std::atomic<std::uint64_t> bytes{0};
    FetchInPieces(settings_, url, range, version, team_, [&](const char* data, std::size_t size, std::uint64_t offset) {
      partial.WriteAt(data, size, offset - range.begin);
      progress_.Update(number, bytes += size);
    });
  }

  void GetKept(const ObjectUrl& url, ByteRange range, const ObjectVersion& version, const std::string& target,
               std::size_t number) {
    if (IsSpecialFile(target)) {
      throw CFailure(kExitUsage, Printable(target) + ": is no regular file", "--resume needs one");
    }
    CKeptDownload kept(target);
    std::string note;
    std::uint64_t bytes = kept.Begin({settings_.object_server.Url() + url.Path(),
                                      std::to_string(range.begin) + "-" + std::to_string(range.end), version},
                                     note);
    if (!note.empty() && !call_.globals.quiet) {
      PrintNote("note: " + Printable(target) + ": " + note);
    }
    Fetch(settings_, url, {range.begin + bytes, range.end}, version, [&](const char* data, std::size_t size) {
      kept.Write(data, size);
      progress_.Update(number, bytes += size);
    });
    kept.Commit();
  }

  std::string Report(const ObjectUrl& url, const std::string& target, std::uint64_t size) const {
    if (call_.globals.json) {
      return CJsonLine().Add("url", url.Path()).Add("file", target).Add("size", size).Text();
    }
    return call_.globals.quiet ? "" : Printable(target);
  }

  const CommandCall& call_;
  const Words words_;
  const Settings settings_;
  const ByteRange asked_;
  CTeam team_{JobsOf(call_)};
  CProgress progress_;
};

// Gets folders. The last of several words is the local folder when it is no s3:// name; a single folder goes into one
// of its own name.
int GetFolders(const CommandCall& call) {
  if (call.Has("--range") || call.Has("--resume")) {
    throw CFailure(kExitUsage, "-r does not go with --range and --resume", "'tansy sync' gets only what is missing");
  }
  std::vector<std::string> words = call.Arguments("URL");
  std::string target;
  if (words.size() > 1 && !IsS3Url(words.back())) {
    target = words.back();
    words.pop_back();
  } else if (words.size() > 1) {
    target = ".";
  }
  for (std::string& word : words) {
    word = ParseS3Path(word).Url();
  }
  if (target.empty()) {
    const S3Path path = ParseS3Path(words.front());
    target = LocalNameOf(path.key.empty() ? path.bucket : LastName(path.key));
  }
  return CopyFiles(call, words, target);
}

int RunGet(const CommandCall& call) {
  JobsOf(call);
  ApplyRateLimit(call);
  return call.Has("-r") ? GetFolders(call) : CGet(call, ReadWords(call.Arguments("URL"))).Run();
}

}  // namespace
}  // namespace details

CommandSpec GetCommand() {
  return {
      "",
      "get",
      "download objects",
      "Downloads objects and prints the names of the local files. The bytes go into a hidden file, which takes the "
      "right name when it is complete: what has that name is always whole and of one version, and an interrupted "
      "download leaves nothing behind. With --resume it leaves the hidden file, and the same command goes on from "
      "there; when the object has changed meanwhile, it starts over. Behind the URLs comes a file or folder; "
      "several objects go into a folder, without one into the current folder. The file \"-\" is standard output.",
      {{.name = "URL",
        .help = "the objects, and behind them a local file or folder, or - for standard output [the object's name, "
                "here]",
        .many = true,
        .complete = EComplete::kFiles,
        .behind = " [FILE]"}},
      WithTransferOptions({{"--range", "A-B", "only the bytes from A up to, not including, B; A- means to the end"},
                           {"--resume", nullptr, "go on with a download that was broken off, and keep what comes now"},
                           {"-r", nullptr, "folders, BUCKET or BUCKET/PREFIX, with all that is in them"}}),
      {{"tansy get /photos/cat.jpg", "download to cat.jpg"},
       {"tansy get /photos/cat.jpg ~/pictures", "download into a folder"},
       {"tansy get /photos/cat.jpg /photos/dog.jpg ~/pictures", "download two"},
       {"tansy get -r photos/2026 pictures", "download a folder with all that is in it"},
       {"tansy get --resume /films/holiday.mp4", "download it in as many goes as it takes"},
       {"tansy get /backups/home.tgz - | tar xz", "hand it to another program"},
       {"tansy get /films/holiday.mp4 start.bin --range 0-1048576", "the first mebibyte"}},
      details::RunGet};
}

}  // namespace Tansy::Cli
