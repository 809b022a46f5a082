// Keys whose objects the object protocol stored under names of its own spelling.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "S3ServerFixture.h"
#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage::S3 {
namespace {

using Texts = std::vector<std::string>;

// A key, and a name for it as a client of the object protocol may write it.
struct Spelling {
  const char* key;
  const char* name;
};
// '!' and '$' come before '%' in the order of texts, '(' behind it.
constexpr Spelling kSpellings[] = {{"r(1).pdf", "r(1).pdf"}, {"a/b", "a%2fb"},     {"price$1", "price$1"},
                                   {"wow!", "wow!"},         {"plain", "%70lain"}, {"100%", "100%"}};

class S3NamesTest : public S3ServerTest {
 protected:
  std::string PathOfName(const std::string& name) const { return "/" + bucket_ + "/" + name; }
  void StoreByName(const std::string& name, const std::string& bytes) {
    EXPECT_EQ(Put(PathOfName(name), bytes).response.status, 200) << name;
  }
  FakeAnswer RemoveKeys(const Texts& keys, const std::string& more = {}) {
    std::string list = "<Delete>" + more;
    for (const std::string& key : keys) {
      list += "<Object><Key>" + key + "</Key></Object>";
    }
    return Do({.method = "POST", .path = "/" + bucket_, .query = "delete", .body = list + "</Delete>"});
  }
  // Uploads the bytes as the one part of an object.
  std::string Complete(const std::string& key, const std::string& bytes) {
    const std::string id =
        Values(Do({.method = "POST", .path = PathOf(key), .query = "uploads"}).body, "UploadId").at(0);
    Do({.method = "PUT", .path = PathOf(key), .query = "partNumber=1&uploadId=" + id, .body = bytes});
    return Outcome(Do({.method = "POST",
                       .path = PathOf(key),
                       .query = "uploadId=" + id,
                       .body = "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>" + Md5(bytes) +
                               "</ETag></Part></CompleteMultipartUpload>"}));
  }
  static std::string TagOfOnePart(const std::string& bytes) {
    return '"' + ToHex(DigestOf(EDigest::kMd5, DigestOf(EDigest::kMd5, bytes))) + "-1\"";
  }
  // What the bucket shows of a key: "size etag", or "none".
  std::string Listed(const std::string& key) {
    const std::string xml = List("prefix=" + PercentEncode(key)).body;
    const Texts keys = Values(xml, "Key");
    EXPECT_LE(keys.size(), 1U) << key;
    return keys.empty() ? "none" : Values(xml, "Size").at(0) + " " + Values(xml, "ETag").at(0);
  }
  std::string Head(const std::string& key) {
    const FakeAnswer head = Do({.method = "HEAD", .path = PathOf(key)});
    if (head.response.status != 200) {
      return "none";
    }
    const std::string& tag = head.response.headers.at("ETag");
    return std::to_string(head.total_size) + " &quot;" + tag.substr(1, tag.size() - 2) + "&quot;";
  }
  // Both protocols and the listing show these bytes, and the bucket has no other name for the key.
  void ExpectOne(const Spelling& spelling, const std::string& bytes) {
    EXPECT_EQ(GetKey(spelling.key).body, bytes) << spelling.key;
    EXPECT_EQ(Get(PathOfName(spelling.name)).body, bytes) << spelling.key;
    EXPECT_EQ(Listed(spelling.key), Head(spelling.key)) << spelling.key;
    EXPECT_EQ(Names(spelling.key), Texts{spelling.name});
  }
  void ExpectNone(const Spelling& spelling) {
    EXPECT_EQ(Outcome(GetKey(spelling.key)), "404 NoSuchKey") << spelling.key;
    EXPECT_EQ(Get(PathOfName(spelling.name)).response.status, 404) << spelling.key;
    EXPECT_EQ(Listed(spelling.key), "none");
    EXPECT_EQ(Names(spelling.key), Texts{});
  }
  // The names in the catalogue that stand for a key.
  Texts Names(const std::string& key) {
    Texts names;
    catalogue_.ShowObjectsFrom(NameOfKey(key), true, bucket_, [&](const CPackedObject& object) {
      const bool is_of_key = KeyOfName(std::string(object.Name())) == key;
      if (is_of_key) {
        names.emplace_back(object.Name());
      }
      return is_of_key;
    });
    return names;
  }
};

TEST_F(S3NamesTest, PutReplacesWhatTheObjectProtocolStored) {
  for (const Spelling& spelling : kSpellings) {
    StoreByName(spelling.name, "by name");
    EXPECT_EQ(Outcome(PutKey(spelling.key, "by S3", {{"Content-Type", "text/x"}})), "200");
    ExpectOne(spelling, "by S3");
    EXPECT_EQ(GetKey(spelling.key).response.headers.at("Content-Type"), "text/x");
    StoreByName(spelling.name, "by name again");
    ExpectOne(spelling, "by name again");
  }
}

TEST_F(S3NamesTest, AStreamReplacesWhatTheObjectProtocolStored) {
  const std::string body = Pattern(5 * kMebibyte);
  StoreByName("r(1)", "by name");
  EXPECT_EQ(Outcome(Stream(SignedCall({.method = "PUT", .path = PathOf("r(1)")}), body)), "200");
  EXPECT_TRUE(Get(PathOfName("r(1)")).body == body);
  EXPECT_EQ(Names("r(1)"), Texts{"r(1)"});
}

TEST_F(S3NamesTest, RemovedMeansGone) {
  for (const Spelling& spelling : kSpellings) {
    StoreByName(spelling.name, "by name");
    EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = PathOf(spelling.key)})), "204");
    ExpectNone(spelling);
  }
}

TEST_F(S3NamesTest, NoOlderBytesComeBackAfterARemoval) {
  for (const bool in_a_list : {false, true}) {
    for (const Spelling& spelling : kSpellings) {
      StoreByName(spelling.name, "old");
      StoreByName(NameOfKey(spelling.key), "new");
      EXPECT_EQ(GetKey(spelling.key).body, "new");
      if (in_a_list) {
        EXPECT_EQ(Values(RemoveKeys({spelling.key}).body, "Deleted").size(), 1U);
      } else {
        EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = PathOf(spelling.key)})), "204");
      }
      ExpectNone(spelling);
    }
  }
}

TEST_F(S3NamesTest, AListRemovesWhatTheObjectProtocolStored) {
  Texts keys = {"none", "r(1).pdf"};  // which is named twice
  for (const Spelling& spelling : kSpellings) {
    StoreByName(spelling.name, "by name");
    keys.emplace_back(spelling.key);
  }
  const FakeAnswer answer = RemoveKeys(keys);
  EXPECT_EQ(Values(answer.body, "Deleted").size(), keys.size()) << answer.body;
  EXPECT_EQ(Values(answer.body, "Error"), Texts{});
  for (const Spelling& spelling : kSpellings) {
    ExpectNone(spelling);
  }
  EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = "/" + bucket_})), "204") << "the bucket is empty";
}

TEST_F(S3NamesTest, ConditionsAreAboutTheObjectThatIsShown) {
  for (const Spelling& spelling : kSpellings) {
    StoreByName(spelling.name, "by name");
    EXPECT_EQ(Outcome(PutKey(spelling.key, "x", {{"If-None-Match", "*"}})), "412 PreconditionFailed") << spelling.key;
    EXPECT_EQ(Outcome(PutKey(spelling.key, "x", {{"If-Match", Md5("other")}})), "412 PreconditionFailed");
    const std::string tag = GetKey(spelling.key).response.headers.at("ETag");
    EXPECT_EQ(Outcome(PutKey(spelling.key, "by S3", {{"If-Match", tag}})), "200") << spelling.key;
    ExpectOne(spelling, "by S3");
  }
}

TEST_F(S3NamesTest, CopiesReplaceWhatTheObjectProtocolStored) {
  PutKey("from", "copied");
  StoreByName("r(1)", "by name");
  EXPECT_EQ(Outcome(PutKey("r(1)", "", {{"x-amz-copy-source", PathOf("from")}})), "200");
  ExpectOne({"r(1)", "r(1)"}, "copied");
  // Onto itself.
  EXPECT_EQ(
      Outcome(PutKey(
          "r(1)", "",
          {{"x-amz-copy-source", PathOf("r(1)")}, {"x-amz-metadata-directive", "REPLACE"}, {"x-amz-meta-m", "1"}})),
      "200");
  ExpectOne({"r(1)", "r(1)"}, "copied");
  EXPECT_EQ(GetKey("r(1)").response.headers.at("x-amz-meta-m"), "1");
}

TEST_F(S3NamesTest, ACompletionReplacesWhatTheObjectProtocolStored) {
  StoreByName("r(1)", "by name");
  const std::string id =
      Values(Do({.method = "POST", .path = PathOf("r(1)"), .query = "uploads"}).body, "UploadId").at(0);
  Do({.method = "PUT", .path = PathOf("r(1)"), .query = "partNumber=1&uploadId=" + id, .body = "in parts"});
  const S3Call complete = {.method = "POST",
                           .path = PathOf("r(1)"),
                           .query = "uploadId=" + id,
                           .body = "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>" + Md5("in parts") +
                                   "</ETag></Part></CompleteMultipartUpload>"};
  const FakeAnswer done = Do(complete);
  EXPECT_EQ(Outcome(done), "200") << done.body;
  ExpectOne({"r(1)", "r(1)"}, "in parts");
  EXPECT_EQ(Outcome(Do(complete)), "200") << "its answer was lost";
}

// Two names with different bytes: whatever is shown of the key is of the same one.
TEST_F(S3NamesTest, ListsAndReadsTheSameObject) {
  for (const Spelling& spelling : kSpellings) {
    StoreByName(spelling.name, "0123456789");
    EXPECT_EQ(GetKey(spelling.key).body, "0123456789");
    EXPECT_EQ(Listed(spelling.key), Head(spelling.key));
    StoreByName(NameOfKey(spelling.key), "01234567890123456789");
    EXPECT_EQ(GetKey(spelling.key).body, "01234567890123456789");
    EXPECT_EQ(Listed(spelling.key), Head(spelling.key)) << spelling.key;
    EXPECT_EQ(
        Values(List("list-type=2&start-after=" + PercentEncode(spelling.key) + "&prefix=" + PercentEncode(spelling.key))
                   .body,
               "Key"),
        Texts{});
  }
}

// A listing is what a model says: one entry per key, of the object that the key has.
TEST_F(S3NamesTest, ListsWhatAModelLists) {
  std::mt19937 random(7);
  const Texts pieces = {"a", "%61", "!", "%21", "%2F", "%2f", "b", "%zz"};
  std::map<std::string, std::pair<std::string, std::size_t>> model;  // name and size by key
  for (std::size_t size = 1; size <= 150; ++size) {
    std::string name;
    for (std::size_t i = 1 + random() % 4; i > 0; --i) {
      name += pieces[random() % pieces.size()];
    }
    NewObject(bucket_, name, std::string(size, 'x'));
    const std::string key = KeyOfName(name);
    const auto there = model.find(key);
    const bool goes_first = there == model.end() || name == NameOfKey(key) ||
                            (there->second.first != NameOfKey(key) && name <= there->second.first);
    if (goes_first) {
      model[key] = {name, size};
    }
  }
  for (int round = 0; round < 60; ++round) {
    const std::string prefix = std::string("a!/b").substr(random() % 4, random() % 2);
    const std::string after = random() % 2 == 0 ? "" : std::next(model.begin(), random() % model.size())->first;
    const bool is_grouped = random() % 2 == 0;
    const std::size_t most = 1 + random() % 40;
    Texts expected;
    for (const auto& [key, object] : model) {
      const std::size_t slash = is_grouped ? key.find('/', prefix.size()) : std::string::npos;
      const std::string shown =
          slash == std::string::npos ? key + " " + std::to_string(object.second) : key.substr(0, slash + 1);
      const bool is_listed = key.starts_with(prefix) && (slash == std::string::npos ? key > after : shown > after);
      if (is_listed && (expected.empty() || expected.back() != shown)) {
        expected.push_back(shown);
      }
    }
    Texts listed;
    std::string token;
    do {
      const FakeAnswer page = List(
          "list-type=2&max-keys=" + std::to_string(most) + "&prefix=" + PercentEncode(prefix) +
          (is_grouped ? "&delimiter=%2F" : "") +
          (token.empty() ? "&start-after=" + PercentEncode(after) : "&continuation-token=" + PercentEncode(token)));
      ASSERT_EQ(Outcome(page), "200");
      const Texts keys = Values(page.body, "Key");
      const Texts sizes = Values(page.body, "Size");
      for (std::size_t i = 0; i < keys.size(); ++i) {
        listed.push_back(keys[i] + " " + sizes.at(i));
      }
      const Texts prefixes = Values(page.body.substr(page.body.find("</Prefix>") + 1), "Prefix");
      listed.insert(listed.end(), prefixes.begin(), prefixes.end());
      const Texts next = Values(page.body, "NextContinuationToken");
      token = next.empty() ? "" : next[0];
    } while (!token.empty());
    std::sort(listed.begin(), listed.end());
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(listed, expected) << "prefix " << prefix << ", after " << after << ", grouped " << is_grouped;
  }
}

TEST_F(S3NamesTest, ListsOfKeysAreRemovedInFewCommits) {
  Texts keys;
  for (int i = 0; i < 1000; ++i) {
    keys.push_back("key-" + std::to_string(i));
    NewObject(bucket_, keys.back(), "x");
  }
  const int before = Database().CountWrites();
  const FakeAnswer answer = RemoveKeys(keys);
  EXPECT_EQ(Values(answer.body, "Deleted").size(), 1000U);
  EXPECT_LE(Database().CountWrites() - before, 8);
  EXPECT_EQ(Values(List("").body, "Key"), Texts{});
}

TEST_F(S3NamesTest, SaysWhatCouldNotBeRemoved) {
  PutKey("a", "x");
  PutKey("b", "x");
  Database().FailStatementsWith("DELETE FROM platform.local_object ");
  const FakeAnswer answer = RemoveKeys({"a", "b"}, "<Quiet>true</Quiet>");
  Database().Heal();
  EXPECT_EQ(Values(answer.body, "Error").size(), 2U);
  EXPECT_EQ(Values(answer.body, "Code"), (Texts{"InternalError", "InternalError"}));
  EXPECT_EQ(GetKey("a").body + GetKey("b").body, "xx");
  EXPECT_EQ(Values(RemoveKeys({"a", "b"}, "<Quiet>true</Quiet>").body, "Key"), Texts{});
  EXPECT_EQ(Values(List("").body, "Key"), Texts{});
}

TEST_F(S3NamesTest, RemovesOnlyTheBytesThatTheClientMeans) {
  const auto remove = [this](const TansyNet::Headers& headers) {
    return Outcome(Do({.method = "DELETE", .path = PathOf("k"), .headers = headers}));
  };
  PutKey("k", "hello");
  EXPECT_EQ(remove({{"If-Match", Md5("other")}}), "412 PreconditionFailed");
  EXPECT_EQ(remove({{"x-amz-if-match-size", "5"}}), "501 NotImplemented");
  EXPECT_EQ(remove({{"x-amz-if-match-last-modified-time", "x"}}), "501 NotImplemented");
  EXPECT_EQ(GetKey("k").body, "hello");
  EXPECT_EQ(remove({{"If-Match", Md5("hello")}}), "204");
  EXPECT_EQ(remove({{"If-Match", "*"}}), "412 PreconditionFailed") << "there is none";
  StoreByName("r(1)", "by name");
  EXPECT_EQ(Outcome(Do({.method = "DELETE",
                        .path = PathOf("r(1)"),
                        .headers = {{"If-Match", GetKey("r(1)").response.headers.at("ETag")}}})),
            "204");
  ExpectNone({"r(1)", "r(1)"});
}

TEST_F(S3NamesTest, AListRemovesOnlyTheBytesThatTheClientMeans) {
  for (const char* const key : {"a", "b", "c", "d"}) {
    PutKey(key, key);
  }
  const FakeAnswer answer = Do({.method = "POST",
                                .path = "/" + bucket_,
                                .query = "delete",
                                .body = "<Delete><Object><Key>a</Key><ETag>" + Md5("a") +
                                        "</ETag></Object><Object><Key>b</Key><ETag>" + Md5("other") +
                                        "</ETag></Object><Object><Key>c</Key><Size>1</Size></Object>"
                                        "<Object><Key>d</Key></Object></Delete>"});
  EXPECT_EQ(Values(answer.body, "Key"), (Texts{"a", "b", "c", "d"}));
  EXPECT_EQ(Values(answer.body, "Code"), (Texts{"PreconditionFailed", "NotImplemented"}));
  EXPECT_EQ(Values(List("").body, "Key"), (Texts{"b", "c"}));
}

// Writers by both protocols, removers and readers of one key that two names stand for.
TEST_F(S3NamesTest, BothProtocolsWorkOnTwoNamesOfOneKeyAtOnce) {
  constexpr int kThreads = 6;
  constexpr int kRounds = 60;
  std::atomic<int> failed{0};
  std::atomic<int> torn{0};
  const auto work = [&](int thread) {
    std::mt19937 random(static_cast<unsigned>(thread));
    for (int round = 0; round < kRounds; ++round) {
      const std::string body = std::to_string(thread) + "-" + std::to_string(round);
      switch (random() % 8) {
        case 6:
          if (const std::string outcome = Outcome(
                  PutKey("k(1)", "", {{"x-amz-copy-source", PathOf("k(1)")}, {"x-amz-metadata-directive", "REPLACE"}}));
              outcome != "404 NoSuchKey") {
            failed += outcome == "200" || outcome == "503 SlowDown" ? 0 : 1;
          }
          break;
        case 7:
          failed += Complete("k(1)", body) == "200" ? 0 : 1;
          break;
        case 0:
          failed += PutKey("k(1)", body).response.status == 200 ? 0 : 1;
          break;
        case 1:
          failed += Put(PathOfName("k(1)"), body).response.status == 200 ? 0 : 1;
          break;
        case 2:
          failed += Do({.method = "DELETE", .path = PathOf("k(1)")}).response.status == 204 ? 0 : 1;
          break;
        case 3:
          failed += Values(RemoveKeys({"k(1)", "other"}).body, "Deleted").size() == 2 ? 0 : 1;
          break;
        case 4:
          failed += Outcome(List("list-type=2")) == "200" ? 0 : 1;
          break;
        default:
          if (const FakeAnswer got = GetKey("k(1)"); got.response.status == 200) {
            const std::string& tag = got.response.headers.at("ETag");
            torn += tag == Md5(got.body) || tag == TagOfOnePart(got.body) ? 0 : 1;
          } else {
            failed += got.response.status == 404 ? 0 : 1;
          }
      }
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(work, i);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(torn, 0);
  EXPECT_LE(Values(List("").body, "Key").size(), 1U);
  EXPECT_EQ(Listed("k(1)"), Head("k(1)"));
  EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = PathOf("k(1)")})), "204");
  ExpectNone({"k(1)", "k(1)"});
}

// Of those who want to be the first, one is, whatever name the others use.
TEST_F(S3NamesTest, OneOfManyNewObjectsIsStored) {
  for (int round = 0; round < 10; ++round) {
    const std::string key = "k(" + std::to_string(round) + ")";
    std::atomic<int> stored{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] {
        stored += PutKey(key, std::to_string(i), {{"If-None-Match", "*"}}).response.status == 200 ? 1 : 0;
      });
    }
    threads.emplace_back([&] { StoreByName(key, "by name"); });
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_LE(stored, 1);
    EXPECT_EQ(Outcome(PutKey(key, "late", {{"If-None-Match", "*"}})), "412 PreconditionFailed");
    EXPECT_EQ(Get(PathOfName(key)).body, "by name");
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
