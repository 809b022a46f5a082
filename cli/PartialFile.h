#ifndef TANSY_CLI_PARTIAL_FILE_H
#define TANSY_CLI_PARTIAL_FILE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "HostSystem/Files.h"

namespace Tansy::Cli {

// A file that is written beside its target and takes the target's place when it is complete, so that nobody ever finds
// half a file under the right name. When it is not committed, it is removed by the destructor, or when the program is
// interrupted. Threads: one, unless said otherwise.
class CPartialFile {
 public:
  // Makes an empty file in the target's folder. A link at the target is followed. Throws CFailure.
  explicit CPartialFile(const std::string& target);
  ~CPartialFile();
  CPartialFile(const CPartialFile&) = delete;
  CPartialFile& operator=(const CPartialFile&) = delete;

  const std::string& Path() const { return path_; }
  // Opens the file for WriteAt. Returns false when that cannot be: a folder that may not be listed cannot be opened.
  bool OpenForPieces();
  // Writes bytes at their place; several threads may do that at once. Throws CFailure about the target.
  void WriteAt(const char* data, std::size_t size, std::uint64_t offset);
  // Throws CFailure.
  void Commit();

  // Removes all files that are being written. It is for the end of the process, and any thread may call it. No file is
  // committed afterwards.
  static void RemoveAll();

 private:
  std::string target_;
  std::string path_;
  std::unique_ptr<HostSystem::IFolder> folder_;
  std::unique_ptr<HostSystem::IFile> file_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PARTIAL_FILE_H
