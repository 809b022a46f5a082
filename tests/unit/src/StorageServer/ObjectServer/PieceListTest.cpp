#include "StorageServer/ObjectServer/PieceList.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::CloudStorage::details {
namespace {

const PieceList kPieces = {{5, "fs01ab-cd-0123.d"}, {0, "x"}, {4294967295U, "a,b=c@d:%;'\xff"}};

TEST(PieceList, IsReadAsItWasWritten) {
  const std::string text = PieceListText(PieceOwner("0123"), kPieces);
  EXPECT_EQ(text, "parts:0123=5@fs01ab-cd-0123.d,0@x,4294967295@a%2Cb%3Dc%40d%3A%25%3B%27%FF");
  EXPECT_TRUE(IsPieceList(text));
  EXPECT_EQ(PieceOwnerOf(text), "parts:0123");
  EXPECT_EQ(ReadPieceList(text), kPieces);
  EXPECT_EQ(std::string(PieceOwnerOf(text)) + "=" + std::string(PiecesOf(text)), text);
}

TEST(PieceList, LeavesOtherUrlsAlone) {
  for (const std::string url : {"", "fs01ab-cd-0123.d", "/pic?id=a=b", "part:1=2@x", "xparts:1=2@x"}) {
    EXPECT_FALSE(IsPieceList(url)) << url;
    EXPECT_EQ(PieceOwnerOf(url), url);
    EXPECT_EQ(PiecesOf(url), "");
    EXPECT_EQ(ReadPieceList(url), PieceList());
  }
}

TEST(PieceList, WithoutAListIsTheOwnerAlone) {
  EXPECT_EQ(PieceOwnerOf("parts:0123"), "parts:0123");
  EXPECT_EQ(PiecesOf("parts:0123"), "");
  EXPECT_EQ(PieceListText("parts:0123", {}), "parts:0123");
}

TEST(PieceList, OfADamagedTextIsEmpty) {
  for (const std::string list :
       {"5", "@x", "5@", "x@y", "5@x,,6@y", "-1@x", "4294967296@x", "5@x%", "5@x%4", "5@x%4g", "5 @x", "5@x,6"}) {
    EXPECT_EQ(ReadPieceList("parts:1=" + list), PieceList()) << list;
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage::details
