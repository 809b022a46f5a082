// Each command of tansy against a real server: what it does, what it prints, and how it ends.
#include <signal.h>

#include "support/CommandLineFixture.h"

namespace system_tests {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kKey[] = "[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}";

class CommandLineTest : public CommandLineFixture {};

TEST_F(CommandLineTest, MakesListsAndDescribesBuckets) {
  EXPECT_EQ(Do({"--json", "mb", "films"}), "{\"name\": \"films\"}\n");
  EXPECT_EQ(Do({"--quiet", "mb", "texts"}), "");
  EXPECT_THAT(Lines(Do({"buckets"})),
              testing::UnorderedElementsAre("photos  local  -", "films   local  -", "texts   local  -"));
  EXPECT_THAT(Lines(Do({"--json", "buckets"})),
              testing::UnorderedElementsAre("{\"name\": \"photos\", \"location\": \"local\", \"size\": -1}",
                                            "{\"name\": \"films\", \"location\": \"local\", \"size\": -1}",
                                            "{\"name\": \"texts\", \"location\": \"local\", \"size\": -1}"));
  EXPECT_EQ(Do({"bucket", "films"}), "name      films\nowner     admin\nlocation  local\n");
  EXPECT_EQ(Do({"bucket", "films", "--json"}),
            "{\"name\": \"films\", \"owner\": \"admin\", \"location\": \"local\"}\n");
}

TEST_F(CommandLineTest, SaysWhatIsWrongWithABucket) {
  EXPECT_EQ(Failure(Run({"mb", "photos"})),
            "1 tansy: bucket photos: the bucket exists already (" + Url() + ": BucketAlreadyExists)\n");
  EXPECT_EQ(Do({"mb", "--exist-ok", "photos"}), "there is already photos\n");
  EXPECT_EQ(Failure(Run({"bucket", "films"})),
            "3 tansy: bucket films: there is no such bucket (" + Url() +
                ": NoSuchBucket)\n  'tansy buckets' lists those there are, 'tansy mb BUCKET' "
                "makes one\n");
  for (const char* name : {"two words", "a/b", "a?b", "a#b", ""}) {
    EXPECT_THAT(Failure(Run({"mb", name})), StartsWith("2 tansy: ")) << name;
  }
  EXPECT_EQ(Do({"buckets"}), "photos  local  -\n");
}

TEST_F(CommandLineTest, PutsGetsAndRemovesAFile) {
  const std::string content = RandomBytes(100000, 1);
  Write("cat.jpg", content);
  const std::string url = Line(Do({"put", "cat.jpg"}));
  EXPECT_THAT(url, MatchesRegex("/photos/" + std::string(kKey) + "\\.jpg"));
  EXPECT_EQ(Get(url), content);
  EXPECT_EQ(Do({"stat", url}), url + "  100000\n");
  EXPECT_EQ(Do({"get", url, "copy.jpg"}), "copy.jpg\n");
  EXPECT_EQ(Read("copy.jpg"), content);
  EXPECT_EQ(Do({"cat", url}), content);
  EXPECT_EQ(Do({"get", url, "-"}), content);
  EXPECT_EQ(Do({"rm", url}), "removed " + url + "\n");
  EXPECT_EQ(Failure(Run({"get", url})), "3 tansy: " + url + ": there is no such object (" + Url() +
                                            ": NoSuchKey)\n  check the URL; 'tansy put' printed it\n");
  EXPECT_THAT(Files(), ElementsAre("cat.jpg", "copy.jpg"));
}

TEST_F(CommandLineTest, TakesUrlsInEveryFormThatItPrints) {
  Write("a.txt", "content");
  EXPECT_EQ(Do({"put", "a.txt", "--name", "key"}), "/photos/key\n");
  for (const std::string& form : {std::string("/photos/key"), std::string("photos/key"), Url() + "/photos/key",
                                  Line(Do({"--quiet", "sign", "/photos/key"}))}) {
    EXPECT_EQ(Do({"cat", form}), "content") << form;
  }
  EXPECT_EQ(Do({"--pool", "photos", "cat", "key"}), "content");
  for (const char* form : {"key", "", "/", "/photos", "/photos/", "/photos/a/b", "/photos/a b", "/photos/a#b"}) {
    EXPECT_THAT(Failure(Run({"cat", form})), MatchesRegex("2 tansy: \".*\" is no object URL\n.*\n")) << form;
  }
}

TEST_F(CommandLineTest, FreesTheBytesOnRequest) {
  Write("a.txt", "content");
  const std::string first = Line(Do({"put", "a.txt"}));
  const std::string second = Line(Do({"put", "a.txt"}));
  EXPECT_EQ(Do({"rm", "--bytes", first, second}), "removed " + first + "\nremoved " + second + "\n");
  EXPECT_EQ(Failure(Run({"rm", "--bytes", first})).substr(0, 9), "3 tansy: ");
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(Query(server_.Data("catalogue.db"), "select count(*) from local_object"), ElementsAre("0"));
}

TEST_F(CommandLineTest, GoesOnWithTheOtherObjectsWhenOneIsNotThere) {
  Write("a.txt", "content");
  Do({"put", "a.txt", "--name", "one"});
  Do({"put", "a.txt", "--name", "two"});
  const Ended ended = Run({"rm", "/photos/one", "/photos/missing", "/photos/two"});
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.out, "removed /photos/one\nremoved /photos/two\n");
  EXPECT_THAT(ended.err, StartsWith("tansy: /photos/missing: there is no such object (" + Url() + ": NoSuchKey)"));
}

TEST_F(CommandLineTest, SignsALinkThatAnybodyCanOpen) {
  Write("a.txt", "content");
  Do({"put", "a.txt", "--name", "cat.jpg"});
  const Ended signed_link = Run({"sign", "/photos/cat.jpg"});
  EXPECT_THAT(Failure(signed_link), StartsWith("0 note: this link does not end"));
  const std::string link = Line(signed_link.out);
  ASSERT_THAT(link, StartsWith(Url() + "/photos/cat.jpg?"));
  const std::string target = link.substr(Url().size());
  const Reply reply = SendPlain("GET", target);
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "content");
  EXPECT_EQ(Do({"--json", "sign", "/photos/cat.jpg"}),
            "{\"url\": \"/photos/cat.jpg\", \"link\": \"" + link + "\", \"expires\": 0}\n");
  // It is good for this object alone, and for reading it.
  std::string other = target;
  other.replace(other.find("cat.jpg"), 7, "dog.jpg");
  EXPECT_EQ(Outcome(SendPlain("GET", other)), "403 AccessDenied");
  EXPECT_EQ(Outcome(SendPlain("DELETE", target)), "403 AccessDenied");
  EXPECT_EQ(Get("/photos/cat.jpg"), "content");
}

TEST_F(CommandLineTest, SignsALinkThatEnds) {
  Write("a.txt", "content");
  Do({"put", "a.txt", "--name", "cat.jpg"});
  const auto target = [this](const std::string& duration) {
    return Line(Do({"--quiet", "sign", "--expires", duration, "/photos/cat.jpg"})).substr(Url().size());
  };
  const std::string long_link = target("1h");
  EXPECT_EQ(SendPlain("GET", long_link).body, "content");
  // Its end cannot be moved or taken away, also not behind the signature.
  const std::size_t digits = long_link.find("expires=") + 8;
  std::string moved = long_link;
  moved[digits] = '9';
  EXPECT_EQ(Outcome(SendPlain("GET", moved)), "403 AccessDenied");
  const std::string short_link = target("1s");
  EXPECT_TRUE(WaitUntil([&] { return Outcome(SendPlain("GET", short_link)) == "403 AccessDenied"; }));
  EXPECT_EQ(Outcome(SendPlain("GET", short_link + "&expires=9999999999")), "403 AccessDenied");
  EXPECT_EQ(SendPlain("GET", long_link).status, 200);
}

TEST_F(CommandLineTest, AsksForTheBestNode) {
  const std::string address = "127.0.0.1:" + std::to_string(server_.GetObjectPort());
  EXPECT_EQ(Do({"bestnode"}), address + "\n");
  EXPECT_EQ(Do({"--json", "--pool", "photos", "bestnode"}), "{\"location\": \"" + address + "\"}\n");
}

TEST_F(CommandLineTest, ListsThePartsOfAnUnfinishedUpload) {
  const std::string id = XmlValue(Send("POST", "/photos/film?uploads").body, "UploadId");
  ASSERT_NE(id, "");
  EXPECT_EQ(Do({"parts", "/photos/film", id}), "1  0\n") << "an upload begins with a first part of no bytes";
  for (int part = 1; part <= 3; ++part) {
    EXPECT_EQ(Outcome(Send("POST", "/photos/film?upload_id=" + id + "&part_number=" + std::to_string(part),
                           std::string(part == 3 ? 5 : 1000, 'x'))),
              "200");
  }
  EXPECT_EQ(Do({"parts", "/photos/film", id}), "1  1000\n2  1000\n3  5\n");
  EXPECT_EQ(Do({"parts", "/photos/film", id, "--json"}),
            "{\"part\": 1, \"size\": 1000}\n{\"part\": 2, \"size\": 1000}\n{\"part\": 3, \"size\": 5}\n");
  EXPECT_THAT(Failure(Run({"parts", "/photos/film", "gone"})), StartsWith("1 tansy: upload gone: "));
  EXPECT_THAT(Failure(Run({"parts", "/photos/film", "a&b"})), StartsWith("2 tansy: "));
}

TEST_F(CommandLineTest, TellsItsVersion) {
  EXPECT_THAT(Do({"--version"}), MatchesRegex("tansy [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_THAT(Do({"version"}), MatchesRegex("tansy   [0-9]+\\.[0-9]+\\.[0-9]+\nserver  .+\n"));
  EXPECT_THAT(Do({"version", "--json"}), MatchesRegex("\\{\"tansy\": \"[0-9.]+\", \"server\": \".*\"\\}\n"));
}

TEST_F(CommandLineTest, TellsProgramsWhatItDid) {
  Write("a.txt", "12345");
  EXPECT_THAT(Do({"put", "--json", "a.txt", "--name", "key"}),
              MatchesRegex("\\{\"file\": \"a\\.txt\", \"url\": \"/photos/key\", \"size\": 5, "
                           "\"seconds\": [0-9]+\\.[0-9]{3}\\}\n"));
  EXPECT_EQ(Do({"stat", "--json", "/photos/key"}), "{\"url\": \"/photos/key\", \"size\": 5}\n");
  EXPECT_EQ(Do({"get", "--json", "/photos/key", "b.txt"}),
            "{\"url\": \"/photos/key\", \"file\": \"b.txt\", \"size\": 5}\n");
  EXPECT_EQ(Do({"rm", "--json", "/photos/key"}), "{\"url\": \"/photos/key\", \"removed\": true}\n");
}

TEST_F(CommandLineTest, IsQuietOnRequest) {
  Write("a.txt", "12345");
  EXPECT_EQ(Do({"--quiet", "put", "a.txt", "--name", "key"}), "/photos/key\n") << "that is the result";
  EXPECT_EQ(Do({"--quiet", "get", "/photos/key", "b.txt"}), "");
  EXPECT_EQ(Do({"--quiet", "rm", "/photos/key"}), "");
  EXPECT_EQ(Read("b.txt"), "12345");
}

TEST_F(CommandLineTest, EndsWithTheCodeOfWhatHappened) {
  Write("a.txt", "a");
  EXPECT_EQ(Run({"put", "a.txt", "--name", "key"}).code, 0);
  EXPECT_EQ(Run({"mb", "photos"}).code, 1);
  EXPECT_EQ(Run({"put"}).code, 2);
  EXPECT_EQ(Run({"nonsense"}).code, 2);
  EXPECT_EQ(Run({"cat", "/photos/missing"}).code, 3);
  EXPECT_EQ(Run({"put", "missing.txt"}).code, 3);
  EXPECT_EQ(Run({"--pool", "missing", "put", "a.txt"}).code, 3);
  Invocation denied = Tansy({"put", "a.txt"});
  denied.environment["TANSY_SECRET_KEY"] = "wrong";
  denied.environment["TANSY_POOL"] = "photos";
  EXPECT_EQ(Failure(RunProgram(denied)), "4 tansy: a.txt: the server denies access (" + Url() +
                                             ": AccessDenied)\n  check the keys with 'tansy doctor'\n");
  for (const char* command : {"get", "cat", "stat", "rm"}) {
    denied.arguments = {command, "/photos/key"};
    EXPECT_EQ(RunProgram(denied).code, 4) << command;
  }
  Invocation full = Tansy({"cat", "/photos/key"});
  full.output = "/dev/full";
  EXPECT_EQ(Failure(RunProgram(full)), "5 tansy: standard output: No space left on device\n");
  ASSERT_TRUE(server_.Stop());
  for (const char* command : {"get", "cat", "stat", "rm"}) {
    EXPECT_THAT(Failure(Run({command, "/photos/key"})),
                MatchesRegex("6 tansy: /photos/key: " + Url() +
                             ": no connection: Connection refused\n  is the server "
                             "running, and is the address right\\? 'tansy doctor' looks closer\n"))
        << command;
  }
  EXPECT_EQ(Run({"buckets"}).code, 6);
  EXPECT_EQ(Run({"--pool", "photos", "put", "a.txt"}).code, 6);
}

TEST_F(CommandLineTest, ExaminesTheServer) {
  const Ended fine = Run({"doctor"});
  EXPECT_EQ(fine.code, 0) << fine.out;
  for (const char* subject : {"settings", "address", "keys", "clock", "bucket", "uploads", "space"}) {
    EXPECT_THAT(fine.out, testing::ContainsRegex("ok +" + std::string(subject) + " ")) << subject;
  }
  for (const std::string& line : Lines(Do({"doctor", "--json"}))) {
    EXPECT_THAT(line, MatchesRegex("\\{\"state\": \"(ok|warning)\", \"subject\": \"[a-z0-9]+\", \"text\": \".+\", "
                                   "\"advice\": \".*\"\\}"));
  }
  const Ended bucket = Run({"--pool", "nowhere", "doctor", "--quiet"});
  EXPECT_EQ(bucket.code, 3);
  EXPECT_THAT(bucket.out, HasSubstr("there is no bucket nowhere"));
  EXPECT_THAT(bucket.out, HasSubstr("-> make it: tansy mb nowhere"));
  EXPECT_THAT(bucket.out, testing::Not(HasSubstr("ok"))) << "only what is wrong";
  Invocation keys = Tansy({"doctor"});
  keys.environment["TANSY_SECRET_KEY"] = "wrong";
  const Ended denied = RunProgram(keys);
  EXPECT_EQ(denied.code, 4);
  EXPECT_THAT(denied.out, HasSubstr("the server denies access with access key " + Keys().access_key));
  EXPECT_THAT(denied.out, testing::Not(HasSubstr("wrong"))) << "the secret key is nobody's business";
  ASSERT_TRUE(server_.Stop());
  const Ended down = Run({"doctor"});
  EXPECT_EQ(down.code, 6);
  EXPECT_THAT(down.out, HasSubstr("-> is the server running there, and are host and port right?"));
}

}  // namespace
}  // namespace system_tests
