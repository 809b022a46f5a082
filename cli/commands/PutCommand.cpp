#include <algorithm>
#include <charconv>
#include <chrono>
#include <memory>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "ModuleClient.h"
#include "Output.h"
#include "Parallel.h"
#include "Progress.h"
#include "ServerLink.h"
#include "Settings.h"
#include "TansyBase/FileUtil.h"
#include "TansyBase/GuidUtil.h"
#include "Transfer.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::size_t kLongestName = 128;
constexpr std::uint64_t kLargestPiece = std::uint64_t{32} << 20;  // what servers take in one request

std::uint64_t ParsePieces(const std::string& text) {
  std::uint64_t pieces = 0;
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, pieces);
  if (error != std::errc{} || position != end || pieces < 1 || pieces > 10000) {
    throw CFailure(kExitUsage, "--pieces \"" + Printable(text) + "\" is no number of pieces", "give 1 to 10000");
  }
  return pieces;
}

std::string Extension(const std::string& path) {
  const std::string name = path.substr(path.find_last_of("/\\") + 1);
  const std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? "" : name.substr(dot);
}

bool IsPlainExtension(const std::string& extension) {
  return std::all_of(extension.begin(), extension.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte != 0x7f && byte != '?' && byte != '#' && byte != '%' && byte != '&';
  });
}

// The module opens files for writing too, so that nobody changes them meanwhile.
bool IsWritable(const std::string& path) {
  return StdioFile(TansyBase::FileUtil::OpenFile(path, "r+b")) != nullptr;
}

// One use of the command.
class CPut {
 public:
  explicit CPut(const CommandCall& call)
      : call_(call),
        settings_(UseSettings(call.globals)),
        bucket_(ChooseBucket(settings_)),
        progress_(call.globals, "put") {}

  std::string Put(const std::string& file) {
    const auto begin = std::chrono::steady_clock::now();
    std::uint64_t size = 0;
    std::string url;
    try {
      url = file == "-" ? PutInput(size) : PutFile(file, size);
    } catch (const CFailure& failure) {
      // Failures to find or open the file name it already.
      const std::string name = file == "-" ? "standard input" : Printable(file);
      throw std::string(failure.what()).starts_with(name + ":") ? failure : failure.About(name);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (call_.globals.json) {
      return CJsonLine().Add("file", file).Add("url", url).Add("size", size).AddSeconds("seconds", seconds).Text();
    }
    return url;
  }

 private:
  std::string PutFile(const std::string& file, std::uint64_t& size) {
    size = LocalFileSize(file);
    const std::size_t number = progress_.Add(file, size);
    const std::string extension = Extension(file);
    std::string url;
    if (call_.Has("--name") || call_.Has("--pieces") || !IsPlainExtension(extension) || !IsWritable(file) ||
        IsNamedTwice(file)) {
      url = PutInPieces(file, number, size);
    } else {
      CloudStorage::CObjectClient client = MakeObjectClient(
          settings_, bucket_, [this, number](int percent) { progress_.UpdatePercent(number, percent); });
      if (!client.UploadFile(url, file)) {
        throw FailureOfClient(client, settings_.object_server.Url());
      }
    }
    progress_.Finish(number);
    return url;
  }

  // The module opens a file for itself alone; the second opening of it by this very command would fail.
  bool IsNamedTwice(const std::string& file) const {
    const std::vector<std::string>& files = call_.Arguments("FILE");
    return std::count(files.begin(), files.end(), file) > 1;
  }

  std::string PutInPieces(const std::string& file, std::size_t number, std::uint64_t& size) {
    const StdioFile input = OpenForReading(file);
    PieceUpload upload;
    upload.bounded = true;
    upload.expected = size;
    const std::string extension = Extension(file);
    upload.key = call_.Has("--name")
                     ? call_.Option("--name")
                     : TansyBase::GuidUtil::CreateGuid() + (IsPlainExtension(extension) ? extension : "");
    if (call_.Has("--pieces")) {
      const std::uint64_t pieces = ParsePieces(call_.Option("--pieces"));
      upload.piece_size = std::max<std::uint64_t>((size + pieces - 1) / pieces, 1);
      if (upload.piece_size > kLargestPiece) {
        throw CFailure(kExitUsage, "pieces of " + FormatBytes(upload.piece_size) + " are too large",
                       "give --pieces " + std::to_string((size + kLargestPiece - 1) / kLargestPiece) + " or more");
      }
    }
    return Send(input.get(), upload, number, size);
  }

  std::string PutInput(std::uint64_t& size) {
    const std::size_t number = progress_.Add("standard input", 0);
    PieceUpload upload;
    upload.key = call_.Option("--name");
    std::string url = Send(stdin, upload, number, size);
    progress_.Finish(number);
    return url;
  }

  std::string Send(std::FILE* input, const PieceUpload& upload, std::size_t number, std::uint64_t& size) {
    CloudStorage::CObjectClient client = MakeObjectClient(settings_, bucket_);
    return SendPieces(settings_, client, input, upload, size,
                      [this, number](std::uint64_t bytes) { progress_.Update(number, bytes); });
  }

  const CommandCall& call_;
  const Settings settings_;
  const std::string bucket_;
  CProgress progress_;
};

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

void CheckOptions(const CommandCall& call) {
  const std::vector<std::string>& files = call.Arguments("FILE");
  const auto inputs = std::count(files.begin(), files.end(), "-");
  if (call.Has("--name") && files.size() > 1) {
    throw CFailure(kExitUsage, "--name names one object, but there are several files", "put them one after another");
  }
  if (inputs > 1 || (inputs == 1 && call.Has("--pieces"))) {
    throw CFailure(kExitUsage, "standard input can be put once, in pieces of its own size", "leave the rest out");
  }
  if (call.Has("--pieces")) {
    ParsePieces(call.Option("--pieces"));
  }
  if (call.Has("--name")) {
    CheckName(call.Option("--name"));
  }
}

int RunPut(const CommandCall& call) {
  CheckOptions(call);
  CPut put(call);
  return ForEach(call.Arguments("FILE"), [&](const std::string& file) { return put.Put(file); });
}

}  // namespace
}  // namespace details

CommandSpec PutCommand() {
  return {
      "",
      "put",
      "upload files",
      "Uploads files and prints the URL of each, in the order of the files. An object gets a new name with the "
      "file's extension unless --name gives one. Several files, and the parts of large ones, go in parallel. The "
      "file \"-\" is standard input. Without --pool the server's only bucket is used.",
      {{.name = "FILE", .help = "local file, or - for standard input", .many = true, .complete = EComplete::kFiles}},
      {{"--name", "KEY", "name of the object, at most 128 bytes; an object of that name is replaced"},
       {"--pieces", "N", "send the file in N pieces, one after another"}},
      {{"tansy --pool photos put cat.jpg dog.jpg", "upload two files and print their URLs"},
       {"tansy put cat.jpg --name cat.jpg", "choose the name"},
       {"tar cz ~ | tansy --pool backups put - --name home.tgz", "upload what another program writes"}},
      details::RunPut};
}

}  // namespace Tansy::Cli
