#include "StorageServer/ObjectServer/KeyOrder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace Tansy::CloudStorage {
namespace {

TEST(KeyOrder, ComparesTheBytesThatNamesStandFor) {
  EXPECT_EQ(CompareKeys("a", "a"), 0);
  EXPECT_EQ(CompareKeys("a%2Fb", "a%2fb"), 0);
  EXPECT_EQ(CompareKeys("%61", "a"), 0);
  EXPECT_LT(CompareKeys("a", "a%00"), 0);
  EXPECT_LT(CompareKeys("a%2Fb", "a0"), 0) << "a slash comes before a digit";
  EXPECT_LT(CompareKeys("z", "%C3%A9"), 0) << "bytes are not signed";
  EXPECT_GT(CompareKeys("a%zz", "a%"), 0);
  EXPECT_EQ(CompareKeys("", ""), 0);
  EXPECT_LT(CompareKeys("", "%00"), 0);
}

struct Node : KeyOrderLink {
  std::string_view Name() const { return name; }
  std::uint32_t Priority() const { return static_cast<std::uint32_t>(std::hash<std::string>()(name)) * 0x9E3779B1U; }

  std::string name;
};

TEST(KeyOrder, GivesTheKeyThatANameStandsFor) {
  EXPECT_EQ(KeyOfName("a%2Fb"), "a/b");
  EXPECT_EQ(KeyOfName("%61%2f"), "a/");
  EXPECT_EQ(KeyOfName("100%"), "100%");
  EXPECT_EQ(KeyOfName("%zz%4"), "%zz%4");
  EXPECT_EQ(KeyOfName(std::string_view("%00\xFF", 4)), std::string("\0\xFF", 2));
  EXPECT_EQ(KeyOfName(""), "");
}

// Writes a key as a canonical name, byte by byte.
std::string Canonical(const std::string& key) {
  const std::string unreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  std::string name;
  for (const char c : key) {
    const auto byte = static_cast<unsigned char>(c);
    name += unreserved.find(c) != std::string::npos
                ? std::string(1, c)
                : std::string("%") + "0123456789ABCDEF"[byte / 16] + "0123456789ABCDEF"[byte % 16];
  }
  return name;
}

TEST(KeyOrder, EachKeyHasOneCanonicalName) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    const std::string key(1, static_cast<char>(byte));
    EXPECT_TRUE(IsCanonicalName(Canonical(key))) << byte;
    EXPECT_EQ(IsCanonicalName(key), Canonical(key) == key) << byte;
    all += key;
  }
  EXPECT_TRUE(IsCanonicalName(Canonical(all)));
  EXPECT_TRUE(IsCanonicalName(""));
  for (const char* const name : {"a%2fb", "%61", "a(b)", "100%", "%zz", "%2"}) {
    EXPECT_FALSE(IsCanonicalName(name)) << name;
  }
}

TEST(KeyOrder, TellsNamesThatAreUsuallyWrittenInOneWay) {
  for (const char* const name : {"", "cat.jpg", "photos%2F2026%2Fa%20b.jpg", "-._~"}) {
    EXPECT_FALSE(HasUsualSpellings(name)) << name;
  }
  for (const char* const name : {"r%281%29", "r(1)", "%C3%A9", "a%21", "100%25"}) {
    EXPECT_TRUE(HasUsualSpellings(name)) << name;
  }
}

// Orders names by their keys, and those of one key by whether they are canonical.
struct ByKey {
  bool operator()(const std::string& left, const std::string& right) const {
    const int order = CompareKeys(left, right);
    const bool is_left = left == Canonical(KeyOfName(left));
    const bool is_right = right == Canonical(KeyOfName(right));
    return order != 0 ? order < 0 : is_left != is_right ? is_left : left < right;
  }
};

// '!' comes before '%' and would be the first if names were compared as texts.
TEST(KeyOrder, PutsTheCanonicalNameFirst) {
  for (const bool canonical_first : {true, false}) {
    CKeyOrder<Node> order;
    Node canonical;
    Node plain;
    Node small_digits;
    canonical.name = "a%21%2F";
    plain.name = "a!/";
    small_digits.name = "a%21%2f";
    for (Node* const node : canonical_first ? std::vector<Node*>{&canonical, &plain, &small_digits}
                                            : std::vector<Node*>{&small_digits, &plain, &canonical}) {
      order.Insert(*node);
    }
    EXPECT_EQ(order.FindFrom("a!/", true), &canonical);
    EXPECT_EQ(order.FindFrom("a!/", false), nullptr);
    order.Remove(canonical);
    EXPECT_EQ(order.FindFrom("a!/", true), &plain);
    order.Remove(plain);
    EXPECT_EQ(order.FindFrom("a!/", true), &small_digits);
  }
}

// Thousands of random changes, compared with a map of the library after each.
TEST(KeyOrder, FindsWhatAMapFinds) {
  std::mt19937 random(1);
  CKeyOrder<Node> order;
  std::map<std::string, std::unique_ptr<Node>, ByKey> model;
  const auto name_of = [&random] {
    std::string name;
    for (std::size_t length = random() % 5; length > 0; --length) {
      name += std::string_view("ab%/0!").substr(random() % 6, 1);
    }
    return name + (random() % 3 == 0 ? "%2F" : "") + (random() % 3 == 0 ? "%2f" : "") +
           (random() % 3 == 0 ? "%21" : "");
  };
  for (int step = 0; step < 20000; ++step) {
    const std::string name = name_of();
    if (const auto found = model.find(name); found == model.end()) {
      auto node = std::make_unique<Node>();
      node->name = name;
      order.Insert(*node);
      model.emplace(name, std::move(node));
    } else if (random() % 2 == 0) {
      order.Remove(*found->second);
      model.erase(found);
    } else {
      auto node = std::make_unique<Node>();
      node->name = name;
      order.Replace(*found->second, *node);
      found->second = std::move(node);
    }
    const std::string from = name_of();
    for (const bool with_key : {true, false}) {
      const auto expected = std::find_if(model.begin(), model.end(), [&](const auto& entry) {
        const int difference = CompareKeys(entry.first, from);
        return difference > 0 || (difference == 0 && with_key);
      });
      const Node* const found = order.FindFrom(from, with_key);
      ASSERT_EQ(found, expected != model.end() ? expected->second.get() : nullptr) << from << " in step " << step;
      auto next = expected;
      int left = step % 7;
      order.ShowFrom(from, with_key, [&](const Node& node) {
        EXPECT_EQ(&node, next->second.get()) << from << " in step " << step;
        ++next;
        return --left > 0;
      });
      ASSERT_TRUE(left <= 0 || next == model.end()) << from << " in step " << step;
    }
  }
}

TEST(KeyOrder, BecomesEmpty) {
  CKeyOrder<Node> order;
  Node nodes[3];
  for (int i = 0; i < 3; ++i) {
    nodes[i].name = std::string(1, static_cast<char>('a' + i));
    order.Insert(nodes[i]);
  }
  for (Node& node : nodes) {
    order.Remove(node);
  }
  EXPECT_EQ(order.FindFrom("", true), nullptr);
}

}  // namespace
}  // namespace Tansy::CloudStorage
