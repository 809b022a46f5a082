#include "StoredName.h"

#include <gtest/gtest.h>

namespace Tansy::Host {
namespace {

const StoredName kName = {"fs01", "a0f9", "0123456789abcdef0123456789abcdef"};
const char* const kText = "fs01a0-f9-0123456789abcdef0123456789abcdef.d";

TEST(StoredNameTest, LocationTextsComeBack) {
  EXPECT_EQ(LocationText(kName), kText);
  StoredName name;
  ASSERT_TRUE(ParseLocationText(kText, name));
  EXPECT_EQ(name, kName);
}

TEST(StoredNameTest, AnyOtherCharacterAnywhereIsRefused) {
  StoredName name;
  for (std::size_t i = 0; i < std::string(kText).size(); ++i) {
    for (const char c : {'/', '\\', '.', '%', '_', 'G', ' ', '\0', ';', '&', '\n'}) {
      std::string text = kText;
      if (text[i] != c) {
        text[i] = c;
        EXPECT_FALSE(ParseLocationText(text, name)) << i << " " << c;
      }
    }
  }
}

TEST(StoredNameTest, TextsOfAnotherLengthAreRefused) {
  StoredName name;
  const std::string text = kText;
  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_FALSE(ParseLocationText(text.substr(0, length), name)) << length;
  }
  EXPECT_FALSE(ParseLocationText(text + "d", name));
  EXPECT_FALSE(ParseLocationText("fs01../../../../../../../../../../etc/shad.d", name));
}

TEST(StoredNameTest, ThePathOfARemovalIsThePrefixAndTheRestWithSeparators) {
  // What the server does with a location text: four characters are looked up, every "-" of the rest is replaced.
  std::string rest = std::string(kText).substr(4);
  for (std::size_t i = rest.find('-'); i != std::string::npos; i = rest.find('-')) {
    rest[i] = '\\';
  }
  StoredName name;
  ASSERT_TRUE(ParseStoragePath(StoragePathPrefix("fs01") + rest, name));
  EXPECT_EQ(name, kName);
}

TEST(StoredNameTest, StoragePathsTakeBothSeparatorsAndNothingElse) {
  StoredName name;
  EXPECT_TRUE(ParseStoragePath("fs01/a0/f9/0123456789abcdef0123456789abcdef.d", name));
  EXPECT_EQ(name, kName);
  EXPECT_FALSE(ParseStoragePath("fs01\\a0\\f9\\..\\..\\..\\catalogue.db", name));
  EXPECT_FALSE(ParseStoragePath("/s01/a0/f9/0123456789abcdef0123456789abcdef.d", name));
  EXPECT_FALSE(ParseStoragePath(kText, name));
  EXPECT_FALSE(ParseStoragePath("", name));
}

TEST(StoredNameTest, PictureAddressesComeBackWithAndWithoutASignature) {
  const StoredName picture = {"pc01", "a0f9", "0123456789abcdef0123456789abcdef"};
  const std::string url = PictureUrl(picture);
  EXPECT_EQ(url, "/pic?id=pc01a0-f9-0123456789abcdef0123456789abcdef.d");
  for (const std::string& text :
       {url, url + "&Expires=1&AccessKeyId=k&Signature=s%3D", url.substr(5), "/pic?size=1&" + url.substr(5)}) {
    StoredName name;
    ASSERT_TRUE(ParseOwnText(text, name)) << text;
    EXPECT_EQ(name, picture);
  }
}

TEST(StoredNameTest, QueriesWithoutAnIdLeadNowhere) {
  StoredName name;
  for (const char* query : {"", "&", "&&&", "id", "id=", "ID=x", "x=1", "id=../../x", "xid=a"}) {
    EXPECT_FALSE(ParsePictureQuery(query, name)) << query;
  }
}

TEST(StoredNameTest, TheOwnTextStandsBehindTheLastSemicolon) {
  EXPECT_EQ(OwnText("pool_name:photos;"), "");
  EXPECT_EQ(OwnText(std::string("pool_name:photos;") + kText), kText);
  EXPECT_EQ(OwnText(std::string("pool_name:odd;name;") + kText), kText);
  EXPECT_EQ(OwnText("pool_name:odd;name;"), "");
  EXPECT_EQ(OwnText(kText), kText);
}

TEST(StoredNameTest, FilesLieTwoFoldersDeep) {
  EXPECT_EQ(FilePath(kName), "fs01/a0/f9/0123456789abcdef0123456789abcdef.d");
}

}  // namespace
}  // namespace Tansy::Host
