#include "S3Path.h"

#include <gtest/gtest.h>

#include <string>

#include "Failure.h"
#include "ObjectUrl.h"

namespace Tansy::Cli {
namespace {

TEST(S3PathTest, ReadsBucketsFoldersAndObjects) {
  for (const char* text : {"s3://photos/2026/a b.jpg", "/photos/2026/a b.jpg", "photos/2026/a b.jpg"}) {
    EXPECT_EQ(ParseS3Path(text), (S3Path{"photos", "2026/a b.jpg"})) << text;
  }
  EXPECT_EQ(ParseS3Path("photos"), (S3Path{"photos", ""}));
  EXPECT_EQ(ParseS3Path("s3://photos/"), (S3Path{"photos", ""}));
  EXPECT_EQ(ParseS3Path("s3://photos//a"), (S3Path{"photos", "/a"})) << "a key may begin with a slash";
  EXPECT_EQ(ParseS3Path("s3://photos/100%?#\n").key, "100%?#\n") << "a key holds any bytes, and nothing is decoded";
}

TEST(S3PathTest, RefusesWhatNamesNoBucket) {
  for (const char* text : {"", "/", "s3://", "s3:///key", "//key", "a b/c", "http://h:1/b/k", "a\nb", "c:\\folder"}) {
    EXPECT_THROW(ParseS3Path(text), CFailure) << text;
  }
  EXPECT_NO_THROW(ParseS3Path("b/" + std::string(1024, 'k')));
  EXPECT_THROW(ParseS3Path("b/" + std::string(1025, 'k')), CFailure);
}

TEST(S3PathTest, JoinsAndCutsFolders) {
  EXPECT_EQ((S3Path{"b", ""}.Below("x").Url()), "s3://b/x");
  EXPECT_EQ((S3Path{"b", "a"}.Below("x/y").Url()), "s3://b/a/x/y");
  EXPECT_EQ((S3Path{"b", "a/"}.Below("x").Url()), "s3://b/a/x");
  EXPECT_EQ((S3Path{"b", ""}.Url()), "s3://b");
  EXPECT_EQ(FolderOfKey("a/b/c"), "a/b/");
  EXPECT_EQ(FolderOfKey("a"), "");
  EXPECT_EQ(FolderOfKey("a/"), "a/");
}

// The object protocol knows the object by its percent-encoded key.
TEST(S3PathTest, NamesObjectsOfTheObjectProtocol) {
  const ObjectUrl url = ParseObjectUrl("s3://photos/2026/a b.jpg", Settings());
  EXPECT_EQ(url.Path(), "/photos/2026%2Fa%20b.jpg");
  EXPECT_EQ(url.file_name, "a b.jpg");
  EXPECT_EQ(ParseObjectUrl("s3://photos/100%", Settings()).Path(), "/photos/100%25");
  EXPECT_THROW(ParseObjectUrl("s3://photos", Settings()), CFailure);
  EXPECT_THROW(ParseObjectUrl("s3://", Settings()), CFailure);
}

}  // namespace
}  // namespace Tansy::Cli
