#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3XmlRequests.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::CloudStorage::S3 {
namespace {

TEST(S3Xml, TellsWhatItCanCarry) {
  for (const char* const text : {"", "a", "\t\r\n", "<&>\"", "\xC3\xA9", "\xEF\xBF\xBD"}) {
    EXPECT_TRUE(CXmlWriter::CanCarry(text)) << text;
  }
  for (const char* const text : {"\x01", "a\x1F", "\xFF", "\xC3", "\xEF\xBF\xBF", "\xED\xA0\x80"}) {
    EXPECT_FALSE(CXmlWriter::CanCarry(text)) << text;
  }
  EXPECT_FALSE(CXmlWriter::CanCarry(std::string_view("\0", 1)));
}

TEST(S3Xml, TakesAHundredGrantsAtMost) {
  const auto read = [](int count) {
    std::string xml = "<AccessControlPolicy><AccessControlList>";
    for (int i = 0; i < count; ++i) {
      xml += "<Grant><Grantee><ID>me</ID></Grantee></Grant>";
    }
    bool is_private = false;
    return ReadAccessControl(is_private, xml + "</AccessControlList></AccessControlPolicy>", "me").error;
  };
  EXPECT_EQ(read(100), EError::kNone);
  EXPECT_EQ(read(101), EError::kMalformedXml);
}

constexpr const char* kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

TEST(S3XmlWriter, WritesTextsThatXmlCannotCarryWithoutBreakingIt) {
  CXmlWriter xml;
  xml.Open("A");
  xml.Element("B", "<&>\"\r\n\t\xC3\xA9");
  xml.Element("C", std::string("\0\x1f\xff", 3));
  xml.Element("D", std::uint64_t{5});
  xml.Element("E", false);
  xml.Close("A");
  const std::string text = xml.Take();
  EXPECT_EQ(text, std::string(kDeclaration) +
                      "<A><B>&lt;&amp;&gt;&quot;&#13;\n\t\xC3\xA9</B><C>\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD</C>"
                      "<D>5</D><E>false</E></A>");
  TansyProto::CXmlProto document;
  ASSERT_TRUE(document.Parse(text));
  EXPECT_EQ(document.GetString("/A/B"), "<&>\"\r\n\t\xC3\xA9");
}

TEST(S3Errors, AnswersWithCodeMessageResourceAndRequestId) {
  Failure failure = EError::kNoSuchKey;
  failure.details.emplace_back("Key", "a<b");
  EXPECT_EQ(ErrorXml(failure, "/b/a&b", "id-1"),
            std::string(kDeclaration) +
                "<Error><Code>NoSuchKey</Code><Message>There is no object of this key.</Message><Key>a&lt;b</Key>"
                "<Resource>/b/a&amp;b</Resource><RequestId>id-1</RequestId></Error>");
  EXPECT_EQ(MessageOf({EError::kAccessDenied, "Request has expired"}), "Request has expired");
}

TEST(S3Errors, HasAMessageAndAStatusForEveryError) {
  for (int number = 1; number <= static_cast<int>(EError::kSlowDown); ++number) {
    const auto error = static_cast<EError>(number);
    EXPECT_FALSE(NameOf(error).empty()) << number;
    EXPECT_GE(StatusOf(error), 400) << number;
    EXPECT_FALSE(MessageOf(error).empty()) << number;
    EXPECT_TRUE(error == EError::kInternalError || NameOf(error) != "InternalError") << number;
  }
}

std::string Deletes(int count) {
  std::string xml = "<Delete xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
  for (int i = 0; i < count; ++i) {
    xml += "<Object><Key>k</Key></Object>";
  }
  return xml + "</Delete>";
}

TEST(S3XmlRequests, ReadsAListOfKeysToDelete) {
  DeleteRequest request;
  ASSERT_FALSE(ReadDeleteRequest(request,
                                 "<?xml version=\"1.0\"?><Delete xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">"
                                 "<Object><Key>a/b &amp; c</Key></Object>"
                                 "<Object><Key> d </Key><VersionId>null</VersionId></Object><Quiet>true</Quiet>"
                                 "</Delete>"));
  EXPECT_TRUE(request.is_quiet);
  ASSERT_EQ(request.keys.size(), 2U);
  EXPECT_EQ(request.keys[0].key, "a/b & c");
  EXPECT_EQ(request.keys[1].key, " d ");
  EXPECT_EQ(request.keys[1].version, "null");
}

TEST(S3XmlRequests, RefusesListsOfKeysThatAreNone) {
  for (const std::string& xml :
       {std::string(), std::string("no xml"), std::string("<Delete/>"), std::string("<Other><Object/></Other>"),
        std::string("<Delete><Object/></Delete>"), std::string("<Delete><Object><Key></Key></Object></Delete>"),
        std::string("<Delete><Object><Key>a</Key></Object>"), Deletes(1001)}) {
    DeleteRequest request;
    EXPECT_EQ(ReadDeleteRequest(request, xml).error, EError::kMalformedXml) << xml.substr(0, 80);
  }
  DeleteRequest request;
  EXPECT_FALSE(ReadDeleteRequest(request, Deletes(1000)));
  EXPECT_EQ(request.keys.size(), 1000U);
}

std::string Part(const std::string& number, const std::string& etag) {
  return "<Part><PartNumber>" + number + "</PartNumber><ETag>" + etag + "</ETag></Part>";
}

Failure Complete(std::vector<PartToComplete>& parts, const std::string& list) {
  return ReadCompleteRequest(parts, "<CompleteMultipartUpload>" + list + "</CompleteMultipartUpload>");
}

TEST(S3XmlRequests, ReadsAListOfParts) {
  std::vector<PartToComplete> parts;
  ASSERT_FALSE(Complete(parts, Part("1", "&quot;abc&quot;") + Part("10000", "def")));
  ASSERT_EQ(parts.size(), 2U);
  EXPECT_EQ(parts[0].number, 1U);
  EXPECT_EQ(parts[0].etag, "abc");
  EXPECT_EQ(parts[1].number, 10000U);
  EXPECT_EQ(parts[1].etag, "def");
}

TEST(S3XmlRequests, RefusesListsOfPartsThatAreNone) {
  for (const std::string& list : {std::string(), Part("0", "a"), Part("10001", "a"), Part("-1", "a"), Part("x", "a"),
                                  Part("1", ""), std::string("<Part/>")}) {
    std::vector<PartToComplete> parts;
    EXPECT_EQ(Complete(parts, list).error, EError::kMalformedXml) << list;
  }
  for (const std::string& list : {Part("2", "a") + Part("1", "b"), Part("1", "a") + Part("1", "b")}) {
    std::vector<PartToComplete> parts;
    EXPECT_EQ(Complete(parts, list).error, EError::kInvalidPartOrder) << list;
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
