#include "StorageServer/S3Server/S3Listing.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

namespace Tansy::CloudStorage::S3 {
namespace {

using Keys = std::set<std::string>;  // in the order of their bytes: characters of strings compare without a sign

ShowObjects ObjectsOf(const Keys& keys, int& steps) {
  return [&keys, &steps](const std::string& from, bool with_key, const TakeObject& take) {
    auto key = with_key ? keys.lower_bound(from) : keys.upper_bound(from);
    for (bool goes_on = true; goes_on && key != keys.end(); ++key) {
      ++steps;
      goes_on = take({*key, {}, {}, 0});
    }
  };
}

// "key" for an object, "(prefix)" for a common prefix, "..." when there is more.
std::string Text(const Listing& listing) {
  std::string text;
  for (const Listing::Entry& entry : listing.entries) {
    text += (entry.is_prefix ? "(" + entry.object.key + ")" : entry.object.key) + " ";
  }
  return text + (listing.is_truncated ? "..." : "");
}

std::string ListText(const Keys& keys, const ListRequest& request) {
  int steps = 0;
  return Text(List(request, ObjectsOf(keys, steps)));
}

// The same by walking through all keys.
std::string ModelText(const Keys& keys, const ListRequest& request) {
  Listing listing;
  for (const std::string& key : keys) {
    if (key <= request.after || !key.starts_with(request.prefix)) {
      continue;
    }
    const std::size_t end =
        request.delimiter.empty() ? std::string::npos : key.find(request.delimiter, request.prefix.size());
    const std::string prefix = end == std::string::npos ? std::string() : key.substr(0, end + request.delimiter.size());
    if (!prefix.empty() && (prefix == request.after || (!listing.entries.empty() && listing.entries.back().is_prefix &&
                                                        listing.entries.back().object.key == prefix))) {
      continue;
    }
    if (listing.entries.size() == request.most) {
      listing.is_truncated = request.most > 0;
      break;
    }
    listing.entries.push_back({!prefix.empty(), {prefix.empty() ? key : prefix, {}, {}, 0}});
  }
  return Text(listing);
}

const Keys kKeys = {"a", "b/1", "b/2", "b/c/3", "b0", "c/", "c/x", "d"};

TEST(S3Listing, ShowsKeysInOrder) {
  EXPECT_EQ(ListText(kKeys, {}), "a b/1 b/2 b/c/3 b0 c/ c/x d ");
  EXPECT_EQ(ListText(kKeys, {.prefix = "b"}), "b/1 b/2 b/c/3 b0 ");
  EXPECT_EQ(ListText(kKeys, {.after = "b/2"}), "b/c/3 b0 c/ c/x d ");
  EXPECT_EQ(ListText({}, {}), "");
}

TEST(S3Listing, GroupsKeysByADelimiter) {
  EXPECT_EQ(ListText(kKeys, {.delimiter = "/"}), "a (b/) b0 (c/) d ");
  EXPECT_EQ(ListText(kKeys, {.prefix = "b/", .delimiter = "/"}), "b/1 b/2 (b/c/) ");
  EXPECT_EQ(ListText(kKeys, {.prefix = "b", .delimiter = "/"}), "(b/) b0 ");
  EXPECT_EQ(ListText(kKeys, {.delimiter = "b/"}), "a (b/) b0 c/ c/x d ");
}

TEST(S3Listing, SaysWhenThereIsMore) {
  EXPECT_EQ(ListText(kKeys, {.delimiter = "/", .most = 2}), "a (b/) ...");
  EXPECT_EQ(ListText(kKeys, {.delimiter = "/", .most = 5}), "a (b/) b0 (c/) d ");
  EXPECT_EQ(ListText(kKeys, {.delimiter = "/", .after = "b/", .most = 2}), "b0 (c/) ...");
  EXPECT_EQ(ListText(kKeys, {.most = 0}), "");
}

TEST(S3Listing, StepsOverAGroup) {
  Keys keys = {"z"};
  for (int i = 0; i < 10000; ++i) {
    keys.insert("group/" + std::to_string(i));
  }
  int steps = 0;
  EXPECT_EQ(Text(List({.delimiter = "/"}, ObjectsOf(keys, steps))), "(group/) z ");
  EXPECT_EQ(steps, 2);
}

TEST(S3Listing, KnowsWhatIsBeyondABeginning) {
  EXPECT_EQ(Beyond("a/"), "a0");
  EXPECT_EQ(Beyond("a\xff"), "b");
  EXPECT_EQ(Beyond("\xff\xff"), std::nullopt);
  EXPECT_EQ(Beyond(""), std::nullopt);
  EXPECT_EQ(ListText({"\xff",
                      "\xff\xff"
                      "a"},
                     {.delimiter = "\xff"}),
            "(\xff) ");
}

TEST(S3Listing, IsTheSameAsAWalkThroughAllKeys) {
  std::mt19937 random(1);
  const auto text = [&random](std::size_t longest) {
    std::string made;
    for (std::size_t length = random() % (longest + 1); length > 0; --length) {
      made += std::string_view("ab/\xff").substr(random() % 4, 1);
    }
    return made;
  };
  for (int round = 0; round < 20000; ++round) {
    Keys keys;
    for (std::size_t count = random() % 12; count > 0; --count) {
      keys.insert("k" + text(5));
    }
    const ListRequest request = {.prefix = random() % 2 == 0 ? "" : "k" + text(2),
                                 .delimiter = text(2),
                                 .after = random() % 2 == 0 ? "" : "k" + text(4),
                                 .most = random() % 5};
    ASSERT_EQ(ListText(keys, request), ModelText(keys, request))
        << "prefix " << request.prefix << ", delimiter " << request.delimiter << ", after " << request.after;
  }
}

TEST(S3Listing, OfManyPagesShowsEachEntryOnce) {
  for (const char* const delimiter : {"", "/", "b/"}) {
    std::string all;
    ListRequest request = {.delimiter = delimiter, .most = 2};
    for (;;) {
      int steps = 0;
      const Listing page = List(request, ObjectsOf(kKeys, steps));
      std::string text = Text(page);
      if (!page.is_truncated) {
        all += text;
        break;
      }
      all += text.substr(0, text.size() - 3);
      request.after = page.entries.back().object.key;
    }
    EXPECT_EQ(all, ListText(kKeys, {.delimiter = delimiter}));
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
