#ifndef TANSY_CLI_TREE_FILE_H
#define TANSY_CLI_TREE_FILE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "HostSystem/Files.h"
#include "TargetFolder.h"

namespace Tansy::Cli {

// A file below a target folder that is written under a hidden name and takes its own name when it is complete, so that
// nobody ever finds half a file under the right name. When it is not committed, it is removed by the destructor, or
// when the program is interrupted. Its bytes may be written by several threads at once; everything else is for one.
class CTreeFile {
 public:
  // Makes the folders on the way and an empty hidden file. Throws CFailure.
  CTreeFile(CTargetFolder& target, const std::string& name);
  ~CTreeFile();
  CTreeFile(const CTreeFile&) = delete;
  CTreeFile& operator=(const CTreeFile&) = delete;

  // Throws CFailure.
  void WriteAt(const char* data, std::size_t size, std::uint64_t offset);
  // Waits until the bytes are on stable storage, gives the file its name and waits for that too. A file that had that
  // name is replaced; anything else there is a failure. Throws CFailure.
  void Commit();

  // Removes all files that are being written. It is for the end of the process, and any thread may call it. No file is
  // committed afterwards.
  static void RemoveAll();

 private:
  std::string path_;  // for people
  std::string name_;  // in its folder
  std::string hidden_name_;
  std::unique_ptr<HostSystem::IFolder> folder_;
  std::unique_ptr<HostSystem::IFile> file_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TREE_FILE_H
