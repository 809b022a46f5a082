#include "KeptDownload.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <mutex>
#include <set>
#include <system_error>

#include "Failure.h"
#include "LocalFile.h"
#include "Output.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

struct Downloads {
  std::mutex mutex;
  std::set<CKeptDownload*> all;  // guarded by mutex
};

// The list is never destroyed, because an interruption may come while the process ends.
Downloads& AllDownloads() {
  static auto* const downloads = new Downloads;
  return *downloads;
}

constexpr std::size_t kLargestPin = 65536;
// When the power fails, at most this many bytes have to be written again.
constexpr std::uint64_t kSaveBytes = std::uint64_t{32} << 20;
constexpr char kPart[] = ".part";
constexpr char kPin[] = ".pin";
constexpr char kLock[] = ".lock";
constexpr char kBytes[] = "bytes ";

std::string Line(const char* word, const std::string& value) {
  return std::string(word) + " " + value + "\n";
}

// Gives the lines of a pin by which downloads of one object differ only in its version.
std::string WhatIsRead(const DownloadIdentity& identity) {
  return Line("object", identity.address) + Line("range", identity.range);
}

std::string Pinned(const DownloadIdentity& identity) {
  return WhatIsRead(identity) + Line("version", identity.version.tag) +
         Line("size", std::to_string(identity.version.size));
}

// Reads the number in the last line of a pin; it is 0 when there is none.
std::uint64_t SavedBytes(const std::string& pin, std::size_t last_line) {
  const std::string line = pin.substr(last_line);
  std::uint64_t bytes = 0;
  if (line.starts_with(kBytes)) {
    std::from_chars(line.data() + sizeof(kBytes) - 1, line.data() + line.size(), bytes);
  }
  return bytes;
}

}  // namespace
}  // namespace details

CKeptDownload::CKeptDownload(const std::string& target) : target_(FollowLink(target)) {
  int error = lock_.Take(Path(details::kLock));
  if (error == EBUSY) {
    throw CFailure(kExitFailed, Printable(target) + ": another tansy is downloading it", "wait for its end");
  }
  if (error == 0) {
    folder_ = HostSystem::OpenFolder(FolderOf(target_), error);
  }
  if (error != 0) {
    throw FailureOfFile(target, error);
  }
  details::Downloads& downloads = details::AllDownloads();
  const std::lock_guard lock(downloads.mutex);
  downloads.all.insert(this);
}

CKeptDownload::~CKeptDownload() {
  {
    details::Downloads& downloads = details::AllDownloads();
    const std::lock_guard lock(downloads.mutex);
    downloads.all.erase(this);
  }
  SaveIfBegun();
}

void CKeptDownload::SaveIfBegun() {
  if (file_ == nullptr) {
    return;
  }
  try {
    Save();
  } catch (const CFailure&) {
    // When saving fails, the pin on the disk still promises no more than what is there.
  }
}

std::string CKeptDownload::Name(const char* ending) const {
  return ".tansy-" + Utf8Path(NativePath(target_).filename()) + ending;
}

std::string CKeptDownload::Path(const char* ending) const {
  return Utf8Path(NativePath(target_).replace_filename(NativePath(Name(ending))));
}

std::uint64_t CKeptDownload::Usable(const DownloadIdentity& identity, std::string& note) {
  std::string pin;
  if (HostSystem::ReadWholeFile(Path(details::kPin), details::kLargestPin, pin) != 0) {
    return 0;
  }
  const std::size_t last_line = pin.rfind(details::kBytes);
  const std::uint64_t bytes = last_line == std::string::npos ? 0 : details::SavedBytes(pin, last_line);
  if (bytes == 0) {
    return 0;
  }
  if (!pin.starts_with(details::WhatIsRead(identity))) {
    note = "the bytes that are there belong to another download; it starts over";
  } else if (identity.version.tag.empty()) {
    note = "the server does not tell versions apart; the download starts over";
  } else if (pin.substr(0, last_line) != pinned_) {
    note = "the object has changed since; the download starts over";
  } else if (std::uint64_t there = 0; folder_->OpenForWriting(Name(details::kPart), file_) != 0 ||
                                      file_->GetSize(there) != 0 || there < bytes || there > identity.version.size) {
    note = "the bytes that were kept are not as they were; the download starts over";
  } else {
    return bytes;
  }
  return 0;
}

std::uint64_t CKeptDownload::Begin(const DownloadIdentity& identity, std::string& note) {
  const std::lock_guard lock(mutex_);
  pinned_ = details::Pinned(identity);
  size_ = Usable(identity, note);
  if (size_ == 0) {
    // The pin is removed first, because the bytes mean nothing to anybody without it.
    folder_->Remove(Name(details::kPin));
    folder_->Remove(Name(details::kPart));
    const StdioFile made(TansyBase::FileUtil::OpenFile(Path(details::kPart), "wbx"));
    const int error = made == nullptr ? errno : folder_->OpenForWriting(Name(details::kPart), file_);
    if (error != 0) {
      throw FailureOfFile(target_, error);
    }
  }
  Save();
  return size_;
}

void CKeptDownload::Write(const char* data, std::size_t size) {
  const std::lock_guard lock(mutex_);
  if (const int error = file_->WriteAt(data, size, size_); error != 0) {
    throw FailureOfFile(target_, error);
  }
  size_ += size;
  if (size_ - saved_ >= details::kSaveBytes) {
    Save();
  }
}

// The bytes are written first, then the pin that promises them.
void CKeptDownload::Save() {
  int error = file_->Sync();
  if (error == 0) {
    error = HostSystem::ReplaceFile(Path(details::kPin), pinned_ + details::kBytes + std::to_string(size_) + "\n");
  }
  if (error != 0) {
    throw FailureOfFile(target_, error);
  }
  saved_ = size_;
}

void CKeptDownload::Commit() {
  const std::lock_guard lock(mutex_);
  Save();
  file_.reset();  // some systems refuse to rename an open file
  const int error = folder_->Rename(Name(details::kPart), Utf8Path(NativePath(target_).filename()));
  if (error != 0) {
    throw FailureOfFile(target_, error);
  }
  folder_->Remove(Name(details::kPin));
  folder_->Sync();  // the file is complete under its name even when this fails
  folder_->Remove(Name(details::kLock));
}

void CKeptDownload::SaveAll() {
  details::Downloads& downloads = details::AllDownloads();
  const std::lock_guard list_lock(downloads.mutex);
  for (CKeptDownload* const download : downloads.all) {
    const std::lock_guard lock(download->mutex_);
    download->SaveIfBegun();
  }
}

}  // namespace Tansy::Cli
