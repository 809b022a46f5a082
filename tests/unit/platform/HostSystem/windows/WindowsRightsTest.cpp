#include <aclapi.h>
#include <gtest/gtest.h>
#include <windows.h>
#undef ReplaceFile

#include <filesystem>
#include <memory>

#include "HostSystem/Files.h"
#include "fakes/TempFolder.h"

namespace {

// Counts the entries that let one of these groups do anything with a file or folder.
int EntriesFor(const std::string& path, std::initializer_list<WELL_KNOWN_SID_TYPE> groups) {
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  EXPECT_EQ(GetNamedSecurityInfoW(std::filesystem::path(path).c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION,
                                  nullptr, nullptr, &list, nullptr, &descriptor),
            static_cast<DWORD>(ERROR_SUCCESS));
  const std::unique_ptr<void, decltype(&LocalFree)> owner(descriptor, &LocalFree);
  if (list == nullptr) {
    return -1;  // everybody may do everything
  }
  int count = 0;
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* entry = nullptr;
    EXPECT_TRUE(GetAce(list, i, &entry));
    auto* const sid = &static_cast<ACCESS_ALLOWED_ACE*>(entry)->SidStart;
    for (const WELL_KNOWN_SID_TYPE group : groups) {
      count += IsWellKnownSid(sid, group) ? 1 : 0;
    }
  }
  return count;
}

int EntriesForOthers(const std::string& path) {
  return EntriesFor(path, {WinWorldSid, WinBuiltinUsersSid, WinAuthenticatedUserSid});
}

TEST(WindowsRightsTest, NewFoldersAreForTheirOwnerOnly) {
  const Tansy::Tests::CTempFolder temp;
  EXPECT_NE(EntriesForOthers(temp.GetPath()), 0) << "others may use the folder around it";
  ASSERT_EQ(HostSystem::MakeFolders(temp.Path("a/b/")), 0);
  ASSERT_EQ(HostSystem::ReplaceFile(temp.Path("a/b/file"), "secret"), 0);
  EXPECT_EQ(EntriesForOthers(temp.Path("a")), 0);
  EXPECT_EQ(EntriesForOthers(temp.Path("a/b")), 0);
  EXPECT_EQ(temp.Read("a/b/file"), "secret") << "the owner may read it";
}

}  // namespace
