#include "KeySeal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

namespace fs = std::filesystem;

class KeySealTest : public testing::Test {
 protected:
  std::optional<CKeySeal> Make(const std::string& name) {
    std::string error;
    std::optional<CKeySeal> seal = CKeySeal::Make(temp_.Path(name), error);
    EXPECT_EQ(error, "");
    EXPECT_TRUE(seal.has_value());
    return seal;
  }

  Tests::CTempFolder temp_;
};

TEST_F(KeySealTest, OpensWhatItSealed) {
  const auto seal = Make("seal");
  for (const std::string& text :
       {std::string("secret"), std::string(), std::string(100000, 'x'), std::string("\0\xff", 2)}) {
    const std::string sealed = seal->Seal(text, "about");
    EXPECT_EQ(seal->Open(sealed, "about"), text);
    EXPECT_EQ(sealed.find("secret"), std::string::npos);
  }
  EXPECT_NE(seal->Seal("secret", "about"), seal->Seal("secret", "about")) << "nobody sees that two texts are the same";
}

TEST_F(KeySealTest, OpensNothingElse) {
  const auto seal = Make("seal");
  const auto other = Make("other");
  const std::string sealed = seal->Seal("secret", "about");
  EXPECT_FALSE(other->Open(sealed, "about").has_value());
  EXPECT_FALSE(seal->Open(sealed, "something else").has_value());
  for (std::size_t at = 2; at + 2 < sealed.size(); ++at) {
    std::string changed = sealed;
    changed[at] = changed[at] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(seal->Open(changed, "about").has_value()) << at;
  }
  for (const char* text : {"", "1:", "2:AAAA", "secret", "1:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA", "1:!"}) {
    EXPECT_FALSE(seal->Open(text, "about").has_value()) << text;
  }
}

TEST_F(KeySealTest, IsReadAgainFromItsFile) {
  const std::string sealed = Make("seal")->Seal("secret", "about");
  const auto perms = fs::status(temp_.Path("seal")).permissions();
  EXPECT_EQ(perms & (fs::perms::group_all | fs::perms::others_all), fs::perms::none);
  std::string error;
  const auto again = CKeySeal::Read(temp_.Path("seal"), error);
  ASSERT_TRUE(again.has_value()) << error;
  EXPECT_EQ(again->Open(sealed, "about"), "secret");
}

TEST_F(KeySealTest, SaysWhatIsWrongWithItsFile) {
  std::string error;
  EXPECT_FALSE(CKeySeal::Read(temp_.Path("none"), error).has_value());
  EXPECT_EQ(error, "") << "it is not there, which is no fault";
  temp_.Write("short", "AAAA\n");
  EXPECT_FALSE(CKeySeal::Read(temp_.Path("short"), error).has_value());
  EXPECT_NE(error.find("does not hold"), std::string::npos);
  EXPECT_FALSE(CKeySeal::Read(temp_.Path("."), error).has_value());
  EXPECT_NE(error, "");
  EXPECT_FALSE(CKeySeal::Make(temp_.Path("no/folder"), error).has_value());
  EXPECT_NE(error.find("cannot be written"), std::string::npos);
}

}  // namespace
}  // namespace Tansy::Host
