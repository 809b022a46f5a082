#include "TansyNet/server/TicketKeys.h"

#include <gtest/gtest.h>

namespace {

using TansyNet::CTicketKeys;
using namespace std::chrono_literals;

const CTicketKeys::Clock::time_point kStart{};

TEST(TicketKeys, TheSameKeyServesForTwelveHours) {
  CTicketKeys keys;
  const auto first = keys.Current(kStart);
  const auto later = keys.Current(kStart + 12h - 1s);
  ASSERT_TRUE(first && later);
  EXPECT_EQ(first->name, later->name);
  EXPECT_EQ(first->cipher, later->cipher);
}

TEST(TicketKeys, ThenAnotherOneComesAndTheOldOneIsGoodForTwelveMore) {
  CTicketKeys keys;
  const auto old = keys.Current(kStart);
  const auto fresh = keys.Current(kStart + 12h);
  ASSERT_TRUE(old && fresh);
  EXPECT_NE(old->name, fresh->name);
  EXPECT_NE(old->cipher, fresh->cipher);
  EXPECT_NE(old->digest, fresh->digest);
  const auto found = keys.Find(old->name.data(), kStart + 24h - 1s);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->key.cipher, old->cipher);
  EXPECT_FALSE(found->is_current) << "the client is to get a new ticket";
  EXPECT_FALSE(keys.Find(old->name.data(), kStart + 24h));
  EXPECT_TRUE(keys.Find(fresh->name.data(), kStart + 12h)->is_current);
}

// For a while no ticket is made, so nothing causes a new key.
TEST(TicketKeys, AKeyEndsAlsoWhenNoneFollows) {
  CTicketKeys keys;
  const auto key = keys.Current(kStart);
  ASSERT_TRUE(key);
  EXPECT_TRUE(keys.Find(key->name.data(), kStart + 12h - 1s)->is_current);
  EXPECT_FALSE(keys.Find(key->name.data(), kStart + 12h)->is_current);
  EXPECT_FALSE(keys.Find(key->name.data(), kStart + 24h));
  ASSERT_TRUE(keys.Current(kStart + 25h));
  EXPECT_FALSE(keys.Find(key->name.data(), kStart + 25h)) << "not kept as the key before either";
}

TEST(TicketKeys, AForeignNameIsUnknown) {
  CTicketKeys keys;
  CTicketKeys others;
  const auto foreign = others.Current(kStart);
  ASSERT_TRUE(foreign && keys.Current(kStart));
  EXPECT_FALSE(keys.Find(foreign->name.data(), kStart));
}

}  // namespace
