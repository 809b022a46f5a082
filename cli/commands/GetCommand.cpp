#include <filesystem>

#include "Commands.h"
#include "Failure.h"
#include "ObjectUrl.h"
#include "Output.h"
#include "PartialFile.h"
#include "Progress.h"
#include "Settings.h"
#include "Transfer.h"

namespace Tansy::Cli {
namespace details {
namespace {

std::filesystem::path Native(const std::string& path) {
  return std::filesystem::path(std::u8string(path.begin(), path.end()));
}

// Where the object goes: the file that was named, or one of the object's own name in the folder that was named, or
// here.
std::string TargetOf(const std::string& file, const std::string& key) {
  std::error_code ignored;
  const bool is_folder = !file.empty() && std::filesystem::is_directory(Native(file), ignored);
  if (!file.empty() && !is_folder) {
    return file;
  }
  // The name comes from the server's side and must not lead anywhere else.
  if (key == "." || key == ".." || key.find('\\') != std::string::npos || key != Printable(key)) {
    throw CFailure(kExitUsage, "\"" + Printable(key) + "\" is no name for a local file", "name one after the URL");
  }
  return is_folder ? file + "/" + key : key;
}

bool IsSpecialFile(const std::string& path) {
  std::error_code ignored;
  const std::filesystem::file_status status = std::filesystem::status(Native(path), ignored);
  return std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
}

// One use of the command.
class CGet {
 public:
  explicit CGet(const CommandCall& call)
      : call_(call), settings_(UseSettings(call.globals)), url_(ParseObjectUrl(call.Argument("URL"), settings_)) {}

  int Run() {
    const ByteRange range = call_.Has("--range") ? ParseByteRange(call_.Option("--range")) : ByteRange{};
    const std::string file = call_.Argument("FILE");
    if (file == "-") {
      FetchPieces(settings_, url_, range, ObjectSize(settings_, url_), PrintBytes, [](std::uint64_t) {});
      return kExitDone;
    }
    const std::string target = TargetOf(file, url_.key);
    const std::uint64_t size = ObjectSize(settings_, url_);
    if (IsSpecialFile(target)) {
      FetchInto(target, target, range, size);
    } else {
      CPartialFile partial(target);
      FetchInto(partial.Path(), target, range, size);
      partial.Commit();
    }
    Report(target);
    return kExitDone;
  }

 private:
  // `target` is what failures are about.
  void FetchInto(const std::string& path, const std::string& target, ByteRange range, std::uint64_t size) {
    CProgress progress(call_.globals, "get");
    const std::uint64_t end = range.end == 0 || range.end > size ? size : range.end;
    const std::size_t number = progress.Add(url_.key, end > range.begin ? end - range.begin : 0);
    const StdioFile file = OpenForWriting(path);
    const auto write = [&](const char* data, std::size_t count) { WriteTo(file.get(), target, data, count); };
    FetchPieces(settings_, url_, range, size, write, [&](std::uint64_t bytes) { progress.Update(number, bytes); });
  }

  void Report(const std::string& target) const {
    if (call_.globals.json) {
      std::error_code ignored;
      const std::uintmax_t size = std::filesystem::file_size(Native(target), ignored);
      CJsonLine line;
      line.Add("url", url_.Path()).Add("file", target);
      PrintLine(line.Add("size", ignored ? std::uint64_t{0} : std::uint64_t{size}).Text());
    } else if (!call_.globals.quiet) {
      PrintLine(Printable(target));
    }
  }

  const CommandCall& call_;
  Settings settings_;
  const ObjectUrl url_;
};

int RunGet(const CommandCall& call) {
  return CGet(call).Run();
}

}  // namespace
}  // namespace details

CommandSpec GetCommand() {
  return {"",
          "get",
          "download an object",
          "Downloads an object and prints the name of the local file. The bytes go into a file beside it, which takes "
          "the name when it is complete: what is there under the name is always whole, and an interrupted download "
          "leaves nothing behind. The file \"-\" is standard output.",
          {{.name = "URL", .help = "the object"},
           {.name = "FILE",
            .help = "local file or folder, or - for standard output [the object's name, here]",
            .required = false,
            .complete = EComplete::kFiles}},
          {{"--range", "A-B", "only the bytes from A up to, not including, B; A- means to the end"}},
          {{"tansy get /photos/cat.jpg", "download to cat.jpg"},
           {"tansy get /photos/cat.jpg ~/pictures", "download into a folder"},
           {"tansy get /backups/home.tgz - | tar xz", "hand it to another program"},
           {"tansy get /films/holiday.mp4 start.bin --range 0-1048576", "the first mebibyte"}},
          details::RunGet};
}

}  // namespace Tansy::Cli
