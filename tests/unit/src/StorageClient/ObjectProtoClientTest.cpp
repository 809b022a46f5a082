#include "StorageClient/ObjectProtoClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <string>

#include "ObjectClientFixture.h"

namespace Tansy::CloudStorage {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr char kSendUrl[] = "[%s][Client]send url[%s][%s(%d)]";
// Nothing listens here: connecting to it fails at once.
constexpr char kDeadNode[] = "127.0.0.1:1";

class ObjectProtoClientTest : public ObjectClientFixture {
 protected:
  ObjectProtoClientTest() { Use(Config()); }

  void Use(const SStorageServerConfig& config) {
    impl_ = std::make_shared<ObjectImpl>(config);
    client_ = std::make_unique<CObjectProtoClient>();
    ASSERT_TRUE(client_->Init(impl_));
  }

  // A client whose server does not run.
  void UseDeadServer() {
    SStorageServerConfig config = Config();
    config.upload_port = 1;
    config.download_port = 1;
    Use(config);
  }

  LastError Error() const {
    LastError error;
    const SLastErrorTexts texts = impl_->last_error.GetTexts();
    error = {static_cast<int>(texts.code), texts.second, texts.message};
    return error;
  }

  void ExpectSendFailure(const std::string& format, const std::string& message) {
    EXPECT_EQ(log_->Count(format, logging::kError), 1u) << format;
    EXPECT_EQ(Error().code, 4);
    // "...[3:111]." with the numbers of the HTTP library.
    EXPECT_THAT(Error().message, testing::MatchesRegex(message + "\\[3:[0-9]+\\]\\."));
  }

  std::shared_ptr<ObjectImpl> impl_;
  std::unique_ptr<CObjectProtoClient> client_;
};

TEST_F(ObjectProtoClientTest, DoesNotStartWithoutAConfiguration) {
  CObjectProtoClient client;
  EXPECT_FALSE(client.Init(nullptr));
  EXPECT_EQ(log_->Count("[%s]Init failed, server_config is nullptr.[%s(%d)]", logging::kError), 1u);
}

TEST_F(ObjectProtoClientTest, AsksForTheBestNode) {
  server_.Answer("GET /pool/key?bestnode", BestNodeAnswer("10.1.2.3:99"));
  std::string location;
  EXPECT_TRUE(client_->GetBestNode(location, "key"));
  EXPECT_EQ(location, "10.1.2.3:99");
  ASSERT_EQ(server_.Requests().size(), 1u);
  ExpectRequest(server_.Requests()[0],
                {.method = "GET", .target = "/pool/key?bestnode", .host = server_.Address(), .content_type = kXmlType});
  EXPECT_THAT(log_->Text(kSendUrl), HasSubstr("send url[" + server_.Url("/pool/key?bestnode") + "]"));
  EXPECT_THAT(log_->Text(kSendUrl), StartsWith("[Tansy::CloudStorage::CObjectProtoClient::GetBestNode]"));
  EXPECT_EQ(log_->Count(kSendUrl, logging::kTrace), 1u);
  const std::string success = "[%s][Client]get best node success, location[%s][%s(%d)]";
  EXPECT_EQ(log_->Count(success, logging::kNotable), 1u);
  EXPECT_THAT(log_->Text(success), HasSubstr("location[10.1.2.3:99]"));
}

TEST_F(ObjectProtoClientTest, TakesAnEmptyBestNodeAsItIs) {
  server_.Answer("GET /pool/key?bestnode", {.body = "<Other/>"});
  std::string location = "before";
  EXPECT_TRUE(client_->GetBestNode(location, "key"));
  EXPECT_EQ(location, "");
}

TEST_F(ObjectProtoClientTest, FailsWithoutABestNode) {
  std::string location = "before";
  server_.Answer("GET /pool/key?bestnode", ErrorAnswer(404, "NoSuchBucket"));
  EXPECT_FALSE(client_->GetBestNode(location, "key"));
  const std::string status = "[%s][Client]get best node failed, error[%d:%s][%s(%d)]";
  EXPECT_EQ(log_->Count(status, logging::kError), 1u);
  EXPECT_THAT(log_->Text(status), HasSubstr("error[404:<Error><Code>NoSuchBucket</Code>"));
  EXPECT_EQ(Error(), (LastError{5, 0, "get best node rsp status code[404]."}));

  server_.ClearScript();
  server_.Answer("GET /pool/key?bestnode", {.status = 204});
  EXPECT_FALSE(client_->GetBestNode(location, "key")) << "only 200 is success";
  EXPECT_EQ(Error(), (LastError{5, 0, "get best node rsp status code[204]."}));

  server_.ClearScript();
  server_.Answer("GET /pool/key?bestnode", {.body = "no xml"});
  EXPECT_FALSE(client_->GetBestNode(location, "key"));
  EXPECT_EQ(log_->Count("[%s][Client]get best node failed, invalid xml[%s][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(Error(), (LastError{5, 0, "get best node rsp msg invalid[no xml]."}));

  UseDeadServer();
  EXPECT_FALSE(client_->GetBestNode(location, "key"));
  ExpectSendFailure("[%s][Client]send get best node failed, error[%d:%d][%s(%d)]", "Send get best node msg failed");
  EXPECT_EQ(location, "before");
}

TEST_F(ObjectProtoClientTest, UploadsAnObjectToTheNodeUnderTheConfiguredHost) {
  SStorageServerConfig config = Config();
  config.upload_port = 4711;  // only named in the Host header
  Use(config);
  server_.Answer("PUT /pool/key", {});
  const std::string data("\0bytes\xff", 7);
  std::string url;
  EXPECT_TRUE(client_->UploadObject(url, server_.Address(), "key", data.data(), 7));
  EXPECT_EQ(url, "/pool/key");
  ASSERT_EQ(server_.Requests().size(), 1u);
  ExpectRequest(server_.Requests()[0], {.method = "PUT",
                                        .target = "/pool/key",
                                        .host = "127.0.0.1:4711",
                                        .content_type = kBinaryType,
                                        .body = data,
                                        .content_md5 = true});
  EXPECT_EQ(log_->Count("[%s][Client]upload object success, url[%s][%s(%d)]", logging::kNotable), 1u);
  EXPECT_THAT(log_->Text(kSendUrl), StartsWith("[Tansy::CloudStorage::CObjectProtoClient::UploadObject]"));
}

TEST_F(ObjectProtoClientTest, UploadsAnEmptyObjectWithTheDigestOfNothing) {
  server_.Answer("PUT /pool/key", {});
  std::string url;
  EXPECT_TRUE(client_->UploadObject(url, server_.Address(), "key", nullptr, 0));
  const Tests::ScriptedRequest request = server_.Requests().at(0);
  EXPECT_EQ(request.Header("Content-Length"), "0");
  EXPECT_EQ(request.Header("Content-MD5"), "ZDQxZDhjZDk4ZjAwYjIwNGU5ODAwOTk4ZWNmODQyN2U=");
}

TEST_F(ObjectProtoClientTest, FailsToUploadAnObject) {
  std::string url = "before";
  server_.Answer("PUT /pool/key", ErrorAnswer(403, "AccessDenied"));
  EXPECT_FALSE(client_->UploadObject(url, server_.Address(), "key", "x", 1));
  const std::string status = "[%s][Client]upload object failed, error[%d:%s][%s(%d)]";
  EXPECT_EQ(log_->Count(status, logging::kError), 1u);
  EXPECT_THAT(log_->Text(status), HasSubstr("error[403:<Error><Code>AccessDenied"));
  EXPECT_EQ(Error(), (LastError{5, 0, "upload object rsp status code[403]."}));

  EXPECT_FALSE(client_->UploadObject(url, kDeadNode, "key", "x", 1));
  ExpectSendFailure("[%s][Client]send upload object failed, error[%d:%d][%s(%d)]", "Send upload object msg failed");
  EXPECT_EQ(url, "before");
  EXPECT_FALSE(client_->UploadObject(url, "", "key", "x", 1)) << "an empty node leads nowhere";
  EXPECT_EQ(Error().code, 4);
}

TEST_F(ObjectProtoClientTest, RecognisesAServerWithoutSpace) {
  std::string url;
  std::string upload_id;
  server_.Answer("PUT /pool/key", ErrorAnswer(500, "NotEnoughSpace"));
  EXPECT_FALSE(client_->UploadObject(url, server_.Address(), "key", "x", 1));
  EXPECT_EQ(Error(), (LastError{7, 0, "upload object rsp status code[500]."}));

  // The other requests use the same words.
  server_.Answer("POST /pool/key*", ErrorAnswer(500, "NotEnoughSpace"));
  impl_->last_error.Set(ClientError::kNone, "");
  EXPECT_FALSE(client_->CreatePartTask(upload_id, "key"));
  EXPECT_EQ(Error(), (LastError{7, 0, "upload object rsp status code[500]."}));
  impl_->last_error.Set(ClientError::kNone, "");
  EXPECT_FALSE(client_->UploadPartObject("key", server_.Address(), 1, "id", "x", 1));
  EXPECT_EQ(Error(), (LastError{7, 0, "upload object rsp status code[500]."}));
  impl_->last_error.Set(ClientError::kNone, "");
  EXPECT_FALSE(client_->FinishPartTask("id", "key", {}));
  EXPECT_EQ(Error(), (LastError{7, 0, "upload object rsp status code[500]."}));
}

TEST_F(ObjectProtoClientTest, TakesSpaceForMissingOnlyWithItsStatus) {
  std::string url;
  server_.Answer("PUT /pool/key", ErrorAnswer(500, "ServerInternalError"));
  EXPECT_FALSE(client_->UploadObject(url, server_.Address(), "key", "x", 1));
  EXPECT_EQ(Error(), (LastError{5, 0, "upload object rsp status code[500]."}));
  server_.ClearScript();
  server_.Answer("PUT /pool/key", ErrorAnswer(503, "NotEnoughSpace"));
  EXPECT_FALSE(client_->UploadObject(url, server_.Address(), "key", "x", 1));
  EXPECT_EQ(Error(), (LastError{5, 0, "upload object rsp status code[503]."}));
}

TEST_F(ObjectProtoClientTest, OpensAPartTask) {
  server_.Answer("POST /pool/key?uploads", UploadIdAnswer("id-1"));
  std::string upload_id;
  EXPECT_TRUE(client_->CreatePartTask(upload_id, "key"));
  EXPECT_EQ(upload_id, "id-1");
  ExpectRequest(server_.Requests().at(0), {.method = "POST", .target = "/pool/key?uploads", .host = server_.Address()});
  const std::string success = "[%s][Client]create part task success, bucket[%s], object[%s], task_id[%s][%s(%d)]";
  EXPECT_EQ(log_->Count(success, logging::kNotable), 1u);
  EXPECT_THAT(log_->Text(success), HasSubstr("bucket[pool], object[key], task_id[id-1]"));
  EXPECT_THAT(log_->Text(kSendUrl), StartsWith("[Tansy::CloudStorage::CObjectProtoClient::CreatePartTask]"));
}

TEST_F(ObjectProtoClientTest, FailsToOpenAPartTask) {
  std::string upload_id = "before";
  server_.Answer("POST /pool/key?uploads", ErrorAnswer(404, "NoSuchBucket"));
  EXPECT_FALSE(client_->CreatePartTask(upload_id, "key"));
  const std::string status = "[%s][Client]create part task failed, bucket[%s], object[%s], error[%d:%s][%s(%d)]";
  EXPECT_EQ(log_->Count(status, logging::kError), 1u);
  EXPECT_THAT(log_->Text(status), HasSubstr("bucket[pool], object[key], error[404:<Error>"));
  EXPECT_EQ(Error(), (LastError{5, 0, "CreatePartTask rsp status code[404]."}));

  server_.ClearScript();
  server_.Answer("POST /pool/key?uploads", {.body = "<a><b></a>"});
  EXPECT_FALSE(client_->CreatePartTask(upload_id, "key"));
  EXPECT_EQ(log_->Count("[%s][Client]create part task failed, invalid xml[%s][%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(Error(), (LastError{5, 0, "CreatePartTask rsp msg invalid[<a><b></a>]."}));

  UseDeadServer();
  EXPECT_FALSE(client_->CreatePartTask(upload_id, "key"));
  ExpectSendFailure("[%s][Client]send create part task failed, bucket[%s], object[%s], error[%d:%d][%s(%d)]",
                    "Send CreatePartTask msg failed");
  EXPECT_EQ(upload_id, "before");
}

TEST_F(ObjectProtoClientTest, UploadsAPart) {
  server_.Answer("POST /pool/key?upload_id=id-1&part_number=12", {.headers = {{"ETag", "x"}}, .body = "ignored"});
  EXPECT_TRUE(client_->UploadPartObject("key", server_.Address(), 12, "id-1", "part", 4));
  ExpectRequest(server_.Requests().at(0), {.method = "POST",
                                           .target = "/pool/key?upload_id=id-1&part_number=12",
                                           .host = server_.Address(),
                                           .content_type = kBinaryType,
                                           .body = "part",
                                           .content_md5 = true});
  EXPECT_THAT(log_->Text(kSendUrl), StartsWith("[Tansy::CloudStorage::CObjectProtoClient::UploadPartObject]"));
}

TEST_F(ObjectProtoClientTest, FailsToUploadAPart) {
  server_.Answer("POST /pool/key*", ErrorAnswer(400, "InvalidHttpContent"));
  EXPECT_FALSE(client_->UploadPartObject("key", server_.Address(), 3, "id-1", "part", 4));
  const std::string status =
      "[%s][Client]upload part object[bucket:%s object:%s][taskid:%s:%d] failed, error[%d:%s][%s(%d)]";
  EXPECT_EQ(log_->Count(status, logging::kError), 1u);
  EXPECT_THAT(log_->Text(status),
              HasSubstr("upload part object[bucket:pool object:key][taskid:id-1:3] failed, error[400:<Error>"));
  EXPECT_EQ(Error(), (LastError{5, 0, "UploadPartObject rsp status code[400]."}));
  EXPECT_EQ(server_.Requests().size(), 1u) << "tried again by nobody here";

  EXPECT_FALSE(client_->UploadPartObject("key", kDeadNode, 3, "id-1", "part", 4));
  ExpectSendFailure(
      "[%s][Client]send upload part object[bucket:%s object:%s][taskid:%s:%d] failed, error[%d:%d][%s(%d)]",
      "Send UploadPartObject msg failed");
}

TEST_F(ObjectProtoClientTest, CompletesAPartTask) {
  server_.Answer("POST /pool/key?upload_id=id-1", {});
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", "4297064447"}}});
  EXPECT_TRUE(client_->FinishPartTask("id-1", "key", {{1, 2097152, ""}, {2, 4294967295u, "tag"}}));
  const Tests::ScriptedRequest request = server_.Requests().at(0);
  EXPECT_EQ(request.body,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
            "<CompleteMultipartUpload><TotalPartNum>2</TotalPartNum>"
            "<Part><PartNumber>1</PartNumber><PartSize>2097152</PartSize><ETag/></Part>"
            "<Part><PartNumber>2</PartNumber><PartSize>4294967295</PartSize><ETag>tag</ETag></Part>"
            "</CompleteMultipartUpload>");
  ExpectRequest(request, {.method = "POST",
                          .target = "/pool/key?upload_id=id-1",
                          .host = server_.Address(),
                          .body = request.body,
                          .content_md5 = true});
  ExpectRequest(server_.Requests().at(1),
                {.method = "GET", .target = "/pool/key?metadata", .host = server_.Address(), .content_type = kXmlType});
  EXPECT_EQ(server_.Requests().size(), 2u);
}

TEST_F(ObjectProtoClientTest, CompletesAPartTaskWithoutParts) {
  server_.Answer("POST /pool/key?upload_id=id-1", {});
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", "0"}}});
  EXPECT_TRUE(client_->FinishPartTask("id-1", "key", {}));
  EXPECT_EQ(server_.Requests().at(0).body,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
            "<CompleteMultipartUpload><TotalPartNum>0</TotalPartNum></CompleteMultipartUpload>");
}

TEST_F(ObjectProtoClientTest, DoesNotBelieveACompletionOfAnotherSize) {
  server_.Answer("POST /pool/key?upload_id=id-1", {});
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", "9"}}});
  EXPECT_FALSE(client_->FinishPartTask("id-1", "key", {{1, 5, ""}, {2, 5, ""}}));
  EXPECT_EQ(Error(), (LastError{14, 0, "object size[9] instead of [10]."}));
  const SClientFailure failure = impl_->last_error.GetFailure();
  EXPECT_EQ(failure.request, "POST /pool/key?upload_id=id-1");
  EXPECT_EQ(failure.http_status, 200);
  EXPECT_EQ(log_->Count("[%s][Client]object[%s] has [%llu] bytes after its completion instead of [%llu][%s(%d)]",
                        logging::kError),
            1u);
}

TEST_F(ObjectProtoClientTest, AsksForTheSizeOfACompletedObjectThreeTimes) {
  server_.Answer("POST /pool/key?upload_id=id-1", {});
  server_.Answer("GET /pool/key?metadata", {.cut_after = 0});
  server_.Answer("GET /pool/key?metadata", ErrorAnswer(503, "ServiceUnavailable"));
  server_.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", "5"}}});
  EXPECT_TRUE(client_->FinishPartTask("id-1", "key", {{1, 5, ""}}));
  EXPECT_EQ(Error(), (LastError{0, 0, ""}));

  server_.ClearScript();
  server_.ClearRequests();
  server_.Answer("POST /pool/key?upload_id=id-1", {});
  server_.Answer("GET /pool/key?metadata", ErrorAnswer(404, "NoSuchKey"));
  EXPECT_FALSE(client_->FinishPartTask("id-1", "key", {{1, 5, ""}}));
  EXPECT_EQ(Error(), (LastError{5, 0, "get metadata rsp status code[404]."}));
  EXPECT_EQ(server_.Requests().size(), 4u);
}

// Every server of the protocol can tell the size of an object. One that does not know the request gives no reason to
// doubt what it answered before.
TEST_F(ObjectProtoClientTest, BelievesACompletionWhenTheSizeCannotBeTold) {
  server_.Answer("POST /pool/key?upload_id=id-1", {});
  server_.Answer("GET /pool/key?metadata", {});
  EXPECT_TRUE(client_->FinishPartTask("id-1", "key", {{1, 5, ""}}));

  for (const int status : {400, 404, 405}) {
    server_.ClearScript();
    server_.Answer("POST /pool/key?upload_id=id-1", {});
    server_.Answer("GET /pool/key?metadata", {.status = status, .body = "what?"});
    EXPECT_TRUE(client_->FinishPartTask("id-1", "key", {{1, 5, ""}})) << status;
  }
  EXPECT_EQ(Error(), (LastError{0, 0, ""}));
}

TEST_F(ObjectProtoClientTest, DoesNotBelieveACompletionWhenOnePortMissesTheObject) {
  server_.Answer("POST /pool/key?upload_id=id-1", {});
  server_.Answer("GET /pool/key?metadata", {.status = 404});
  server_.Answer("GET /pool/key?metadata", ErrorAnswer(404, "NoSuchKey"));
  server_.Answer("GET /pool/key?metadata", {.status = 404});
  EXPECT_FALSE(client_->FinishPartTask("id-1", "key", {{1, 5, ""}}));
  EXPECT_EQ(Error(), (LastError{5, 0, "get metadata rsp status code[404]."}));
}

TEST_F(ObjectProtoClientTest, DoesNotBelieveACompletionWhenTheSizeCannotBeAsked) {
  for (const Tests::ScriptedAnswer& answer :
       {Tests::ScriptedAnswer{.cut_after = 0}, Tests::ScriptedAnswer{.status = 502, .body = "Bad Gateway"}}) {
    server_.ClearScript();
    server_.Answer("POST /pool/key?upload_id=id-1", {});
    server_.Answer("GET /pool/key?metadata", answer);
    EXPECT_FALSE(client_->FinishPartTask("id-1", "key", {{1, 5, ""}}));
  }
  EXPECT_EQ(Error(), (LastError{5, 0, "get metadata rsp status code[502]."}));
}

TEST_F(ObjectProtoClientTest, AsksForTheSizeOfACompletedObjectAtTheDownloadPortToo) {
  SStorageServerConfig config = impl_->config;
  Tests::ScriptedServer downloads;
  config.download_port = downloads.Port();
  const auto impl = std::make_shared<ObjectImpl>(config);
  CObjectProtoClient client;
  ASSERT_TRUE(client.Init(impl));
  server_.Answer("POST /pool/key?upload_id=id-1", {});
  downloads.Answer("GET /pool/key?metadata", {.headers = {{"Object-Size", "5"}}});
  EXPECT_TRUE(client.FinishPartTask("id-1", "key", {{1, 5, ""}}));
  EXPECT_FALSE(client.FinishPartTask("id-1", "key", {{1, 6, ""}}));
  EXPECT_EQ(impl->last_error.GetTexts().code, ClientError::kWrongContent);
}

// ---- what is known of a failure

TEST_F(ObjectProtoClientTest, RecordsWhichRequestWasRefused) {
  server_.Answer("POST /pool/key?upload_id=id-1&part_number=3", ErrorAnswer(403, "AccessDenied"));
  EXPECT_FALSE(client_->UploadPartObject("key", server_.Address(), 3, "id-1", "part", 4));
  const SClientFailure failure = impl_->last_error.GetFailure();
  EXPECT_EQ(failure.code, ClientError::kUnexpectedAnswer);
  EXPECT_EQ(failure.text, "UploadPartObject rsp status code[403].");
  EXPECT_EQ(failure.http_status, 403);
  EXPECT_EQ(failure.error_code, "AccessDenied");
  EXPECT_EQ(failure.request, "POST /pool/key?upload_id=id-1&part_number=3");
  EXPECT_EQ(failure.address, server_.Address());
  EXPECT_EQ(failure.transport_error, 0);
  EXPECT_EQ(failure.system_error, 0);
}

TEST_F(ObjectProtoClientTest, RecordsWhichRequestWasNotAnswered) {
  UseDeadServer();
  std::string location;
  EXPECT_FALSE(client_->GetBestNode(location, "key"));
  const SClientFailure failure = impl_->last_error.GetFailure();
  EXPECT_EQ(failure.code, ClientError::kNotSent);
  EXPECT_EQ(failure.http_status, 0);
  EXPECT_EQ(failure.error_code, "");
  EXPECT_EQ(failure.request, "GET /pool/key?bestnode");
  EXPECT_EQ(failure.address, "127.0.0.1:1");
  EXPECT_EQ(failure.transport_error, TansyNet::HttpClient::kConnect);
  EXPECT_EQ(failure.text, "Send get best node msg failed[3:" + std::to_string(failure.system_error) + "].");
}

TEST_F(ObjectProtoClientTest, TakesNoErrorNameFromWhatIsNone) {
  for (const char* body : {"", "<Code>", "<Code></Code>", "plain text", "<html><body>Code</body></html>"}) {
    server_.ClearScript();
    server_.Answer("DELETE /pool/key", {.status = 500, .body = body});
    EXPECT_FALSE(client_->RemoveFile("/pool/key"));
    EXPECT_EQ(impl_->last_error.GetFailure().error_code, "") << body;
  }
  server_.ClearScript();
  server_.Answer("DELETE /pool/key", {.status = 500, .body = "<Code>" + std::string(65, 'x') + "</Code>"});
  EXPECT_FALSE(client_->RemoveFile("/pool/key"));
  EXPECT_EQ(impl_->last_error.GetFailure().error_code, "") << "longer than any name";
}

// ---- which servers get to see a signature

TEST_F(ObjectProtoClientTest, SendsNothingForAWholeUrl) {
  const Tests::ScriptedServer other;
  const std::string foreign = other.Url("/pool/key");
  const std::string own = server_.Url("/pool/key");
  char* data = nullptr;
  unsigned int size = 0;
  for (const std::string& url : {foreign, own, std::string("pool/key"), std::string("@" + other.Address() + "/x"),
                                 std::string("0/pool/key"), std::string()}) {
    const int code = url == foreign ? 12 : 2;
    const auto expect_refusal = [&](bool done) {
      EXPECT_FALSE(done) << url;
      EXPECT_EQ(Error().code, code) << url;
      impl_->last_error.Set(ClientError::kNone, "");
    };
    expect_refusal(client_->RemoveFile(url));
    expect_refusal(client_->RemoveObjectFile(url));
    expect_refusal(client_->DownloadObject(&data, &size, "", url));
    expect_refusal(client_->DownloadObject(&data, &size, "0-1", url));
    expect_refusal(client_->DownloadObject(folder_.Path("file"), url));
  }
  EXPECT_FALSE(client_->RemoveFile(foreign));
  EXPECT_EQ(Error(), (LastError{12, 0, "url[" + foreign + "] names another server."}));
  EXPECT_EQ(impl_->last_error.GetFailure().address, other.Address());
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_TRUE(other.Requests().empty());
}

TEST_F(ObjectProtoClientTest, FailsToCompleteAPartTask) {
  server_.Answer("POST /pool/key*", ErrorAnswer(400, "InvalidXmlContent"));
  EXPECT_FALSE(client_->FinishPartTask("id-1", "key", {}));
  const std::string status =
      "[%s][Client]finish part task[bucket:%s object:%s][taskid:%s] failed, error[%d:%s][%s(%d)]";
  EXPECT_EQ(log_->Count(status, logging::kError), 1u);
  EXPECT_THAT(log_->Text(status),
              HasSubstr("finish part task[bucket:pool object:key][taskid:id-1] failed, error[400:"));
  EXPECT_EQ(Error(), (LastError{5, 0, "FinishPartTask rsp status code[400]."}));

  UseDeadServer();
  EXPECT_FALSE(client_->FinishPartTask("id-1", "key", {}));
  ExpectSendFailure("[%s][Client]send finish part task[bucket:%s object:%s][taskid:%s] failed, error[%d:%d][%s(%d)]",
                    "Send FinishPartTask msg failed");
}

TEST_F(ObjectProtoClientTest, RemovesWithoutAHostHeader) {
  server_.Answer("DELETE /pool/key", {});
  server_.Answer("DELETE /pool/key?deletefile", {});
  EXPECT_TRUE(client_->RemoveFile("/pool/key"));
  EXPECT_TRUE(client_->RemoveObjectFile("/pool/key"));
  ASSERT_EQ(server_.Requests().size(), 2u);
  ExpectRequest(server_.Requests()[0],
                {.method = "DELETE", .target = "/pool/key", .host = "", .content_type = kXmlType});
  ExpectRequest(server_.Requests()[1],
                {.method = "DELETE", .target = "/pool/key?deletefile", .host = "", .content_type = kXmlType});
  EXPECT_EQ(log_->Count("[%s][Client]remove object success, url[%s][%s(%d)]", logging::kNotable), 2u);
}

TEST_F(ObjectProtoClientTest, FailsToRemove) {
  server_.Answer("DELETE /pool/*", ErrorAnswer(404, "NoSuchKey"));
  EXPECT_FALSE(client_->RemoveFile("/pool/key"));
  EXPECT_FALSE(client_->RemoveObjectFile("/pool/key"));
  EXPECT_EQ(log_->Count("[%s][Client]remove object failed, error[%d:%s][%s(%d)]", logging::kError), 2u);
  EXPECT_EQ(Error(), (LastError{5, 0, "remove object rsp status code[404]."}));

  UseDeadServer();
  EXPECT_FALSE(client_->RemoveFile("/pool/key"));
  const std::string failure = "[%s][Client]send remove object[%s] failed, error[%d:%d][%s(%d)]";
  ExpectSendFailure(failure, "send remove object failed");
  EXPECT_THAT(log_->Text(failure), HasSubstr("send remove object[/pool/key] failed"));
}

TEST_F(ObjectProtoClientTest, SendsAnyMessageAndLeavesTheStatusToTheCaller) {
  server_.Answer("GET /any/path?with=query", {.status = 418, .body = "teapot"});
  TansyNet::CHttpClientResponse rsp;
  EXPECT_TRUE(client_->SendObjectMsg(rsp, "http://" + server_.Address(), "/any/path?with=query", "GET", "", ""));
  EXPECT_EQ(rsp.status, 418);
  EXPECT_EQ(rsp.body, "teapot");
  ExpectRequest(server_.Requests().at(0),
                {.method = "GET", .target = "/any/path?with=query", .host = server_.Address()});
  EXPECT_EQ(log_->Count("[%s][Client]send object msg, url:%s%s, range[%s][%s(%d)]"), 0u);
}

TEST_F(ObjectProtoClientTest, SendsARangeAndABody) {
  server_.Answer("PUT /pool/key", {});
  TansyNet::CHttpClientResponse rsp;
  EXPECT_TRUE(client_->SendObjectMsg(rsp, "http://" + server_.Address(), "/pool/key", "PUT", "body", "0-1023"));
  ExpectRequest(server_.Requests().at(0), {.method = "PUT",
                                           .target = "/pool/key",
                                           .host = server_.Address(),
                                           .body = "body",
                                           .more_headers = {{"Range", "bytes=0-1023"}}});
  const std::string trace = "[%s][Client]send object msg, url:%s%s, range[%s][%s(%d)]";
  EXPECT_EQ(log_->Count(trace, logging::kTrace), 1u);
  EXPECT_THAT(log_->Text(trace), HasSubstr("url:" + server_.Url("/pool/key") + ", range[0-1023]"));
}

TEST_F(ObjectProtoClientTest, FailsToSendAMessage) {
  TansyNet::CHttpClientResponse rsp;
  EXPECT_FALSE(client_->SendObjectMsg(rsp, "http://127.0.0.1:1", "/pool/key", "GET", "", ""));
  const std::string failure = "[%s][Client]send object msg failed, url:%s%s, error[%d:%d][%s(%d)]";
  ExpectSendFailure(failure, "SendObjectMsg msg failed");
  EXPECT_THAT(log_->Text(failure), HasSubstr("url:http://127.0.0.1:1/pool/key, error[3:"));
}

TEST_F(ObjectProtoClientTest, WaitsForAMessageAsLongAsConfigured) {
  impl_->receive_timeout_ms = 50;
  server_.Answer("GET /pool/key", {.silent = true});
  TansyNet::CHttpClientResponse rsp;
  EXPECT_FALSE(client_->SendObjectMsg(rsp, "http://" + server_.Address(), "/pool/key", "GET", "", ""));
  EXPECT_THAT(Error().message, StartsWith("SendObjectMsg msg failed[7:"));
}

TEST_F(ObjectProtoClientTest, RefusesAnAnswerThatWouldFillTheMemory) {
  server_.Answer("GET /pool/key?bestnode",
                 {.headers = {{"Content-Length", "1048577"}}, .body = std::string(1048577, 'x')});
  std::string location;
  EXPECT_FALSE(client_->GetBestNode(location, "key"));
  EXPECT_THAT(Error().message, StartsWith("Send get best node msg failed[9:"));
}

TEST_F(ObjectProtoClientTest, SendsNothingThatBreaksOutOfItsLine) {
  std::string text;
  for (const char* key : {"a b", "a\r\nX-Evil: 1", "a\nb", "a\tb"}) {
    EXPECT_FALSE(client_->GetBestNode(text, key)) << key;
    EXPECT_THAT(Error().message, StartsWith("Send get best node msg failed[1:"));
  }
  TansyNet::CHttpClientResponse rsp;
  EXPECT_FALSE(client_->SendObjectMsg(rsp, "http://" + server_.Address(), "/pool/key", "GET", "", "0-1\r\nX-Evil: 1"));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(ObjectProtoClientTest, SendsKeysOfOtherAlphabetsAsTheyAre) {
  server_.Answer("DELETE /pool/\xc3\xa4-\xe6\x96\x87.txt", {});
  EXPECT_TRUE(client_->RemoveFile("/pool/\xc3\xa4-\xe6\x96\x87.txt"));
  EXPECT_EQ(server_.Requests().at(0).target, "/pool/\xc3\xa4-\xe6\x96\x87.txt");
}

}  // namespace
}  // namespace Tansy::CloudStorage
