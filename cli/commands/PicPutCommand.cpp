#include <chrono>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "LocalFile.h"
#include "Output.h"
#include "Parallel.h"
#include "PictureLink.h"
#include "Settings.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::uint64_t kLargestPicture = 33554432;

std::string PutPicture(const CommandCall& call, const Settings& settings, const std::string& file) {
  const auto begin = std::chrono::steady_clock::now();
  const std::uint64_t size = LocalFileSize(file);
  if (size == 0 || size > kLargestPicture) {
    throw CFailure(kExitUsage, Printable(file) + (size == 0 ? ": is empty" : ": is too large"),
                   "pictures have 1 byte to 32 MiB");
  }
  std::vector<char> picture(size);
  const StdioFile input = OpenForReading(file);
  if (std::fread(picture.data(), 1, picture.size(), input.get()) != picture.size()) {
    throw CFailure(kExitFailed, Printable(file) + ": cannot be read whole", "try again when nobody writes it");
  }
  // A picture server knows pools by their ids and accepts any name.
  CloudStorage::CPictureClient client = MakePictureClient(settings, settings.pool.empty() ? "1" : settings.pool);
  std::string url;
  if (!client.UploadPicture(url, picture.data(), static_cast<std::uint32_t>(size))) {
    throw FailureOfPictureClient(client, settings.picture_server).About(Printable(file));
  }
  if (call.globals.json) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return CJsonLine().Add("file", file).Add("url", url).Add("size", size).AddSeconds("seconds", seconds).Text();
  }
  return Printable(url);
}

int RunPicPut(const CommandCall& call) {
  const Settings settings = UseSettings(call.globals);
  return ForEach(call.Arguments("FILE"), [&](const std::string& file) { return PutPicture(call, settings, file); });
}

}  // namespace
}  // namespace details

CommandSpec PicPutCommand() {
  return {"pic",
          "put",
          "upload pictures",
          "Uploads pictures to the picture server and prints their URLs, in the order of the files.",
          {{.name = "FILE", .help = "a picture of at most 32 MiB", .many = true, .complete = EComplete::kFiles}},
          {},
          {{"tansy pic put cat.jpg dog.jpg", "upload two pictures"}},
          details::RunPicPut};
}

}  // namespace Tansy::Cli
