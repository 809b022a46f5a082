#include "SteadyFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "Failure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

constexpr uid_t kNobody = 65534;

std::string ReadAsNobody(const std::string& path) {
  const uid_t before = geteuid();
  EXPECT_TRUE(before != 0 || seteuid(kNobody) == 0);  // nothing is closed to the superuser
  std::string content;
  try {
    const CSteadyFile file(path);
    content = file.Read(0, file.Size());
  } catch (const CFailure& failure) {
    content = failure.what();
  }
  EXPECT_EQ(seteuid(before), 0);
  return content;
}

TEST(SteadyFileTest, ReadsInAFolderThatMayNotBeListed) {
  const Tests::CTempFolder folder;
  const std::string path = folder.Write("closed/file", "content");
  using std::filesystem::perms;
  std::filesystem::permissions(folder.GetPath(), static_cast<perms>(0711));
  std::filesystem::permissions(folder.Path("closed"), static_cast<perms>(0311));
  std::filesystem::permissions(path, static_cast<perms>(0644));
  if (geteuid() == 0) {
    std::filesystem::permissions(folder.Path("closed"), static_cast<perms>(0711));
  }
  EXPECT_EQ(ReadAsNobody(path), "content");
  std::filesystem::permissions(folder.Path("closed"), perms::owner_all);
}

}  // namespace
}  // namespace Tansy::Cli
