// The program as people run it, against a server that plays answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include "TestFolder.h"
#include "fakes/ScriptedServer.h"

namespace Tansy::Cli {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using Tests::ScriptedAnswer;
using Tests::ScriptedRequest;

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
      objects_[path].clear();
      return Xml("<InitiateMultipartUploadResult><UploadId>id-of" + path.substr(path.rfind('/') + 1) +
                 "</UploadId></InitiateMultipartUploadResult>");
    }
    if (request.method == "PUT") {
      objects_[path] = request.body;
      return {};
    }
    if (request.method == "POST") {
      // Parts of these tests come one after another.
      objects_[path] += query.find("part_number") == std::string::npos ? "" : request.body;
      return {};
    }
    const auto object = objects_.find(path);
    if (object == objects_.end()) {
      return {.status = 404, .body = "<Error><Code>NoSuchKey</Code><Message>NoSuchKey</Message></Error>"};
    }
    if (request.method == "DELETE") {
      objects_.erase(object);
      return {};
    }
    if (query == "metadata") {
      return {.headers = {{"Object-Size", std::to_string(object->second.size())}}};
    }
    return {.body = Range(object->second, request.Header("Range"))};
  }

  std::string Object(const std::string& path) {
    const std::lock_guard lock(mutex_);
    const auto object = objects_.find(path);
    return object == objects_.end() ? "(none)" : object->second;
  }

  void Put(const std::string& path, const std::string& content) {
    const std::lock_guard lock(mutex_);
    objects_[path] = content;
  }

 private:
  static ScriptedAnswer Xml(const std::string& body) { return {.body = body}; }

  static std::string Range(const std::string& content, const std::string& header) {
    unsigned long long begin = 0;
    unsigned long long end = content.size();
    std::sscanf(header.c_str(), "bytes=%llu-%llu", &begin, &end);
    return content.substr(begin, end - begin);
  }

  std::mutex mutex_;
  std::map<std::string, std::string> objects_;
};

class ProgramTest : public testing::Test {
 protected:
  ProgramTest() {
    server_.Handle([this](const ScriptedRequest& request) { return objects_.Answer(request, server_.Address()); });
  }

  // Runs "tansy " + `arguments` through a shell, in the test's folder.
  Ended Run(const std::string& arguments, const std::string& before = "") {
    const std::string command =
        "cd " + folder_.Path() + " && " + before + " env -u TANSY_POOL -u TANSY_DATA HOME=" + folder_.Path() +
        " XDG_CONFIG_HOME= TANSY_SERVER=http://" + address_ +
        " TANSY_ACCESS_KEY=ak TANSY_SECRET_KEY=sk " TANSY_PATH " " + arguments + " 2>" + folder_.Path("stderr");
    Ended ended;
    std::FILE* pipe = popen(command.c_str(), "r");
    char buffer[65536];
    for (std::size_t size = 0; (size = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
      ended.out.append(buffer, size);
    }
    const int status = pclose(pipe);
    ended.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ended.err = Tests::CTestFolder::Content(folder_.Path("stderr"));
    std::filesystem::remove(folder_.Path("stderr"));
    return ended;
  }

  CFakeObjectServer objects_;
  Tests::ScriptedServer server_;
  Tests::CTestFolder folder_;
  std::string address_ = server_.Address();
};

constexpr char kKey[] = "[0-9a-f-]{36}";

TEST_F(ProgramTest, PutsFilesAndPrintsTheirUrlsInOrder) {
  folder_.MakeFile("a.txt", "first");
  folder_.MakeFile("two words.jpg", "second");
  folder_.MakeFile("odd.ex t", "third");
  const Ended ended = Run("put a.txt 'two words.jpg' 'odd.ex t'");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.err, "") << "no progress where nobody sees it";
  const std::string key = kKey;
  EXPECT_THAT(ended.out, MatchesRegex("/photos/" + key + "\\.txt\n/photos/" + key + "\\.jpg\n/photos/" + key + "\n"));
  EXPECT_EQ(objects_.Object(ended.out.substr(0, ended.out.find('\n'))), "first");
}

TEST_F(ProgramTest, PutsUnderANameAndTellsItToPrograms) {
  folder_.MakeFile("a.txt", "content");
  const Ended ended = Run("--json --pool other put a.txt --name key");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, MatchesRegex("\\{\"file\": \"a\\.txt\", \"url\": \"/other/key\", \"size\": 7, "
                                      "\"seconds\": [0-9]+\\.[0-9]{3}\\}\n"));
  EXPECT_EQ(objects_.Object("/other/key"), "content");
}

TEST_F(ProgramTest, PutsInPieces) {
  folder_.MakeFile("a.txt", "0123456789");
  EXPECT_EQ(Run("put a.txt --name key --pieces 3").code, 0);
  EXPECT_EQ(objects_.Object("/photos/key"), "0123456789");
  int parts = 0;
  for (const ScriptedRequest& request : server_.Requests()) {
    parts += request.target.find("part_number") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(parts, 3);
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
  std::filesystem::permissions(folder_.MakeFile("a.txt", "content"), std::filesystem::perms::owner_read);
  const Ended ended = Run("put a.txt");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(objects_.Object(ended.out.substr(0, ended.out.size() - 1)), "content");
}

TEST_F(ProgramTest, GoesOnWhenOneOfSeveralFilesFails) {
  folder_.MakeFile("a.txt", "a");
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
  EXPECT_TRUE(Tests::CTestFolder::Content(folder_.Path("film")) == content);
  EXPECT_EQ(folder_.Count(), 1u);
  ended = Run("get /photos/film -");
  EXPECT_TRUE(ended.out == content);
  ended = Run("cat photos/film");
  EXPECT_TRUE(ended.out == content);
  ended = Run("get /photos/film part --range 12582910-12582920");
  EXPECT_EQ(Tests::CTestFolder::Content(folder_.Path("part")), content.substr(12582910, 10));
  EXPECT_EQ(Run("get /photos/film - --range 12582917-").out, "end");
  ended = Run("get /photos/film - --range 99999999-");
  EXPECT_EQ(ended.code, 2);
  EXPECT_THAT(ended.err, HasSubstr("has only 12582920 bytes"));
}

TEST_F(ProgramTest, GetsAnEmptyObject) {
  objects_.Put("/photos/empty", "");
  folder_.MakeFile("empty", "old content");
  EXPECT_EQ(Run("get /photos/empty").code, 0);
  EXPECT_EQ(Tests::CTestFolder::Content(folder_.Path("empty")), "");
  EXPECT_EQ(Run("cat /photos/empty").out, "");
}

TEST_F(ProgramTest, LeavesNothingOfADownloadThatFails) {
  objects_.Put("/photos/film", std::string(700000, 'x'));
  folder_.MakeFile("film", "old");
  server_.Answer("GET /photos/film", {.body = std::string(700000, 'x'), .cut_after = 400000});
  const Ended ended = Run("get /photos/film");
  EXPECT_EQ(ended.code, 6) << ended.err;
  EXPECT_EQ(Tests::CTestFolder::Content(folder_.Path("film")), "old");
  EXPECT_EQ(folder_.Count(), 1u);
}

TEST_F(ProgramTest, LeavesNothingWhenInterrupted) {
  objects_.Put("/photos/film", std::string(700000, 'x'));
  server_.Answer("GET /photos/film", {.body = std::string(700000, 'x'), .piece = 10000, .piece_delay_ms = 200});
  // INT after the first bytes have come.
  const std::string script = folder_.MakeFile(
      "run.sh",
      "\"$@\" & p=$!\nfor i in $(seq 300); do [ -n \"$(find . -name '*.part')\" ] && break; sleep 0.1; "
      "done\nfind . -name '*.part' | wc -l\nkill -INT $p\nwait $p\n");
  const std::string command = "cd " + folder_.Path() + " && TANSY_SERVER=http://" + address_ +
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

TEST_F(ProgramTest, ListsBuckets) {
  EXPECT_EQ(Run("buckets").out, "photos  local  -\n");
  EXPECT_EQ(Run("--json buckets").out, "{\"name\": \"photos\", \"location\": \"local\", \"size\": -1}\n");
}

TEST_F(ProgramTest, EndsWithTheCodeOfWhatHappened) {
  folder_.MakeFile("a.txt", "a");
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
  folder_.MakeFile("a.txt", "content");
  const Ended ended = Run("put a.txt a.txt");
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(std::count(ended.out.begin(), ended.out.end(), '\n'), 2);
}

TEST_F(ProgramTest, SaysThatALinkWillBeRewritten) {
  EXPECT_EQ(Run("sign /photos/cat.jpg").err, "");
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
  folder_.MakeFile("a.txt", "content");
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

}  // namespace
}  // namespace Tansy::Cli
