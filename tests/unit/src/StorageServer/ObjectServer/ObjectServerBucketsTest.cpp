// Buckets, and the best node.
#include <gmock/gmock.h>

#include <cstring>

#include "OSAL/Osal.h"
#include "ObjectServerFixture.h"
#include "TansyCloudStorage/ObjectServer.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::BucketInfo;
using ::testing::HasSubstr;

constexpr const char* kExists = "[%s]bucket already exist[%s].[%s(%d)]";
constexpr const char* kParseFailed = "[%s]parse add bucket msg error[%s][%s(%d)]";
constexpr const char* kInvalidXml = "[%s]invalid xml content[%s].[%s(%d)]";
constexpr const char* kAddFailed = "[%s]add bucket failed.[%s(%d)]";
constexpr const char* kNoHost = "[%s]no host.[%s(%d)]";
constexpr const char* kHostInvalid = "[%s]HandleGetBestNode, host field[%s] invalid.[%s(%d)]";
constexpr const char* kHostTrace =
    "[%s]HandleGetBestNode, host field[%s] host[%s] server_ip[%s]ip[%s] wan_ip[%s] upload_port[%d] wan_port[%d] "
    "https_port[%d] https_wan_port[%d]invalid.[%s(%d)]";

class CObjectServerBucketsTest : public CObjectServerTest {
 protected:
  BucketInfo Bucket(const std::string& name) {
    BucketInfo bucket;
    EXPECT_TRUE(catalogue_.GetBucketByName(bucket, name)) << name;
    return bucket;
  }
};

TEST_F(CObjectServerBucketsTest, ABucketIsMadeAsItsBodySays) {
  EXPECT_TRUE(IsXml(Put("/full",
                        "<CreateBucketConfiguration><Acl>7</Acl><LocationConstraint>here</LocationConstraint>"
                        "<Cycle>30</Cycle><Size>1000</Size></CreateBucketConfiguration>"),
                    ""));
  const BucketInfo bucket = Bucket("full");
  EXPECT_EQ(bucket.guid.size(), 36u);
  EXPECT_EQ(bucket.acl, 0u);
  EXPECT_EQ(bucket.location, "here");
  EXPECT_EQ(bucket.cycle, 30u);
  EXPECT_EQ(bucket.size, 1000u);
  EXPECT_EQ(Database().Column("SELECT location FROM platform.local_bucket WHERE name = 'full'", "location"),
            std::vector<std::string>{"here"});
}

TEST_F(CObjectServerBucketsTest, WhatTheBodyLeavesOut) {
  EXPECT_TRUE(IsXml(Put("/bare", "<CreateBucketConfiguration/>"), ""));
  EXPECT_EQ(Bucket("bare").location, "local");
  EXPECT_EQ(Bucket("bare").cycle, 0xFFFFFFFFu);
  EXPECT_EQ(Bucket("bare").size, 0xFFFFFFFFu);
  EXPECT_TRUE(IsXml(Put("/other-root", "<Anything><Cycle>1</Cycle></Anything>"), ""));
  EXPECT_EQ(Bucket("other-root").cycle, 0xFFFFFFFFu);
  EXPECT_TRUE(IsXml(Put("/odd",
                        "<CreateBucketConfiguration><LocationConstraint/><Cycle>x</Cycle><Size/>"
                        "</CreateBucketConfiguration>"),
                    ""));
  EXPECT_EQ(Bucket("odd").location, "");
  EXPECT_EQ(Bucket("odd").cycle, 0xFFFFFFFFu);
}

TEST_F(CObjectServerBucketsTest, ChecksInTheirOrder) {
  const std::string bucket = NewBucket();
  EXPECT_TRUE(IsError(SendMessage(Message({"PUT", "/" + bucket, "", "no xml", {}})), 403, "AccessDenied"));
  EXPECT_TRUE(IsError(Put("/" + bucket, "no xml"), 409, "BucketAlreadyExists"));
  EXPECT_THAT(log_->Text(kExists), HasSubstr("HandleCreateBucket]bucket already exist[" + bucket + "]."));
  EXPECT_EQ(log_->Count(kExists, logging::kError), 1u);
  EXPECT_EQ(log_->Count(kParseFailed), 0u);

  EXPECT_TRUE(IsError(Put("/fresh", "no xml"), 400, "InvalidXmlContent"));
  EXPECT_THAT(log_->Text(kParseFailed), HasSubstr("parse add bucket msg error[no xml]["));
  EXPECT_THAT(log_->Text(kInvalidXml), HasSubstr("invalid xml content[no xml]."));
  EXPECT_EQ(log_->Count(kParseFailed, logging::kError), 1u);
  EXPECT_EQ(log_->Count(kInvalidXml, logging::kError), 1u);
  EXPECT_TRUE(IsError(Put("/fresh", ""), 400, "InvalidXmlContent"));
  EXPECT_EQ(log_->Count(kInvalidXml, logging::kError), 2u);
  Database().FailStatementsWith("INSERT INTO platform.local_bucket");
  EXPECT_TRUE(IsError(Put("/fresh", "<CreateBucketConfiguration/>"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kAddFailed, logging::kError), 1u);
  EXPECT_FALSE(catalogue_.IsBucketExist("fresh"));
}

TEST_F(CObjectServerBucketsTest, Properties) {
  Put("/prop", "<CreateBucketConfiguration><LocationConstraint>there</LocationConstraint></CreateBucketConfiguration>");
  EXPECT_TRUE(IsXml(Get("/prop", "property"),
                    Xml("<Bucket><Owner>admin</Owner><Name>prop</Name><CreateDate>prop</CreateDate><Location>there"
                        "</Location><Acl>0</Acl><VersionPolicy>0</VersionPolicy><LifeCycle>-1</LifeCycle></Bucket>")));
  EXPECT_TRUE(IsError(Get("/no-such", "property"), 404, "NoSuchBucket"));
  EXPECT_TRUE(IsError(SendMessage(Message({"GET", "/no-such", "property", "", {}})), 403, "AccessDenied"));
}

TEST_F(CObjectServerBucketsTest, TheListIsInTheOrderOfTheNames) {
  EXPECT_TRUE(IsError(SendMessage(Message({"GET", "/", "", "", {}})), 403, "AccessDenied"));
  Put("/list-b", "<CreateBucketConfiguration><Size>7</Size></CreateBucketConfiguration>");
  Put("/list-a", "<CreateBucketConfiguration/>");
  const FakeAnswer answer = Get("/");
  std::map<std::string, BucketInfo> buckets;
  catalogue_.GetBucketList(buckets);
  std::string expected = "<ListAllMyBucketsResult><TotalNum>" + std::to_string(buckets.size()) +
                         "</TotalNum><Owner>admin</Owner><Buckets>";
  for (const auto& [name, bucket] : buckets) {
    const std::string size = std::to_string(static_cast<std::int32_t>(bucket.size));
    const std::string location =
        bucket.location.empty() ? "<Location/>" : "<Location>" + bucket.location + "</Location>";
    expected += "<Bucket><Name>" + name + "</Name><CreateDate>" + name + "</CreateDate>" + location +
                "<Acl>0</Acl><VersionPolicy>0</VersionPolicy><LifeCycle>-1</LifeCycle><Size>" + size +
                "</Size><FreeSize>" + size + "</FreeSize></Bucket>";
  }
  EXPECT_TRUE(IsXml(answer, Xml(expected + "</Buckets></ListAllMyBucketsResult>")));
  EXPECT_LT(answer.body.find("<Name>list-a<"), answer.body.find("<Name>list-b<"));
  EXPECT_THAT(answer.body, HasSubstr("<Size>7</Size><FreeSize>7</FreeSize>"));
  EXPECT_THAT(answer.body, HasSubstr("<Size>-1</Size><FreeSize>-1</FreeSize>"));
}

class CObjectServerBestNodeTest : public CObjectServerTest {
 protected:
  CObjectServerBestNodeTest() {
    OSAL_SetAdapterSource([](OSAL_AdapterInfo** adapters) {
      auto* adapter = new OSAL_AdapterInfo;
      adapter->ipv4 = new OSAL_Ipv4Address;
      std::strcpy(adapter->ipv4->text, "10.0.0.8");
      adapter->ipv6 = new OSAL_Ipv6Address;
      adapter->ipv6->bytes[15] = 9;  // ::9
      *adapters = adapter;
      return 0;
    });
  }
  ~CObjectServerBestNodeTest() override {
    OSAL_SetAdapterSource(nullptr);
    server_.UpdateWanServerInfo(false, Config().wan_ip, Config().wan_port);
  }

  FakeAnswer Ask(const TansyNet::Headers& headers) { return Get("/" + bucket_ + "/k", "bestnode", headers); }
  ::testing::AssertionResult Answers(const std::string& host, const std::string& location) {
    return IsXml(Ask({{"Host", host}}), Xml("<BestNodeInfo><Location>" + location + "</Location></BestNodeInfo>"));
  }
  ::testing::AssertionResult IsInvalid(const std::string& host) {
    log_->Clear();
    const auto result = IsError(Ask({{"Host", host}}), 400, "InvalidHttpContent");
    return !result || log_->Count(kHostInvalid, logging::kError) == 1
               ? result
               : ::testing::AssertionFailure() << "no log line for " << host;
  }

  const std::string bucket_ = NewBucket();
};

TEST_F(CObjectServerBestNodeTest, ChecksInTheirOrder) {
  EXPECT_TRUE(IsError(SendMessage(Message({"GET", "/none/k", "bestnode", "", {}})), 404, "NoSuchBucket"));
  EXPECT_THAT(log_->Text("[%s]bucket not exist[%s].[%s(%d)]"), HasSubstr("HandleGetBestNode]bucket not exist[none]."));
  EXPECT_EQ(log_->Count("[%s]bucket not exist[%s].[%s(%d)]", logging::kError), 1u);
  EXPECT_TRUE(IsError(SendMessage(Message({"GET", "/" + bucket_ + "/k", "bestnode", "", {}})), 403, "AccessDenied"));
  EXPECT_TRUE(IsError(Ask({}), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kNoHost, logging::kError), 1u);
}

TEST_F(CObjectServerBestNodeTest, Ipv6AddressesComeBackInBrackets) {
  const auto location = [](const std::string& text) {
    return Xml("<BestNodeInfo><Location>" + text + "</Location></BestNodeInfo>");
  };
  EXPECT_TRUE(IsXml(Ask({{"Host", "[::1]:9700"}}), location("[::1]:9700")));
  EXPECT_TRUE(IsXml(Ask({{"Host", "[::1]:9743"}}), location("[::1]:9743")));
  EXPECT_TRUE(IsXml(Ask({{"Host", "[::1]"}, {"ServerPort", "9700"}}), location("[::1]:9700")));
  EXPECT_TRUE(IsError(Ask({{"Host", "[::1]:9701"}}), 400, "InvalidHttpContent"));
  CloudStorage::UpdateLocalServerIp("2001:db8::5");
  EXPECT_TRUE(IsXml(Ask({{"Host", "[2001:db8::5]:9700"}}), location("[2001:db8::5]:9700")));
  CloudStorage::UpdateWanServerInfo(true, "2001:db8::7", 0, 19700);
  EXPECT_TRUE(IsXml(Ask({{"Host", "[2001:db8::99]:19700"}}), location("[2001:db8::7]:19700")));
}

TEST_F(CObjectServerBestNodeTest, HostsThatAreMissing) {
  EXPECT_TRUE(IsError(Ask({{"Host", ""}}), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(Ask({{"Host", ":9700"}}), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(Ask({{"Host", "[]:9700"}}), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(Ask({{"Host", "127.0.0.1"}}), 400, "InvalidHttpContent"));
  EXPECT_TRUE(IsError(Ask({{"Host", "127.0.0.1"}, {"ServerPort", ""}}), 400, "InvalidHttpContent"));
  EXPECT_EQ(log_->Count(kNoHost, logging::kError), 5u);
}

TEST_F(CObjectServerBestNodeTest, Loopback) {
  EXPECT_TRUE(Answers("127.0.0.1:9700", "127.0.0.1:9700"));
  EXPECT_TRUE(Answers("127.0.0.1:9743", "127.0.0.1:9743"));
  EXPECT_TRUE(IsInvalid("127.0.0.1:9701"));
  EXPECT_TRUE(IsInvalid("127.0.0.1:"));
  EXPECT_TRUE(IsInvalid("127.0.0.1:0"));
  EXPECT_TRUE(IsInvalid("127.0.0.1:x"));
  EXPECT_TRUE(IsInvalid("127.0.0.1:-9700"));
  EXPECT_TRUE(IsInvalid("127.0.0.1:4294976996"));  // 9700 in 32 bits
  EXPECT_TRUE(Answers("127.0.0.1:9700x", "127.0.0.1:9700"));
}

TEST_F(CObjectServerBestNodeTest, TheServerPortHeaderStandsInForAPort) {
  const FakeAnswer answer = Ask({{"Host", "127.0.0.1"}, {"ServerPort", "9743"}});
  EXPECT_TRUE(IsXml(answer, Xml("<BestNodeInfo><Location>127.0.0.1:9743</Location></BestNodeInfo>")));
  EXPECT_TRUE(IsXml(Ask({{"Host", "127.0.0.1:9700"}, {"ServerPort", "1"}}),
                    Xml("<BestNodeInfo><Location>127.0.0.1:9700</Location></BestNodeInfo>")));
}

TEST_F(CObjectServerBestNodeTest, TheLocalAddress) {
  EXPECT_TRUE(Answers("10.0.0.5:9700", "10.0.0.5:9700"));
  EXPECT_TRUE(Answers("10.0.0.5:9743", "10.0.0.5:9743"));
  EXPECT_TRUE(IsInvalid("10.0.0.5:19700"));
  server_.UpdateWanServerInfo(true, "198.51.100.7", 19700);
  EXPECT_TRUE(Answers("10.0.0.5:9700", "10.0.0.5:9700"));
  EXPECT_TRUE(IsInvalid("10.0.0.5:19700"));
}

TEST_F(CObjectServerBestNodeTest, OtherAddresses) {
  EXPECT_TRUE(Answers("10.0.0.8:9700", "10.0.0.8:9700"));  // the address of an adapter
  EXPECT_TRUE(Answers("10.0.0.8:9743", "10.0.0.8:9743"));
  EXPECT_TRUE(Answers("storage.example:9700", "10.0.0.5:9700"));
  EXPECT_TRUE(Answers("storage.example:9743", "10.0.0.5:9743"));
  EXPECT_TRUE(IsInvalid("storage.example:80"));
  EXPECT_TRUE(IsInvalid("10.0.0.8:19700"));
  OSAL_SetAdapterSource([](OSAL_AdapterInfo** adapters) {
    *adapters = nullptr;
    return 1;
  });
  EXPECT_TRUE(Answers("10.0.0.8:9700", "10.0.0.5:9700"));
}

TEST_F(CObjectServerBestNodeTest, HostsInBrackets) {
  // The port of an IPv6 address is what follows its brackets. (These belong to an adapter.)
  EXPECT_TRUE(Answers("[::9]:9700", "[::9]:9700"));
  EXPECT_TRUE(IsInvalid("[::9]:9701"));
  const FakeAnswer answer = Ask({{"Host", "[10.0.0.8]:9700"}});
  EXPECT_TRUE(IsXml(answer, Xml("<BestNodeInfo><Location>10.0.0.8:9700</Location></BestNodeInfo>")));
  EXPECT_TRUE(Answers("]10.0.0.8[:9700", "10.0.0.5:9700"));
}

TEST_F(CObjectServerBestNodeTest, WithWan) {
  server_.UpdateWanServerInfo(true, "198.51.100.9", 20000);
  EXPECT_TRUE(Answers("storage.example:20000", "198.51.100.9:20000"));
  EXPECT_TRUE(Answers("10.0.0.8:20000", "198.51.100.9:20000"));
  EXPECT_TRUE(Answers("storage.example:19743", "198.51.100.9:19743"));
  EXPECT_TRUE(IsInvalid("storage.example:9700"));
  EXPECT_TRUE(Answers("127.0.0.1:9700", "127.0.0.1:9700"));
  server_.UpdateWanServerInfo(false, "198.51.100.9", 20000);
  EXPECT_TRUE(Answers("storage.example:9700", "10.0.0.5:9700"));
}

TEST_F(CObjectServerBestNodeTest, AddressUpdatesCountForTheNextRequest) {
  server_.UpdateLocalServerIp("10.0.0.77");
  EXPECT_TRUE(Answers("storage.example:9700", "10.0.0.77:9700"));
  server_.UpdateLocalServerIp("10.0.0.5");

  server_.UpdateWanServerInfoV1({{CloudStorage::WAN_ENABLE, "true"},
                                 {CloudStorage::WAN_IP, "198.51.100.1"},
                                 {CloudStorage::WAN_OBJECT_PORT, "20001"},
                                 {CloudStorage::WAN_OBJECT_HTTPS_PORT, "20002"}});
  EXPECT_TRUE(Answers("storage.example:20001", "198.51.100.1:20001"));
  EXPECT_TRUE(Answers("storage.example:20002", "198.51.100.1:20002"));
  // Fields of the picture server and unknown ones change nothing.
  server_.UpdateWanServerInfoV1({{CloudStorage::WAN_PIC_PORT, "1"},
                                 {CloudStorage::WAN_PIC_HTTPS_PORT, "2"},
                                 {static_cast<CloudStorage::WanServerInfoFieldType>(17), "3"}});
  EXPECT_TRUE(Answers("storage.example:20001", "198.51.100.1:20001"));
  // A port that is no number is 0, which matches nothing.
  server_.UpdateWanServerInfoV1({{CloudStorage::WAN_OBJECT_PORT, "none"}});
  EXPECT_TRUE(IsInvalid("storage.example:0"));
  EXPECT_TRUE(IsInvalid("storage.example:20001"));
  server_.UpdateWanServerInfoV1({{CloudStorage::WAN_ENABLE, "TRUE"}});
  EXPECT_TRUE(Answers("storage.example:9700", "10.0.0.5:9700"));
}

TEST_F(CObjectServerBestNodeTest, TheChoiceIsTraced) {
  Ask({{"Host", "127.0.0.1:9700"}});
  EXPECT_EQ(log_->Count(kHostTrace, logging::kTrace), 1u);
  EXPECT_THAT(log_->Text(kHostTrace),
              HasSubstr("]HandleGetBestNode, host field[127.0.0.1:9700] host[127.0.0.1] server_ip[9700]ip[10.0.0.5] "
                        "wan_ip[198.51.100.7] upload_port[9700] wan_port[19700] https_port[9743] "
                        "https_wan_port[19743]invalid.["));
}

}  // namespace
}  // namespace Tansy::Tests
