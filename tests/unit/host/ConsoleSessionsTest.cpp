#include "ConsoleSessions.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>

#include "TansyNet/S3Signing.h"
#include "fakes/ManualClock.h"

namespace Tansy::Host {
namespace {

class ConsoleSessionsTest : public testing::Test {
 protected:
  static std::string Proof(const std::string& secret, const std::string& nonce, const std::string& key) {
    return TansyNet::S3Signing::ToHex(TansyNet::S3Signing::HmacSha256(secret, nonce + "\n" + key));
  }
  CConsoleSessions::Result SignIn(const std::string& secret = "secret", const std::string& address = "192.0.2.1") {
    return SignInAs("admin", secret, address);
  }
  CConsoleSessions::Result SignInAs(const std::string& key, const std::string& secret = "secret",
                                    const std::string& address = "192.0.2.1") {
    const std::string nonce = sessions_.MakeNonce();
    return sessions_.SignIn({key, nonce, Proof(secret, nonce, key), address});
  }
  std::optional<ConsoleKey> Find(const std::string& name) const {
    return name.starts_with("guest")                ? ConsoleKey{name, "secret", true, {}}
           : key_.has_value() && key_->name == name ? key_
                                                    : std::nullopt;
  }

  Tests::CManualClock clock_;
  std::optional<ConsoleKey> key_ = ConsoleKey{"admin", "secret", true, {}};
  CConsoleSessions sessions_{[this](const std::string& name) { return Find(name); }};
};

TEST_F(ConsoleSessionsTest, WhoeverProvesThatHeHasTheSecretGetsASession) {
  const CConsoleSessions::Result result = SignIn();
  ASSERT_EQ(result.status, 200);
  EXPECT_EQ(result.token.size(), 64U);
  EXPECT_EQ(result.session.csrf.size(), 64U);
  EXPECT_NE(result.session.csrf, result.token);
  EXPECT_EQ(result.session.expires, clock_.Now() + 12 * 3600);
  const auto found = sessions_.Find(result.token);
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(found->key.name, "admin");
  EXPECT_EQ(found->key.secret, "secret");
  EXPECT_EQ(found->csrf, result.session.csrf);
  EXPECT_EQ(found->expires, result.session.expires);
  EXPECT_NE(SignIn().token, result.token);
  EXPECT_EQ(sessions_.Count(), 2U);
}

TEST_F(ConsoleSessionsTest, NothingElseGetsOne) {
  const std::string nonce = sessions_.MakeNonce();
  const std::string right = Proof("secret", nonce, "admin");
  std::string another = right;
  another[0] = another[0] == '0' ? '1' : '0';
  for (const ConsoleSignIn& wrong :
       {ConsoleSignIn{"admin", sessions_.MakeNonce(), right, "192.0.2.1"},
        ConsoleSignIn{"admin", nonce + "0", Proof("secret", nonce + "0", "admin"), "192.0.2.2"},
        ConsoleSignIn{"nobody", sessions_.MakeNonce(), "", "192.0.2.3"},
        ConsoleSignIn{"admin", sessions_.MakeNonce(), "", "192.0.2.4"},
        ConsoleSignIn{"admin", "", Proof("secret", "", "admin"), "192.0.2.5"},
        ConsoleSignIn{"admin", "-", Proof("secret", "-", "admin"), "192.0.2.6"},
        ConsoleSignIn{"admin", "a-99999999999-b", Proof("secret", "a-99999999999-b", "admin"), "192.0.2.7"},
        ConsoleSignIn{"admin", nonce, another, "192.0.2.8"}}) {
    const CConsoleSessions::Result result = sessions_.SignIn(wrong);
    EXPECT_EQ(result.status, 401) << wrong.address;
    EXPECT_EQ(result.token, "");
  }
  EXPECT_EQ(SignIn("wrong").status, 401);
  EXPECT_EQ(SignIn("").status, 401);
  EXPECT_EQ(sessions_.Count(), 0U);
}

TEST_F(ConsoleSessionsTest, AKeyThatDoesNotExistCannotBeGuessedFromAnEmptySecret) {
  key_.reset();
  EXPECT_EQ(SignIn("").status, 401);
  EXPECT_EQ(SignIn("secret").status, 401);
}

TEST_F(ConsoleSessionsTest, AChallengeCountsOnceAndForAMinute) {
  const std::string nonce = sessions_.MakeNonce();
  const std::string other = sessions_.MakeNonce();
  const std::string late = sessions_.MakeNonce();
  EXPECT_EQ(sessions_.SignIn({"admin", nonce, "wrong", "192.0.2.1"}).status, 401);
  EXPECT_EQ(sessions_.SignIn({"admin", nonce, Proof("secret", nonce, "admin"), "192.0.2.1"}).status, 401)
      << "a wrong proof uses it up too";
  clock_.Advance(60);
  EXPECT_EQ(sessions_.SignIn({"admin", other, Proof("secret", other, "admin"), "192.0.2.1"}).status, 200);
  EXPECT_EQ(sessions_.SignIn({"admin", other, Proof("secret", other, "admin"), "192.0.2.1"}).status, 401);
  clock_.Advance(1);
  EXPECT_EQ(sessions_.SignIn({"admin", late, Proof("secret", late, "admin"), "192.0.2.1"}).status, 401);
}

TEST_F(ConsoleSessionsTest, AChallengeOfAnotherServerIsNone) {
  CConsoleSessions other([](const std::string&) { return std::optional<ConsoleKey>(); });
  const std::string nonce = other.MakeNonce();
  EXPECT_EQ(sessions_.SignIn({"admin", nonce, Proof("secret", nonce, "admin"), "192.0.2.1"}).status, 401);
}

TEST_F(ConsoleSessionsTest, EndsAfterTwelveHoursHoweverMuchItIsUsed) {
  const std::string token = SignIn().token;
  for (int i = 0; i < 12 * 4 - 1; ++i) {
    clock_.Advance(900);
    ASSERT_TRUE(sessions_.Find(token).has_value()) << i;
  }
  clock_.Advance(900);
  EXPECT_FALSE(sessions_.Find(token).has_value());
  EXPECT_EQ(sessions_.Count(), 0U);
}

TEST_F(ConsoleSessionsTest, EndsAfterAnHourInWhichNobodyUsedIt) {
  const std::string token = SignIn().token;
  clock_.Advance(3599);
  EXPECT_TRUE(sessions_.Find(token).has_value());
  clock_.Advance(3599);
  EXPECT_TRUE(sessions_.Find(token, false).has_value()) << "a page that looks by itself is no use";
  clock_.Advance(1);
  EXPECT_FALSE(sessions_.Find(token).has_value());
}

TEST_F(ConsoleSessionsTest, AClockThatIsSetDoesNotEndOrProlongIt) {
  const std::string token = SignIn().token;
  clock_.Set(clock_.Now() + 30 * 24 * 3600);
  EXPECT_TRUE(sessions_.Find(token).has_value());
  clock_.Set(1000);
  clock_.Advance(3600);
  EXPECT_FALSE(sessions_.Find(token).has_value());
}

TEST_F(ConsoleSessionsTest, EndsWhenItsOwnerSaysSo) {
  const std::string token = SignIn().token;
  const std::string other = SignIn().token;
  sessions_.End(token);
  EXPECT_FALSE(sessions_.Find(token).has_value());
  EXPECT_TRUE(sessions_.Find(other).has_value());
}

TEST_F(ConsoleSessionsTest, EndsWithItsKey) {
  const std::string token = SignIn().token;
  key_->may_write = false;
  ASSERT_TRUE(sessions_.Find(token).has_value());
  EXPECT_FALSE(sessions_.Find(token)->key.may_write) << "rights are those of now";
  key_->secret = "another";
  EXPECT_FALSE(sessions_.Find(token).has_value());
  EXPECT_EQ(sessions_.Count(), 0U);
  key_->secret = "secret";
  const std::string next = SignIn().token;
  key_.reset();
  EXPECT_FALSE(sessions_.Find(next).has_value());
}

TEST_F(ConsoleSessionsTest, ForgedTokensAreNobodys) {
  const std::string token = SignIn().token;
  std::string other = token;
  other[10] = other[10] == 'a' ? 'b' : 'a';
  for (const std::string& forged : {std::string(), std::string("x"), other, token.substr(1), token + "0",
                                    std::string(64, '0'), std::string(60'000, 'a')}) {
    EXPECT_FALSE(sessions_.Find(forged).has_value()) << forged.size();
  }
  EXPECT_TRUE(sessions_.Find(token).has_value());
}

TEST_F(ConsoleSessionsTest, TenThousandTriesGetNoFurtherThanTen) {
  int refused = 0;
  for (int i = 0; i < 10'000; ++i) {
    const CConsoleSessions::Result result = SignIn("guess " + std::to_string(i));
    ASSERT_TRUE(result.status == 401 || result.status == 429);
    refused += result.status == 401 ? 1 : 0;
    ASSERT_EQ(result.retry_after > 0, result.status == 429);
  }
  EXPECT_EQ(refused, 10);
  EXPECT_EQ(SignIn("secret").status, 429) << "the right secret is not told either";
  EXPECT_EQ(SignIn("secret", "192.0.2.2").status, 200) << "others are not kept out";
  clock_.Advance(6);
  EXPECT_EQ(SignIn("secret").status, 200);
}

TEST_F(ConsoleSessionsTest, WhoeverSignsInOftenIsNotKeptOut) {
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(SignIn().status, 200) << i;
  }
  EXPECT_EQ(sessions_.Count(), 16U);
}

TEST_F(ConsoleSessionsTest, MakesRoomByTheSessionThatWasNotUsedForLongest) {
  const std::string first = SignIn().token;
  clock_.Advance(1);
  const std::string second = SignIn().token;
  clock_.Advance(1);
  ASSERT_TRUE(sessions_.Find(first).has_value());
  for (int i = 0; i < 14; ++i) {
    SignIn();
  }
  EXPECT_TRUE(sessions_.Find(second, false).has_value()) << "sixteen have room";
  SignIn();
  EXPECT_TRUE(sessions_.Find(first).has_value());
  EXPECT_FALSE(sessions_.Find(second).has_value());
}

TEST_F(ConsoleSessionsTest, NoKeyThrowsAnotherOneOut) {
  const std::string token = SignIn().token;
  clock_.Advance(1);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(SignInAs("guest").status, 200) << i;
  }
  EXPECT_TRUE(sessions_.Find(token).has_value());
  EXPECT_EQ(sessions_.Count(), 17U);
}

TEST_F(ConsoleSessionsTest, ManyKeysShareTheRoomAndEachMakesItByItsOwnFirst) {
  const std::string token = SignIn().token;
  clock_.Advance(1);
  for (int i = 0; i < 255; ++i) {
    ASSERT_EQ(SignInAs("guest" + std::to_string(i)).status, 200) << i;
  }
  ASSERT_EQ(SignInAs("guest7").status, 200);
  EXPECT_TRUE(sessions_.Find(token, false).has_value());
  EXPECT_EQ(sessions_.Count(), CConsoleSessions::kMostSessions);
  ASSERT_EQ(SignInAs("guest255").status, 200);
  EXPECT_FALSE(sessions_.Find(token).has_value()) << "it was not used for longest";
  EXPECT_EQ(sessions_.Count(), CConsoleSessions::kMostSessions);
}

}  // namespace
}  // namespace Tansy::Host
