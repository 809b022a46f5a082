#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <string>

#include "TansyBase/FileUtil.h"
#include "TansyBase/StringUtil.h"
#include "fakes/TempFolder.h"

namespace TansyBase {
namespace {

TEST(WindowsFileUtilTest, TheFolderOfTheProgramIsAbsoluteAndEndsWithABackslash) {
  const std::string folder = FileUtil::GetCurExeDirUtf8();
  ASSERT_GT(folder.size(), 3U);
  EXPECT_EQ(folder.substr(1, 2), ":\\");
  EXPECT_EQ(folder.back(), '\\');
  EXPECT_TRUE(FileUtil::Exists(folder + "TansyBaseTest.exe"));
}

TEST(WindowsLocalFileTest, Utf8NamesAreThoseOfTheSystem) {
  const Tansy::Tests::CTempFolder temp;
  CLocalFile file;
  ASSERT_EQ(file.OpenAlways(temp.GetPath() + "\\gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD.bin"), 0U);
  file.Close();
  const std::wstring folder(temp.GetPath().begin(), temp.GetPath().end());
  EXPECT_NE(GetFileAttributesW((folder + L"\\gr\u00FC\u00DF \u4E2D.bin").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST(WindowsLocalFileTest, ErrorsAreThoseOfTheSystem) {
  const Tansy::Tests::CTempFolder temp;
  temp.Write("plain", "x");
  CLocalFile file;
  EXPECT_EQ(file.OpenAlways(""), std::uint32_t{ERROR_PATH_NOT_FOUND});
  EXPECT_EQ(file.OpenAlways(temp.Path("missing/file")), std::uint32_t{ERROR_PATH_NOT_FOUND});
  EXPECT_EQ(file.OpenAlways(temp.GetPath()), std::uint32_t{ERROR_ACCESS_DENIED});
  EXPECT_EQ(file.OpenAlways(temp.Path("a") + std::string("\0b", 2)), std::uint32_t{ERROR_INVALID_NAME});
  EXPECT_FALSE(temp.Exists("a"));
  CLocalFile other;
  ASSERT_EQ(file.OpenAlways(temp.Path("plain")), 0U);
  EXPECT_EQ(other.OpenAlways(temp.Path("plain")), std::uint32_t{ERROR_SHARING_VIOLATION});
  file.Close();
}

TEST(WindowsCodePageTest, LocalTextIsThatOfTheSystemsCodePage) {
  const std::string local = StringUtil::UTF8ToLocal("gr\xC3\xBC\xC3\x9F");
  EXPECT_EQ(local, GetACP() == CP_UTF8 ? "gr\xC3\xBC\xC3\x9F" : "gr\xFC\xDF");
}

}  // namespace
}  // namespace TansyBase
