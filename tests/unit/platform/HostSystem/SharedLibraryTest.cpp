#include "HostSystem/SharedLibrary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace HostSystem {
namespace {

TEST(SharedLibraryTest, AMissingLibraryIsNamed) {
  std::string error;
  EXPECT_EQ(LoadSharedLibrary("libtansy-no-such.so.1", error), nullptr);
  EXPECT_THAT(error, testing::HasSubstr("libtansy-no-such.so.1"));
}

#ifdef __linux__
TEST(SharedLibraryTest, FunctionsAreFoundByName) {
  std::string error;
  void* library = LoadSharedLibrary("libc.so.6", error);
  ASSERT_NE(library, nullptr) << error;
  EXPECT_EQ(FindFunction(library, "tansy_no_such_function"), nullptr);
  const auto length = reinterpret_cast<std::size_t (*)(const char*)>(FindFunction(library, "strlen"));
  ASSERT_NE(length, nullptr);
  EXPECT_EQ(length("four"), 4U);
}
#endif

}  // namespace
}  // namespace HostSystem
