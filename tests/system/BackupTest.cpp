// A backup is made beside a server that goes on, and what is restored from it is what was served at one moment.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/MoveFixture.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::size_t kMiB = 1024 * 1024;

class BackupTest : public MoveFixture {
 protected:
  BackupTest() : restored_(temp_.GetPath(), "restored") {}

  std::string Folder() const { return temp_.Path("backups"); }

  static Launch Command(const std::vector<std::string>& arguments) {
    Launch launch;
    launch.with_data = launch.with_ports = false;
    launch.arguments = arguments;
    return launch;
  }
  Ended Run(const std::vector<std::string>& arguments) {
    CTansyd command(temp_.GetPath(), "command");
    return command.RunToEnd(Command(arguments));
  }
  Ended Backup(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"backup", Folder(), "--data", server_.Data()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(arguments);
  }
  void MakeBackup() {
    const Ended ended = Backup();
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  }
  Ended Restore(const std::string& from, const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"restore", from, "--data", restored_.Data()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(arguments);
  }
  // Serves what the newest backup holds, in the place of the server.
  void ServeRestored(const std::vector<std::string>& more = {}) {
    const Ended ended = Restore(Folder(), more);
    ASSERT_EQ(ended.code, 0) << ended.out << ended.err;
    Launch launch;
    launch.arguments = more;
    ASSERT_TRUE(restored_.Start(launch)) << restored_.GetLog();
  }
  Reply FromRestored(const std::string& method, const std::string& target) {
    return Call(restored_.GetObjectPort(), Signed({method, target, {}, ""}));
  }
  std::string GetRestored(const std::string& target) {
    const Reply reply = FromRestored("GET", target);
    return reply.status == 200 ? reply.body : Outcome(reply);
  }
  // Names of backups, oldest first; unfinished ones too.
  std::vector<std::string> Backups() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(Folder())) {
      if (entry.is_directory()) {
        names.push_back(entry.path().filename().string());
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  // The files of a backup below its data, with their numbers in the file system.
  std::map<std::string, ino_t> Files(const std::string& backup) const {
    const std::filesystem::path data = Folder() + "/" + backup + "/data";
    std::map<std::string, ino_t> files;
    std::error_code ignored;  // of a folder that is not there yet
    for (const auto& entry : std::filesystem::recursive_directory_iterator(data, ignored)) {
      struct stat info = {};
      if (entry.is_regular_file() && ::stat(entry.path().c_str(), &info) == 0) {
        files[entry.path().lexically_relative(data).string()] = info.st_ino;
      }
    }
    return files;
  }
  std::string FileLike(const std::string& backup, const std::string& part) const {
    for (const auto& [path, number] : Files(backup)) {
      if (path.find(part) != std::string::npos) {
        return Folder() + "/" + backup + "/data/" + path;
      }
    }
    return "";
  }
  std::filesystem::path StoredFile() const {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
      if (entry.is_regular_file()) {
        return entry.path();
      }
    }
    return "";
  }
  static void Spoil(const std::string& file) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(100);
    stream.put('\x7f');
    EXPECT_TRUE(stream.good()) << file;
  }
  std::string CheckRestored() {
    const Ended ended = Run({"--check", "--data", restored_.Data()});
    return std::to_string(ended.code) + " " + ended.out + ended.err;
  }
  void FillALittle() {
    ASSERT_TRUE(server_.Start());
    MakeBucket("b");
    Put("/b/small", "small");
    Put("/b/large", RandomBytes(200000, 1));
  }

  CTansyd restored_;
};

TEST_F(BackupTest, WhatWasServedIsServedAgain) {
  Launch launch;
  launch.with_s3 = true;
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("b");
  MakeBucket("it's\xE4");
  Put("/b/small", "small");
  Put("/it's\xE4/any", "any bytes");
  const std::string large = RandomBytes(9 * kMiB + 5, 1);
  Put("/b/large", large);
  const std::vector<std::string> parts = Parts(3, 300000, 1000, 7);
  Upload("parts", parts);
  const std::string open = Begin("open");
  EXPECT_EQ(SendPart("open", open, 1, parts[0]), "200");
  const std::string picture = SamplePicture("sample.jpg");
  const std::string address = StorePicture(picture);

  MakeBackup();
  Put("/b/small", "later");
  EXPECT_TRUE(server_.Stop());
  ServeRestored();
  EXPECT_EQ(GetRestored("/b/small"), "small");
  EXPECT_EQ(GetRestored("/it's\xE4/any"), "any bytes");
  EXPECT_TRUE(GetRestored("/b/large") == large);
  EXPECT_TRUE(GetRestored("/b/parts") == Joined(parts));
  EXPECT_TRUE(Call(restored_.GetPicturePort(), Signed({"GET", address, {}, ""})).body == picture);
  // An upload that was open is not in the backup, and nothing of it is left.
  EXPECT_THAT(CheckRestored(), AllOf(testing::StartsWith("0 "), HasSubstr(" 0 orphans"), HasSubstr(" 0 damaged")));
  EXPECT_TRUE(restored_.Stop());
}

// The keys and the certificate are those of before.
TEST_F(BackupTest, ClientsGoOnWithTheRestoredServer) {
  Launch launch;
  launch.with_https = true;
  launch.with_keys = false;
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(server_.Stop());
  MakeBackup();
  ASSERT_EQ(Restore(Folder()).code, 0);
  const std::string certificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt";
  EXPECT_EQ(temp_.Read("restored/tansyd.toml"), temp_.Read("data/tansyd.toml"));
  EXPECT_EQ(temp_.Read("restored/" + certificate), temp_.Read("data/" + certificate));
  struct stat info = {};
  ASSERT_EQ(::stat(restored_.Data("tansyd.toml").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 077, 0U);
}

// Every answer of before the backup's begin is in it, and nothing that came after its end; in between, either.
TEST_F(BackupTest, IsWholeWhileClientsWriteAndRemove) {
  ASSERT_TRUE(server_.Start(Serving({"--keep-failed", "1"})));
  MakeBucket("b");
  std::map<std::string, std::string> still;
  for (std::size_t i = 0; i < 300; ++i) {
    const std::string key = "still-" + std::to_string(i);
    still[key] = RandomBytes(i % 20 == 3 ? 200000 : 100 + i, i);
    Put("/b/" + key, still[key]);
  }
  auto writers = StartWriters();
  for (int round = 0; round < 3; ++round) {
    const int answered = writers->Answered();
    const Ended ended = Backup();
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_TRUE(WaitUntil([&] { return writers->Answered() > answered + 20; }));
  }
  writers->Stop();
  EXPECT_EQ(writers->Failed(), 0) << server_.GetLog();
  for (const std::string& backup : Backups()) {
    const Ended verified = Run({"backup", Folder() + "/" + backup, "--verify"});
    EXPECT_EQ(verified.code, 0) << verified.out << verified.err;
  }
  ServeRestored();
  EXPECT_THAT(CheckRestored(), AllOf(testing::StartsWith("0 "), HasSubstr(" 0 orphans"), HasSubstr(" 0 damaged")));
  for (const auto& [key, body] : still) {
    EXPECT_TRUE(GetRestored("/b/" + key) == body) << key;
  }
  EXPECT_TRUE(restored_.Stop());
}

// Bytes that go at once otherwise stay until the backup has them.
TEST_F(BackupTest, WhatIsRemovedMeanwhileIsInItAndIsFreedAfterwards) {
  ASSERT_TRUE(server_.Start(Serving({"--keep-failed", "1"})));
  MakeBucket("b");
  Put("/b/removed", RandomBytes(200000, 3));
  EXPECT_EQ(CountFiles(server_.Data("objects/fs01")), 1U);
  // As a backup holds them.
  const int lock = ::open(server_.Data("backup.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  EXPECT_THAT(Backup().err, HasSubstr("another backup"));
  EXPECT_EQ(Outcome(Send("DELETE", "/b/removed?deletefile")), "200");
  EXPECT_EQ(Outcome(Send("GET", "/b/removed")), "404 NoSuchKey");
  EXPECT_EQ(CountFiles(server_.Data("objects/fs01")), 1U);
  ::close(lock);
  EXPECT_TRUE(WaitUntil([&] { return CountFiles(server_.Data("objects/fs01")) == 0; }));
}

// A lock that the server cannot look at may be one of another user.
TEST_F(BackupTest, BytesStayWhenTheServerCannotTellWhetherABackupIsBeingMade) {
  ASSERT_TRUE(server_.Start(Serving({"--keep-failed", "1"})));
  MakeBucket("b");
  Put("/b/removed", RandomBytes(200000, 3));
  std::filesystem::create_symlink("nowhere", server_.Data("backup.lock"));
  EXPECT_EQ(Outcome(Send("DELETE", "/b/removed?deletefile")), "200");
  EXPECT_EQ(CountFiles(server_.Data("objects/fs01")), 1U);
  EXPECT_THAT(server_.GetLog(), HasSubstr("no bytes are freed, because backup.lock cannot be read"));
  std::filesystem::remove(server_.Data("backup.lock"));
  EXPECT_TRUE(WaitUntil([&] { return CountFiles(server_.Data("objects/fs01")) == 0; }));
}

TEST_F(BackupTest, ABackupThatTheServerWouldNotSeeIsRefused) {
  const std::string storage = "file:" + temp_.Path("bytes");
  const std::string database = "sqlite:" + server_.Data("catalogue.db");
  ASSERT_TRUE(server_.Start(Serving({"--storage", storage})));
  MakeBucket("b");
  Put("/b/small", "small");
  std::filesystem::create_directories(temp_.Path("wrong"));
  const Ended wrong =
      Run({"backup", Folder(), "--data", temp_.Path("wrong"), "--storage", storage, "--database", database});
  EXPECT_EQ(wrong.code, 1) << wrong.out;
  EXPECT_THAT(wrong.err, HasSubstr("with another data folder"));
  const Ended right = Backup({"--storage", storage});
  EXPECT_EQ(right.code, 0) << right.err;
  EXPECT_TRUE(server_.Stop());
  const Ended alone =
      Run({"backup", Folder(), "--data", temp_.Path("wrong"), "--storage", storage, "--database", database});
  EXPECT_EQ(alone.code, 0) << alone.err;
}

TEST_F(BackupTest, ABackupByAnotherUserIsRefused) {
  FillALittle();
  if (::chown(server_.Data().c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "this user cannot give a folder to another";
  }
  const Ended refused = Backup();
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr("belongs to another user"));
  ASSERT_EQ(::chown(server_.Data().c_str(), ::geteuid(), static_cast<gid_t>(-1)), 0);
  MakeBackup();
}

// The bytes of what is replaced stay while a backup is made. Where they do not, that must not look like a removal.
TEST_F(BackupTest, AnObjectThatIsReplacedAndFreedMeanwhileIsNoRemovedOne) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  for (const bool even_damaged : {false, true}) {
    std::filesystem::remove_all(Folder());
    Put("/b/replaced", RandomBytes(200000, 1));
    for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
      if (entry.is_regular_file()) {
        std::filesystem::remove(entry.path());
      }
    }
    Put("/b/other", RandomBytes(200000, 2));
    CTansyd command(temp_.GetPath(), "command" + std::to_string(even_damaged ? 1 : 0));
    std::vector<std::string> arguments{"backup", Folder(), "--data", server_.Data()};
    if (even_damaged) {
      arguments.emplace_back("--even-damaged");
    }
    command.Begin(Command(arguments));
    // Bytes are read when the catalogue has been copied.
    EXPECT_TRUE(WaitUntil([&] {
      return std::filesystem::exists(Folder()) && !Backups().empty() &&
             !FileLike(Backups().front(), "objects/fs01/").empty();
    }));
    Put("/b/replaced", RandomBytes(200000, 3));
    const Ended ended = command.WaitForEnd();
    EXPECT_EQ(ended.code, even_damaged ? 3 : 1) << ended.out << command.GetErrors();
    EXPECT_EQ(Backups().size(), even_damaged ? 1U : 0U);
  }
}

TEST_F(BackupTest, WhatTheOneBeforeHasIsLinked) {
  FillALittle();
  MakeBackup();
  Put("/b/new", RandomBytes(100000, 2));
  MakeBackup();
  EXPECT_EQ(Outcome(Send("DELETE", "/b/large?deletefile")), "200");
  MakeBackup();
  const std::vector<std::string> backups = Backups();
  ASSERT_EQ(backups.size(), 3U);
  const auto first = Files(backups[0]);
  const auto second = Files(backups[1]);
  const auto third = Files(backups[2]);
  std::size_t linked = 0;
  for (const auto& [path, number] : first) {
    if (path.ends_with(".d") || path.ends_with(".log")) {
      EXPECT_EQ(second.at(path), number) << path;
      ++linked;
    }
  }
  EXPECT_EQ(linked, 2U);  // a file and a segment
  EXPECT_EQ(second.size(), first.size() + 1);
  EXPECT_EQ(third.size(), second.size() - 1) << "what was removed is not in it";
  const Ended all_anew = Backup({"--full"});
  EXPECT_EQ(all_anew.code, 0) << all_anew.err;
  EXPECT_THAT(all_anew.out, HasSubstr(" 0 files linked"));
}

// A segment is linked with bodies that were removed since then; restoring leaves them out.
TEST_F(BackupTest, RemovedSmallObjectsDoNotComeBack) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/stays", RandomBytes(5000, 1));
  Put("/b/goes", RandomBytes(1000, 2));
  MakeBackup();
  EXPECT_EQ(Outcome(Send("DELETE", "/b/goes?deletefile")), "200");
  MakeBackup();
  const std::vector<std::string> backups = Backups();
  const std::string segment = "objects/lg01/00000001.log";
  EXPECT_EQ(Files(backups[0]).at(segment), Files(backups[1]).at(segment));
  ServeRestored();
  EXPECT_TRUE(GetRestored("/b/stays") == RandomBytes(5000, 1));
  EXPECT_THAT(CheckRestored(), AllOf(testing::StartsWith("0 "), HasSubstr("1 rows, 1 stored files, 0 orphans")));
  EXPECT_TRUE(restored_.Stop());
}

TEST_F(BackupTest, ACrashLeavesWhatIsPlainlyUnfinishedAndTheNextOneTidiesUp) {
  FillALittle();
  MakeBackup();
  for (int i = 0; i < 40; ++i) {
    Put("/b/more-" + std::to_string(i), RandomBytes(2 * kMiB, static_cast<std::uint64_t>(i)));
  }
  CTansyd command(temp_.GetPath(), "command");
  command.Begin(Command({"backup", Folder(), "--data", server_.Data(), "--full"}));
  EXPECT_TRUE(WaitUntil([&] { return Backups().size() == 2 && !FileLike(Backups()[1], "objects/fs01/").empty(); }));
  command.Kill();
  const std::vector<std::string> left = Backups();
  ASSERT_EQ(left.size(), 2U);
  const bool was_cut = left[1].find(".unfinished") != std::string::npos;
  EXPECT_TRUE(was_cut) << left[1];
  EXPECT_THAT(Restore(Folder() + "/" + left[1]).err, HasSubstr("is incomplete"));
  EXPECT_EQ(Outcome(Send("DELETE", "/b/large?deletefile")), "200");
  EXPECT_EQ(CountFiles(server_.Data("objects/fs01")), 40U) << "nobody holds removals any more";
  const Ended next = Backup();
  EXPECT_EQ(next.code, 0) << next.err;
  EXPECT_THAT(next.out, HasSubstr("removed what 1 unfinished backups had left"));
  EXPECT_THAT(Backups(), testing::Each(Not(HasSubstr("unfinished"))));
  EXPECT_FALSE(std::filesystem::exists(server_.Data("backup.lock")));
}

TEST_F(BackupTest, AServerThatCrashesMeanwhileTakesNothingFromIt) {
  ASSERT_TRUE(server_.Start(Serving({"--keep-failed", "1"})));
  MakeBucket("b");
  std::map<std::string, std::string> objects;
  for (std::size_t i = 0; i < 30; ++i) {
    objects["o" + std::to_string(i)] = RandomBytes(2 * kMiB, i);
    Put("/b/o" + std::to_string(i), objects["o" + std::to_string(i)]);
  }
  CTansyd command(temp_.GetPath(), "command");
  command.Begin(Command({"backup", Folder(), "--data", server_.Data()}));
  EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(Folder()) && !Backups().empty(); }));
  server_.Kill();
  ASSERT_TRUE(server_.Start(Serving({"--keep-failed", "1"})));
  for (std::size_t i = 0; i < 30; i += 2) {
    Send("DELETE", "/b/o" + std::to_string(i) + "?deletefile");
  }
  const Ended ended = command.WaitForEnd();
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err << command.GetErrors();
  ServeRestored();
  for (std::size_t i = 0; i < 30; ++i) {
    const std::string key = "o" + std::to_string(i);
    const std::string body = GetRestored("/b/" + key);
    // Removals of the restarted server may come before the copy of the catalogue on a slow machine.
    EXPECT_TRUE(body == objects[key] || (i % 2 == 0 && body == "404 NoSuchKey")) << key << " " << body.substr(0, 30);
  }
  EXPECT_TRUE(restored_.Stop());
}

TEST_F(BackupTest, AFullDiskIsSaidAndNothingIsLeft) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  for (int i = 0; i < 8; ++i) {
    Put("/b/" + std::to_string(i), RandomBytes(kMiB, static_cast<std::uint64_t>(i)));
  }
  CTansyd command(temp_.GetPath(), "small");
  Launch launch = Command({"backup", command.Data("disk/backups"), "--data", server_.Data()});
  launch.small_disk = "disk";
  launch.small_disk_bytes = 4 * kMiB;
  const Ended ended = command.RunToEnd(launch);
  if (command.IsSmallDiskMissing()) {
    GTEST_SKIP() << "this machine does not let a test mount a disk";
  }
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("is full"));
}

TEST_F(BackupTest, VerifyingFindsAByteThatChanged) {
  FillALittle();
  MakeBackup();
  EXPECT_EQ(Backup({"--verify"}).code, 0);
  const std::string backup = Backups().front();
  for (const std::string part : {".d", ".log", "catalogue.db"}) {
    const std::string file = FileLike(backup, part);
    std::filesystem::copy_file(file, temp_.Path("whole"), std::filesystem::copy_options::overwrite_existing);
    Spoil(file);
    const Ended verified = Run({"backup", Folder(), "--verify"});
    EXPECT_EQ(verified.code, 3) << part;
    EXPECT_THAT(verified.out, AllOf(HasSubstr("damaged "), HasSubstr(part)));
    const Ended restored = Restore(Folder());
    EXPECT_EQ(restored.code, 1) << part;
    EXPECT_THAT(restored.err, HasSubstr("is damaged"));
    const Ended started = Run({"--check", "--data", restored_.Data()});
    EXPECT_THAT(started.err, HasSubstr("was not restored to its end")) << part;
    std::filesystem::remove_all(restored_.Data());
    std::filesystem::copy_file(temp_.Path("whole"), file, std::filesystem::copy_options::overwrite_existing);
  }
  std::filesystem::remove(FileLike(backup, ".d"));
  EXPECT_EQ(Run({"backup", Folder(), "--verify"}).code, 3);
}

TEST_F(BackupTest, AManifestThatWasCutIsNone) {
  FillALittle();
  MakeBackup();
  const std::string manifest = Folder() + "/" + Backups().front() + "/MANIFEST";
  std::filesystem::resize_file(manifest, std::filesystem::file_size(manifest) - 1);
  EXPECT_THAT(Restore(Folder()).err, HasSubstr("is incomplete"));
  EXPECT_THAT(Backup({"--verify"}).err, HasSubstr("is incomplete"));
  EXPECT_FALSE(std::filesystem::exists(restored_.Data()));
}

TEST_F(BackupTest, RestoringGoesIntoAnEmptyFolderOnly) {
  FillALittle();
  MakeBackup();
  EXPECT_THAT(Run({"restore", Folder(), "--data", server_.Data()}).err, HasSubstr("is not empty"));
  std::filesystem::create_directories(temp_.Path("bytes"));
  temp_.Write("bytes/mine", "x");
  EXPECT_THAT(Restore(Folder(), {"--storage", "file:" + temp_.Path("bytes")}).err, HasSubstr("is not empty"));
  EXPECT_EQ(temp_.Read("bytes/mine"), "x");
  ServeRestored({"--storage", "file:" + temp_.Path("other")});
  EXPECT_EQ(GetRestored("/b/small"), "small");
  EXPECT_GT(CountFiles(temp_.Path("other")), 0U);
  EXPECT_TRUE(restored_.Stop());
  // Parts of both stores are never mixed up.
  EXPECT_NE(temp_.Read("other/store.id"), temp_.Read("data/objects/store.id"));
}

// What is served since a move is what is backed up; settings that name places stay out of the way.
TEST_F(BackupTest, SettingsThatNamePlacesDoNotLeadTheRestoredServerThere) {
  temp_.Write("data/tansyd.toml",
              "storage = \"file:" + temp_.Path("elsewhere") +
                  "\"\n[credentials]\naccess_key = \"system-test-access\"\nsecret_key = \"system-test-secret-4711\"\n");
  Launch launch;
  launch.with_keys = false;
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("b");
  Put("/b/small", "small");
  MakeBackup();
  EXPECT_TRUE(server_.Stop());
  const Ended ended = Restore(Folder());
  ASSERT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("tansyd.toml.from-backup"));
  ASSERT_TRUE(restored_.Start(launch));
  EXPECT_EQ(GetRestored("/b/small"), "small");
  EXPECT_TRUE(restored_.Stop());
}

TEST_F(BackupTest, BackupsOfAnotherStoreAreNotMixedIn) {
  FillALittle();
  MakeBackup();
  ServeRestored();
  const Ended mixed = Run({"backup", Folder(), "--data", restored_.Data()});
  EXPECT_EQ(mixed.code, 1);
  EXPECT_THAT(mixed.err, HasSubstr("holds backups of another store"));
  EXPECT_TRUE(restored_.Stop());
}

TEST_F(BackupTest, ObjectsThatAreNotWholeAreNamed) {
  FillALittle();
  std::filesystem::resize_file(StoredFile(), 1000);
  const Ended refused = Backup();
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.out, HasSubstr("short /b/large"));
  EXPECT_TRUE(Backups().empty());
  const Ended made = Backup({"--even-damaged"});
  EXPECT_EQ(made.code, 3);
  EXPECT_EQ(Backups().size(), 1U);
  const Ended next = Backup();
  EXPECT_EQ(next.code, 1) << "what is short in the one before is short in this one";
  EXPECT_THAT(next.out, HasSubstr("short /b/large"));
}

TEST_F(BackupTest, SmallObjectsThatAreNotWholeAreNamedEachTime) {
  FillALittle();
  EXPECT_TRUE(server_.Stop());
  Query(server_.Data("catalogue.db"), "UPDATE local_object SET size = 6 WHERE name = 'small'");
  EXPECT_EQ(Backup({"--even-damaged"}).code, 3);
  const Ended next = Backup();
  EXPECT_EQ(next.code, 1) << "what is short in the one before is short in this one";
  EXPECT_THAT(next.out, HasSubstr("short /b/small"));
}

TEST_F(BackupTest, WordsThatMakeNoSenseAreRefused) {
  EXPECT_EQ(Run({"backup"}).code, 2);
  EXPECT_EQ(Run({"backup", Folder(), "--check"}).code, 2);
  EXPECT_EQ(Run({"backup", Folder(), "--verify", "--full"}).code, 2);
  EXPECT_EQ(Run({"restore", Folder(), "--storage", "rados://pool"}).code, 2);
  EXPECT_EQ(Run({"restore", Folder(), "--database", "sqlite:x.db"}).code, 2);
  EXPECT_THAT(Run({"restore", temp_.Path("nothing")}).err, HasSubstr("cannot be read"));
  const Ended other = Run({"backup", Folder(), "--data", temp_.GetPath(), "--database", "postgresql://x/y"});
  EXPECT_EQ(other.code, 1);
  EXPECT_THAT(other.err, HasSubstr("pg_dump"));
}

}  // namespace
}  // namespace system_tests
