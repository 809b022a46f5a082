#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "BucketList.h"
#include "Commands.h"
#include "CopyFiles.h"
#include "Failure.h"
#include "LocalFile.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "Parallel.h"
#include "Progress.h"
#include "S3Path.h"
#include "Settings.h"
#include "TansyBase/GuidUtil.h"
#include "TransferOptions.h"
#include "Upload.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::size_t kLongestName = 128;
constexpr std::size_t kLongestExtension = 64;                     // a new name consists of 36 bytes and the extension
constexpr std::uint64_t kLargestPiece = std::uint64_t{32} << 20;  // the most that servers take in one request

std::uint64_t ParsePieces(const std::string& text) {
  std::uint64_t pieces = 0;
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, pieces);
  if (error != std::errc{} || position != end || pieces < 1 || pieces > 10000) {
    throw CFailure(kExitUsage, "--pieces \"" + Printable(text) + "\" is no number of pieces", "give 1 to 10000");
  }
  return pieces;
}

std::string BaseName(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

// Gives an extension like ".jpg"; it is empty when there is none that can be part of a URL.
std::string Extension(const std::string& path) {
  const std::string name = BaseName(path);
  const std::size_t dot = name.rfind('.');
  const std::string extension = dot == std::string::npos ? "" : name.substr(dot);
  const bool is_plain = std::all_of(extension.begin(), extension.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte != 0x7f && byte != '?' && byte != '#' && byte != '%' && byte != '&';
  });
  return is_plain && extension.size() <= kLongestExtension ? extension : "";
}

void CheckName(const std::string& name) {
  const bool plain = std::all_of(name.begin(), name.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte != 0x7f && byte != '/' && byte != '?' && byte != '#';
  });
  if (name.empty() || !plain) {
    throw CFailure(kExitUsage, "\"" + Printable(name) + "\" cannot be the name of an object",
                   "names hold no blanks, \"/\", \"?\" and \"#\"");
  }
  if (name.size() > kLongestName) {
    throw CFailure(kExitUsage, "the name has " + std::to_string(name.size()) + " bytes", "names have at most 128");
  }
}

// Holds what the words of a command line mean: files, and after a single one perhaps the object that it becomes.
struct Words {
  std::vector<std::string> files;
  std::string url;  // empty when none was given
};

// Says whether a word names something on the server because it cannot be a local file: it is a whole address, or a path
// in a folder that is not there.
bool MeansServer(const std::string& word) {
  std::error_code ignored;
  return (word.starts_with("/") && !std::filesystem::exists(NativePath(FolderOf(word)), ignored)) ||
         word.find("://") != std::string::npos;
}

// The second of two words may be the object.
Words ReadWords(std::vector<std::string> words) {
  if (words.size() == 2 && MeansServer(words.back())) {
    return {{words.front()}, words.back()};
  }
  return {std::move(words), ""};
}

void CheckOptions(const CommandCall& call, const Words& words) {
  const std::vector<std::string>& files = words.files;
  const auto inputs = std::count(files.begin(), files.end(), "-");
  if (call.Has("--name") + call.Has("--keep-name") + !words.url.empty() > 1) {
    throw CFailure(kExitUsage, "the name is given twice", "give one of --name, --keep-name and /BUCKET/KEY");
  }
  if (call.Has("--name") && files.size() > 1) {
    throw CFailure(kExitUsage, "--name names one object, but there are several files",
                   "put them one after another, or with --keep-name");
  }
  if (inputs > 1 || (inputs == 1 && call.Has("--pieces"))) {
    throw CFailure(kExitUsage, "standard input can be put once, in pieces of its own size", "leave the rest out");
  }
  if (inputs > 0 && call.Has("--keep-name")) {
    throw CFailure(kExitUsage, "standard input has no name to keep", "give one with --name");
  }
  if (call.Has("--pieces")) {
    ParsePieces(call.Option("--pieces"));
  }
  if (call.Has("--name")) {
    CheckName(call.Option("--name"));
  }
}

void CheckKeptNames(const std::vector<std::string>& files) {
  std::vector<std::string> names;
  for (const std::string& file : files) {
    const std::string name = BaseName(file);
    CheckName(name);
    if (std::count(names.begin(), names.end(), name) > 0) {
      throw CFailure(kExitUsage, "two files would become the object " + Printable(name), "put them one by one");
    }
    names.push_back(name);
  }
}

// Runs one use of the command.
class CPut {
 public:
  CPut(const CommandCall& call, Words words)
      : call_(call), words_(std::move(words)), settings_(UseSettings(call.globals)), progress_(call.globals, "put") {
    CheckOptions(call, words_);
    if (!words_.url.empty()) {
      named_ = ParseObjectUrl(words_.url, settings_);
      CheckName(named_.key);
    } else {
      if (call.Has("--keep-name")) {
        CheckKeptNames(words_.files);
      }
      named_ = {ChooseBucket(settings_), call.Option("--name")};
      is_reached_ = settings_.pool.empty();  // then the server was already asked for its buckets
    }
  }

  int Run() {
    return ForEachNumber(words_.files.size(), team_, [this](std::size_t number) { return Put(words_.files[number]); });
  }

 private:
  // Returns the line to print.
  std::string Put(const std::string& file) {
    const auto begin = std::chrono::steady_clock::now();
    const bool is_input = file == "-";
    UploadJob job = JobOf(file);
    std::uint64_t size = 0;
    try {
      size = is_input ? Send(stdin, job, progress_.Add("standard input", 0)) : SendFile(file, job);
    } catch (const CFailure& failure) {
      // Failures to find or open the file contain its name already.
      const std::string name = is_input ? "standard input" : Printable(file);
      throw std::string(failure.what()).starts_with(name + ":") ? failure : failure.About(name);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const std::string url = job.url.Path();
    return call_.globals.json
               ? CJsonLine().Add("file", file).Add("url", url).Add("size", size).AddSeconds("seconds", seconds).Text()
               : url;
  }

  UploadJob JobOf(const std::string& file) const {
    UploadJob job;
    job.url = named_;
    job.may_replace = call_.Has("--keep-name") || !named_.key.empty();
    if (call_.Has("--keep-name")) {
      job.url.key = BaseName(file);
    } else if (named_.key.empty()) {
      job.url.key = TansyBase::GuidUtil::CreateGuid() + (file == "-" ? ".pfile" : Extension(file));
    }
    job.verify = call_.Has("--verify");
    job.patience = is_reached_ ? EPatience::kMuch : EPatience::kNone;
    return job;
  }

  std::uint64_t SendFile(const std::string& file, UploadJob& job) {
    const std::uint64_t size = LocalFileSize(file);
    job.part_size = size <= kLargestWhole ? kLargestWhole : kUsualPart;
    if (call_.Has("--pieces")) {
      const std::uint64_t pieces = ParsePieces(call_.Option("--pieces"));
      job.part_size = std::max<std::uint64_t>((size + pieces - 1) / pieces, 1);
      if (job.part_size > kLargestPiece) {
        throw CFailure(kExitUsage, "pieces of " + FormatBytes(job.part_size) + " are too large",
                       "give --pieces " + std::to_string((size + kLargestPiece - 1) / kLargestPiece) + " or more");
      }
    }
    job.expected = size;
    const StdioFile input = OpenForReading(file);
    return Send(input.get(), job, progress_.Add(file, size));
  }

  std::uint64_t Send(std::FILE* input, const UploadJob& job, std::size_t number) {
    const UploadListener listener{[this, number](std::uint64_t bytes) { progress_.Update(number, bytes); },
                                  [this](const std::string& line) {
                                    if (!call_.globals.quiet) {
                                      PrintNote(line);
                                    }
                                  }};
    const std::uint64_t size = Upload(settings_, input, job, team_, listener);
    progress_.Finish(number);
    is_reached_ = true;
    return size;
  }

  const CommandCall& call_;
  const Words words_;
  const Settings settings_;
  ObjectUrl named_;  // with an empty key, each object gets a name of its own
  CTeam team_{JobsOf(call_)};
  CProgress progress_;
  std::atomic<bool> is_reached_{false};  // the server has answered, so its address is right
};

// Says whether the files go through the S3 door: their names may then hold slashes.
bool IsForS3Door(const CommandCall& call) {
  return call.Has("-r") || call.Has("--resume") || IsS3Url(call.Arguments("FILE").back());
}

S3Path TargetAtDoor(const std::string& word, const Settings& settings) {
  const bool is_address = word.find("://") != std::string::npos && !IsS3Url(word);
  return ParseS3Path(is_address ? ParseObjectUrl(word, settings).Path() : word);
}

int PutThroughS3Door(const CommandCall& call) {
  for (const char* option : {"--name", "--keep-name", "--pieces", "--verify"}) {
    if (call.Has(option)) {
      throw CFailure(kExitUsage, std::string(option) + " does not go with -r, --resume and s3://",
                     "say the name behind the files: s3://BUCKET/KEY");
    }
  }
  std::vector<std::string> files = call.Arguments("FILE");
  std::string target;
  if (MeansServer(files.back())) {
    target = TargetAtDoor(files.back(), UseSettings(call.globals)).Url();
    files.pop_back();
  } else {
    const S3Path bucket{ChooseBucket(UseSettings(call.globals)), ""};
    const bool is_one_folder = files.size() == 1 && IsFolder(files.front());
    target = (is_one_folder ? bucket.Below(FolderName(files.front())) : bucket).Url();
  }
  if (files.empty()) {
    throw CFailure(kExitUsage, "no file is given", "name files before the name on the server");
  }
  return CopyFiles(call, files, target);
}

int RunPut(const CommandCall& call) {
  JobsOf(call);
  ApplyRateLimit(call);
  return IsForS3Door(call) ? PutThroughS3Door(call) : CPut(call, ReadWords(call.Arguments("FILE"))).Run();
}

}  // namespace
}  // namespace details

CommandSpec PutCommand() {
  return {
      "",
      "put",
      "upload files",
      "Uploads files and prints the URL of each, in the order of the files. An object gets a new name with the file's "
      "extension unless --name, --keep-name or a URL behind the file says otherwise; an object that has the name "
      "already is replaced in one step. Several files, and the parts of large ones, go in parallel. Afterwards the "
      "server is asked for the object's size. Requests are repeated while the server is started again. The file "
      "\"-\" is standard input. Without --pool the server's only bucket is used.",
      {{.name = "FILE",
        .help = "local files, or - for standard input; behind a single one the object that it becomes",
        .many = true,
        .complete = EComplete::kFiles,
        .behind = " [/BUCKET/KEY | s3://BUCKET/KEY]"}},
      WithTransferOptions(
          {{"--name", "KEY", "name of the object, at most 128 bytes"},
           {"--keep-name", nullptr, "name each object as its file is named"},
           {"--pieces", "N", "send the file in N parts of one size, the last one perhaps smaller"},
           {"--verify", nullptr, "read each object back and compare it with what was sent"},
           {"-r", nullptr, "folders with all that is in them, as 'tansy cp -r' does"},
           {"--resume", nullptr, "go on with an upload that was broken off; the object gets the name of its file"}}),
      {{"tansy --pool photos put cat.jpg dog.jpg", "upload two files and print their URLs"},
       {"tansy put cat.jpg /photos/cat.jpg", "choose bucket and name"},
       {"tansy put --keep-name *.jpg", "upload files under their own names"},
       {"tansy put -r pictures", "upload a folder; the names begin with pictures/"},
       {"tar cz ~ | tansy --pool backups put - --name home.tgz --verify", "upload what another program writes"}},
      details::RunPut};
}

}  // namespace Tansy::Cli
