// Folders and files of the long runs.
#ifndef TANSY_TESTS_PROVE_POWER_PROVE_FOLDER_H
#define TANSY_TESTS_PROVE_POWER_PROVE_FOLDER_H

#include <map>
#include <string>

#include "support/Tansyd.h"

namespace prove {

// A fresh folder, removed at the end. It is in memory where that has room, because thousands of disks are written.
class CProveFolder {
 public:
  CProveFolder();
  ~CProveFolder();
  CProveFolder(const CProveFolder&) = delete;
  CProveFolder& operator=(const CProveFolder&) = delete;

  const std::string& GetPath() const { return path_; }

 private:
  std::string path_;
};

// A launch of the program that is tried.
system_tests::Launch PlainLaunch();
// The same; its file calls below `root` are watched.
system_tests::Launch WatchedLaunch(const std::string& root);

// Copies a file to where it outlives the run, and gives its new path.
std::string KeepFile(const std::string& path, const std::string& name);

// The content of every file below a folder, by relative path.
std::map<std::string, std::string> FilesOf(const std::string& folder);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_PROVE_FOLDER_H
