#include "Transfer.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <vector>

#include "Failure.h"
#include "HostSystem/Files.h"
#include "ModuleClient.h"
#include "Output.h"
#include "ServerLink.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::uint64_t kFetchBytes = std::uint64_t{2} << 20;
// The protocol counts an object's bytes in 32 bits.
constexpr std::uint64_t kLargestObject = 0xFFFFFFFF;

CFailure FileFailure(const std::string& path, int error) {
  const std::string what = Printable(path) + ": " + HostSystem::ErrorText(error);
  if (error == EACCES || error == EPERM || error == EROFS) {
    return {kExitDenied, what, "check its permissions"};
  }
  if (error == ENOENT || error == ENOTDIR) {
    return {kExitNotFound, what, "check the path"};
  }
  if (HostSystem::IsNoSpace(error)) {
    return {kExitNoSpace, what, "make room, or choose another folder"};
  }
  return {kExitFailed, what, ""};
}

bool ParseNumber(const std::string& text, std::uint64_t& number) {
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, number);
  return error == std::errc{} && position == end;
}

// Reads up to `size` bytes; fewer only at the end.
std::size_t ReadPiece(std::FILE* file, char* data, std::size_t size) {
  const std::size_t done = std::fread(data, 1, size, file);
  if (done < size && std::ferror(file) != 0) {
    throw CFailure(kExitFailed, "reading failed: " + HostSystem::ErrorText(errno), "");
  }
  return done;
}

// The next piece to send. `last` says that nothing follows: for input without a known end this takes a look at the byte
// behind the piece.
bool NextPiece(std::FILE* file, const PieceUpload& upload, std::uint64_t sent, std::vector<char>& piece) {
  std::uint64_t size = upload.piece_size;
  if (upload.bounded) {
    size = std::min(size, upload.expected - sent);
  }
  piece.resize(size);
  piece.resize(ReadPiece(file, piece.data(), size));
  if (upload.bounded) {
    if (piece.size() < size) {
      throw CFailure(kExitFailed, "the file became shorter while it was read", "try again when nobody writes it");
    }
    return sent + size == upload.expected;
  }
  const int next = piece.size() < size ? EOF : std::fgetc(file);
  if (next == EOF) {
    if (std::ferror(file) != 0) {
      throw CFailure(kExitFailed, "reading failed: " + HostSystem::ErrorText(errno), "");
    }
    return true;
  }
  std::ungetc(next, file);
  return false;
}

}  // namespace
}  // namespace details

std::uint64_t LocalFileSize(const std::string& path) {
  std::error_code error;
  const std::filesystem::path native(std::u8string(path.begin(), path.end()));
  const std::filesystem::file_status status = std::filesystem::status(native, error);
  if (!std::filesystem::exists(status)) {
    throw details::FileFailure(path, error ? error.value() : ENOENT);
  }
  if (std::filesystem::is_directory(status)) {
    throw CFailure(kExitUsage, Printable(path) + ": is a folder", "name the files in it");
  }
  if (!std::filesystem::is_regular_file(status)) {
    throw CFailure(kExitUsage, Printable(path) + ": is no regular file", "pipe it into 'tansy put -'");
  }
  const std::uint64_t size = std::filesystem::file_size(native, error);
  if (error) {
    throw details::FileFailure(path, error.value());
  }
  if (size > details::kLargestObject) {
    throw CFailure(kExitFailed, Printable(path) + ": is too large", "objects are smaller than 4 GiB");
  }
  return size;
}

StdioFile OpenForReading(const std::string& path) {
  StdioFile file(TansyBase::FileUtil::OpenFile(path, "rb"));
  if (file == nullptr) {
    throw details::FileFailure(path, errno);
  }
  return file;
}

StdioFile OpenForWriting(const std::string& path) {
  StdioFile file(TansyBase::FileUtil::OpenFile(path, "wb"));
  if (file == nullptr) {
    throw details::FileFailure(path, errno);
  }
  // Pieces are large; a buffer between would only delay the news that the disk is full.
  std::setvbuf(file.get(), nullptr, _IONBF, 0);
  return file;
}

void WriteTo(std::FILE* file, const std::string& path, const char* data, std::size_t size) {
  if (std::fwrite(data, 1, size, file) != size) {
    throw details::FileFailure(path, errno);
  }
}

std::uint64_t ObjectSize(const Settings& settings, const ObjectUrl& url) {
  const TansyNet::CHttpClientResponse answer =
      CServerLink(settings).Request("GET", url.Path() + "?metadata", Printable(url.Path()));
  std::uint64_t size = 0;
  if (!details::ParseNumber(answer.GetHeader("Object-Size"), size)) {
    throw CFailure(kExitFailed, Printable(url.Path()) + ": the server does not tell its size",
                   "is this an object server?");
  }
  return size;
}

ByteRange ParseByteRange(const std::string& text) {
  ByteRange range;
  const std::size_t dash = text.find('-');
  const std::string end = dash == std::string::npos ? "" : text.substr(dash + 1);
  if (dash == std::string::npos || !details::ParseNumber(text.substr(0, dash), range.begin) ||
      !(end.empty() || (details::ParseNumber(end, range.end) && range.end > range.begin))) {
    throw CFailure(kExitUsage, "\"" + Printable(text) + "\" is no range",
                   "give A-B for the bytes from A up to, not including, B; or A- to the end");
  }
  return range;
}

void FetchPieces(const Settings& settings, const ObjectUrl& url, ByteRange range, std::uint64_t object_size,
                 const std::function<void(const char* data, std::size_t size)>& take,
                 const std::function<void(std::uint64_t bytes)>& progress) {
  const std::uint64_t end = range.end == 0 ? object_size : std::min(range.end, object_size);
  if (range.begin > 0 && range.begin >= object_size) {
    throw CFailure(kExitUsage, Printable(url.Path()) + ": has only " + std::to_string(object_size) + " bytes",
                   "give a range within them");
  }
  CloudStorage::CObjectClient client = MakeObjectClient(settings, url.bucket);
  for (std::uint64_t at = range.begin; at < end;) {
    const std::uint64_t size = std::min(details::kFetchBytes, end - at);
    std::string text = std::to_string(at) + "-" + std::to_string(at + size);
    char* data = nullptr;
    unsigned int received = 0;
    if (!client.DownloadFile(&data, received, text, url.Path())) {
      throw FailureOfClient(client, settings.object_server.Url()).About(Printable(url.Path()));
    }
    const std::unique_ptr<char[]> owner(data);
    if (received != size) {
      throw CFailure(kExitFailed, Printable(url.Path()) + ": changed while it was read", "try again");
    }
    take(data, received);
    at += size;
    progress(at - range.begin);
  }
}

std::string SendPieces(const Settings& settings, CloudStorage::CObjectClient& client, std::FILE* file,
                       const PieceUpload& upload, std::uint64_t& sent,
                       const std::function<void(std::uint64_t bytes)>& progress) {
  std::string url = upload.key;
  std::vector<char> piece;
  sent = 0;
  for (bool first = true, last = false; !last; first = false) {
    last = details::NextPiece(file, upload, sent, piece);
    if (sent + piece.size() > details::kLargestObject) {
      throw CFailure(kExitFailed, "the input is too large", "objects are smaller than 4 GiB");
    }
    const auto size = static_cast<unsigned int>(piece.size());
    const bool done = upload.key.empty() ? client.UploadFileByPieces(url, piece.data(), size, last)
                                         : client.UploadFileByPiecesAndFileName(url, piece.data(), size, last, first);
    if (!done) {
      throw FailureOfClient(client, settings.object_server.Url());
    }
    sent += size;
    progress(sent);
  }
  return url;
}

}  // namespace Tansy::Cli
