#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "PartialFile.h"
#include "fakes/TempFolder.h"

namespace {

std::vector<std::string> g_synced;  // what was brought to the disk, and what its folder held then

int RecordAndSync(int descriptor, long call) {
  const std::filesystem::path path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
  const bool is_folder = std::filesystem::is_directory(path);
  const bool target_is_there = std::filesystem::exists((is_folder ? path : path.parent_path()) / "target");
  g_synced.push_back(std::string(is_folder ? "folder" : path.extension().string()) +
                     (target_is_there ? ", target there" : ""));
  return static_cast<int>(::syscall(call, descriptor));
}

}  // namespace

// These stand before the system's own.
extern "C" int fsync(int descriptor) {
  return RecordAndSync(descriptor, SYS_fsync);
}
extern "C" int fdatasync(int descriptor) {
  return RecordAndSync(descriptor, SYS_fdatasync);
}

namespace Tansy::Cli {
namespace {

TEST(PartialFileSyncTest, IsOnTheDiskBeforeItAppears) {
  const Tests::CTempFolder folder;
  CPartialFile file(folder.Path("target"));
  std::ofstream(file.Path(), std::ios::binary) << "whole";
  g_synced.clear();
  file.Commit();
  EXPECT_THAT(g_synced, testing::ElementsAre(".part", "folder, target there"));
}

}  // namespace
}  // namespace Tansy::Cli
