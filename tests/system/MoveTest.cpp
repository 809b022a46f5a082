// Catalogue and bytes move to another place while clients go on, and nothing that a client was told is lost.
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fakes/CephCluster.h"
#include "fakes/PostgresServer.h"
#include "support/MoveFixture.h"
#include "support/S3Curl.h"

namespace system_tests {
namespace {

using Tansy::Tests::CCephCluster;
using Tansy::Tests::CPostgresServer;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::size_t kMiB = 1024 * 1024;
// A long body is written in slices that are larger than this.
constexpr std::size_t kSlice = 100000;

// What every test of a whole move looks at, whatever the places are.
class WholeMove : public MoveFixture {
 protected:
  // Clients of each kind, before, while and after everything moves from where it is to `goal`.
  void MoveUnderLoad(const std::vector<std::string>& goal) {
    ASSERT_TRUE(server_.Start(Serving()));
    MakeBucket("b");
    MakeBucket("it's\xE4");
    Put("/b/small", "small");
    Put("/b/overwritten", "before");
    Put("/it's\xE4/any", "any bytes");
    const std::string large = RandomBytes(9 * kMiB + 5, 1);
    Put("/b/large", large);
    const std::string picture = SamplePicture("sample.jpg");
    const std::string address = StorePicture(picture);
    const std::vector<std::string> parts = Parts(4, 300000, 1000, 7);
    const std::string task = Begin("parts");
    EXPECT_EQ(SendPart("parts", task, 2, parts[1]), "200");  // waits in a file, as what came first
    EXPECT_EQ(SendPart("parts", task, 4, parts[3]), "200");

    // An upload that began before the move, and ends after it.
    const std::string streamed = RandomBytes(30 * kMiB, 2);
    const auto upload = CConnection::Open(server_.GetObjectPort());
    ASSERT_TRUE(upload);
    Request head{"PUT", "/b/streamed", {{"Content-Length", std::to_string(streamed.size())}}, ""};
    EXPECT_TRUE(upload->Send(Serialize(Signed(head), server_.GetObjectPort())));
    EXPECT_TRUE(upload->Send(std::string_view(streamed).substr(0, 13 * kMiB)));

    auto writers = StartWriters();
    const Ended ended = Move(goal);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err << server_.GetLog();
    EXPECT_GE(Pause(ended.out), 0) << ended.out;
    EXPECT_LE(Pause(ended.out), 2000) << ended.out;
    const int answered = writers->Answered();
    EXPECT_TRUE(WaitUntil([&] { return writers->Answered() > answered + 40; }));
    writers->Stop();
    EXPECT_EQ(writers->Failed(), 0) << server_.GetLog();

    EXPECT_TRUE(upload->Send(std::string_view(streamed).substr(13 * kMiB)));
    EXPECT_EQ(upload->Receive().status, 200);
    EXPECT_EQ(SendPart("parts", task, 1, parts[0]), "200");
    EXPECT_EQ(SendPart("parts", task, 3, parts[2]), "200");
    EXPECT_EQ(Complete("parts", task, parts), "200") << server_.GetLog();
    Put("/b/overwritten", "after");
    const std::string second = StorePicture(SamplePicture("sample.png"));
    for (const std::string when : {"after the move", "after a restart"}) {
      Expect(writers->States(), when);
      EXPECT_EQ(Get("/b/small"), "small");
      EXPECT_EQ(Get("/b/overwritten"), "after");
      EXPECT_EQ(Get("/it's\xE4/any"), "any bytes");
      EXPECT_TRUE(Get("/b/large") == large) << when;
      EXPECT_TRUE(Get("/b/streamed") == streamed) << when;
      EXPECT_TRUE(Get("/b/parts") == Joined(parts)) << when;
      EXPECT_TRUE(GetPicture(address) == picture) << when;
      EXPECT_TRUE(GetPicture(second) == SamplePicture("sample.png")) << when;
      if (when == "after the move") {
        EXPECT_THAT(CheckAll(), AllOf(testing::StartsWith("0 "), HasSubstr(" 0 damaged"))) << when;
        EXPECT_TRUE(server_.Stop());
        ASSERT_TRUE(server_.Start(Serving())) << "with the options of before";
      }
    }
    EXPECT_TRUE(server_.Stop());
  }
};

class MoveTest : public WholeMove {
 protected:
  static std::vector<std::string> Goal() {
    return {"--to-database", "sqlite:new/rows.db", "--to-storage", "file:bytes"};
  }

  void SetUp() override { std::filesystem::create_directories(server_.Data("new")); }
  void StartWith(std::size_t objects, const Launch& launch) {
    ASSERT_TRUE(server_.Start(launch));
    MakeBucket("b");
    for (std::size_t i = 0; i < objects; ++i) {
      Put("/b/" + std::to_string(i), Body(i));
    }
  }
  // An object whose bytes are gone: a move copies everything and ends in front of the switch.
  void PutBrokenObject() {
    Put("/b/broken", RandomBytes(100000, 9));
    const std::string url =
        Query(server_.Data("catalogue.db"), "SELECT url FROM local_object WHERE name='broken'").front();
    const std::string id = url.substr(url.rfind('-') + 1);
    std::string file;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects"))) {
      file = entry.path().filename().string().find(id) != std::string::npos ? entry.path().string() : file;
    }
    EXPECT_TRUE(std::filesystem::remove(file)) << url;
  }
  static std::string Body(std::size_t i) { return RandomBytes(i % 50 == 3 ? 200000 : 100 + i, i); }
  void ExpectObjects(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      EXPECT_TRUE(Get("/b/" + std::to_string(i)) == Body(i)) << i;
    }
  }
  // What stands in a refusal's last line.
  void ExpectRefusal(const std::vector<std::string>& arguments, const std::string& words, int code = 1) {
    const Ended ended = Move(arguments);
    EXPECT_EQ(ended.code, code) << ended.out << ended.err;
    EXPECT_THAT(ended.out + ended.err, HasSubstr(words));
    EXPECT_EQ(Pause(ended.out), -1);
  }
  std::vector<std::string> OfMoves(const std::string& database) const {
    return Query(server_.Data(database),
                 "SELECT name FROM sqlite_master WHERE name LIKE 'move_%' "
                 "UNION SELECT name FROM host_values WHERE name LIKE 'move%'");
  }
};

TEST_F(MoveTest, EverythingMovesToAnotherFolderWhileClientsGoOn) {
  MoveUnderLoad(Goal());
  EXPECT_TRUE(OfMoves("new/rows.db").empty());
  EXPECT_EQ(OfMoves("catalogue.db"), std::vector<std::string>{"moved_to"});
  EXPECT_TRUE(std::filesystem::exists(server_.Data("objects/fs01"))) << "the old place stays as it is";
}

TEST_F(MoveTest, OnlyTheBytesOrOnlyTheRowsMove) {
  StartWith(5, Serving());
  EXPECT_EQ(Move({"--to-storage", "file:bytes"}).code, 0);
  Put("/b/5", Body(5));
  Put("/b/removed", "its bytes are kept for days");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/removed")), "200");
  ExpectObjects(6);
  EXPECT_EQ(Move({"--to-database", "sqlite:rows.db"}).code, 0) << "a second move of the same server";
  Put("/b/6", Body(6));
  ExpectObjects(7);
  EXPECT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(Serving()));
  ExpectObjects(7);
  EXPECT_THAT(CheckAll(), AllOf(testing::StartsWith("0 "), HasSubstr("check: 7 rows"), HasSubstr(" 1 kept")));
}

TEST_F(MoveTest, WithoutAServerTheCommandMovesByItself) {
  StartWith(5, Serving());
  EXPECT_TRUE(server_.Stop());
  EXPECT_EQ(Move(Goal()).code, 0);
  ASSERT_TRUE(server_.Start(Serving()));
  ExpectObjects(5);
}

TEST_F(MoveTest, ThereAndBackAndTheOldPlaceIsFreedWhenThatIsAskedFor) {
  StartWith(5, Serving());
  EXPECT_EQ(Move(Goal()).code, 0);
  ExpectRefusal({"--delete-old"}, "in use");
  EXPECT_TRUE(server_.Stop());
  ExpectRefusal({"--to-database", "sqlite:catalogue.db"}, "holds a catalogue already");
  ExpectRefusal({"--to-storage", "file:objects"}, "belongs to a store already");
  EXPECT_EQ(Move({"--delete-old"}).code, 0);
  EXPECT_FALSE(std::filesystem::exists(server_.Data("catalogue.db")));
  EXPECT_EQ(CountFiles(server_.Data("objects/fs01")), 0U);
  ASSERT_TRUE(server_.Start(Serving()));
  EXPECT_EQ(Outcome(Send("DELETE", "/b/4?deletefile")), "200");
  Put("/b/4", Body(4));
  EXPECT_EQ(Move({"--to-database", "sqlite:catalogue.db", "--to-storage", "file:objects"}).code, 0);
  EXPECT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(Serving()));
  ExpectObjects(5);
  EXPECT_TRUE(server_.Stop());
  EXPECT_EQ(Move({"--delete-old"}).code, 0);
  EXPECT_THAT(CheckAll(), AllOf(testing::StartsWith("0 "), HasSubstr("check: 5 rows, 5 stored files")));
}

TEST_F(MoveTest, WrongGoalsAreRefusedAndNothingHasChanged) {
  StartWith(2, Serving());
  CTansyd other(temp_.GetPath(), "other");
  ASSERT_TRUE(other.Start());
  EXPECT_TRUE(other.Stop());
  ExpectRefusal({}, "needs --to-database or --to-storage", 2);
  ExpectRefusal({"--to-storage", "ftp:x"}, "--to-storage is not valid");
  ExpectRefusal({"--to-storage", "file:objects"}, "are there already");
  ExpectRefusal({"--to-database", "sqlite:" + other.Data("catalogue.db")}, "holds a catalogue already");
  ExpectRefusal({"--to-storage", "file:" + other.Data("objects")}, "belongs to a store already");
  ExpectRefusal({"--to-database", "postgresql://tansy@%2Fnowhere/tansy"}, "/nowhere/.s.PGSQL.5432");
  std::ofstream(server_.Data("foreign.db")) << "no database";
  ExpectRefusal({"--to-database", "sqlite:foreign.db"}, "foreign.db");
  std::filesystem::create_directories(server_.Data("full/fs01/00/00"));
  std::ofstream(server_.Data("full/fs01/00/00/0123456789abcdef0123456789abcdef.d")) << "x";
  ExpectRefusal({"--to-storage", "file:full"}, "is not empty");
  ExpectRefusal({"--cancel"}, "no move has begun");
  ExpectRefusal({"--delete-old"}, "nothing was moved from here");
  EXPECT_TRUE(OfMoves("catalogue.db").empty());
  ExpectObjects(2);
}

TEST_F(MoveTest, ADryRunSaysHowMuchAndHowLongAndLeavesNothing) {
  StartWith(7, Serving());
  Launch launch = Moving(Goal());
  launch.arguments.push_back("--dry-run");
  CTansyd command(temp_.GetPath(), "command");
  const Ended ended = command.RunToEnd(launch);
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  EXPECT_THAT(ended.out, AllOf(HasSubstr("7 objects"), HasSubstr("0 pictures"), HasSubstr("it takes about ")));
  EXPECT_FALSE(std::filesystem::exists(server_.Data("bytes")));
  EXPECT_FALSE(std::filesystem::exists(server_.Data("new/rows.db")));
  EXPECT_TRUE(OfMoves("catalogue.db").empty());
}

TEST_F(MoveTest, AGoalWithoutRoomEndsTheMoveAndTheServerGoesOn) {
  Launch launch = Serving();
  launch.small_disk = "disk";
  launch.small_disk_bytes = 16 * kMiB;
  ASSERT_TRUE(server_.Start(launch));
  if (server_.IsSmallDiskMissing()) {
    GTEST_SKIP() << "this machine does not let a test mount a file system";
  }
  MakeBucket("b");
  for (std::size_t i = 0; i < 5; ++i) {
    Put("/b/large" + std::to_string(i), RandomBytes(4 * kMiB, i));
  }
  ExpectRefusal({"--to-storage", "file:disk/bytes"}, "is full");
  EXPECT_TRUE(Get("/b/large4") == RandomBytes(4 * kMiB, 4));
  Put("/b/later", "later");
  ExpectRefusal({"--to-storage", "file:bytes"}, "another move has begun, to storage file:disk/bytes");
  EXPECT_EQ(Move({"--cancel"}).code, 0);
  EXPECT_TRUE(OfMoves("catalogue.db").empty());
  EXPECT_EQ(Move({"--to-storage", "file:bytes"}).code, 0);
  EXPECT_EQ(Get("/b/later"), "later");
}

TEST_F(MoveTest, DamagedBytesEndTheMoveUnlessTheOwnerWantsTheRest) {
  StartWith(10, Serving());
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
    if (entry.is_regular_file()) {
      std::filesystem::remove(entry.path());
    }
  }
  ExpectRefusal(Goal(), "missing local_object");
  EXPECT_EQ(Get("/b/1"), Body(1));
  std::vector<std::string> anyhow = Goal();
  anyhow.push_back("--even-damaged");
  const Ended ended = Move(anyhow);
  EXPECT_EQ(ended.code, 0) << ended.out;
  EXPECT_EQ(Get("/b/1"), Body(1));
}

TEST_F(MoveTest, TheOldPlaceIsRefusedByAStart) {
  StartWith(2, Serving());
  EXPECT_EQ(Move(Goal()).code, 0);
  EXPECT_TRUE(server_.Stop());
  const std::string was = server_.Data("catalogue.db");
  CTansyd other(temp_.GetPath(), "other");
  Launch launch;
  launch.arguments = {"--database", "sqlite:" + was, "--storage", "file:" + server_.Data("objects")};
  EXPECT_THAT(other.RunToEnd(launch).err,
              AllOf(HasSubstr("was moved to database new/rows.db"), HasSubstr("out of date")));
}

TEST_F(MoveTest, NothingMovesWhileWritesNeedNotBeDurable) {
  StartWith(2, Serving({"--durability", "fast"}));
  const Ended refused = Move(Goal());
  EXPECT_EQ(refused.code, 1) << refused.out << refused.err;
  EXPECT_THAT(refused.out, HasSubstr("start tansyd with --durability full"));
  EXPECT_FALSE(std::filesystem::exists(server_.Data("moved")));
  std::vector<std::string> dry = Goal();
  dry.push_back("--dry-run");
  EXPECT_EQ(Move(dry).code, 0);
}

// The server finds the command gone as soon as it has begun; whoever asks again gets the whole move.
TEST_F(MoveTest, AMoveIsStoppedByTheEndOfItsCommandAndGoesOnWithTheNext) {
  StartWith(20, Serving());
  auto writers = StartWriters(2);
  CTansyd command(temp_.GetPath(), "command");
  server_.Signal(SIGSTOP);
  command.Begin(Moving(Goal()));
  EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(server_.Data("move.request")); }));
  command.Kill();
  server_.Signal(SIGCONT);
  EXPECT_TRUE(WaitUntil([&] { return !OfMoves("catalogue.db").empty(); }));
  EXPECT_TRUE(
      WaitUntil([&] { return server_.GetLog().find("stopped; the same command goes on") != std::string::npos; }));
  const int answered = writers->Answered();
  EXPECT_TRUE(WaitUntil([&] { return writers->Answered() > answered + 20; }));
  EXPECT_FALSE(std::filesystem::exists(server_.Data("moved")));
  CTansyd other(temp_.GetPath(), "other");
  Launch half;
  half.arguments = {"--database", "sqlite:" + server_.Data("new/rows.db"), "--storage",
                    "file:" + server_.Data("bytes")};
  EXPECT_THAT(other.RunToEnd(half).err, HasSubstr("is being filled by a move that has not ended"));
  const Ended ended = Move(Goal());
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("move: goes on: "));
  writers->Stop();
  EXPECT_EQ(writers->Failed(), 0);
  Expect(writers->States(), "after the move");
  ExpectObjects(20);
}

// A server whose new place is slow when the file `how` says so, as FileCalls.cpp reads it.
class SlowGoalTest : public MoveTest {
 protected:
  Launch SlowServing(const std::vector<std::string>& more = {}) const {
    Launch launch = Serving(more);
    launch.program = TANSYD_THAT_DIES;
    launch.environment = {{"SLOW_BELOW", server_.Data("bytes")}, {"SLOW_HOW", how_}};
    return launch;
  }
  void SetSlow(int milliseconds, std::size_t least_bytes) const {
    std::ofstream(how_ + ".new") << milliseconds << " " << least_bytes;
    std::filesystem::rename(how_ + ".new", how_);
  }
  // Notes about new bytes of earlier runs go when a round has seen the rows of all of them.
  void LetHousekeepingSeeAll(const Launch& launch) {
    const auto notes = [this] {
      std::set<std::string> names;
      for (const auto& entry : std::filesystem::directory_iterator(server_.Data("objects"))) {
        if (entry.path().filename().string().starts_with("new.")) {
          names.insert(entry.path().filename().string());
        }
      }
      return names;
    };
    EXPECT_TRUE(server_.Stop());
    const std::set<std::string> before = notes();
    ASSERT_FALSE(before.empty());
    ASSERT_TRUE(server_.Start(launch));
    EXPECT_TRUE(WaitUntil([&] { return notes() != before && !notes().contains(*before.begin()); }));
  }
  bool HasSaid(const std::string& line) const { return server_.GetLog().find(line) != std::string::npos; }

  const std::string how_ = temp_.Path("how");
};

// What clients feel is what counts: how long their own writes take. The first try has copied all rows; large objects
// have changed since then, so long ago that they are not among the new bytes, which are copied anyway before the
// switch.
TEST_F(SlowGoalTest, NoClientWaitsLongForTheLargeObjectsOfOthers) {
  StartWith(4, SlowServing());
  PutBrokenObject();
  ExpectRefusal(Goal(), "missing local_object");
  const std::string large = RandomBytes(8 * kMiB, 1);
  for (int i = 0; i < 4; ++i) {
    Put("/b/" + std::to_string(i), large);
  }
  LetHousekeepingSeeAll(SlowServing());
  Put("/b/broken", "whole again");
  auto writers = StartWriters(1, std::chrono::milliseconds(400));  // who changes little meanwhile
  SetSlow(40, kSlice);                                             // almost three seconds for each large object
  const Ended ended = Move(Goal());
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  EXPECT_LT(writers->TakeLongest().count(), 2000) << ended.out;
  writers->Stop();
  EXPECT_EQ(writers->Failed(), 0);
  Expect(writers->States(), "after the move");
  EXPECT_TRUE(Get("/b/0") == large);
  EXPECT_TRUE(Get("/b/3") == large);
}

TEST_F(SlowGoalTest, ANewPlaceThatBecomesSilentKeepsNobodyWaiting) {
  StartWith(3, SlowServing());
  const auto upload = CConnection::Open(server_.GetObjectPort());
  ASSERT_TRUE(upload);
  const std::string streamed = RandomBytes(24 * kMiB, 2);
  Request head{"PUT", "/b/streamed", {{"Content-Length", std::to_string(streamed.size())}}, ""};
  EXPECT_TRUE(upload->Send(Serialize(Signed(head), server_.GetObjectPort())));
  EXPECT_TRUE(upload->Send(std::string_view(streamed).substr(0, 20 * kMiB)));
  auto writers = StartWriters(3);
  SetSlow(20, kSlice);  // so that copying the upload takes a while
  CTansyd command(temp_.GetPath(), "command");
  command.Begin(Moving(Goal()));
  EXPECT_TRUE(WaitUntil([&] { return HasSaid("new bytes go to both places"); }));
  SetSlow(60000, 0);
  EXPECT_FALSE(std::filesystem::exists(server_.Data("moved")));
  writers->TakeLongest();
  const int answered = writers->Answered();
  EXPECT_TRUE(WaitUntil([&] { return writers->Answered() > answered + 100; }));
  EXPECT_LT(writers->TakeLongest().count(), 2000);
  SetSlow(0, 0);
  const Ended ended = command.WaitForEnd();
  EXPECT_TRUE(ended.code == 0 || Move(Goal()).code == 0) << ended.out << ended.err;
  EXPECT_TRUE(upload->Send(std::string_view(streamed).substr(20 * kMiB)));
  EXPECT_EQ(upload->Receive().status, 200);
  writers->Stop();
  EXPECT_EQ(writers->Failed(), 0);
  Expect(writers->States(), "after the move");
  EXPECT_TRUE(Get("/b/streamed") == streamed);
}

class MoveOfPartsTest : public MoveTest {
 protected:
  Launch ServingS3() const {
    Launch launch = Serving({"--keep-failed", "1", "--keep-removed", "0"});
    launch.with_s3 = true;
    return launch;
  }
  std::vector<std::string> PutParts(const std::string& path, const std::string& upload, std::size_t count) {
    std::vector<std::string> tags;
    for (std::size_t i = 0; i < count; ++i) {
      tags.push_back(curl_.PutPart(path, upload, static_cast<int>(i) + 1, Part(i)));
      EXPECT_FALSE(tags.back().empty());
    }
    return tags;
  }
  static std::string Part(std::size_t i) { return RandomBytes(5 * kMiB + i, i); }

  CS3Curl curl_{server_};
};

// The first try ends when all is copied, because one object's bytes are gone; the second one follows what was changed.
TEST_F(MoveOfPartsTest, UploadsInPartsAndAttributesMoveAndNothingIsLeftOver) {
  ASSERT_TRUE(server_.Start(ServingS3()));
  MakeBucket("b");
  EXPECT_EQ(
      curl_.Send("PUT", "/b/text", "some text", {{"Content-Type", "text/x-of-ours"}, {"x-amz-meta-who", "me"}}).status,
      200);
  const std::string whole = curl_.Begin("/b/whole");
  EXPECT_EQ(curl_.Complete("/b/whole", whole, PutParts("/b/whole", whole, 2)).status, 200);
  const std::string removed = curl_.Begin("/b/removed");
  EXPECT_EQ(curl_.Complete("/b/removed", removed, PutParts("/b/removed", removed, 2)).status, 200);
  const std::string kept = curl_.Begin("/b/kept");
  std::vector<std::string> tags = PutParts("/b/kept", kept, 3);
  const std::string aborted = curl_.Begin("/b/aborted");
  PutParts("/b/aborted", aborted, 2);
  const std::string open = curl_.Begin("/b/open");
  std::vector<std::string> open_tags = PutParts("/b/open", open, 2);
  PutBrokenObject();
  ExpectRefusal(Goal(), "missing local_object");

  tags[0] = curl_.PutPart("/b/kept", kept, 1, Part(7));  // replaces the first one
  tags.pop_back();                                       // and the third one is left out
  EXPECT_EQ(curl_.Complete("/b/kept", kept, tags).status, 200);
  EXPECT_EQ(curl_.Send("DELETE", "/b/aborted?uploadId=" + aborted).status, 204);
  EXPECT_EQ(curl_.Send("DELETE", "/b/removed").status, 204);
  Put("/b/broken", "whole again");
  const auto has_part_rows = [this](const std::string& database, const std::string& key) {
    return !Query(server_.Data(database),
                  "SELECT 1 FROM local_upload_part WHERE object_url NOT IN (SELECT url FROM local_object) AND "
                  "object_url NOT IN (SELECT object_url FROM local_upload)" +
                      key)
                .empty();
  };
  EXPECT_TRUE(WaitUntil([&] { return !has_part_rows("catalogue.db", ""); })) << "housekeeping frees parts";
  const Ended ended = Move(Goal());
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;

  EXPECT_TRUE(curl_.PutPart("/b/kept", kept, 1, Part(4)).empty()) << "the upload has ended";
  EXPECT_TRUE(curl_.Send("GET", "/b/kept").body == Part(7) + Part(1));
  EXPECT_TRUE(curl_.Send("GET", "/b/whole").body == Part(0) + Part(1));
  open_tags.push_back(curl_.PutPart("/b/open", open, 3, Part(2)));
  EXPECT_EQ(curl_.Complete("/b/open", open, open_tags).status, 200);
  EXPECT_TRUE(curl_.Send("GET", "/b/open").body == Part(0) + Part(1) + Part(2));
  const Reply text = curl_.Send("GET", "/b/text");
  EXPECT_EQ(text.body, "some text");
  EXPECT_EQ(text.Header("Content-Type"), "text/x-of-ours");
  EXPECT_EQ(text.Header("x-amz-meta-who"), "me");
  EXPECT_TRUE(WaitUntil([&] { return CheckAll().find(" 0 orphan") != std::string::npos; })) << CheckAll();
  EXPECT_THAT(CheckAll(), AllOf(testing::StartsWith("0 "), HasSubstr(" 0 damaged")));
}

TEST_F(MoveTest, AFreedPlaceThatSomebodyElseUsesIsLeftAlone) {
  StartWith(5, Serving());
  EXPECT_EQ(Move(Goal()).code, 0);
  EXPECT_TRUE(server_.Stop());
  EXPECT_EQ(Move({"--delete-old"}).code, 0);
  ExpectRefusal({"--delete-old"}, "no place of before is left");

  CTansyd other(temp_.GetPath(), "other");
  Launch launch;
  launch.arguments = {"--database", "sqlite:" + server_.Data("catalogue.db"), "--storage",
                      "file:" + server_.Data("objects")};
  ASSERT_TRUE(other.Start(launch));
  EXPECT_EQ(Outcome(Call(other.GetObjectPort(), Signed({"PUT", "/b", {}, "<CreateBucketConfiguration/>"}))), "200");
  EXPECT_EQ(Outcome(Call(other.GetObjectPort(), Signed({"PUT", "/b/theirs", {}, "theirs"}))), "200");
  EXPECT_TRUE(other.Stop());

  ASSERT_TRUE(server_.Start(Serving()));
  EXPECT_EQ(Move({"--to-database", "sqlite:third.db", "--to-storage", "file:third"}).code, 0);
  EXPECT_TRUE(server_.Stop());
  EXPECT_EQ(Move({"--delete-old"}).code, 0);
  EXPECT_FALSE(std::filesystem::exists(server_.Data("new/rows.db")));
  ASSERT_TRUE(other.Start(launch));
  EXPECT_EQ(Call(other.GetObjectPort(), Signed({"GET", "/b/theirs", {}, ""})).body, "theirs");
  ASSERT_TRUE(server_.Start(Serving()));
  ExpectObjects(5);
}

// The place that was never freed: its new owner has put a store of its own there.
TEST_F(MoveTest, APlaceThatWasTakenWithoutAskingIsNotFreed) {
  StartWith(2, Serving());
  EXPECT_EQ(Move(Goal()).code, 0);
  EXPECT_TRUE(server_.Stop());
  std::filesystem::remove_all(server_.Data("objects"));
  std::filesystem::remove(server_.Data("catalogue.db"));
  CTansyd other(temp_.GetPath(), "other");
  Launch launch;
  launch.arguments = {"--database", "sqlite:" + server_.Data("catalogue.db"), "--storage",
                      "file:" + server_.Data("objects")};
  ASSERT_TRUE(other.Start(launch));
  EXPECT_EQ(Outcome(Call(other.GetObjectPort(), Signed({"PUT", "/b", {}, "<CreateBucketConfiguration/>"}))), "200");
  EXPECT_EQ(Outcome(Call(other.GetObjectPort(), Signed({"PUT", "/b/theirs", {}, "theirs"}))), "200");
  EXPECT_TRUE(other.Stop());
  const Ended ended = Move({"--delete-old"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, AllOf(HasSubstr("storage file:objects belongs to another store now"),
                               HasSubstr("catalogue.db belongs to another store now")));
  ASSERT_TRUE(other.Start(launch));
  EXPECT_EQ(Call(other.GetObjectPort(), Signed({"GET", "/b/theirs", {}, ""})).body, "theirs");
}

TEST_F(MoveTest, ALostRowInTheNewPlaceEndsTheMove) {
  StartWith(5, Serving());
  PutBrokenObject();
  ExpectRefusal(Goal(), "missing local_object");
  for (int i = 0; i < 20; ++i) {
    Put("/b/more" + std::to_string(i), "more");  // in the log, and not in the new place
  }
  Put("/b/broken", "whole again");
  Query(server_.Data("new/rows.db"), "DELETE FROM local_object WHERE name='4'");
  ExpectRefusal(Goal(), "in the old place and");
  EXPECT_EQ(Get("/b/4"), Body(4));
}

TEST_F(MoveTest, WhatAFailedBeginHasMarkedIsNoObstacleForTheNextTry) {
  StartWith(2, Serving());
  const std::vector<std::string> goal = {"--to-database", "sqlite:new/rows.db", "--to-storage", "file:blocked/bytes"};
  std::ofstream(server_.Data("blocked")) << "a file where a folder is to be";
  ExpectRefusal(goal, "storage folder blocked/bytes cannot be written");
  EXPECT_TRUE(OfMoves("new/rows.db").empty());
  EXPECT_TRUE(OfMoves("catalogue.db").empty());
  std::filesystem::remove(server_.Data("blocked"));
  EXPECT_EQ(Move(goal).code, 0);
  ExpectObjects(2);
}

// The disk says that it cannot flush the folder of the file `moved`, this number of times.
TEST_F(MoveTest, ADiskThatFailsAtTheSwitchLeavesNoDoubtAboutThePlace) {
  StartWith(2, Serving());
  EXPECT_TRUE(server_.Stop());
  std::filesystem::copy(server_.Data(), temp_.Path("seed"), std::filesystem::copy_options::recursive);
  for (const int failures : {1, 2, 3}) {
    std::filesystem::remove_all(server_.Data());
    std::filesystem::copy(temp_.Path("seed"), server_.Data(), std::filesystem::copy_options::recursive);
    Launch failing = Moving(Goal());
    failing.program = TANSYD_THAT_DIES;
    failing.environment = {{"FAIL_SYNC_AFTER", "moved"}, {"FAIL_SYNCS", std::to_string(failures)}};
    CTansyd command(temp_.GetPath(), "command");
    const Ended ended = command.RunToEnd(failing);
    const bool is_moved = std::filesystem::exists(server_.Data("moved"));
    EXPECT_EQ(ended.code == 0, is_moved) << failures << ended.out << ended.err;
    EXPECT_EQ(is_moved, failures == 1) << "the second try to write the file may help";
    EXPECT_EQ(failures == 3, ended.out.find("it is not sure") != std::string::npos) << ended.out;
    ASSERT_TRUE(server_.Start(Serving())) << failures << server_.GetErrors();
    ExpectObjects(2);
    Put("/b/later", "later");
    EXPECT_EQ(Move(Goal()).code, is_moved ? 1 : 0);
    EXPECT_EQ(Get("/b/later"), "later");
    EXPECT_TRUE(server_.Stop());
  }
}

// Long runs try more of the moments at which a process may die.
bool IsLong() {
  return std::getenv("TANSY_LONG_TESTS") != nullptr;
}

// kill -9 of the server in front of one of its changes to files, later and later in the move.
TEST_F(MoveTest, AServerThatDiesInTheMiddleLosesNothing) {
  Launch launch = Serving();
  launch.program = TANSYD_THAT_DIES;
  launch.environment = {{"DIE_WHEN", temp_.GetPath() + "/when"}};
  StartWith(40, launch);
  bool is_moved = false;
  int deaths = 0;
  for (int step = 5; !is_moved; step = IsLong() ? step * 2 : step * 8) {
    auto writers = StartWriters(2);
    CTansyd command(temp_.GetPath(), "command");
    command.Begin(Moving(Goal()));
    EXPECT_TRUE(
        WaitUntil([&] { return std::filesystem::exists(server_.Data("move.answer")) || !command.IsRunning(); }));
    std::ofstream(temp_.GetPath() + "/when") << step;
    const Ended ended = command.WaitForEnd();
    is_moved = ended.code == 0;
    deaths += is_moved ? 0 : 1;
    std::filesystem::remove(temp_.GetPath() + "/when");
    writers->Stop();
    server_.Kill();
    ASSERT_TRUE(server_.Start(launch)) << server_.GetErrors();
    Expect(writers->States(), "after step " + std::to_string(step));
    ASSERT_LT(step, 10000000) << ended.out << ended.err;
    is_moved = is_moved || std::filesystem::exists(server_.Data("moved"));
  }
  EXPECT_GT(deaths, 1);
  ExpectObjects(40);
  EXPECT_THAT(CheckAll(), HasSubstr(" 0 damaged"));
}

// kill -9 in front of a change to files, at many places of a move that nobody disturbs.
class DyingMoveTest : public MoveTest {
 protected:
  void MakeSeed() {
    StartWith(4, Serving());
    address_ = StorePicture(SamplePicture("sample.png"));
    EXPECT_TRUE(server_.Stop());
    std::filesystem::copy(server_.Data(), temp_.Path("seed"), std::filesystem::copy_options::recursive);
  }
  // Returns false when the move came to its end before that.
  bool Die(int step, const std::map<std::string, std::string>& environment) {
    std::filesystem::remove_all(server_.Data());
    std::filesystem::copy(temp_.Path("seed"), server_.Data(), std::filesystem::copy_options::recursive);
    std::ofstream(temp_.GetPath() + "/when") << step;
    Launch dying = Moving(Goal());
    dying.program = TANSYD_THAT_DIES;
    dying.environment = environment;
    dying.environment["DIE_WHEN"] = temp_.GetPath() + "/when";
    CTansyd command(temp_.GetPath(), "command");
    return command.RunToEnd(dying).code != 0;
  }
  void ExpectAll(int step) {
    ASSERT_TRUE(server_.Start(Serving())) << step << server_.GetErrors();
    ExpectObjects(4);
    EXPECT_TRUE(GetPicture(address_) == SamplePicture("sample.png")) << step;
    EXPECT_TRUE(server_.Stop());
  }

  std::string address_;
};

TEST_F(DyingMoveTest, BeforeTheSwitchItGoesOn) {
  MakeSeed();
  int unmoved = 0;
  const int between = IsLong() ? 7 : 67;
  for (int step = 1; Die(step, {}); step += between) {
    if (std::filesystem::exists(server_.Data("moved"))) {
      break;
    }
    ++unmoved;
    const Ended ended = Move(Goal());
    EXPECT_EQ(ended.code, 0) << step << ended.out << ended.err;
    ExpectAll(step);
    EXPECT_THAT(OfMoves("new/rows.db"), testing::IsEmpty()) << step;
  }
  EXPECT_GT(unmoved, 2);
}

TEST_F(DyingMoveTest, BehindTheSwitchTheNextStartDoesWhatIsLeft) {
  MakeSeed();
  int deaths = 0;
  const int between = IsLong() ? 1 : 9;
  for (int step = 1; Die(step, {{"DIE_AFTER", "moved"}}); step += between) {
    ++deaths;
    ASSERT_TRUE(std::filesystem::exists(server_.Data("moved")));
    ExpectAll(step);
    EXPECT_THAT(OfMoves("new/rows.db"), testing::IsEmpty()) << step;
    EXPECT_EQ(OfMoves("catalogue.db"), std::vector<std::string>{"moved_to"}) << step;
    const Ended ended = Move({"--delete-old"});
    EXPECT_EQ(ended.code, 0) << step << ended.out << ended.err;
    EXPECT_FALSE(std::filesystem::exists(server_.Data("catalogue.db")));
    EXPECT_EQ(CountFiles(server_.Data("objects/fs01")), 0U);
  }
  EXPECT_GT(deaths, 1);
}

class MoveToServerTest : public WholeMove {
 protected:
  MoveToServerTest() {
    database_.Start();
    database_.Run("DROP SCHEMA IF EXISTS platform CASCADE");
  }

  CPostgresServer& database_ = CPostgresServer::Shared();
};

TEST_F(MoveToServerTest, RowsMoveToAServerWhileClientsGoOnAndComeBack) {
  MoveUnderLoad({"--to-database", database_.Url()});
  EXPECT_FALSE(database_.Rows("SELECT 1 FROM platform.local_object WHERE name = 'streamed'").empty());
  EXPECT_TRUE(database_.Rows("SELECT 1 FROM platform.host_values WHERE name LIKE 'move%'").empty());
  ASSERT_TRUE(server_.Start(Serving()));
  const Ended ended = Move({"--to-database", "sqlite:back.db"});
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  Put("/b/new", "new");
  EXPECT_EQ(Get("/b/small"), "small");
  EXPECT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(Serving()));
  EXPECT_EQ(Get("/b/new"), "new");
  EXPECT_TRUE(server_.Stop());
  EXPECT_EQ(Move({"--delete-old"}).code, 0);
  EXPECT_TRUE(database_.Rows("SELECT 1 FROM pg_namespace WHERE nspname = 'platform'").empty());
}

TEST_F(MoveToServerTest, APasswordIsSeenByNobody) {
  if (database_.Rows("SELECT 1 FROM pg_database WHERE datname = 'locked'").empty()) {
    database_.Run("CREATE DATABASE locked OWNER locked", "postgres");
  }
  database_.Run("DROP SCHEMA IF EXISTS platform CASCADE", "locked");
  std::string url = database_.Url();
  url.replace(url.find("//tansy@"), 8, "//locked:pa%3Ass%40word@").replace(url.rfind("/tansy"), 6, "/locked");
  ASSERT_TRUE(server_.Start(Serving({"--log-level", "2"})));
  MakeBucket("b");
  Put("/b/o", "body");
  const Ended ended = Move({"--to-database", url});
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  EXPECT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(Serving({"--log-level", "2"})));
  EXPECT_EQ(Get("/b/o"), "body");
  EXPECT_THAT(server_.GetLog() + server_.GetErrors() + ended.out + ended.err,
              AllOf(Not(HasSubstr("ss@word")), Not(HasSubstr("ss%40word"))));
  EXPECT_EQ(std::filesystem::status(server_.Data("moved")).permissions(), std::filesystem::perms(0600));
}

TEST_F(MoveToServerTest, AServerThatGoesAwayEndsTheMoveAndItGoesOnLater) {
  ASSERT_TRUE(server_.Start(Serving()));
  MakeBucket("b");
  auto writers = StartWriters();
  CTansyd command(temp_.GetPath(), "command");
  command.Begin(Moving({"--to-database", database_.Url()}));
  EXPECT_TRUE(
      WaitUntil([&] { return !database_.Rows("SELECT 1 FROM pg_tables WHERE tablename = 'local_object'").empty(); }));
  database_.Crash();
  const Ended first = command.WaitForEnd();
  database_.Start();
  const Ended second = first.code == 0 ? first : Move({"--to-database", database_.Url()});
  EXPECT_EQ(second.code, 0) << second.out << second.err;
  writers->Stop();
  Expect(writers->States(), "after the move");
}

class MoveToPoolTest : public WholeMove {
 protected:
  MoveToPoolTest() {
    database_.Start();
    database_.Run("DROP SCHEMA IF EXISTS platform CASCADE");
  }

  CPostgresServer& database_ = CPostgresServer::Shared();
  CCephCluster& cluster_ = CCephCluster::Shared();
  const std::string url_ = cluster_.Url(cluster_.NewNamespace());
};

TEST_F(MoveToPoolTest, EverythingMovesToAServerAndAPoolAndBackToAFolder) {
  MoveUnderLoad({"--to-database", database_.Url(), "--to-storage", url_});
  ASSERT_TRUE(server_.Start(Serving()));
  auto writers = StartWriters();
  const Ended ended = Move({"--to-database", "sqlite:back.db", "--to-storage", "file:back"});
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err << server_.GetLog();
  EXPECT_LE(Pause(ended.out), 2000) << ended.out;
  writers->Stop();
  EXPECT_EQ(writers->Failed(), 0);
  Expect(writers->States(), "back");
  EXPECT_EQ(Get("/b/small"), "small");
  EXPECT_TRUE(Get("/b/streamed") == RandomBytes(30 * kMiB, 2));
  EXPECT_THAT(CheckAll(), AllOf(testing::StartsWith("0 "), HasSubstr(" 0 damaged")));
  EXPECT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(Serving()));
  Expect(writers->States(), "back, after a restart");
  EXPECT_TRUE(server_.Stop());
  EXPECT_EQ(Move({"--delete-old"}).code, 0);
}

TEST_F(MoveToPoolTest, APoolThatIsFullOrAnotherStoresIsRefused) {
  ASSERT_TRUE(server_.Start(Serving()));
  MakeBucket("b");
  Put("/b/o", "body");
  CTansyd other(temp_.GetPath(), "other");
  const std::string taken = cluster_.Url(cluster_.NewNamespace());
  Launch launch;
  launch.arguments = {"--storage", taken};
  ASSERT_TRUE(other.Start(launch));
  EXPECT_THAT(Move({"--to-storage", taken}).out, HasSubstr("is in use by another tansyd"));
  EXPECT_TRUE(other.Stop());
  EXPECT_THAT(Move({"--to-storage", taken}).out, HasSubstr("belongs to a store already"));
  cluster_.SetFull(true);
  const auto tries = [this] { return Move({"--to-storage", url_, "--dry-run"}).out; };
  EXPECT_TRUE(WaitUntil([&] { return tries().find("is full") != std::string::npos; }));
  EXPECT_THAT(Move({"--to-storage", url_}).out, testing::AnyOf(HasSubstr("is full"), HasSubstr("No space left")));
  cluster_.SetFull(false);
  EXPECT_EQ(Get("/b/o"), "body");
  EXPECT_TRUE(WaitUntil([&] { return tries().find("is full") == std::string::npos; }));
  EXPECT_EQ(Move({"--to-storage", url_}).code, 0);
  EXPECT_EQ(Get("/b/o"), "body");
}

}  // namespace
}  // namespace system_tests
