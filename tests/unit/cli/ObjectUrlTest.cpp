#include "ObjectUrl.h"

#include <gtest/gtest.h>

#include <string>

#include "Download.h"
#include "Failure.h"
#include "PictureLink.h"

namespace Tansy::Cli {
namespace {

TEST(ObjectUrlTest, ReadsWhatPeopleGive) {
  Settings settings;
  settings.object_server = {false, "127.0.0.1", 9700};
  EXPECT_EQ(ParseObjectUrl("/photos/cat.jpg", settings).Path(), "/photos/cat.jpg");
  EXPECT_EQ(ParseObjectUrl("photos/cat.jpg", settings).Path(), "/photos/cat.jpg");
  EXPECT_EQ(ParseObjectUrl("/photos/\xc3\xa4%20b", settings).key, "\xc3\xa4%20b") << "nothing is decoded";
  EXPECT_EQ(ParseObjectUrl("http://127.0.0.1:9700/photos/cat.jpg?link=1&token=x", settings).Path(), "/photos/cat.jpg");
  settings.pool = "pool";
  EXPECT_EQ(ParseObjectUrl("cat.jpg", settings).Path(), "/pool/cat.jpg");
}

TEST(ObjectUrlTest, RefusesWhatIsNoObject) {
  Settings settings;
  for (const char* text : {"", "/", "cat.jpg", "/photos", "/photos/", "//cat", "/a/b/c", "/a/b c", "/a/b?c", "/a/b#c",
                           "/a/b\r\nX: 1", "http://host:99/", "http://host:99/photos"}) {
    EXPECT_THROW(ParseObjectUrl(text, settings), CFailure) << text;
  }
}

// A signature sent to another server could be used here by whoever runs that server.
TEST(ObjectUrlTest, RefusesTheAddressOfAnotherServer) {
  Settings settings;
  settings.object_server = {false, "home", 9700};
  settings.picture_server = {false, "home", 9701};
  for (const char* server : {"http://other:9700", "http://home:9701", "https://home:9700", "http://home.other:9700"}) {
    try {
      ParseObjectUrl(std::string(server) + "/photos/cat.jpg", settings);
      ADD_FAILURE() << server;
    } catch (const CFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitUsage);
      EXPECT_EQ(failure.what(), std::string(server) + " is not the server that is set, http://home:9700");
    }
  }
  EXPECT_THROW(ParsePictureUrl("http://other:9701/pic?id=1", settings), CFailure);
  EXPECT_THROW(ParsePictureUrl("http://home:9700/pic?id=1", settings), CFailure);
}

TEST(ObjectUrlTest, ReadsPictureAddresses) {
  Settings settings;
  settings.picture_server = {false, "host", 99};
  EXPECT_EQ(ParsePictureUrl("/pic?id=1", settings), "/pic?id=1");
  EXPECT_EQ(ParsePictureUrl("http://host:99/pic?id=1&x=2", settings), "/pic?id=1&x=2");
  for (const char* text : {"", "pic?id=1", "/pic?id=a b", "/pic#x", "/pic\n"}) {
    EXPECT_THROW(ParsePictureUrl(text, settings), CFailure) << text;
  }
}

TEST(ObjectUrlTest, ReadsByteRanges) {
  EXPECT_EQ(ParseByteRange("0-1024").end, 1024u);
  EXPECT_EQ(ParseByteRange("5-10").begin, 5u);
  EXPECT_EQ(ParseByteRange("5-").end, 0u);
  for (const char* text :
       {"", "-", "-5", "5", "a-b", "5-a", "10-5", "5-5", "0-0", "1-2-3", " 1-2", "+1-2", "99999999999999999999-"}) {
    EXPECT_THROW(ParseByteRange(text), CFailure) << text;
  }
}

}  // namespace
}  // namespace Tansy::Cli
