// The picture protocol through a real server and its store.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "support/PictureSystemTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class PictureTest : public PictureSystemTest {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Start()); }

  // Makes the object /b/o carry a picture, as a host does that knows both.
  void LetObjectCarry(const std::string& address, std::size_t size) {
    MakeBucket("b");
    Put("/b/o", "x");
    server_.Stop();
    Query(server_.Data("catalogue.db"),
          "UPDATE local_object SET size = " + std::to_string(size) + ", url = '" + address + "'");
    ASSERT_TRUE(server_.Start());
  }
  // The file that holds a picture's bytes.
  std::string FileOf(const std::string& address) {
    const std::string text = address.substr(address.find('=') + 1);
    return server_.Data("objects/pc01/" + text.substr(4, 2) + "/" + text.substr(7, 2) + "/" + text.substr(10));
  }
};

TEST_F(PictureTest, APictureComesBackByItsAddressAlsoAfterARestart) {
  const std::string bytes = RandomBytes(300000, 1);
  const std::string address = Store(bytes);
  for (int i = 0; i < 2; ++i) {
    const Reply reply = SendPicture("GET", address);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.Header("Content-Type"), "image/jpeg");
    EXPECT_EQ(reply.body == bytes, true);
    server_.Kill();
    ASSERT_TRUE(server_.Start());
  }
  EXPECT_EQ(PictureOutcome(Ask({"GET", address, {}, ""})), "403 -58002");
}

TEST_F(PictureTest, AnUploadThatWasAcknowledgedSurvivesAKill) {
  for (const char* durability : {"full", "fast"}) {
    server_.Stop();
    Launch launch;
    launch.arguments = {"--durability", durability};
    ASSERT_TRUE(server_.Start(launch));
    std::vector<std::pair<std::string, std::string>> pictures;
    for (std::uint64_t i = 0; i < 5; ++i) {
      const std::string bytes = RandomBytes(100 + i * 400000, i);
      pictures.emplace_back(Store(bytes), bytes);
    }
    server_.Kill();
    ASSERT_TRUE(server_.Start(launch));
    for (const auto& [address, bytes] : pictures) {
      EXPECT_EQ(SendPicture("GET", address).body == bytes, true) << address;
    }
  }
}

TEST_F(PictureTest, AKillUnderLoadLosesNoAcknowledgedPicture) {
  std::mutex mutex;
  std::map<std::string, std::string> pictures;  // by address; guarded by mutex
  const auto upload = [&](std::uint64_t seed) {
    for (;; seed += 10) {
      const std::string bytes = RandomBytes(200000 + seed * 1000, seed);
      const Reply reply = Upload(bytes);
      if (reply.status == 0 || !reply.is_whole) {
        return;
      }
      const std::lock_guard lock(mutex);
      pictures[JsonText(reply.body, "PictureUrl")] = bytes;
    }
  };
  const auto count = [&] {
    const std::lock_guard lock(mutex);
    return pictures.size();
  };
  for (std::size_t round = 1; round <= 3; ++round) {
    std::vector<std::thread> clients;
    for (std::uint64_t i = 0; i < 4; ++i) {
      clients.emplace_back(upload, round * 100 + i);
    }
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (count() < round * 7 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    server_.Kill();
    for (std::thread& client : clients) {
      client.join();
    }
    EXPECT_GE(count(), round * 7);
    ASSERT_TRUE(server_.Start());
    for (const auto& [address, bytes] : pictures) {
      EXPECT_EQ(SendPicture("GET", address).body == bytes, true) << address;
    }
  }
  server_.Stop();
  EXPECT_EQ(Check({"--repair", "--force"}).code, 0);
  const Ended clean = Check();
  EXPECT_EQ(clean.code, 0) << clean.out;
  EXPECT_THAT(clean.out, HasSubstr(" 0 orphans (0 bytes), 0 freed, 0 damaged"));
}

TEST_F(PictureTest, AFullDiskIsAFailureOfTheStorageAndLeavesNothing) {
  server_.Stop();
  std::filesystem::remove_all(server_.Data());  // its pictures would be missed on the small disk
  Launch launch;
  launch.small_disk = "objects";
  launch.small_disk_bytes = 2 * 1024 * 1024;
  if (!server_.Start(launch)) {
    ASSERT_TRUE(server_.IsSmallDiskMissing());
    GTEST_SKIP() << "this machine lets nobody mount a small disk";
  }
  const Reply reply = Upload(RandomBytes(3000000, 4));
  EXPECT_EQ(reply.status, 500);
  EXPECT_EQ(reply.body, PictureError(-50002));
  EXPECT_EQ(SendPicture("GET", Store("small")).body, "small");
  EXPECT_EQ(PictureOutcome(Upload(RandomBytes(1500000, 5))), "200") << "the bytes of the failed one are free again";
}

TEST_F(PictureTest, ALinkNeedsNoHeader) {
  const std::string address = Store("jpeg");
  EXPECT_EQ(Ask({"GET", SignedLink(address), {}, ""}).body, "jpeg");
  EXPECT_EQ(Ask({"GET", SignedLink(address) + "&more=1", {}, ""}).body, "jpeg");
  EXPECT_EQ(PictureOutcome(Ask({"GET", SignedLink(address) + "&Algorithm=1", {}, ""})), "403 -58002");
  EXPECT_EQ(PictureOutcome(Ask({"GET", SignedLink(address, {"other", "key"}), {}, ""})), "401 -58003");
  EXPECT_EQ(PictureOutcome(Ask({"GET", SignedLink(address, {Keys().access_key, "key"}), {}, ""})), "403 -58002");
}

TEST_F(PictureTest, TheBestNodeIsTheServerItself) {
  const std::string address = "127.0.0.1:" + std::to_string(server_.GetPicturePort());
  const Reply reply =
      SendPicture("GET", "/Quorvane/BestNode?SerialID=1&PoolID=1&Replication=0", "", {{"Host", address}});
  EXPECT_EQ(JsonText(reply.body, "GatewayIP") + ":" + JsonText(reply.body, "GatewayPort"), address) << reply.body;
  EXPECT_THAT(JsonText(reply.body, "Token"), MatchesRegex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"));
}

TEST_F(PictureTest, AnObjectRecordMayCarryAPicture) {
  const std::string bytes = RandomBytes(100000, 2);
  const std::string address = Store(bytes);
  LetObjectCarry(address, bytes.size());
  EXPECT_EQ(Get("/b/o") == bytes, true);
  EXPECT_EQ(Send("GET", "/b/o", "", {{"Range", "bytes=10-30"}}).body == bytes.substr(10, 20), true);
  EXPECT_EQ(Send("GET", "/b/o?metadata").Header("Object-Size"), "100000");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/o?deletefile")), "200");
  EXPECT_EQ(SendPicture("GET", address).body == bytes, true) << "its address was given away: the picture stays";
}

// Ordinary objects of this size go out in chunks, with a header that tells so.
TEST_F(PictureTest, ALargePictureOfAnObjectRecordIsSentInOnePiece) {
  const std::string bytes = RandomBytes(12000000, 3);
  LetObjectCarry(Store(bytes), bytes.size());
  const Reply whole = Send("GET", "/b/o");
  EXPECT_EQ(whole.body == bytes, true);
  EXPECT_EQ(whole.Header("Content-Range"), "");
  const Reply most = Send("GET", "/b/o", "", {{"Range", "bytes=1-12000000"}});
  EXPECT_EQ(most.body == bytes.substr(1), true);
  EXPECT_EQ(most.Header("Content-Range"), "");
}

TEST_F(PictureTest, ObjectsAreNotReadAsPictures) {
  MakeBucket("b");
  Put("/b/o", "private");
  const std::string text = Query(server_.Data("catalogue.db"), "SELECT url FROM local_object").front();
  const Reply reply = SendPicture("GET", "/pic?id=" + text);
  EXPECT_EQ(reply.status, 500);
  EXPECT_EQ(reply.body, PictureError(-50002));
}

TEST_F(PictureTest, AddressesOfNoPictureAreErrors) {
  for (const char* target : {"/pic?id=../../catalogue.db", "/pic?id=", "/pic?x", "/pic",
                             "/pic?id=pc0100-00-00000000000000000000000000000000.d"}) {
    const Reply reply = SendPicture("GET", target);
    EXPECT_EQ(reply.status, 500) << target;
    EXPECT_EQ(reply.body, PictureError(-50002)) << target;
  }
  EXPECT_FALSE(std::filesystem::exists(server_.Data("objects/pc01")));
}

TEST_F(PictureTest, PicturesAreNoOrphans) {
  const std::string address = Store("12345");
  server_.Stop();
  const Ended ended = Check({"--repair", "--force"});
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, HasSubstr("1 stored files, 0 orphans"));
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(SendPicture("GET", address).body, "12345");
}

TEST_F(PictureTest, WhatAnUploadThatBrokeOffLeftIsFreed) {
  const std::string address = Store("12345");
  server_.Stop();
  const std::string torn =
      std::filesystem::path(FileOf(address)).parent_path().string() + "/" + std::string(32, 'a') + ".tmp";
  std::ofstream(torn) << "torn";
  const Ended found = Check();
  EXPECT_EQ(found.code, 3);
  EXPECT_THAT(found.out, HasSubstr("orphan pc01/"));
  EXPECT_EQ(Check({"--repair", "--force"}).code, 0);
  EXPECT_FALSE(std::filesystem::exists(torn));
  EXPECT_TRUE(std::filesystem::exists(FileOf(address)));
}

// A picture is removed by removing its file. Only an object record that carries it is damaged then.
TEST_F(PictureTest, ARemovedPictureIsMissedOnlyWhereAnObjectCarriesIt) {
  const std::string carried = Store("carried");
  const std::string alone = Store("alone");
  LetObjectCarry(carried, 7);
  ASSERT_TRUE(std::filesystem::remove(FileOf(alone)));
  EXPECT_EQ(PictureOutcome(SendPicture("GET", alone)), "500 -50002");
  server_.Stop();
  EXPECT_EQ(Check().code, 0) << "the bytes that the object had before are kept";
  const Ended repaired = Check({"--repair", "--force"});
  EXPECT_EQ(repaired.code, 0) << repaired.out;
  EXPECT_THAT(repaired.out, Not(HasSubstr("pc01")));
  ASSERT_TRUE(std::filesystem::remove(FileOf(carried)));
  const Ended damaged = Check({"--repair", "--force"});
  EXPECT_EQ(damaged.code, 3);
  EXPECT_THAT(damaged.out, HasSubstr("missing /b/o " + carried));
  EXPECT_THAT(damaged.out, HasSubstr(" 1 damaged"));
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Outcome(Send("GET", "/b/o")), "500 ServerInternalError");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/o?deletefile")), "200");
}

}  // namespace
}  // namespace system_tests
