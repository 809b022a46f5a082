// The program as people run it, against a server that plays answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fakes/RandomBytes.h"
#include "fakes/ScriptedServer.h"
#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using Tests::ScriptedAnswer;
using Tests::ScriptedRequest;

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

struct Ended {
  int code = -1;
  std::string out;
  std::string err;
};

// An object server in memory: what the program needs of it, and no more.
class CFakeObjectServer {
 public:
  ScriptedAnswer Answer(const ScriptedRequest& request, const std::string& address) {
    const std::lock_guard lock(mutex_);
    const std::size_t question = request.target.find('?');
    const std::string path = request.target.substr(0, question);
    const std::string query = question == std::string::npos ? "" : request.target.substr(question + 1);
    if (path == "/") {
      return Xml(
          "<ListAllMyBucketsResult><TotalNum>1</TotalNum><Owner>admin</Owner><Buckets><Bucket><Name>photos</Name>"
          "<Location>local</Location><Size>-1</Size></Bucket></Buckets></ListAllMyBucketsResult>");
    }
    if (query == "bestnode") {
      return Xml("<BestNodeInfo><Location>" + address + "</Location></BestNodeInfo>");
    }
    if (query == "uploads") {
      parts_[path].clear();
      return Xml("<InitiateMultipartUploadResult><UploadId>id-of" + path.substr(path.rfind('/') + 1) +
                 "</UploadId></InitiateMultipartUploadResult>");
    }
    if (request.method == "PUT") {
      Store(path, request.body);
      return {};
    }
    if (request.method == "POST") {
      return TakePost(path, query, request.body);
    }
    const auto object = objects_.find(path);
    if (object == objects_.end()) {
      return {.status = 404, .body = "<Error><Code>NoSuchKey</Code><Message>NoSuchKey</Message></Error>"};
    }
    if (request.method == "DELETE") {
      objects_.erase(object);
      return {};
    }
    const std::string tag = "\"v" + std::to_string(versions_[path]) + "\"";
    if (query == "metadata") {
      return {.headers = {{"Object-Size", std::to_string(object->second.size())}, {"ETag", tag}}};
    }
    return {.headers = {{"ETag", tag}}, .body = Range(object->second, request.Header("Range"))};
  }

  std::string Object(const std::string& path) {
    const std::lock_guard lock(mutex_);
    const auto object = objects_.find(path);
    return object == objects_.end() ? "(none)" : object->second;
  }

  void Put(const std::string& path, const std::string& content) {
    const std::lock_guard lock(mutex_);
    Store(path, content);
  }

 private:
  void Store(const std::string& path, const std::string& content) {
    objects_[path] = content;
    ++versions_[path];
  }

  // A part, or the completion of an upload that is still there.
  ScriptedAnswer TakePost(const std::string& path, const std::string& query, const std::string& body) {
    const std::size_t number = query.find("part_number=");
    if (number != std::string::npos) {
      parts_[path][std::stoi(query.substr(number + 12))] = body;
      return {};
    }
    if (parts_[path].empty()) {
      return {.status = 400, .body = "<Error><Code>InvalidXmlContent</Code></Error>"};
    }
    std::string content;
    for (const auto& [index, part] : parts_[path]) {
      content += part;
    }
    parts_.erase(path);
    Store(path, content);
    return {};
  }

  static ScriptedAnswer Xml(const std::string& body) { return {.body = body}; }

  static std::string Range(const std::string& content, const std::string& header) {
    unsigned long long begin = 0;
    unsigned long long end = content.size();
    std::sscanf(header.c_str(), "bytes=%llu-%llu", &begin, &end);
    return content.substr(begin, end - begin);
  }

  std::mutex mutex_;
  std::map<std::string, std::string> objects_;
  std::map<std::string, int> versions_;
  std::map<std::string, std::map<int, std::string>> parts_;  // of unfinished uploads
};

class ProgramTest : public testing::Test {
 protected:
  ProgramTest() {
    server_.Handle([this](const ScriptedRequest& request) { return Answer(request); });
  }

  // Spoils one answer to the next request that begins with `rule`, "GET /photos/a". `spoil` gets the right answer;
  // what it stands for has happened.
  void Spoil(const std::string& rule, const std::function<ScriptedAnswer(ScriptedAnswer)>& spoil) {
    const std::lock_guard lock(mutex_);
    spoils_.emplace_back(rule, spoil);
  }

  // How many requests begin with `rule`.
  std::size_t Count(const std::string& rule) const {
    const std::vector<ScriptedRequest> requests = server_.Requests();
    return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(), [&](const auto& request) {
      return (request.method + " " + request.target).starts_with(rule);
    }));
  }

  ScriptedAnswer Answer(const ScriptedRequest& request) {
    const ScriptedAnswer answer = objects_.Answer(request, server_.Address());
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(spoils_.begin(), spoils_.end(), [&](const auto& spoil) {
      return (request.method + " " + request.target).starts_with(spoil.first);
    });
    if (found == spoils_.end()) {
      return answer;
    }
    const auto spoil = found->second;
    spoils_.erase(found);
    return spoil(answer);
  }

  // Runs "tansy " + `arguments` through a shell, in the test's folder.
  Ended Run(const std::string& arguments, const std::string& before = "") {
    const std::string command =
        "cd " + folder_.GetPath() + " && " + before + " env -u TANSY_POOL -u TANSY_DATA HOME=" + folder_.GetPath() +
        " XDG_CONFIG_HOME= TANSY_SERVER=http://" + address_ +
        " TANSY_ACCESS_KEY=ak TANSY_SECRET_KEY=sk " TANSY_PATH " 2>" + folder_.Path("stderr") + " " + arguments;
    Ended ended;
    std::FILE* pipe = popen(command.c_str(), "r");
    char buffer[65536];
    for (std::size_t size = 0; (size = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
      ended.out.append(buffer, size);
    }
    const int status = pclose(pipe);
    ended.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ended.err = folder_.Read("stderr");
    std::filesystem::remove(folder_.Path("stderr"));
    return ended;
  }

  // Makes the scripted server the S3 door too.
  std::string DoorVariable() const { return "TANSY_S3_URL=http://" + server_.Address(); }

  std::mutex mutex_;  // guards what follows
  std::vector<std::pair<std::string, std::function<ScriptedAnswer(ScriptedAnswer)>>> spoils_;

  CFakeObjectServer objects_;
  Tests::ScriptedServer server_;
  Tests::CTempFolder folder_;
  std::string address_ = server_.Address();
};

constexpr char kKey[] = "[0-9a-f-]{36}";

TEST_F(ProgramTest, PutsFilesAndPrintsTheirUrlsInOrder) {
  folder_.Write("a.txt", "first");
  folder_.Write("two words.jpg", "second");
  folder_.Write("odd.ex t", "third");
  const Ended ended = Run("put a.txt 'two words.jpg' 'odd.ex t'");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.err, "") << "no progress where nobody sees it";
  const std::string key = kKey;
  EXPECT_THAT(ended.out, MatchesRegex("/photos/" + key + "\\.txt\n/photos/" + key + "\\.jpg\n/photos/" + key + "\n"));
  EXPECT_EQ(objects_.Object(ended.out.substr(0, ended.out.find('\n'))), "first");
}

TEST_F(ProgramTest, PutsUnderANameAndTellsItToPrograms) {
  folder_.Write("a.txt", "content");
  const Ended ended = Run("--json --pool other put a.txt --name key");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, MatchesRegex("\\{\"file\": \"a\\.txt\", \"url\": \"/other/key\", \"size\": 7, "
                                      "\"seconds\": [0-9]+\\.[0-9]{3}\\}\n"));
  EXPECT_EQ(objects_.Object("/other/key"), "content");
}

TEST_F(ProgramTest, PutsInPieces) {
  folder_.Write("a.txt", "0123456789");
  EXPECT_EQ(Run("put a.txt --name key --pieces 3").code, 0);
  EXPECT_EQ(objects_.Object("/photos/key"), "0123456789");
  int parts = 0;
  for (const ScriptedRequest& request : server_.Requests()) {
    parts += request.target.find("part_number") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(parts, 3);
}

TEST_F(ProgramTest, PutsWhatIsLargerThanEightMebibytesInPartsOfTwo) {
  const auto put = [&](std::size_t size, const std::string& key) {
    folder_.Write("large", std::string(size, 'x'));
    EXPECT_EQ(Run("put large --name " + key).code, 0);
    EXPECT_EQ(objects_.Object("/photos/" + key), std::string(size, 'x'));
    std::multiset<std::size_t> bodies;
    for (const ScriptedRequest& request : server_.Requests()) {
      if (request.body.size() >= kMebibyte && request.target.starts_with("/photos/" + key)) {
        bodies.insert(request.body.size());
      }
    }
    return bodies;
  };
  EXPECT_THAT(put(8 * kMebibyte, "whole"), ElementsAre(8 * kMebibyte));
  EXPECT_THAT(put(9 * kMebibyte, "parts"),
              ElementsAre(kMebibyte, 2 * kMebibyte, 2 * kMebibyte, 2 * kMebibyte, 2 * kMebibyte));
}

TEST_F(ProgramTest, PutsStandardInput) {
  EXPECT_EQ(Run("put - --name small", "printf hello |").code, 0);
  EXPECT_EQ(objects_.Object("/photos/small"), "hello");
  EXPECT_EQ(Run("put - --name empty", "printf '' |").code, 0);
  EXPECT_EQ(objects_.Object("/photos/empty"), "");
  // Exactly two pieces of 8 MiB, and one byte more.
  EXPECT_EQ(Run("put - --name exact", "head -c 16777216 /dev/zero |").code, 0);
  EXPECT_EQ(objects_.Object("/photos/exact"), std::string(16777216, '\0'));
  EXPECT_EQ(Run("put - --name more", "head -c 16777217 /dev/zero |").code, 0);
  EXPECT_EQ(objects_.Object("/photos/more"), std::string(16777217, '\0'));
}

TEST_F(ProgramTest, PutsFilesThatCannotBeWritten) {
  std::filesystem::permissions(folder_.Write("a.txt", "content"), std::filesystem::perms::owner_read);
  const Ended ended = Run("put a.txt");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(objects_.Object(ended.out.substr(0, ended.out.size() - 1)), "content");
}

TEST_F(ProgramTest, GoesOnWhenOneOfSeveralFilesFails) {
  folder_.Write("a.txt", "a");
  const Ended ended = Run("put missing.txt a.txt");
  EXPECT_EQ(ended.code, 3);
  EXPECT_THAT(ended.out, testing::EndsWith(".txt\n"));
  EXPECT_THAT(ended.err, HasSubstr("tansy: missing.txt: No such file or directory\n  check the path\n"));
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("missing.txt"))) << "nothing is made";
}

TEST_F(ProgramTest, GetsAnObject) {
  const std::string content = std::string(12 * 1048576 + 5, 'x') + "end";
  objects_.Put("/photos/film", content);
  Ended ended = Run("get /photos/film");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.out, "film\n");
  EXPECT_TRUE(folder_.Read("film") == content);
  EXPECT_EQ(folder_.Count(), 1u);
  ended = Run("get /photos/film -");
  EXPECT_TRUE(ended.out == content);
  ended = Run("cat photos/film");
  EXPECT_TRUE(ended.out == content);
  EXPECT_EQ(Count("GET /photos/film"), 7u)
      << "each asks for the version; a file comes in two pieces, and a stream in one request";
  ended = Run("get /photos/film part --range 12582910-12582920");
  EXPECT_EQ(folder_.Read("part"), content.substr(12582910, 10));
  EXPECT_EQ(Run("get /photos/film - --range 12582917-").out, "end");
  ended = Run("get /photos/film - --range 99999999-");
  EXPECT_EQ(ended.code, 2);
  EXPECT_THAT(ended.err, HasSubstr("has only 12582920 bytes"));
}

TEST_F(ProgramTest, GetsAnEmptyObject) {
  objects_.Put("/photos/empty", "");
  folder_.Write("empty", "old content");
  EXPECT_EQ(Run("get /photos/empty").code, 0);
  EXPECT_EQ(folder_.Read("empty"), "");
  EXPECT_EQ(Run("cat /photos/empty").out, "");
}

TEST_F(ProgramTest, LeavesNothingOfADownloadThatFails) {
  objects_.Put("/photos/film", std::string(700000, 'x'));
  folder_.Write("film", "old");
  // A server that does not tell versions apart is not asked for the rest.
  server_.Answer("GET /photos/film?metadata", {.headers = {{"Object-Size", "700000"}}});
  server_.Answer("GET /photos/film", {.body = std::string(700000, 'x'), .cut_after = 400000});
  const Ended ended = Run("get /photos/film");
  EXPECT_EQ(ended.code, 6) << ended.err;
  EXPECT_EQ(server_.Requests().size(), 2u);
  EXPECT_EQ(folder_.Read("film"), "old");
  EXPECT_EQ(folder_.Count(), 1u);
}

TEST_F(ProgramTest, LeavesNothingWhenInterrupted) {
  objects_.Put("/photos/film", std::string(700000, 'x'));
  server_.Answer("GET /photos/film", {.body = std::string(700000, 'x'), .piece = 10000, .piece_delay_ms = 200});
  // INT after the first bytes have come.
  const std::string script =
      folder_.Write("run.sh",
                    "\"$@\" & p=$!\nfor i in $(seq 300); do [ -n \"$(find . -name '*.part')\" ] && break; sleep 0.1; "
                    "done\nfind . -name '*.part' | wc -l\nkill -INT $p\nwait $p\n");
  const std::string command = "cd " + folder_.GetPath() + " && TANSY_SERVER=http://" + address_ +
                              " TANSY_ACCESS_KEY=ak TANSY_SECRET_KEY=sk bash -m run.sh " TANSY_PATH
                              " get /photos/film 2>/dev/null";
  std::FILE* pipe = popen(command.c_str(), "r");
  char line[64] = {};
  ASSERT_NE(std::fgets(line, sizeof(line), pipe), nullptr);
  const int status = pclose(pipe);
  EXPECT_STREQ(line, "1\n") << "it was under way";
  EXPECT_EQ(WEXITSTATUS(status), 130);
  EXPECT_EQ(folder_.Count(), 1u) << "the script alone";
}

TEST_F(ProgramTest, DoesNotLetAServersNameLeadElsewhere) {
  objects_.Put("/photos/..", "x");
  const Ended ended = Run("get /photos/..");
  EXPECT_EQ(ended.code, 2);
  EXPECT_THAT(ended.err, HasSubstr("is no name for a local file"));
}

TEST_F(ProgramTest, TellsSizesAndRemoves) {
  objects_.Put("/photos/a", "12345");
  EXPECT_EQ(Run("stat /photos/a").out, "/photos/a  5\n");
  EXPECT_EQ(Run("--json stat /photos/a").out, "{\"url\": \"/photos/a\", \"size\": 5}\n");
  EXPECT_EQ(Run("rm --bytes /photos/a").out, "removed /photos/a\n");
  EXPECT_EQ(server_.Requests().back().target, "/photos/a?deletefile");
  const Ended ended = Run("stat /photos/a");
  EXPECT_EQ(ended.code, 3);
  EXPECT_THAT(ended.err, HasSubstr("tansy: /photos/a: there is no such object"));
}

TEST_F(ProgramTest, TakesNoMereNameForAWholeBucketWhenABucketIsSet) {
  for (const char* word : {"2026", "/2026", "2026/", "photos"}) {
    const Ended ended = Run(std::string("--pool photos rm -r ") + word, DoorVariable());
    EXPECT_EQ(ended.code, 2) << word;
    EXPECT_THAT(ended.err, HasSubstr("could be a bucket, or a folder of the bucket photos"));
  }
  EXPECT_NE(Run("rm -r 2026", DoorVariable()).code, 2) << "no bucket is set";
  server_.ClearRequests();
  EXPECT_EQ(Run("--pool photos rm -r s3://a/b 2026", DoorVariable()).code, 2);
  EXPECT_TRUE(server_.Requests().empty()) << "nothing is removed before all names are read";
  Run("--pool photos rm -r s3://2026", DoorVariable());
  EXPECT_EQ(Count("GET /2026?"), 1u) << "this can only be the bucket";
}

TEST_F(ProgramTest, CopiesNoTwoThingsToOneName) {
  folder_.Write("2025/cat.jpg", "1");
  folder_.Write("2026/cat.jpg", "2");
  folder_.Write("2026/pics/a", "3");
  folder_.Write("2025/pics/a", "4");
  folder_.Write("here/x", "5");
  for (const char* command :
       {"cp 2025/cat.jpg 2026/cat.jpg s3://photos/", "cp -r 2025/cat.jpg 2026/pics 2025/pics s3://photos/p",
        "put --resume 2025/cat.jpg 2026/cat.jpg s3://photos", "cp s3://a/cat.jpg s3://b/2026/cat.jpg here",
        "cp -r s3://a/pics s3://b/pics here", "get -r a/pics b/pics here"}) {
    server_.ClearRequests();
    const Ended ended = Run(command, DoorVariable());
    EXPECT_EQ(ended.code, 2) << command;
    EXPECT_THAT(ended.err, HasSubstr("two of these would go to ")) << command;
    EXPECT_TRUE(server_.Requests().empty()) << command;
  }
  EXPECT_EQ(folder_.Read("here/x"), "5");
}

TEST_F(ProgramTest, CopiesNothingInThePlaceOfADevice) {
  const std::string pipe = folder_.Path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::filesystem::create_symlink("pipe", folder_.Path("link"));
  for (const char* target : {"pipe", "link"}) {
    const Ended ended = Run(std::string("cp s3://photos/a ") + target, DoorVariable());
    EXPECT_EQ(ended.code, 2) << target;
    EXPECT_THAT(ended.err, HasSubstr("is a device or pipe")) << target;
  }
  EXPECT_TRUE(std::filesystem::is_fifo(pipe));
  EXPECT_TRUE(std::filesystem::is_symlink(folder_.Path("link")));
}

TEST_F(ProgramTest, ListsBuckets) {
  EXPECT_EQ(Run("buckets").out, "photos  local  -\n");
  EXPECT_EQ(Run("--json buckets").out, "{\"name\": \"photos\", \"location\": \"local\", \"size\": -1}\n");
}

TEST_F(ProgramTest, EndsWithTheCodeOfWhatHappened) {
  folder_.Write("a.txt", "a");
  const auto answer = [this](int status, const std::string& code) {
    server_.ClearScript();
    server_.Handle([=](const ScriptedRequest&) {
      return ScriptedAnswer{.status = status, .body = "<Error><Code>" + code + "</Code></Error>"};
    });
  };
  answer(403, "AccessDenied");
  EXPECT_EQ(Run("buckets").code, 4);
  EXPECT_EQ(Run("--pool p put a.txt").code, 4);
  EXPECT_EQ(Run("get /p/k").code, 4);
  EXPECT_EQ(Run("rm /p/k").code, 4);
  answer(404, "NoSuchBucket");
  EXPECT_EQ(Run("--pool p put a.txt").code, 3);
  EXPECT_EQ(Run("bucket p").code, 3);
  answer(500, "NotEnoughSpace");
  EXPECT_EQ(Run("mb p").code, 5);
  answer(500, "ServerInternalError");
  EXPECT_EQ(Run("buckets").code, 1);
  server_.ClearScript();
  server_.Handle([this](const ScriptedRequest& request) {
    return request.target.ends_with("?bestnode")
               ? objects_.Answer(request, server_.Address())
               : ScriptedAnswer{.status = 500, .body = "<Error><Code>NotEnoughSpace</Code></Error>"};
  });
  EXPECT_EQ(Run("--pool p put a.txt").code, 5);
  EXPECT_EQ(Run("put").code, 2);
  EXPECT_EQ(Run("--pool p put a.txt --name " + std::string(129, 'n')).code, 2);
  EXPECT_EQ(Run("--pool p put a.txt --name 'a b'").code, 2);
  address_ = "127.0.0.1:1";
  EXPECT_EQ(Run("buckets").code, 6);
  EXPECT_EQ(Run("--pool p put a.txt").code, 6);
  EXPECT_EQ(Run("get /p/k").code, 6);
}

TEST_F(ProgramTest, SurvivesAnswersThatAreNone) {
  for (const std::string& body : {std::string("not xml"), std::string("<html/>"), std::string(100000, '<')}) {
    server_.ClearScript();
    server_.Handle([=](const ScriptedRequest&) { return ScriptedAnswer{.body = body}; });
    EXPECT_EQ(Run("buckets").code, 1);
    EXPECT_EQ(Run("bucket photos").code, 1);
    EXPECT_EQ(Run("stat /photos/a").code, 1);
    EXPECT_EQ(Run("--pool p bestnode").code, 1);
    EXPECT_EQ(Run("parts /photos/a id").code, 1);
    EXPECT_EQ(Run("version").code, 0);
  }
}

TEST_F(ProgramTest, WritesErrorsThatATerminalDoesNotActOn) {
  server_.ClearScript();
  server_.Handle([](const ScriptedRequest&) {
    return ScriptedAnswer{.status = 400, .body = "<Error><Code>&#27;[31m&#155;</Code></Error>"};
  });
  EXPECT_EQ(Run("buckets").err.find('\x1b'), std::string::npos);
}

TEST_F(ProgramTest, ExaminesTheServer) {
  const Ended ended = Run("doctor");
  EXPECT_EQ(ended.code, 0) << ended.out;
  EXPECT_THAT(ended.out, HasSubstr("address"));
  EXPECT_THAT(ended.out, HasSubstr("the server accepts them"));
  EXPECT_EQ(Run("--pool nowhere doctor").code, 3);
  address_ = "127.0.0.1:1";
  EXPECT_EQ(Run("doctor").code, 6);
}

TEST_F(ProgramTest, ReportsAStandardOutputThatTakesNothing) {
  objects_.Put("/photos/a", "12345");
  const Ended ended = Run("cat /photos/a > /dev/full");
  EXPECT_EQ(ended.code, 5);
  EXPECT_EQ(ended.err, "tansy: standard output: No space left on device\n");
  EXPECT_EQ(Run("cat /photos/a >&-").code, 1) << "a closed one";
  EXPECT_EQ(Run("put - <&-").code, 1);
  EXPECT_EQ(Run("--version >&-").code, 1);
}

TEST_F(ProgramTest, PutsOneFileTwice) {
  folder_.Write("a.txt", "content");
  const Ended ended = Run("put a.txt a.txt");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(std::count(ended.out.begin(), ended.out.end(), '\n'), 2);
}

TEST_F(ProgramTest, SaysThatALinkWillBeRewritten) {
  EXPECT_THAT(Run("sign /photos/cat.jpg").err, testing::Not(HasSubstr("browsers")));
  const Ended ended =
      Run("sign /photos/gr\xc3\xb6\xc3\x9f"
          "e.jpg");
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, HasSubstr("/photos/gr\xc3\xb6\xc3\x9f"
                                   "e.jpg?link=1&token="));
  EXPECT_THAT(ended.err, HasSubstr("browsers rewrite"));
  EXPECT_EQ(Run("--quiet sign /photos/gr\xc3\xb6\xc3\x9f"
                "e.jpg")
                .err,
            "");
}

TEST_F(ProgramTest, SaysThatAnUploadIsNotThere) {
  server_.Answer("GET /photos/a?upload_id=gone",
                 {.status = 400, .body = "<Error><Code>InvalidHttpContent</Code></Error>"});
  const Ended ended = Run("parts /photos/a gone");
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("tansy: upload gone: "));
  EXPECT_THAT(ended.err, HasSubstr("is it this object's, and still unfinished?"));
}

// A server that is wrong in every way there is. No command may crash, hang, claim success, or leave a file behind.
TEST_F(ProgramTest, SurvivesServersThatAreWrong) {
  folder_.Write("a.txt", "content");
  std::string endless = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 300; ++i) {
    endless += "X-More: " + std::string(1000, 'x') + "\r\n";
  }
  const ScriptedAnswer answers[] = {
      {.headers = {{"Content-Length", "1000000"}}, .body = "short", .close = true},
      {.raw = "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n", .close = true},
      {.raw = "HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n\r\nhello", .close = true},
      {.raw = endless},
      {.headers = {{"Content-Length", "1000000"}}, .body = std::string(300000, 'x'), .reset = true},
      {.raw = "HTTP/1.1 200 OK\r\nConte", .reset = true},
      {.cut_after = 0},
      {.raw = "220 mail.example ESMTP\r\n", .close = true},
      {.status = 302, .headers = {{"Location", "http://" + server_.Address() + "/"}}},
  };
  for (const ScriptedAnswer& answer : answers) {
    SCOPED_TRACE(answer.raw.substr(0, 60) + std::to_string(answer.status));
    server_.ClearScript();
    // The size is told, so that the download itself meets the bad answer.
    server_.Answer("GET /photos/a?metadata", {.headers = {{"Object-Size", "1000000"}}});
    server_.Handle([answer](const ScriptedRequest&) { return answer; });
    const bool is_answer = answer.status == 302 || answer.raw.find("9223372036854775807") != std::string::npos;
    const int expected = is_answer ? 1 : 6;
    for (const char* command :
         {"buckets", "--pool p put a.txt", "get /photos/a", "cat /photos/a", "stat /photos/b", "rm /photos/a"}) {
      const Ended ended = Run(command);
      EXPECT_EQ(ended.code, expected) << command << ": " << ended.err;
      EXPECT_EQ(ended.err.find("tansy: "), 0u) << command << ": " << ended.err;
    }
    EXPECT_EQ(folder_.Count(), 1u) << "the file that was put, and nothing else";
  }
}

TEST_F(ProgramTest, NoticesThatAnObjectBecomesShorterWhileItIsRead) {
  server_.Answer("GET /photos/a?metadata", {.headers = {{"Object-Size", "1000"}}});
  server_.Answer("GET /photos/a", {.body = "only this"});
  const Ended ended = Run("get /photos/a");
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("/photos/a: changed while it was read"));
  EXPECT_EQ(folder_.Count(), 0u);
}

// ---- one version, or none

constexpr auto kCutLate = [](ScriptedAnswer answer) {
  answer.cut_after = 400000;
  return answer;
};
constexpr auto kLost = [](ScriptedAnswer) { return ScriptedAnswer{.cut_after = 0, .reset = true}; };
constexpr auto kDenied = [](ScriptedAnswer) {
  return ScriptedAnswer{.status = 403, .body = "<Error><Code>AccessDenied</Code></Error>"};
};

TEST_F(ProgramTest, GoesOnWhereTheConnectionBroke) {
  const std::string content = Tests::RandomBytes(700000, 1);
  objects_.Put("/photos/film", content);
  for (const char* command : {"get /photos/film -", "cat /photos/film", "get /photos/film copy"}) {
    server_.ClearRequests();
    Spoil("GET /photos/film", [](ScriptedAnswer answer) { return answer; });  // the question for the version
    Spoil("GET /photos/film", kCutLate);
    const Ended ended = Run(command);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_TRUE((ended.out == "copy\n" ? folder_.Read("copy") : ended.out) == content);
    EXPECT_EQ(Count("GET /photos/film"), 3u);
    EXPECT_THAT(server_.Requests().back().Header("Range"), MatchesRegex("bytes=[1-9][0-9]*-700000")) << "only the rest";
  }
}

TEST_F(ProgramTest, RefusesTheRestOfAnotherVersion) {
  const std::string before = Tests::RandomBytes(700000, 1);
  for (const char* command : {"get /photos/film", "cat /photos/film", "get /photos/film -"}) {
    objects_.Put("/photos/film", before);
    folder_.Write("film", "old");
    Spoil("GET /photos/film?metadata", [](ScriptedAnswer answer) { return answer; });
    Spoil("GET /photos/film", [this](ScriptedAnswer answer) {
      objects_.Put("/photos/film", Tests::RandomBytes(700000, 2));  // of the same size
      return kCutLate(std::move(answer));
    });
    const Ended ended = Run(command);
    EXPECT_EQ(ended.code, 1) << command;
    EXPECT_THAT(ended.err, HasSubstr("/photos/film: changed while it was read"));
    EXPECT_TRUE(before.starts_with(ended.out)) << "nothing of the new version";
    EXPECT_EQ(folder_.Read("film"), "old");
    EXPECT_EQ(folder_.Count(), 1u);
  }
}

TEST_F(ProgramTest, ResumesADownload) {
  const std::string content = Tests::RandomBytes(900000, 1);
  objects_.Put("/photos/film", content);
  Spoil("GET /photos/film?metadata", [](ScriptedAnswer answer) { return answer; });
  Spoil("GET /photos/film", kCutLate);
  Spoil("GET /photos/film", kDenied);
  Ended ended = Run("get --resume /photos/film");
  EXPECT_EQ(ended.code, 4) << ended.err;
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("film")));
  server_.ClearRequests();
  ended = Run("get --resume /photos/film");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.err, "");
  EXPECT_TRUE(folder_.Read("film") == content);
  EXPECT_THAT(server_.Requests().back().Header("Range"), MatchesRegex("bytes=[1-9][0-9]*-900000"));
  EXPECT_EQ(folder_.Count(), 1u) << "what was hidden is gone";
}

TEST_F(ProgramTest, StartsOverWhenAResumedObjectHasChanged) {
  const std::string now = Tests::RandomBytes(900000, 2);
  const auto break_off = [this](const std::string& command) {
    objects_.Put("/photos/film", Tests::RandomBytes(900000, 1));
    Spoil("GET /photos/film?metadata", [](ScriptedAnswer answer) { return answer; });
    Spoil("GET /photos/film", kCutLate);
    Spoil("GET /photos/film", kDenied);
    EXPECT_EQ(Run(command).code, 4);
  };
  break_off("get --resume /photos/film");
  objects_.Put("/photos/film", now);
  Ended ended = Run("get --resume /photos/film");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.err, "note: film: the object has changed since; the download starts over\n");
  EXPECT_TRUE(folder_.Read("film") == now);

  break_off("get --resume /photos/film target");
  objects_.Put("/photos/other", now);
  ended = Run("get --resume /photos/other target");
  EXPECT_EQ(ended.err, "note: target: the bytes that are there belong to another download; it starts over\n");
  EXPECT_TRUE(folder_.Read("target") == now);

  break_off("get --resume /photos/film short");
  std::filesystem::resize_file(folder_.Path(".tansy-short.part"), 1000);
  ended = Run("get --resume /photos/film short");
  EXPECT_EQ(ended.err, "note: short: the bytes that were kept are not as they were; the download starts over\n");
  EXPECT_TRUE(folder_.Read("short") == Tests::RandomBytes(900000, 1));
}

// ---- uploads on a bad connection

class UploadTest : public ProgramTest {
 protected:
  static constexpr std::size_t kSize = 20 * 1048576 + 5;  // several parts

  UploadTest() { folder_.Write("film", content_); }

  const std::string content_ = Tests::RandomBytes(kSize, 3);
  std::atomic<int> completions_{0};
};

TEST_F(UploadTest, SendsALargeFileInEqualParts) {
  const Ended ended = Run("put film --name key");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_TRUE(objects_.Object("/photos/key") == content_);
  std::map<std::size_t, std::size_t> sizes;
  for (const ScriptedRequest& request : server_.Requests()) {
    if (const std::size_t at = request.target.find("part_number="); at != std::string::npos) {
      sizes[std::stoul(request.target.substr(at + 12))] = request.body.size();
    }
  }
  std::map<std::size_t, std::size_t> expected;
  for (std::size_t begin = 0; begin < kSize; begin += 2 * kMebibyte) {
    expected[expected.size() + 1] = std::min(2 * kMebibyte, kSize - begin);
  }
  EXPECT_EQ(sizes, expected);
}

TEST_F(UploadTest, SendsAPartAgainUnderItsNumber) {
  Spoil("POST /photos/key?upload_id=id-ofkey&part_number=2", kLost);
  Spoil("POST /photos/key?upload_id=id-ofkey&part_number=3",
        [](ScriptedAnswer) { return ScriptedAnswer{.status = 503, .close = true}; });
  for (const char* command : {"put film --name key", "put - --name key < film"}) {
    server_.ClearRequests();
    const Ended ended = Run(command);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_TRUE(objects_.Object("/photos/key") == content_);
    EXPECT_EQ(Count("POST /photos/key?uploads"), 1u);
  }
}

TEST_F(UploadTest, WaitsForAServerThatHasTooMuchToDo) {
  for (int i = 0; i < 4; ++i) {  // more often than any other refusal is taken
    Spoil("POST /photos/key?upload_id=id-ofkey&part_number=2",
          [](ScriptedAnswer) { return ScriptedAnswer{.status = 503, .close = true}; });
  }
  const Ended ended = Run("put film --name key");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.err, "");
  EXPECT_TRUE(objects_.Object("/photos/key") == content_);
}

TEST_F(UploadTest, AsksAgainForTheBestNodeOfAServerThatHasAnswered) {
  folder_.Write("small", "content");
  Spoil("GET /photos/any?bestnode", kLost);
  EXPECT_EQ(Run("put small --name key").code, 0);
  EXPECT_EQ(objects_.Object("/photos/key"), "content");
  Spoil("GET /photos/any?bestnode", kLost);
  EXPECT_EQ(Run("--pool photos put small --name key").code, 6) << "its address may be wrong";
}

TEST_F(UploadTest, SendsAWholeObjectAgain) {
  folder_.Write("small", "content");
  Spoil("PUT /photos/key", kLost);
  EXPECT_EQ(Run("put small --name key").code, 0);
  EXPECT_EQ(objects_.Object("/photos/key"), "content");
  EXPECT_EQ(Count("PUT /photos/key"), 2u);
}

TEST_F(UploadTest, KnowsThatACompletionWhoseAnswerIsLostWasDone) {
  objects_.Put("/photos/key", std::string(kSize, 'o'));  // of the same size
  Spoil("POST /photos/key?upload_id=id-ofkey&part_number", [](ScriptedAnswer answer) { return answer; });
  Spoil("POST /photos/key?upload_id=id-ofkey&part_number", [](ScriptedAnswer answer) { return answer; });
  Spoil("POST /photos/key?upload_id=id-ofkey&part_number", [](ScriptedAnswer answer) { return answer; });
  Spoil("POST /photos/key?upload_id=id-ofkey", kLost);
  const Ended ended = Run("put film --name key");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_TRUE(objects_.Object("/photos/key") == content_);
  EXPECT_EQ(Count("POST /photos/key?uploads"), 1u);
}

TEST_F(UploadTest, DoesNotTakeAnOldObjectForTheNewOne) {
  objects_.Put("/photos/key", std::string(kSize, 'o'));
  // Every completion is lost on its way, and then the upload is gone.
  server_.Handle([this](const ScriptedRequest& request) {
    if (request.method == "POST" && request.target.ends_with("?upload_id=id-ofkey")) {
      return ++completions_ % 2 == 1
                 ? ScriptedAnswer{.cut_after = 0, .reset = true}
                 : ScriptedAnswer{.status = 400, .body = "<Error><Code>InvalidXmlContent</Code></Error>"};
    }
    return Answer(request);
  });
  EXPECT_EQ(Run("put - --name key < film").code, 1);
}

TEST_F(UploadTest, StartsOverWhenTheServerHasLostTheUpload) {
  const auto refuse = [](ScriptedAnswer) {
    return ScriptedAnswer{.status = 400, .body = "<Error><Code>InvalidHttpContent</Code></Error>"};
  };
  Spoil("POST /photos/key?upload_id=id-ofkey&part_number=3", refuse);
  Ended ended = Run("put film --name key");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.err, MatchesRegex("note: the upload was lost \\(http://.* answered 400 InvalidHttpContent\\); it "
                                      "starts over\n"));
  EXPECT_TRUE(objects_.Object("/photos/key") == content_);
  Spoil("POST /photos/stream?upload_id=id-ofstream&part_number=3", refuse);
  ended = Run("put - --name stream < film");
  EXPECT_EQ(ended.code, 1) << "what has been read cannot be read again";
  EXPECT_EQ(objects_.Object("/photos/stream"), "(none)");
}

TEST_F(UploadTest, BelievesInAnObjectOfTheRightSizeOnly) {
  Spoil("GET /photos/key?metadata", [](ScriptedAnswer answer) { return answer; });  // what was there before
  Spoil("GET /photos/key?metadata", [](ScriptedAnswer) {
    return ScriptedAnswer{.headers = {{"Object-Size", "8388608"}, {"ETag", "\"x\""}}};
  });
  Ended ended = Run("put film --name key");
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.out, "");
  EXPECT_THAT(ended.err, HasSubstr("tansy: film: /photos/key has 8388608 bytes, but 20971525 were sent\n"));
  Spoil("GET /photos/key?metadata",
        [](ScriptedAnswer) { return ScriptedAnswer{.status = 404, .body = "<Error><Code>NoSuchKey</Code></Error>"}; });
  Spoil("GET /photos/key?metadata",
        [](ScriptedAnswer) { return ScriptedAnswer{.status = 404, .body = "<Error><Code>NoSuchKey</Code></Error>"}; });
  EXPECT_EQ(Run("put film --name key").code, 3);
}

TEST_F(UploadTest, ReadsTheObjectBackOnRequest) {
  EXPECT_EQ(Run("put film --name key --verify").code, 0);
  folder_.Write("small", "content");
  for (const char* command : {"put small --name small --verify", "put - --name small --verify < small"}) {
    EXPECT_EQ(Run(command).code, 0);
    Spoil("GET /photos/small?metadata", [](ScriptedAnswer answer) { return answer; });
    Spoil("GET /photos/small", [](ScriptedAnswer answer) {
      answer.body[3] ^= 1;
      return answer;
    });
    const Ended ended = Run(command);
    EXPECT_EQ(ended.code, 1) << command;
    EXPECT_THAT(ended.err, HasSubstr("/photos/small is not what was sent"));
  }
}

TEST_F(UploadTest, NamesTheAddressThatFailedAndTheServersWord) {
  Tests::ScriptedServer node;
  node.Handle([](const ScriptedRequest&) {
    return ScriptedAnswer{.status = 403, .body = "<Error><Code>AccessDenied</Code></Error>"};
  });
  server_.Answer("GET /photos/any?bestnode",
                 {.body = "<BestNodeInfo><Location>" + node.Address() + "</Location></BestNodeInfo>"});
  EXPECT_THAT(Run("put film").err,
              HasSubstr("tansy: film: the server denies access (http://" + node.Address() + ": AccessDenied)\n"));
  server_.ClearScript();
  server_.Handle([this](const ScriptedRequest& request) { return Answer(request); });
  server_.Answer("GET /photos/any?bestnode", {.body = "<BestNodeInfo><Location>a b</Location></BestNodeInfo>"});
  EXPECT_THAT(Run("put film").err, HasSubstr("names \"a b\" as the best node"));
}

// ---- names

TEST_F(ProgramTest, PutsUnderTheNamesOfTheFiles) {
  folder_.Write("folder/a.txt", "a");
  folder_.Write("b.txt", "b");
  EXPECT_EQ(Run("put --keep-name folder/a.txt b.txt").out, "/photos/a.txt\n/photos/b.txt\n");
  EXPECT_EQ(objects_.Object("/photos/a.txt"), "a");
  folder_.Write("a.txt", "other");
  EXPECT_THAT(Run("put --keep-name folder/a.txt a.txt").err, HasSubstr("two files would become the object a.txt"));
  folder_.Write("two words", "x");
  EXPECT_EQ(Run("put --keep-name 'two words'").code, 2);
  EXPECT_EQ(Run("put --keep-name -", "printf x |").code, 2);
  EXPECT_EQ(Run("put --keep-name --name key b.txt").code, 2);
}

TEST_F(ProgramTest, PutsUnderAUrl) {
  folder_.Write("a.txt", "a");
  EXPECT_EQ(Run("put a.txt /films/key").out, "/films/key\n");
  EXPECT_EQ(objects_.Object("/films/key"), "a");
  EXPECT_EQ(Run("put a.txt http://" + address_ + "/films/other").out, "/films/other\n");
  EXPECT_EQ(Run("put - /films/stream", "printf hello |").out, "/films/stream\n");
  EXPECT_EQ(objects_.Object("/films/stream"), "hello");
  server_.ClearRequests();
  EXPECT_EQ(Run("put a.txt /films/a/b").code, 2);
  EXPECT_EQ(Run("put a.txt /films/key --name key").code, 2);
  EXPECT_EQ(server_.Requests().size(), 0u);
  // Where a file could be, a file is meant.
  EXPECT_EQ(Run("put a.txt " + folder_.Path("missing")).code, 3);
  folder_.Write("b.txt", "b");
  EXPECT_EQ(Run("put --keep-name a.txt " + folder_.Path("b.txt")).out, "/photos/a.txt\n/photos/b.txt\n");
}

TEST_F(ProgramTest, GetsSeveralObjects) {
  objects_.Put("/photos/a", "1");
  objects_.Put("/photos/b", "2");
  std::filesystem::create_directories(folder_.Path("folder"));
  EXPECT_EQ(Run("get /photos/a /photos/b folder").out, "folder/a\nfolder/b\n");
  EXPECT_EQ(folder_.Read("folder/b"), "2");
  EXPECT_EQ(Run("get /photos/a /photos/b").out, "a\nb\n");
  EXPECT_EQ(folder_.Read("b"), "2");
  const Ended ended = Run("get /photos/a /photos/missing /photos/b folder");
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "folder/a\nfolder/b\n") << "the others are done";
  EXPECT_EQ(Run("get /photos/a photos/b file").code, 2) << "that is no folder";
  EXPECT_EQ(Run("get /photos/a /films/a folder").code, 2) << "two objects, one file";
  EXPECT_EQ(Run("get /photos/a /photos/b folder --range 0-1").code, 2);
}

TEST_F(ProgramTest, WritesNothingWhenAFolderIsMistyped) {
  objects_.Put("/photos/a", "1");
  folder_.Write("a", "mine");
  EXPECT_EQ(Run("get /photos/a /fodler/x").code, 3);
  EXPECT_EQ(folder_.Read("a"), "mine");
}

TEST_F(ProgramTest, TakesABucketThatIsThereForMade) {
  server_.Answer("PUT /photos", {.status = 409, .body = "<Error><Code>BucketAlreadyExists</Code></Error>"});
  EXPECT_EQ(Run("mb photos").code, 1);
  const Ended ended = Run("mb --exist-ok photos");
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.out, "there is already photos\n");
  server_.Answer("PUT /films", {.status = 403, .body = "<Error><Code>AccessDenied</Code></Error>"});
  EXPECT_EQ(Run("mb --exist-ok films").code, 4);
}

// ---- who gets signatures

TEST_F(ProgramTest, SendsNothingToAnotherServer) {
  Tests::ScriptedServer other;
  const std::string url = "http://" + other.Address();
  folder_.Write("a.txt", "a");
  for (const std::string& command :
       {"rm " + url + "/photos/a", "get " + url + "/photos/a", "cat " + url + "/photos/a", "stat " + url + "/photos/a",
        "sign " + url + "/photos/a", "put a.txt " + url + "/photos/a", "parts " + url + "/photos/a id",
        "pic get '" + url + "/pic?id=1'", "pic link '" + url + "/pic?id=1'", "rm /photos/x " + url + "/photos/a"}) {
    const Ended ended = Run(command);
    EXPECT_EQ(ended.code, 2) << command;
    EXPECT_THAT(ended.err, HasSubstr(url + " is not the server that is set, http://127.0.0.1:")) << command;
    EXPECT_EQ(ended.out, "");
  }
  EXPECT_EQ(other.ConnectionCount(), 0);
  EXPECT_EQ(server_.ConnectionCount(), 0) << "nor is half of a command done";
}

TEST_F(ProgramTest, ShowsRequestsWithoutWhatIsSecret) {
  folder_.Write("a.txt", "a");
  const Ended ended = Run("--verbose put a.txt --name key");
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.out, "/photos/key\n");
  EXPECT_THAT(ended.err, HasSubstr("> PUT http://" + server_.Address() + "/photos/key\n"));
  EXPECT_THAT(ended.err, HasSubstr("> Authorization: quorvane ak:***\n"));
  EXPECT_THAT(ended.err, HasSubstr("< 200 to PUT http://" + server_.Address() + "/photos/key\n"));
  for (const ScriptedRequest& request : server_.Requests()) {
    const std::string value = request.Header("Authorization");
    EXPECT_THAT(ended.err, testing::Not(HasSubstr(value.substr(value.rfind(':') + 1))));
  }
  address_ = "127.0.0.1:1";
  EXPECT_THAT(Run("--verbose buckets").err, HasSubstr("< GET http://127.0.0.1:1/\n< no connection"));
}

TEST_F(ProgramTest, ExaminesWhereUploadsGo) {
  EXPECT_THAT(Run("doctor").out, HasSubstr("go to http://" + server_.Address() + ", which answers"));
  server_.Answer("GET /photos/any?bestnode", {.body = "<BestNodeInfo><Location>127.0.0.1:1</Location></BestNodeInfo>"});
  const Ended ended = Run("doctor");
  EXPECT_EQ(ended.code, 6);
  EXPECT_THAT(ended.out, testing::ContainsRegex("failed +uploads +http://127.0.0.1:1: no connection"));
  EXPECT_THAT(ended.out, HasSubstr("look at --local-ip and --wan-ip"));
}

TEST_F(ProgramTest, SaysWhenALinkEnds) {
  EXPECT_THAT(Run("sign /photos/a").err, HasSubstr("note: this link does not end"));
  const Ended ended = Run("sign --expires 2h /photos/a");
  EXPECT_THAT(ended.err, MatchesRegex("note: this link ends [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8} UTC\n"));
  const std::int64_t expires = std::stoll(ended.out.substr(ended.out.find("?expires=") + 9));
  EXPECT_NEAR(static_cast<double>(expires), static_cast<double>(std::time(nullptr)) + 7200, 60);
  EXPECT_THAT(Run("--json sign --expires 90s /photos/a").out, MatchesRegex(".*, \"expires\": [0-9]{10}\\}\n"));
  EXPECT_EQ(Run("--quiet sign /photos/a").err, "");
  for (const char* duration : {"", "7", "d", "0d", "-1d", "1.5h", "7 d", "7days", "99999999999w"}) {
    EXPECT_EQ(Run("sign --expires='" + std::string(duration) + "' /photos/a").code, 2) << duration;
  }
}

TEST_F(ProgramTest, SaysNothingWhenItsReaderHasEnough) {
  objects_.Put("/photos/a", std::string(3000000, 'x'));
  for (const char* command : {"cat /photos/a", "get /photos/a -"}) {
    const Ended ended = Run(std::string(command) + " | head -c 1");
    EXPECT_EQ(ended.out, "x");
    EXPECT_EQ(ended.err, "") << command;
  }
}

// `tansy sync --delete` between the folder "dir" and s3://photos/t.
class SyncProgramTest : public ProgramTest {
 protected:
  // The keys are percent-encoded, and each object has one byte.
  void List(const std::vector<std::string>& keys) {
    std::string items;
    for (const std::string& key : keys) {
      items += "<Contents><Key>" + key + "</Key><Size>1</Size><ETag>\"tag\"</ETag></Contents>";
    }
    server_.Answer("GET /photos?*", {.body = "<ListBucketResult>" + items + "</ListBucketResult>"});
  }

  Ended Sync(const std::string& words) { return Run("sync --delete " + words, "TANSY_S3_URL=http://" + address_); }
  Ended SyncUp() { return Sync("dir s3://photos/t"); }
  Ended SyncDown() { return Sync("s3://photos/t dir"); }
};

TEST_F(SyncProgramTest, RemovesWhatIsGone) {
  List({"t/", "t/new", "t/old"});
  folder_.Write("dir/new", "12");
  folder_.Write("dir/old", "12");
  folder_.Write("dir/more", "1");
  server_.Answer("GET /photos/t/*", {.headers = {{"ETag", "\"tag\""}}, .body = "1"});
  Ended ended = SyncDown();
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.out, "dir/new\ndir/old\nremoved dir/more\n");
  EXPECT_FALSE(folder_.Exists("dir/more"));

  folder_.Write("dir/new", "12");
  std::filesystem::remove(folder_.Path("dir/old"));
  server_.Answer("PUT /photos/t/new", {});
  server_.Answer("DELETE /photos/t/old", {.status = 204});
  ended = SyncUp();
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.out, "s3://photos/t/new\nremoved s3://photos/t/old\n");
}

TEST_F(SyncProgramTest, CountsASourceWithMarksOfFoldersOnlyAsEmpty) {
  List({"t/", "t/sub/"});
  folder_.Write("dir/a", "1");
  const Ended ended = SyncDown();
  EXPECT_EQ(ended.code, 2);
  EXPECT_THAT(ended.err, HasSubstr("s3://photos/t: is empty"));
  EXPECT_TRUE(folder_.Exists("dir/a"));
}

TEST_F(SyncProgramTest, RemovesNothingWhenANameCannotBeLocal) {
  folder_.Write("dir/a\\b", "1");
  folder_.Write("dir/c", "1");
  server_.Answer("GET /photos/t/*", {.headers = {{"ETag", "\"tag\""}}, .body = "1"});
  List({"t/a%5Cb", "t/x"});
  const Ended ended = SyncDown();
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.out, "dir/x\n");
  EXPECT_THAT(ended.err, HasSubstr("note: nothing was removed, because not all objects can become local files\n"));
  EXPECT_TRUE(folder_.Exists("dir/a\\b"));
  EXPECT_TRUE(folder_.Exists("dir/c"));
}

TEST_F(SyncProgramTest, RemovesNothingFromTheServerWhenAFileCouldNotBePut) {
  List({"t/film"});
  folder_.Write("dir/holiday", "1");
  server_.Answer("PUT /photos/t/holiday", {.status = 403, .body = "<Error><Code>AccessDenied</Code></Error>"});
  const Ended ended = SyncUp();
  EXPECT_EQ(ended.code, 4);
  EXPECT_EQ(ended.out, "");
  EXPECT_THAT(ended.err, HasSubstr("note: nothing was removed, because not everything could be carried\n"));
  EXPECT_EQ(Count("DELETE"), 0u);
}

TEST_F(SyncProgramTest, RemovesNoFileWhenAnObjectCouldNotBeFetched) {
  List({"t/holiday"});
  folder_.Write("dir/film", "1");
  server_.Answer("GET /photos/t/holiday", {.status = 403, .body = "<Error><Code>AccessDenied</Code></Error>"});
  const Ended ended = SyncDown();
  EXPECT_EQ(ended.code, 4);
  EXPECT_EQ(ended.out, "");
  EXPECT_THAT(ended.err, HasSubstr("note: nothing was removed, because not everything could be carried\n"));
  EXPECT_TRUE(folder_.Exists("dir/film"));
}

// A folder whose only file goes away must stay until its new file is there.
TEST_F(SyncProgramTest, RemovesAFileOnlyWhenItsSuccessorIsThere) {
  List({"t/sub/new"});
  folder_.Write("dir/sub/old", "1");
  server_.Answer("GET /photos/t/*", {.headers = {{"ETag", "\"tag\""}}, .body = "1", .delay_ms = 300});
  const Ended ended = SyncDown();
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.out, "dir/sub/new\nremoved dir/sub/old\n");
  EXPECT_EQ(folder_.Read("dir/sub/new"), "1");
}

TEST_F(SyncProgramTest, SaysThatThereIsNothingAtTheSource) {
  List({});
  const Ended ended = Run("sync s3://photos/typo new", DoorVariable());
  EXPECT_EQ(ended.code, 3);
  EXPECT_THAT(ended.err, HasSubstr("s3://photos/typo/: there is nothing below it"));
  EXPECT_FALSE(folder_.Exists("new"));
}

// A link is there for what it leads to. Neither side loses anything, and the failure says why.
TEST_F(SyncProgramTest, PutsNoFileInThePlaceOfALink) {
  folder_.Write("originals/a", "original");
  std::filesystem::create_directory(folder_.Path("dir"));
  std::filesystem::create_symlink("../originals/a", folder_.Path("dir/a"));
  List({"t/a"});
  server_.Answer("GET /photos/t/a", {.headers = {{"ETag", "\"tag\""}}, .body = "1"});
  for (const Ended& ended : {SyncDown(), Run("get -r photos/t dir", DoorVariable())}) {
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("is in the way"));
    EXPECT_EQ(ended.out, "");
  }
  EXPECT_TRUE(std::filesystem::is_symlink(folder_.Path("dir/a")));
  EXPECT_EQ(folder_.Read("originals/a"), "original");
}

// Such a name may be one of the user's own.
TEST_F(SyncProgramTest, LeavesHiddenNamesOfItsOwnAloneOnBothSides) {
  folder_.Write("dir/.tansy-notes.lock", "mine");
  folder_.Write("dir/a", "1");
  List({"t/.tansy-notes.lock", "t/a"});
  server_.Answer("PUT /photos/t/a", {});
  server_.Answer("GET /photos/t/*", {.headers = {{"ETag", "\"tag\""}}, .body = "1"});
  Ended ended = SyncUp();
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.err, HasSubstr("note: dir/.tansy-notes.lock: belongs to a download"));
  EXPECT_EQ(Count("DELETE"), 0u);
  ended = SyncDown();
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("\".tansy-notes.lock\" cannot be the name of a local file"));
  EXPECT_EQ(folder_.Read("dir/.tansy-notes.lock"), "mine");
}

// Copies of files and folders through a scripted door: s3://photos/x is there, other objects are not.
class CopyProgramTest : public ProgramTest {
 protected:
  CopyProgramTest() {
    server_.Answer("HEAD /photos/x", {.headers = {{"ETag", "\"tag\""}, {"Content-Length", "1"}}});
    server_.Answer("HEAD *", {.status = 404});
    server_.Answer("GET /photos/x", {.headers = {{"ETag", "\"tag\""}}, .body = "1"});
    server_.Answer("PUT *", {});
    folder_.Write("a", "1");
    folder_.Write("c", "1");
    folder_.Write("dir/d", "1");
  }

  Ended Do(const std::string& command) { return Run(command, DoorVariable()); }
};

TEST_F(CopyProgramTest, GoesOnWithTheOthersWhenOneIsMissing) {
  Ended ended = Do("cp a missing c s3://photos/");
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "s3://photos/a\ns3://photos/c\n");
  EXPECT_THAT(ended.err, HasSubstr("tansy: missing: "));
  ended = Do("cp -r dir missing s3://photos/");
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "s3://photos/dir/d\n");
  ended = Do("cp s3://photos/none s3://photos/x dir");
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "dir/x\n");
  EXPECT_THAT(ended.err, HasSubstr("tansy: s3://photos/none: there is no such object"));
}

TEST_F(CopyProgramTest, GoesOnWithTheOtherFoldersWhenOneIsMissing) {
  server_.Answer("GET /photos?encoding-type=url&list-type=2&prefix=p%2F",
                 {.body = "<ListBucketResult><Contents><Key>p/y</Key><Size>1</Size><ETag>\"tag\"</ETag></Contents>"
                          "</ListBucketResult>"});
  server_.Answer("GET /photos?*", {.body = "<ListBucketResult></ListBucketResult>"});
  server_.Answer("GET /photos/p/y", {.headers = {{"ETag", "\"tag\""}}, .body = "1"});
  server_.Answer("DELETE *", {.status = 204});
  Ended ended = Do("get -r photos/typo photos/p here");
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "here/p/y\n");
  EXPECT_THAT(ended.err, HasSubstr("tansy: s3://photos/typo/: there is nothing below it"));
  ended = Do("rm -r --dry-run photos/typo photos/p");
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "would remove s3://photos/p/y\n");
  EXPECT_EQ(Count("DELETE"), 0u);
  ended = Do("rm -r photos/typo photos/p");
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "removed s3://photos/p/y\n");
}

// A bucket may hold more objects than there is memory for their names.
TEST_F(CopyProgramTest, RemovesAFolderPageByPage) {
  std::string items;
  for (int i = 0; i < 1000; ++i) {
    items += "<Contents><Key>p/" + std::to_string(i) + "</Key><Size>1</Size><ETag>\"tag\"</ETag></Contents>";
  }
  server_.Answer("GET /photos?continuation-token=*", {.body = "<ListBucketResult><Contents><Key>p/last</Key><Size>1"
                                                              "</Size></Contents></ListBucketResult>"});
  server_.Answer("GET /photos?encoding-type=*",
                 {.body = "<ListBucketResult><IsTruncated>true</IsTruncated><NextContinuationToken>t"
                          "</NextContinuationToken>" +
                          items + "</ListBucketResult>"});
  server_.Answer("DELETE *", {.status = 204});
  const Ended ended = Do("--quiet rm -r photos/p");
  EXPECT_EQ(ended.code, 0) << ended.err;
  const auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 1003u);
  EXPECT_THAT(requests[1001].target, HasSubstr("continuation-token=t")) << "what was listed is gone by then";
  EXPECT_EQ(requests[1002].target, "/photos/p/last");
}

TEST_F(CopyProgramTest, TakesATargetWithASlashForAFolder) {
  Ended ended = Do("cp s3://photos/x new/");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(folder_.Read("new/x"), "1");
  ended = Do("cp s3://photos/none other/y");
  EXPECT_EQ(ended.code, 3);
  EXPECT_FALSE(folder_.Exists("other")) << "no folder is made for nothing";
}

TEST_F(CopyProgramTest, FollowsNoLinkWithSeveralFolders) {
  server_.Answer("GET /photos?*",
                 {.body = "<ListBucketResult><Contents><Key>p/y</Key><Size>1</Size><ETag>\"tag\"</ETag></Contents>"
                          "</ListBucketResult>"});
  server_.Answer("GET /photos/p/y", {.headers = {{"ETag", "\"tag\""}}, .body = "1"});
  std::filesystem::create_directories(folder_.Path("outside"));
  std::filesystem::create_directories(folder_.Path("here"));
  std::filesystem::create_directory_symlink("../outside", folder_.Path("here/p"));
  const Ended ended = Do("get -r photos/p s3://photos/q here");
  EXPECT_NE(ended.code, 0);
  EXPECT_THAT(ended.err, HasSubstr("here/p: a link is in the way"));
  EXPECT_TRUE(std::filesystem::is_empty(folder_.Path("outside")));
}

TEST_F(CopyProgramTest, PutsToANameOfTheObjectProtocol) {
  Ended ended = Do("put --resume a /films/2026%2Ff.mp4");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.out, "s3://films/2026/f.mp4\n");
  ended = Do("put -r dir /photos/e");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.out, "s3://photos/e/d\n");
}

TEST_F(CopyProgramTest, LeavesTheStandardStreamsToOtherCommands) {
  EXPECT_THAT(Do("cp - s3://photos/").err, HasSubstr("standard input cannot be copied"));
  EXPECT_THAT(Do("cp s3://photos/x -").err, HasSubstr("'tansy cat'"));
  EXPECT_FALSE(folder_.Exists("-"));
}

// A full disk on the server is not filled by asking again.
TEST_F(CopyProgramTest, SaysThatTheServerIsFull) {
  server_.ClearScript();
  server_.Answer("PUT *", {.status = 507, .body = "<Error><Code>NotEnoughSpace</Code></Error>"});
  const Ended ended = Do("cp a c s3://photos/");
  EXPECT_EQ(ended.code, 5);
  EXPECT_THAT(ended.err, HasSubstr("s3://photos/a: the server has no space left"));
  EXPECT_EQ(Count("PUT"), 2u);
}

TEST_F(CopyProgramTest, ShowsNoSignature) {
  const Ended ended = Do("--verbose cp a s3://photos/");
  EXPECT_EQ(ended.code, 0) << ended.err;
  const std::string value = server_.Requests().back().Header("Authorization");
  const std::size_t begin = value.find("Signature=") + 10;
  EXPECT_EQ(value.size() - begin, 64u);
  EXPECT_THAT(ended.err, HasSubstr(value.substr(0, begin) + "***\n"));
  EXPECT_THAT(ended.err, Not(HasSubstr(value.substr(begin))));
}

// Names that are no text are written so that the other commands understand them.
TEST_F(CopyProgramTest, FindsNamesThatCanBeGivenBack) {
  server_.Answer("GET /photos?*", {.body = "<ListBucketResult><Contents><Key>p/a%0A%FFb</Key><Size>1</Size>"
                                           "<ETag>\"tag\"</ETag></Contents></ListBucketResult>"});
  EXPECT_EQ(Do("find photos").out, "/photos/p%2Fa%0A%FFb\n");
  EXPECT_THAT(Do("--json ls -r photos").out, HasSubstr("\"url\": \"/photos/p%2Fa%0A%FFb\""));
  Do("rm -r /photos/p%2Fa%0A%FFb");
  EXPECT_EQ(Count("GET /photos?encoding-type=url&list-type=2&prefix=p%2Fa%0A%FFb%2F"), 1u);
}

// --jobs is the number of requests, however many files there are and however large they are.
TEST_F(CopyProgramTest, HasNoMoreRequestsThanJobs) {
  constexpr int kJobs = 3;
  const std::string content = Tests::RandomBytes(20 * kMebibyte, 1);
  std::string items;
  for (const char* key : {"q/1", "q/2", "q/3", "q/4", "q/5"}) {
    items += std::string("<Contents><Key>") + key + "</Key><Size>" + std::to_string(content.size()) +
             "</Size><ETag>\"tag\"</ETag></Contents>";
  }
  std::atomic<int> now{0};
  std::atomic<int> most{0};
  server_.ClearScript();
  server_.Answer("GET /photos?*", {.body = "<ListBucketResult>" + items + "</ListBucketResult>"});
  server_.Handle([&](const ScriptedRequest& request) {
    most = std::max(most.load(), ++now);
    // The first ones wait for as many as there may be, and then a moment for one too many.
    for (int waited = 0; most < kJobs && waited < 5000; ++waited) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    for (int waited = 0; most <= kJobs && request.target == "/photos/q/1" && waited < 100; ++waited) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const std::string range = request.Header("range");
    const std::size_t begin = std::stoull(range.substr(6));
    const std::size_t end = std::stoull(range.substr(range.find('-') + 1)) + 1;
    --now;
    return ScriptedAnswer{.status = 206, .body = content.substr(begin, end - begin)};
  });
  const Ended ended = Do("get -r photos/q here --jobs 3");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(most, kJobs);
  EXPECT_TRUE(folder_.Read("here/5") == content);
}

}  // namespace
}  // namespace Tansy::Cli
