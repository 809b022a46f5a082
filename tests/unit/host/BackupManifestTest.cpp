#include "BackupManifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tansy::Host {
namespace {

BackupManifest Sample() {
  BackupManifest manifest;
  manifest.made = "2026-11-03 08:05:09";
  manifest.version = "0.1.0";
  manifest.store_id = "0123456789abcdef0123456789abcdef";
  manifest.schema = 5;
  manifest.objects = 7;
  manifest.pictures = 2;
  manifest.files = {{"catalogue.db", 4096, DigestOf("a")}, {"objects/fs01/ab/cd/x y.d", 0, DigestOf("")}};
  return manifest;
}

TEST(BackupManifestTest, IsReadAsItWasWritten) {
  BackupManifest read;
  ASSERT_TRUE(ParseManifest(TextOf(Sample()), read));
  EXPECT_EQ(TextOf(read), TextOf(Sample()));
  EXPECT_EQ(read.schema, 5);
  ASSERT_NE(FindFile(read, "objects/fs01/ab/cd/x y.d"), nullptr);
  EXPECT_EQ(FindFile(read, "catalogue.db")->digest, DigestOf("a"));
  EXPECT_EQ(FindFile(read, "catalogue"), nullptr);
}

TEST(BackupManifestTest, AnyPartOfOneIsNone) {
  const std::string text = TextOf(Sample());
  BackupManifest read;
  for (std::size_t size = 0; size < text.size(); ++size) {
    EXPECT_FALSE(ParseManifest(std::string_view(text).substr(0, size), read)) << size;
  }
  EXPECT_FALSE(ParseManifest(text + "x", read));
  EXPECT_FALSE(ParseManifest(text + text, read));
}

TEST(BackupManifestTest, AnyChangedByteIsFound) {
  const std::string text = TextOf(Sample());
  BackupManifest read;
  for (std::size_t at = 0; at < text.size(); ++at) {
    std::string changed = text;
    changed[at] ^= 1;
    EXPECT_FALSE(ParseManifest(changed, read)) << at;
  }
}

// Whoever can write into the backups must not get a restore to write elsewhere.
TEST(BackupManifestTest, PathsLeadNowhereElse) {
  for (const std::string path : {"../x", "a/../x", "/x", "a//x", "", ".", "a/", "a\\..\\x"}) {
    BackupManifest manifest = Sample();
    manifest.files = {{path, 1, DigestOf("a")}};
    BackupManifest read;
    EXPECT_FALSE(ParseManifest(TextOf(manifest), read)) << path;
  }
  BackupManifest manifest = Sample();
  std::swap(manifest.files[0], manifest.files[1]);
  BackupManifest read;
  EXPECT_FALSE(ParseManifest(TextOf(manifest), read)) << "not in order";
}

}  // namespace
}  // namespace Tansy::Host
