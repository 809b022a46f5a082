// Which request reaches which handler, and what every error answer looks like.
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;

class RoutingTest : public TansydTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    MakeBucket("b");
    Put("/b/o", "0123456789");
  }
  std::string OutcomeOf(const std::string& method, const std::string& target, const std::string& body = "") {
    return Outcome(Send(method, target, body));
  }
  std::string NewTask(const std::string& target) {
    return XmlValue(Send("POST", target + "?uploads").body, "UploadId");
  }
};

TEST_F(RoutingTest, EveryRowReachesItsHandler) {
  const Reply metadata = Send("GET", "/b/o?metadata");
  EXPECT_EQ(metadata.Header("Object-Size"), "10");
  EXPECT_EQ(metadata.body, "");
  EXPECT_EQ(OutcomeOf("PUT", "/new", "<CreateBucketConfiguration/>"), "200");
  EXPECT_THAT(Get("/b?property"), HasSubstr("<Bucket><Owner>admin</Owner><Name>b</Name>"));
  EXPECT_THAT(Get("/"), HasSubstr("<ListAllMyBucketsResult><TotalNum>2</TotalNum>"));
  EXPECT_THAT(Get("/b/o?bestnode"), HasSubstr("<BestNodeInfo><Location>127.0.0.1:"));
  EXPECT_EQ(OutcomeOf("PUT", "/b/p", "x"), "200");
  const std::string task = NewTask("/b/m");
  EXPECT_EQ(task.size(), 36U);
  EXPECT_EQ(OutcomeOf("POST", "/b/m?upload_id=" + task + "&part_number=1", "part"), "200");
  EXPECT_THAT(Get("/b/m?upload_id=" + task), HasSubstr("<TotalNum>1</TotalNum>"));
  EXPECT_EQ(OutcomeOf("POST", "/b/m?upload_id=" + task,
                      "<CompleteMultipartUpload><TotalPartNum>1</TotalPartNum><Part><PartNumber>1</PartNumber>"
                      "<PartSize>4</PartSize></Part></CompleteMultipartUpload>"),
            "200");
  EXPECT_EQ(Get("/b/m"), "part");
  EXPECT_EQ(OutcomeOf("DELETE", "/b/m?deletefile"), "200");
  EXPECT_EQ(OutcomeOf("DELETE", "/b/o"), "200");
}

TEST_F(RoutingTest, RowsThatMatchInPartFallThrough) {
  // A query that is not the one meant: the download takes every GET of an object.
  EXPECT_EQ(Get("/b/o?metadata=1"), "0123456789");
  EXPECT_EQ(OutcomeOf("GET", "/b/o?property"), "404 NoSuchBucket") << "the bucket's row takes it, for a bucket b/o";
  EXPECT_EQ(Get("/b/o?uploads"), "0123456789");
}

TEST_F(RoutingTest, WhatNoRowTakesIsNotSupported) {
  const std::vector<std::pair<std::string, std::string>> rows = {{"POST", "/b/o?metadata"},
                                                                 {"POST", "/b/o"},
                                                                 {"PUT", "/b/o?x"},
                                                                 {"PUT", "/b?x"},
                                                                 {"GET", "/b"},
                                                                 {"GET", "/b?x"},
                                                                 {"GET", "/b?bestnode"},
                                                                 {"POST", "/b?uploads"},
                                                                 {"POST", "/b"},
                                                                 {"DELETE", "/b"},
                                                                 {"GET", "/b/o/x"},
                                                                 {"GET", "/b/o/"},
                                                                 {"PUT", "/b/o/x?metadata"},
                                                                 {"OPTIONS", "/b/o"},
                                                                 {"PATCH", "/b/o"},
                                                                 {"GET", "/?x"},
                                                                 {"PUT", "/"},
                                                                 {"POST", "/b/o?upload_i=1"}};
  for (const auto& [method, target] : rows) {
    EXPECT_EQ(OutcomeOf(method, target), "400 URLNotSupport") << method << " " << target;
  }
}

TEST_F(RoutingTest, ErrorAnswersAreAllOfOneForm) {
  const Reply reply = Send("GET", "/b/none");
  EXPECT_EQ(reply.status, 404);
  EXPECT_EQ(reply.body, ErrorXml("NoSuchKey"));
  EXPECT_EQ(reply.Header("Content-Type"), "application/xml; charset=utf-8");
  EXPECT_EQ(reply.Header("Cache-Control"), "no-cache");
  EXPECT_THAT(reply.Header("Date"), testing::MatchesRegex("[A-Z][a-z]{2}, [ 0-9][0-9] [A-Z][a-z]{2} 20[0-9]{2} "
                                                          "[0-9:]{8} GMT"));
}

TEST_F(RoutingTest, ErrorRowsHaveTheirStatusAndText) {
  const std::string long_key(129, 'k');
  const std::string task = NewTask("/b/m");
  struct Row {
    std::string method;
    std::string target;
    std::string body;
    int status;
    std::string word;
  };
  const std::vector<Row> rows = {
      {"PUT", "/b", "<CreateBucketConfiguration/>", 409, "BucketAlreadyExists"},
      {"PUT", "/c", "this is no xml", 400, "InvalidXmlContent"},
      {"PUT", "/c", "", 400, "InvalidXmlContent"},
      {"PUT", "/b/" + long_key, "x", 400, "KeyTooLong"},
      {"POST", "/b/" + long_key + "?uploads", "", 400, "KeyTooLong"},
      {"PUT", "/none/o", "x", 404, "NoSuchBucket"},
      {"GET", "/none/o", "", 404, "NoSuchBucket"},
      {"GET", "/none?property", "", 404, "NoSuchBucket"},
      {"GET", "/none/o?bestnode", "", 404, "NoSuchBucket"},
      {"GET", "/b/none?metadata", "", 404, "NoSuchKey"},
      {"DELETE", "/b/none", "", 404, "NoSuchKey"},
      {"DELETE", "/b/none?deletefile", "", 404, "NoSuchKey"},
      {"POST", "/b/m?upload_id=" + task, "<x/>", 400, "InvalidXmlContent"},
      {"POST", "/b/m?upload_id=" + task + "&part_number=0", "x", 400, "InvalidHttpContent"},
      {"GET", "/b/m?upload_id=none", "", 400, "InvalidHttpContent"},
      {"PATCH", "/b/o", "", 400, "URLNotSupport"},
  };
  for (const Row& row : rows) {
    const Reply reply = Send(row.method, row.target, row.body);
    EXPECT_EQ(reply.status, row.status) << row.method << " " << row.target;
    EXPECT_EQ(reply.body, ErrorXml(row.word)) << row.method << " " << row.target;
  }
}

TEST_F(RoutingTest, SignaturesAreCheckedEverywhere) {
  const std::vector<std::pair<std::string, std::string>> rows = {{"GET", "/b/o?metadata"},
                                                                 {"PUT", "/new"},
                                                                 {"GET", "/b?property"},
                                                                 {"GET", "/"},
                                                                 {"GET", "/b/o?bestnode"},
                                                                 {"PUT", "/b/o"},
                                                                 {"POST", "/b/o?uploads"},
                                                                 {"GET", "/b/o"},
                                                                 {"DELETE", "/b/o?deletefile"},
                                                                 {"DELETE", "/b/o"},
                                                                 {"POST", "/b/o?upload_id=1&part_number=1"},
                                                                 {"POST", "/b/o?upload_id=1"},
                                                                 {"GET", "/b/o?upload_id=1"}};
  Keys wrong_secret;
  wrong_secret.secret_key += "x";
  Keys wrong_access;
  wrong_access.access_key += "x";
  for (const auto& [method, target] : rows) {
    EXPECT_EQ(Outcome(SendPlain(method, target)), "403 AccessDenied") << method << " " << target;
    for (const Keys& keys : {wrong_secret, wrong_access}) {
      EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), Signed({method, target, {}, ""}, keys))), "403 AccessDenied");
    }
  }
  EXPECT_EQ(Get("/b/o"), "0123456789") << "nothing was changed";
}

TEST_F(RoutingTest, SignedPartsOfARequestCannotBeChanged) {
  const Request good =
      Signed({"GET", "/b/o?x-one=1", {{"Content-Type", "a/b"}, {"x-qvs-b", "2"}, {"x-qvs-a", "1"}}, ""});
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), good)), "200");
  for (std::size_t i = 0; i < good.headers.size(); ++i) {
    Request changed = good;
    changed.headers[i].second += "x";
    EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), changed)), "403 AccessDenied") << changed.headers[i].first;
  }
  Request changed = good;
  changed.target = "/b/o?x-one=2";
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), changed)), "403 AccessDenied");
  changed = good;
  changed.method = "DELETE";
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), changed)), "403 AccessDenied");
}

TEST_F(RoutingTest, ATokenInTheQuerySignsToo) {
  const Keys keys;
  const std::string target = "/b/o?download=1";
  const std::string text = "quorvane " + keys.access_key + ":" + Signature("GET\n\n\n\n\n" + target, keys.secret_key);
  const std::string token = Base64(text);
  // A "+" would be read as a blank; escapes of "+", "/" and "=" are decoded.
  std::string escaped;
  for (const char c : token) {
    escaped += c == '+' ? "%2B" : std::string(1, c);
  }
  EXPECT_EQ(Outcome(SendPlain("GET", target + "&token=" + escaped)), "200");
  EXPECT_EQ(Outcome(SendPlain("GET", "/b/o?download=2&token=" + escaped)), "403 AccessDenied");
  EXPECT_EQ(Outcome(SendPlain("DELETE", target + "&token=" + escaped)), "403 AccessDenied");
  EXPECT_EQ(Outcome(SendPlain("GET", "/b/o?token=" + escaped)), "403 AccessDenied") << "first in the query, by design";
}

TEST_F(RoutingTest, BestNodeAnswersWithTheAddressThatTheClientUsed) {
  const std::string port = std::to_string(server_.GetObjectPort());
  const auto ask = [this](const std::string& host, HeaderList more = {}) {
    more.emplace_back("Host", host);
    return Send("GET", "/b/o?bestnode", "", more);
  };
  EXPECT_EQ(XmlValue(ask("127.0.0.1:" + port).body, "Location"), "127.0.0.1:" + port);
  EXPECT_EQ(XmlValue(ask("127.0.0.1", {{"ServerPort", port}}).body, "Location"), "127.0.0.1:" + port);
  EXPECT_EQ(XmlValue(ask("somewhere:" + port).body, "Location"), "127.0.0.1:" + port);
  EXPECT_EQ(Outcome(ask("127.0.0.1:1")), "400 InvalidHttpContent");
  EXPECT_EQ(Outcome(ask("127.0.0.1:0")), "400 InvalidHttpContent") << "no HTTPS port is no port 0";
  EXPECT_EQ(Outcome(ask("127.0.0.1")), "400 InvalidHttpContent");
}

class WanTest : public TansydTest {};

TEST_F(WanTest, ClientsFromOutsideAreSentToTheWanAddress) {
  Launch launch;
  launch.with_https = true;
  launch.arguments = {"--wan-ip",
                      "203.0.113.7",
                      "--wan-object-port",
                      "8080",
                      "--wan-picture-port",
                      "8081",
                      "--wan-object-https-port",
                      "8443",
                      "--wan-picture-https-port",
                      "8444"};
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("b");
  const auto ask = [this](const std::string& host) { return Send("GET", "/b/o?bestnode", "", {{"Host", host}}); };
  EXPECT_EQ(XmlValue(ask("cloud.example:8080").body, "Location"), "203.0.113.7:8080");
  EXPECT_EQ(XmlValue(ask("203.0.113.7:8443").body, "Location"), "203.0.113.7:8443");
  EXPECT_EQ(Outcome(ask("cloud.example:8081")), "400 InvalidHttpContent") << "the picture protocol's port";
  const std::string local = "127.0.0.1:" + std::to_string(server_.GetObjectHttpsPort());
  EXPECT_EQ(XmlValue(ask(local).body, "Location"), local);

  const auto ask_pictures = [this](const std::string& host) {
    return Call(server_.GetPicturePort(), Signed({"GET", "/Quorvane/BestNode", {{"Host", host}}, ""})).body;
  };
  EXPECT_THAT(ask_pictures("cloud.example:8444"), testing::AllOf(HasSubstr("203.0.113.7"), HasSubstr("8444")));
  EXPECT_THAT(ask_pictures("cloud.example:8080"), HasSubstr("-50003"));
}

}  // namespace
}  // namespace system_tests
