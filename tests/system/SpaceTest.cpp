// Stored bytes that nothing needs are given back by the running server, and no others.
#include <filesystem>
#include <fstream>

#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;

class SpaceTest : public TansydTest {
 protected:
  static Launch Quick(std::vector<std::string> more = {}) {
    Launch launch;
    launch.arguments = {"--keep-failed", "1"};
    launch.arguments.insert(launch.arguments.end(), more.begin(), more.end());
    return launch;
  }
  Ended Check(std::vector<std::string> arguments) {
    CTansyd command(temp_.GetPath(), "command");
    Launch launch;
    launch.with_data = launch.with_ports = false;
    launch.arguments = {"--data", server_.Data(), "--check"};
    launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
    return command.RunToEnd(launch);
  }
  // Bytes of small objects lie together in one file, so the check is asked how many there are.
  std::size_t StoredFiles() {
    const std::string sum = Check({}).out;
    const std::size_t rows = sum.find(" rows, ");
    return rows == std::string::npos ? 0 : std::stoul(sum.substr(rows + 7));
  }
  std::uintmax_t StoredBytes() {
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects"))) {
      std::error_code gone;
      const std::uintmax_t size = entry.is_regular_file(gone) ? entry.file_size(gone) : 0;
      bytes += gone ? 0 : size;
    }
    return bytes;
  }
  std::string CatalogueQuery(const std::string& sql) { return Query(server_.Data("catalogue.db"), sql).front(); }
  // The head of a PUT and the beginning of its body.
  std::unique_ptr<CConnection> BeginPut(const std::string& path, std::size_t size, std::size_t sent) {
    auto upload = CConnection::Open(server_.GetObjectPort());
    const Request request = Signed({"PUT", path, {{"Content-Length", std::to_string(size)}}, ""});
    EXPECT_TRUE(upload->Send(Serialize(request, server_.GetObjectPort())));
    EXPECT_TRUE(upload->Send(std::string(sent, 'x')));
    return upload;
  }
};

TEST_F(SpaceTest, UploadsThatBreakOffLeaveNothing) {
  ASSERT_TRUE(server_.Start(Quick()));
  MakeBucket("b");
  Put("/b/kept", "kept");
  for (int i = 0; i < 3; ++i) {
    const auto upload = BeginPut("/b/cut" + std::to_string(i), 40000000, 25000000);
    ASSERT_TRUE(WaitUntil([this] { return StoredFiles() >= 2; }));
    upload->Reset();
  }
  EXPECT_TRUE(WaitUntil([this] { return StoredFiles() == 1; }));
  EXPECT_EQ(Get("/b/kept"), "kept");
}

TEST_F(SpaceTest, AnUploadThatIsSlowKeepsWhatItHasSent) {
  ASSERT_TRUE(server_.Start(Quick()));
  MakeBucket("b");
  const auto slow = BeginPut("/b/slow", 12000000, 9000000);
  ASSERT_TRUE(WaitUntil([this] { return StoredFiles() == 1; }));
  // An upload that began later breaks off and is freed, which shows that the slow one has waited longer than the limit.
  for (int i = 0; i < 2; ++i) {
    const auto upload = BeginPut("/b/cut", 12000000, 9000000);
    ASSERT_TRUE(WaitUntil([this] { return StoredFiles() == 2; }));
    upload->Reset();
    ASSERT_TRUE(WaitUntil([this] { return StoredFiles() == 1; }));
  }
  EXPECT_TRUE(slow->Send(std::string(3000000, 'x')));
  EXPECT_EQ(Outcome(slow->Receive()), "200");
  EXPECT_EQ(Get("/b/slow") == std::string(12000000, 'x'), true);
}

TEST_F(SpaceTest, OverwrittenAndRemovedBytesAreGivenBack) {
  ASSERT_TRUE(server_.Start(Quick({"--keep-removed", "0"})));
  MakeBucket("b");
  Put("/b/o", "old");
  Put("/b/o", "new");
  Put("/b/removed", "removed");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/removed")), "200");
  EXPECT_TRUE(WaitUntil([this] { return StoredFiles() == 1; }));
  EXPECT_EQ(Get("/b/o"), "new");
  EXPECT_TRUE(WaitUntil([this] { return CatalogueQuery("SELECT COUNT(*) FROM released_bytes") == "0"; }));
}

TEST_F(SpaceTest, ARemovalKeepsTheBytesUnlessToldOtherwise) {
  ASSERT_TRUE(server_.Start(Quick()));
  MakeBucket("b");
  Put("/b/removed", "removed");
  Put("/b/freed", "freed");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/removed")), "200");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/freed?deletefile")), "200");
  Put("/b/o", "old");
  Put("/b/o", "new");
  // The overwritten bytes go, so housekeeping has been at work.
  EXPECT_TRUE(WaitUntil([this] { return StoredFiles() == 2; }));
  EXPECT_TRUE(WaitUntil([this] { return CatalogueQuery("SELECT COUNT(*) FROM released_bytes") == "1"; }));
  EXPECT_EQ(CatalogueQuery("SELECT kind FROM released_bytes"), "1");
}

TEST_F(SpaceTest, TheRoomOfSmallObjectsIsGivenBack) {
  ASSERT_TRUE(server_.Start(Quick()));
  MakeBucket("b");
  for (int i = 0; i < 60; ++i) {
    Put("/b/" + std::to_string(i), std::string(50000, 'x'));
  }
  EXPECT_GT(StoredBytes(), 3000000U);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(Outcome(Send("DELETE", "/b/" + std::to_string(i) + "?deletefile")), "200");
  }
  EXPECT_TRUE(WaitUntil([this] { return StoredBytes() < 1000000; })) << "mostly gaps";
  for (int i = 50; i < 60; ++i) {
    EXPECT_EQ(Get("/b/" + std::to_string(i)), std::string(50000, 'x'));
  }
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(Quick()));
  for (int i = 50; i < 60; ++i) {
    EXPECT_EQ(Get("/b/" + std::to_string(i)), std::string(50000, 'x'));
    EXPECT_EQ(Outcome(Send("DELETE", "/b/" + std::to_string(i) + "?deletefile")), "200");
  }
  EXPECT_TRUE(WaitUntil([this] { return StoredBytes() < 1000; })) << "nothing is left";
}

TEST_F(SpaceTest, ADiskFullOfSmallObjectsGetsRoomByRemovals) {
  Launch launch = Quick();
  launch.small_disk = "objects";
  launch.small_disk_bytes = 8 * 1024 * 1024;
  if (!server_.Start(launch)) {
    ASSERT_TRUE(server_.IsSmallDiskMissing());
    GTEST_SKIP() << "no file system of its own can be mounted here";
  }
  MakeBucket("b");
  const std::string body(60000, 'x');
  int stored = 0;
  while (stored < 1000 && Outcome(Send("PUT", "/b/" + std::to_string(stored), body)) == "200") {
    ++stored;
  }
  ASSERT_GT(stored, 100);
  ASSERT_LT(stored, 1000);
  EXPECT_EQ(Outcome(Send("PUT", "/b/more", body)), "500 NotEnoughSpace");
  for (int i = 0; i < stored; ++i) {
    if (i % 10 != 0) {
      EXPECT_EQ(Outcome(Send("DELETE", "/b/" + std::to_string(i) + "?deletefile")), "200");
    }
  }
  const auto fits = [&] { return Outcome(Send("PUT", "/b/more", body)) == "200"; };
  EXPECT_TRUE(WaitUntil([&] { return fits() && StoredBytes() < 4000000; }));
  for (int i = 0; i < stored; i += 10) {
    EXPECT_EQ(Get("/b/" + std::to_string(i)) == body, true);
  }
}

// Removals have to be written down too, and the catalogue has no other disk to do so.
TEST_F(SpaceTest, AFullDiskThatHoldsTheCatalogueTooGetsRoomByRemovals) {
  Launch launch = Quick({"--storage", "file:small/objects", "--database", "sqlite:small/catalogue.db"});
  launch.small_disk = "small";
  launch.small_disk_bytes = 64 * 1024 * 1024;
  if (!server_.Start(launch)) {
    ASSERT_TRUE(server_.IsSmallDiskMissing());
    GTEST_SKIP() << "no file system of its own can be mounted here";
  }
  MakeBucket("b");
  std::vector<std::string> stored;
  const auto fill = [&](std::size_t size) {
    const std::string body(size, 'x');
    for (std::string outcome = "200"; outcome == "200" && stored.size() < 2000;) {
      const std::string target = "/b/" + std::to_string(stored.size());
      outcome = Outcome(Send("PUT", target, body));
      if (outcome == "200") {
        stored.push_back(target);
      } else {
        EXPECT_EQ(outcome, "500 NotEnoughSpace") << size << " bytes, " << target;
      }
    }
  };
  for (const std::size_t size : {9000000, 60000, 3000}) {
    fill(size);
  }
  ASSERT_GT(stored.size(), 10U);
  ASSERT_LT(stored.size(), 2000U);
  for (const std::string& target : stored) {
    EXPECT_EQ(Outcome(Send("DELETE", target + "?deletefile")), "200") << target;
  }
  EXPECT_TRUE(WaitUntil([&] { return Outcome(Send("PUT", "/b/large", std::string(40000000, 'x'))) == "200"; }));
}

// Other programs may take the last byte too, also while the catalogue's files grow. The server refuses what does not
// fit and goes on.
TEST_F(SpaceTest, ADiskThatOthersFillToTheLastByteEndsNothing) {
  Launch launch = Quick({"--storage", "file:small/objects", "--database", "sqlite:small/catalogue.db"});
  launch.small_disk = "small";
  launch.small_disk_bytes = 64 * 1024 * 1024;
  if (!server_.Start(launch)) {
    ASSERT_TRUE(server_.IsSmallDiskMissing());
    GTEST_SKIP() << "no file system of its own can be mounted here";
  }
  MakeBucket("b");
  Put("/b/kept", "kept");
  // The disk is seen by the server's process only.
  const std::string disk = "/proc/" + std::to_string(server_.GetPid()) + "/root" + server_.Data("small");
  const std::string filler = disk + "/filler";
  int refused = 0;
  for (std::uintmax_t pages_left = 0; pages_left <= 24; ++pages_left) {
    for (int i = 0; i < 20; ++i) {
      Put("/b/o" + std::to_string(i), "x");
    }
    const std::uintmax_t room = std::filesystem::space(disk).available;
    ASSERT_GT(room, 1000000U);
    std::ofstream(filler, std::ios::binary) << std::string(room - pages_left * 4096, 'x');
    ASSERT_LE(std::filesystem::space(disk).available, pages_left * 4096);
    for (int i = 0; i < 20; ++i) {
      const std::string bucket = "/bucket-" + std::to_string(pages_left) + "-" + std::to_string(i);
      for (const Reply& reply : {Send("PUT", bucket, "<CreateBucketConfiguration/>"),
                                 Send("DELETE", "/b/o" + std::to_string(i) + "?deletefile")}) {
        EXPECT_THAT(reply.status, AnyOf(200, 500));
        refused += reply.status == 200 ? 0 : 1;
      }
    }
    EXPECT_EQ(Get("/b/kept"), "kept");
    ASSERT_TRUE(server_.IsRunning()) << server_.GetErrors();
    std::filesystem::remove(filler);
  }
  EXPECT_GT(refused, 0);
  EXPECT_TRUE(server_.Stop());
}

// The part of an upload that comes first waits in a file beside the catalogue, for days when nobody completes the
// upload.
TEST_F(SpaceTest, FirstPartsLeaveTheCatalogueItsRoom) {
  Launch launch = Quick({"--storage", "file:" + temp_.Path("objects")});
  launch.small_disk = ".";
  launch.small_disk_bytes = 64 * 1024 * 1024;
  if (!server_.Start(launch)) {
    ASSERT_TRUE(server_.IsSmallDiskMissing());
    GTEST_SKIP() << "no file system of its own can be mounted here";
  }
  MakeBucket("b");
  Put("/b/o", "old");
  std::string outcome = "200";
  int stored = 0;
  for (; outcome == "200" && stored < 100; ++stored) {
    const std::string target = "/b/parts" + std::to_string(stored);
    const std::string id = XmlValue(Send("POST", target + "?uploads").body, "UploadId");
    outcome = Outcome(Send("POST", target + "?upload_id=" + id + "&part_number=1", std::string(2000000, 'x')));
  }
  EXPECT_EQ(outcome, "500 NotEnoughSpace");
  EXPECT_GT(stored, 10);
  EXPECT_EQ(Outcome(Send("DELETE", "/b/o?deletefile")), "200");
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(Outcome(Send("PUT", "/b/more" + std::to_string(i), "x")), "200") << i;
  }
}

TEST_F(SpaceTest, ACatalogueThatCannotBeWrittenLeavesNoCopies) {
  ASSERT_TRUE(server_.Start(Quick()));
  MakeBucket("b");
  const std::string database = server_.Data("catalogue.db");
  Query(database, "CREATE TRIGGER broken BEFORE INSERT ON local_object BEGIN SELECT RAISE(ABORT, 'broken'); END");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Outcome(Send("PUT", "/b/o", "copy")), "500 ServerInternalError");
  }
  EXPECT_TRUE(WaitUntil([this] { return StoredFiles() == 0; }));
}

TEST_F(SpaceTest, ARefusedUploadGivesAFullDiskItsRoomBack) {
  Launch launch = Quick();
  launch.small_disk = "objects";
  launch.small_disk_bytes = 14 * 1024 * 1024;
  if (!server_.Start(launch)) {
    ASSERT_TRUE(server_.IsSmallDiskMissing());
    GTEST_SKIP() << "no file system of its own can be mounted here";
  }
  MakeBucket("b");
  EXPECT_EQ(Outcome(Send("PUT", "/b/streamed", std::string(20000000, 'x'))), "500 ServerInternalError");
  EXPECT_TRUE(WaitUntil([this] { return Outcome(Send("PUT", "/b/fits", std::string(9000000, 'x'))) == "200"; }));
}

TEST_F(SpaceTest, ADownloadEndsRightAfterItsObjectIsRemovedOrReplaced) {
  ASSERT_TRUE(server_.Start(Quick()));
  MakeBucket("b");
  const std::string bytes = RandomBytes(60000000, 1);
  for (const bool replace : {false, true}) {
    Put("/b/o", bytes);
    const auto download = CConnection::Open(server_.GetObjectPort());
    ASSERT_TRUE(download->Send(Serialize(Signed({"GET", "/b/o", {}, ""}), server_.GetObjectPort())));
    const std::string head = download->ReceiveBytes(1000);
    EXPECT_EQ(replace ? Outcome(Send("PUT", "/b/o", "new")) : Outcome(Send("DELETE", "/b/o?deletefile")), "200");
    EXPECT_TRUE(WaitUntil([this, replace] { return StoredFiles() == (replace ? 1U : 0U); }));
    const std::size_t body = head.find("\r\n\r\n") + 4;
    const std::string all = head + download->ReceiveBytes(body + bytes.size() - head.size());
    EXPECT_TRUE(all.substr(body) == bytes) << "replaced: " << replace << ", " << all.size() - body << " bytes";
  }
}

TEST_F(SpaceTest, AStopDoesNotWaitForHousekeeping) {
  ASSERT_TRUE(server_.Start());
  ASSERT_TRUE(server_.Stop());
  Query(server_.Data("catalogue.db"),
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200000) "
        "INSERT INTO released_bytes (url, bucket_name, object_name, released_at) "
        "SELECT printf('fs01aa-bb-%032x.d', i), 'b', 'o', 0 FROM n");
  Query(server_.Data("catalogue.db"), "UPDATE host_values SET value = '1000000' WHERE name = 'running_seconds'");
  ASSERT_TRUE(server_.Start());
  ASSERT_TRUE(WaitUntil([this] { return CatalogueQuery("SELECT COUNT(*) FROM released_bytes") != "200000"; }));
  EXPECT_TRUE(server_.Stop(15, std::chrono::seconds(20)));
  EXPECT_NE(CatalogueQuery("SELECT COUNT(*) FROM released_bytes"), "0") << "it was not through";
}

TEST_F(SpaceTest, ARepairIsDoneByTheRunningServer) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/kept", std::string(1000, 'k'));
  const std::string orphan = server_.Data("objects/fs01/aa/bb/" + std::string(32, 'a') + ".d");
  std::filesystem::create_directories(std::filesystem::path(orphan).parent_path());
  std::ofstream(orphan) << "orphan";
  const auto upload = BeginPut("/b/slow", 12000000, 5000000);
  ASSERT_TRUE(WaitUntil([this] { return StoredFiles() == 3; }));

  const Ended looked = Check({});
  EXPECT_EQ(looked.code, 3) << looked.err;
  EXPECT_THAT(looked.out, AllOf(HasSubstr("1 orphans (6 bytes), 0 freed"), HasSubstr(std::string(32, 'a'))));
  const Ended repaired = Check({"--repair"});
  EXPECT_EQ(repaired.code, 0) << repaired.err << repaired.out;
  EXPECT_THAT(repaired.out, HasSubstr("1 orphans (6 bytes), 1 freed"));
  EXPECT_FALSE(std::filesystem::exists(orphan));

  EXPECT_TRUE(upload->Send(std::string(7000000, 'x')));
  EXPECT_EQ(Outcome(upload->Receive()), "200");
  EXPECT_EQ(Get("/b/slow").size(), 12000000U);
  EXPECT_EQ(Check({"--repair"}).code, 0) << "and again";
}

TEST_F(SpaceTest, ARepairLeavesRemovedObjectsForAsLongAsTheServerWasTold) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/removed", "removed");
  Put("/b/o", "old");
  Put("/b/o", "new");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/removed")), "200");
  for (const bool is_running : {true, false}) {
    if (!is_running) {
      ASSERT_TRUE(server_.Stop());
    }
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{}, {"--repair", "--force"}}) {
      const Ended checked = Check(arguments);
      EXPECT_EQ(checked.code, 0) << checked.err << checked.out;
      EXPECT_THAT(checked.out, HasSubstr("0 orphans (0 bytes), 0 freed, 0 damaged, 2 kept (10 bytes)"));
    }
    EXPECT_EQ(StoredFiles(), 3U);
  }
  // When their time has come, the next server frees them.
  Query(server_.Data("catalogue.db"), "UPDATE host_values SET value = '1000000' WHERE name = 'running_seconds'");
  Query(server_.Data("catalogue.db"), "UPDATE released_bytes SET released_at = 0");
  ASSERT_TRUE(server_.Start());
  EXPECT_TRUE(WaitUntil([this] { return StoredFiles() == 1; }));
  EXPECT_EQ(Get("/b/o"), "new");
}

TEST_F(SpaceTest, ACheckLeavesEveryFileAsItWas) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/o", "o");
  ASSERT_TRUE(server_.Stop());
  const auto listing = [this] {
    std::map<std::string, std::pair<std::uintmax_t, std::filesystem::file_time_type>> files;
    for (const auto& item : std::filesystem::recursive_directory_iterator(server_.Data())) {
      files[item.path().string()] = {item.is_regular_file() ? item.file_size() : 0, item.last_write_time()};
    }
    return files;
  };
  const auto before = listing();
  EXPECT_EQ(Check({}).code, 0);
  EXPECT_EQ(listing(), before);
}

class MountTest : public SpaceTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    MakeBucket("b");
    Put("/b/o", "o");
    ASSERT_TRUE(server_.Stop());
  }
  void ExpectRefusal(const std::string& words) {
    const Ended ended = server_.RunToEnd({});
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr(words));
    for (const char* option : {"--check", "--repair"}) {
      const Ended checked = option == std::string("--check") ? Check({}) : Check({"--repair", "--force"});
      EXPECT_EQ(checked.code, 1) << checked.out;
      EXPECT_THAT(checked.err, HasSubstr(words));
    }
  }
};

TEST_F(MountTest, AFreshCatalogueOverAFilledStoreIsRefused) {
  std::filesystem::rename(server_.Data("catalogue.db"), server_.Data("lost.db"));
  const Ended ended = server_.RunToEnd({});
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, AllOf(HasSubstr("catalogue.db is new"), HasSubstr("bytes of another catalogue")));
  EXPECT_EQ(Check({"--repair", "--force"}).code, 1);
  EXPECT_TRUE(std::filesystem::exists(server_.Data("objects/lg01/00000001.log")));
  std::filesystem::rename(server_.Data("lost.db"), server_.Data("catalogue.db"));
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Get("/b/o"), "o");
}

TEST_F(MountTest, AnEmptyMountPointIsRefused) {
  std::filesystem::rename(server_.Data("objects"), server_.Data("unmounted"));
  ExpectRefusal("objects is missing");
  std::filesystem::create_directory(server_.Data("objects"));
  ExpectRefusal("is its disk mounted?");
  EXPECT_TRUE(std::filesystem::is_empty(server_.Data("objects")));
}

TEST_F(MountTest, AnotherStoreIsRefused) {
  CTansyd other(temp_.GetPath(), "other");
  ASSERT_TRUE(other.Start());
  ASSERT_TRUE(other.Stop());
  std::filesystem::rename(server_.Data("objects"), server_.Data("unmounted"));
  std::filesystem::rename(other.Data("objects"), server_.Data("objects"));
  ExpectRefusal("one of the two is not the right one");
}

TEST_F(MountTest, ADatabaseServesOneAtATime) {
  ASSERT_TRUE(server_.Start());
  CTansyd other(temp_.GetPath(), "other");
  Launch launch;
  launch.arguments = {"--database", "sqlite:" + server_.Data("catalogue.db")};
  const Ended ended = other.RunToEnd(launch);
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, AllOf(HasSubstr("database"), HasSubstr("in use by another tansyd")));
  EXPECT_EQ(Get("/b/o"), "o");
}

TEST_F(MountTest, AnotherProgramsDatabaseIsLeftAlone) {
  const std::string songs = temp_.Path("songs.db");
  Query(songs, "CREATE TABLE songs (title)");
  CTansyd other(temp_.GetPath(), "other");
  Launch launch;
  launch.arguments = {"--database", "sqlite:" + songs};
  const Ended ended = other.RunToEnd(launch);
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("another program's"));
  EXPECT_THAT(Query(songs, "SELECT name FROM sqlite_master"), ElementsAre("songs"));
}

TEST_F(MountTest, TheDataFolderCanBeTheStorage) {
  CTansyd other(temp_.GetPath(), "other");
  Launch launch;
  launch.arguments = {"--storage", "file:."};
  ASSERT_TRUE(other.Start(launch));
  ASSERT_TRUE(other.Stop());
  EXPECT_TRUE(other.Start(launch));
}

}  // namespace
}  // namespace system_tests
