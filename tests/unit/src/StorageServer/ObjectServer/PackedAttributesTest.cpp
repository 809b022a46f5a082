#include "StorageServer/ObjectServer/PackedAttributes.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace Tansy::CloudStorage::details {
namespace {

const std::string kDigest = "XUFAKrxLKna5cZ2REBfFkg";

TEST(PackedAttributes, GiveEveryTextAgain) {
  const std::vector<std::string> texts = {
      "",
      kDigest,
      kDigest + "\n4:image/jpeg",
      kDigest + "\n4:image/jpeg\n-mtime:1793692800.25",
      kDigest + "\n4:",
      kDigest + "\n0:no-cache\n4:text/plain",
      kDigest + "\n4:" + std::string(5000, 'x'),
      kDigest + "\n",
      "\n4:image/jpeg",
      "\n4:image/jpeg\n",
      "d41d8cd98f00b204e9800998ecf8427e-12\n4:image/png",
      "short",
      "XUFAKrxLKna5cZ2REBfFkh",  // its last letter says more than 16 bytes hold
      "XUFAKrxLKna5cZ2REBfFk=",
      std::string("\0\1\2\3", 4),
      std::string("\3"),
      std::string(1, '\0') + kDigest,
      std::string(70000, 'a'),
  };
  for (const std::string& text : texts) {
    EXPECT_EQ(UnpackAttributes(PackAttributes(text)), text) << text.substr(0, 100);
  }
}

// There may be millions of them.
TEST(PackedAttributes, ADigestAndAContentTypeTakeNineteenBytes) {
  EXPECT_EQ(PackAttributes("").size(), 0U);
  EXPECT_EQ(PackAttributes(kDigest).size(), 17U);
  EXPECT_EQ(
      PackAttributes(kDigest + "\n4:application/vnd.openxmlformats-officedocument.wordprocessingml.document").size(),
      19U);
  EXPECT_EQ(PackAttributes(kDigest + "\n4:binary/octet-stream\n-m:1").size(), 24U);
}

TEST(PackedAttributes, AnyThreadsMayPackAtOnce) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([] {
      for (int i = 0; i < 300; ++i) {
        const std::string text = kDigest + "\n4:type/of-threads-" + std::to_string(i);
        EXPECT_EQ(UnpackAttributes(PackAttributes(text)), text);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// What is kept once for all stays for ever, so nobody can make it grow without end.
TEST(PackedAttributes, TypesThatAreMadeUpForEachObjectStayWithTheirObjects) {
  constexpr int kMore = 3000;
  for (int i = 0; i < kMore; ++i) {
    const std::string text = kDigest + "\n4:made/up-" + std::to_string(i);
    EXPECT_EQ(UnpackAttributes(PackAttributes(text)), text);
  }
  const std::string last = kDigest + "\n4:made/up-" + std::to_string(kMore - 1);
  EXPECT_EQ(PackAttributes(last).size(), 17 + last.size() - kDigest.size());
}

}  // namespace
}  // namespace Tansy::CloudStorage::details
