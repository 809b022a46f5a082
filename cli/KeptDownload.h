#ifndef TANSY_CLI_KEPT_DOWNLOAD_H
#define TANSY_CLI_KEPT_DOWNLOAD_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "HostSystem/Files.h"
#include "HostSystem/LockFile.h"
#include "ObjectVersion.h"

namespace Tansy::Cli {

// Says to which content the bytes of a download belong. Bytes with different identities are never put into one file.
struct DownloadIdentity {
  std::string address;  // address of the object, with its server
  std::string range;    // "0-1000"
  ObjectVersion version;
};

// A download that can end in the middle and go on another time. Its bytes are in a hidden file beside the target. A
// second hidden file, the pin, says to what they belong and how many of them are on stable storage. Threads: one,
// beside SaveAll; and only one process at a time per target.
class CKeptDownload {
 public:
  // Throws CFailure when the folder is not there, or when another process is downloading to the same target.
  explicit CKeptDownload(const std::string& target);
  ~CKeptDownload();  // keeps what has come, unless it was committed
  CKeptDownload(const CKeptDownload&) = delete;
  CKeptDownload& operator=(const CKeptDownload&) = delete;

  // Returns how many bytes are there already. When bytes of another download, or of another version of the object, have
  // to be dropped, `note` says so. Throws CFailure.
  std::uint64_t Begin(const DownloadIdentity& identity, std::string& note);
  // Writes the next bytes. Throws CFailure.
  void Write(const char* data, std::size_t size);
  // Gives the complete file its name and removes the hidden files. Throws CFailure.
  void Commit();

  // Lets the pins of all downloads of this process promise what has come, because the process is about to end. Threads:
  // any.
  static void SaveAll();

 private:
  std::string Path(const char* ending) const;
  std::string Name(const char* ending) const;
  // Gives the number of bytes that a pin promises; 0 with `note` set when they cannot be used.
  std::uint64_t Usable(const DownloadIdentity& identity, std::string& note);
  void Save();
  void SaveIfBegun();

  const std::string target_;  // the file behind links
  HostSystem::CLockFile lock_;
  std::unique_ptr<HostSystem::IFolder> folder_;

  std::mutex mutex_;  // guards what follows
  std::unique_ptr<HostSystem::IFile> file_;
  std::string pinned_;  // the pin without its last line
  std::uint64_t size_ = 0;
  std::uint64_t saved_ = 0;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_KEPT_DOWNLOAD_H
