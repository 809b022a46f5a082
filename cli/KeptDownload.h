#ifndef TANSY_CLI_KEPT_DOWNLOAD_H
#define TANSY_CLI_KEPT_DOWNLOAD_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "HostSystem/Files.h"
#include "HostSystem/LockFile.h"
#include "ObjectVersion.h"

namespace Tansy::Cli {

// What the bytes of a download belong to: bytes of two of these are never put into one file.
struct DownloadIdentity {
  std::string address;  // of the object, with its server
  std::string range;    // "0-1000"
  ObjectVersion version;
};

// A download that can end in the middle and go on another time. Its bytes are in a hidden file beside the target, and a
// second hidden file, the pin, says what they belong to and how many of them are on stable storage. One thread, and one
// process at a time for each target.
class CKeptDownload {
 public:
  // Throws CFailure: the folder is not there, or another process is at it.
  explicit CKeptDownload(const std::string& target);
  ~CKeptDownload();  // what has come is kept, unless it was committed
  CKeptDownload(const CKeptDownload&) = delete;
  CKeptDownload& operator=(const CKeptDownload&) = delete;

  // Returns how many bytes are there already. When bytes of another download, or of another version of the object, have
  // to go, `note` says so. Throws CFailure.
  std::uint64_t Begin(const DownloadIdentity& identity, std::string& note);
  // The next bytes. Throws CFailure.
  void Write(const char* data, std::size_t size);
  // Gives the complete file its name and removes what is hidden. Throws CFailure.
  void Commit();

 private:
  std::string Path(const char* ending) const;
  std::string Name(const char* ending) const;
  // How many bytes a pin promises; 0 with `note` set when they cannot be used.
  std::uint64_t Usable(const DownloadIdentity& identity, std::string& note);
  void Save();

  const std::string target_;  // behind links
  HostSystem::CLockFile lock_;
  std::unique_ptr<HostSystem::IFolder> folder_;
  std::unique_ptr<HostSystem::IFile> file_;
  std::string pinned_;  // the pin without its last line
  std::uint64_t size_ = 0;
  std::uint64_t saved_ = 0;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_KEPT_DOWNLOAD_H
