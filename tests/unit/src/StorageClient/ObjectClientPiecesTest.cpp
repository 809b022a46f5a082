#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "MultipartServer.h"
#include "ObjectClientFixture.h"
#include "StorageClient/PartUploadRegistry.h"
#include "TansyBase/GuidUtil.h"

namespace Tansy::CloudStorage {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using Tests::ScriptedAnswer;
using Tests::ScriptedRequest;

constexpr char kGuid[] = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";
constexpr std::size_t kPart = 65536;  // the smallest size of parts that the client cuts
constexpr char kPieceFailed[] = "[%s]upload piece failed, url[%s] partnum[%d], dst location[%s].[%s(%d)]";
constexpr char kKeyTrace[] = "[%s][%s].[%s(%d)]";

// Forgets an upload between the recording of its last piece and the list of all of them, where the key is traced for
// the second time.
class CForgettingSink : public logging::ISink {
 public:
  explicit CForgettingSink(const std::string& key) : key_(key) {}

  void Write(const logging::Record& record) override {
    if (record.format == kKeyTrace && ++traces_ == 2) {
      CPartUploadRegistry::Instance().RemoveTask(key_);
    }
    formats_.emplace_back(record.format);
  }
  std::size_t Count(const std::string& format) const {
    return static_cast<std::size_t>(std::count(formats_.begin(), formats_.end(), format));
  }

 private:
  const std::string key_;
  int traces_ = 0;
  std::vector<std::string> formats_;
};

class ObjectClientPiecesTest : public ObjectClientFixture {
 protected:
  ObjectClientPiecesTest() {
    server_.Handle([this](const ScriptedRequest& request) { return multipart_.Answer(request, server_.Address()); });
  }

  bool Send(std::string& url, const std::string& piece, bool last) {
    return client_.UploadFileByPieces(url, piece.data(), static_cast<unsigned>(piece.size()), last);
  }
  bool SendAlone(std::string& url, const std::string& piece, bool last) {
    return client_.UploadFileByPiecesAloneStorage(url, piece.data(), static_cast<unsigned>(piece.size()), last);
  }
  bool SendNamed(std::string& url, const std::string& piece, bool last, bool first) {
    return client_.UploadFileByPiecesAndFileName(url, piece.data(), static_cast<unsigned>(piece.size()), last, first);
  }

  // Gives the requests that reached the server, without keys and hosts.
  std::vector<std::string> Sequence() const {
    std::vector<std::string> sequence;
    for (const ScriptedRequest& request : server_.Requests()) {
      const std::size_t question = request.target.find('?');
      const std::string query = question == std::string::npos ? "" : request.target.substr(question);
      sequence.push_back(request.method + multipart_.WithPlainIds(query));
    }
    return sequence;
  }

  // Gives the key under which the registry keeps an upload of the client's pool.
  std::string RegistryKey(const std::string& key) const { return server_.Url(Path(key)); }
  bool IsRegistered(const std::string& key) const {
    std::int32_t last = 0;
    PieceTask task;
    return CPartUploadRegistry::Instance().FindTask(RegistryKey(key), last, task);
  }
  // The sizes of the parts that were sent, in their order.
  std::vector<std::size_t> PartSizes() const {
    std::vector<std::size_t> sizes;
    for (const ScriptedRequest& request : server_.Requests()) {
      if (request.target.find("&part_number=") != std::string::npos) {
        sizes.push_back(request.body.size());
      }
    }
    return sizes;
  }

  // The registry is one for the process, so named objects get names of their own.
  const std::string name_ = TansyBase::GuidUtil::CreateGuid() + ".log";
  CMultipartServer multipart_;
  CObjectClient client_{Config()};
};

TEST_F(ObjectClientPiecesTest, SendsAnObjectPieceByPiece) {
  std::string url;
  EXPECT_TRUE(Send(url, "first ", false));
  EXPECT_THAT(url, MatchesRegex("/pool/" + std::string(kGuid) + "\\.pfile"));
  const std::string url_of_first = url;
  EXPECT_TRUE(Send(url, "second", false));
  EXPECT_TRUE(Send(url, "third", true));
  EXPECT_EQ(url, url_of_first);
  EXPECT_THAT(Sequence(), ElementsAre("GET?bestnode", "POST?uploads", "POST?upload_id=task-1&part_number=1",
                                      "POST?upload_id=task-1&part_number=2", "POST?upload_id=task-1&part_number=3",
                                      "POST?upload_id=task-1", "GET?metadata"));
  const std::vector<ScriptedRequest> requests = server_.Requests();
  ExpectRequest(requests[3], {.method = "POST",
                              .target = url + "?upload_id=" + multipart_.TaskId(1) + "&part_number=2",
                              .host = server_.Address(),
                              .content_type = kBinaryType,
                              .body = "second",
                              .content_md5 = true});
  EXPECT_EQ(requests[5].body,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><CompleteMultipartUpload><TotalPartNum>3</TotalPartNum>"
            "<Part><PartNumber>1</PartNumber><PartSize>6</PartSize><ETag/></Part>"
            "<Part><PartNumber>2</PartNumber><PartSize>6</PartSize><ETag/></Part>"
            "<Part><PartNumber>3</PartNumber><PartSize>5</PartSize><ETag/></Part></CompleteMultipartUpload>");
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), "first secondthird");
  EXPECT_FALSE(IsRegistered(KeyOfRequest(0)));
  EXPECT_TRUE(Progress().empty());
}

TEST_F(ObjectClientPiecesTest, SendsAllPiecesToTheNodeOfTheFirst) {
  Tests::ScriptedServer node;
  node.Handle([&](const ScriptedRequest& request) { return multipart_.Answer(request, node.Address()); });
  server_.Handle([&](const ScriptedRequest& request) { return multipart_.Answer(request, node.Address()); });
  std::string url;
  EXPECT_TRUE(Send(url, "a", false));
  EXPECT_TRUE(Send(url, "b", true));
  EXPECT_EQ(node.Requests().size(), 2u);
  EXPECT_THAT(Sequence(), ElementsAre("GET?bestnode", "POST?uploads", "POST?upload_id=task-1", "GET?metadata"));
}

TEST_F(ObjectClientPiecesTest, SendsAnObjectOfOnePieceAsABuffer) {
  std::string url;
  EXPECT_TRUE(Send(url, "all of it", true));
  EXPECT_THAT(url, MatchesRegex("/pool/" + std::string(kGuid) + "\\.pfile"));
  EXPECT_THAT(Sequence(), ElementsAre("GET?bestnode", "PUT"));
  EXPECT_EQ(server_.Requests()[1].body, "all of it");
  const std::string large(33554433, 'x');
  url.clear();
  EXPECT_FALSE(Send(url, large, true));
  EXPECT_EQ(ErrorOf(client_), (LastError{2, 0, "file size exceed 32M."}));
  EXPECT_EQ(url, "");
}

TEST_F(ObjectClientPiecesTest, SendsAnObjectOfOnePieceAsAPartWhereAskedFor) {
  std::string url;
  EXPECT_TRUE(SendAlone(url, "all of it", true));
  EXPECT_THAT(url, MatchesRegex("/pool/" + std::string(kGuid) + "\\.pfile"));
  EXPECT_THAT(Sequence(), ElementsAre("GET?bestnode", "POST?uploads", "POST?upload_id=task-1&part_number=1",
                                      "POST?upload_id=task-1", "GET?metadata"));
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), "all of it");
  EXPECT_FALSE(IsRegistered(KeyOfRequest(0)));
}

TEST_F(ObjectClientPiecesTest, HasNoLimitForAPiece) {
  const std::string large(33554433, 'x');
  std::string url;
  EXPECT_TRUE(Send(url, large, false));
  EXPECT_TRUE(Send(url, "x", true)) << "nor a lower one";
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)).size(), large.size() + 1);
}

TEST_F(ObjectClientPiecesTest, GivesAPieceThatIsSentAgainItsNumberAgain) {
  std::string url;
  EXPECT_TRUE(Send(url, "one ", false));
  multipart_.SetPartHook([](int) { return ErrorAnswer(500, "ServerInternalError"); });
  EXPECT_FALSE(Send(url, "two ", false));
  EXPECT_EQ(log_->Count(kPieceFailed, logging::kError), 1u);
  const std::string key = KeyOfRequest(0);
  EXPECT_THAT(log_->Text(kPieceFailed),
              HasSubstr("url[" + key + "] partnum[2], dst location[" + server_.Address() + "]."));
  EXPECT_THAT(log_->Text(kPieceFailed), StartsWith("[Tansy::CloudStorage::CObjectClient::UploadFileByPieces]"));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "UploadPartObject rsp status code[500]."}));
  EXPECT_THAT(Sequence(), ElementsAre("GET?bestnode", "POST?uploads", "POST?upload_id=task-1&part_number=1",
                                      "POST?upload_id=task-1&part_number=2"))
      << "one attempt a call";
  multipart_.SetPartHook(nullptr);
  EXPECT_TRUE(Send(url, "two ", false));
  EXPECT_TRUE(Send(url, "end", true));
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), "one two end");
  EXPECT_THAT(server_.Requests().rbegin()[1].body, HasSubstr("<TotalPartNum>3</TotalPartNum>"));
}

TEST_F(ObjectClientPiecesTest, RegistersNothingWhenTheFirstPieceFails) {
  multipart_.SetPartHook([](int) { return ErrorAnswer(403, "AccessDenied"); });
  std::string url;
  EXPECT_FALSE(Send(url, "one", false));
  EXPECT_EQ(url, "");
  EXPECT_FALSE(IsRegistered(KeyOfRequest(0)));
}

TEST_F(ObjectClientPiecesTest, SaysWhyAFirstPieceFails) {
  server_.Handle([this](const ScriptedRequest& request) {
    return request.target.ends_with("?bestnode") ? BestNodeAnswer(server_.Address()) : ErrorAnswer(404, "NoSuchBucket");
  });
  std::string url;
  const std::string task = "[%s]upload first piece failed, create part task failed.[%s(%d)]";
  EXPECT_FALSE(Send(url, "one", false));
  EXPECT_THAT(log_->Text(task), StartsWith("[Tansy::CloudStorage::CObjectClient::UploadFileByPieces]"));
  EXPECT_FALSE(SendAlone(url, "one", true));
  EXPECT_THAT(log_->Text(task), StartsWith("[Tansy::CloudStorage::CObjectClient::UploadFileByPiecesAloneStorage]"));
  url = name_;
  EXPECT_FALSE(SendNamed(url, "one", false, true));
  EXPECT_THAT(log_->Text(task), StartsWith("[Tansy::CloudStorage::CObjectClient::UploadFileByPiecesAndFileName]"));
  EXPECT_EQ(log_->Count(task, logging::kError), 3u);
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "CreatePartTask rsp status code[404]."}));

  server_.Handle([](const ScriptedRequest&) { return ErrorAnswer(404, "NoSuchBucket"); });
  url.clear();
  const std::string node = "[%s]upload first piece failed, get best node failed.[%s(%d)]";
  EXPECT_FALSE(Send(url, "one", false));
  EXPECT_FALSE(SendAlone(url, "one", false));
  url = name_;
  EXPECT_FALSE(SendNamed(url, "one", false, true));
  EXPECT_EQ(log_->Count(node, logging::kError), 3u);
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "get best node rsp status code[404]."}));
  EXPECT_EQ(url, name_);
}

TEST_F(ObjectClientPiecesTest, DoesNotKnowTheUploadsOfAnotherProcess) {
  const std::string line = "[%s]upload piece failed, find task failed, url[%s].[%s(%d)]";
  std::string url = "/pool/unknown.pfile";
  EXPECT_FALSE(Send(url, "x", false));
  EXPECT_FALSE(SendAlone(url, "x", true));
  EXPECT_FALSE(SendNamed(url, "x", true, false));
  EXPECT_EQ(log_->Count(line, logging::kError), 3u);
  EXPECT_THAT(log_->Text(line), HasSubstr("unknown.pfile]."));
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_EQ(ErrorOf(client_), (LastError{15, 0, "no upload of object[unknown.pfile] is known."}));
}

TEST_F(ObjectClientPiecesTest, NeedsASlashInTheUrlOfALaterPiece) {
  const std::string line = "[%s]upload piece failed, invalid url[%s].[%s(%d)]";
  std::string url = "no-slash";
  EXPECT_FALSE(Send(url, "x", true));
  EXPECT_FALSE(SendAlone(url, "x", false));
  EXPECT_FALSE(SendNamed(url, "x", false, false));
  EXPECT_EQ(log_->Count(line, logging::kError), 3u);
  EXPECT_THAT(log_->Text(line), HasSubstr("invalid url[no-slash]."));
  EXPECT_EQ(ErrorOf(client_), (LastError{2, 0, "url[no-slash] holds no object key."}));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(ObjectClientPiecesTest, LooksOnlyBehindTheLastSlash) {
  std::string url;
  EXPECT_TRUE(Send(url, "a", false));
  std::string moved = "http://proxy/some/where/" + KeyOfRequest(0);
  EXPECT_TRUE(Send(moved, "b", true));
  EXPECT_EQ(moved, "http://proxy/some/where/" + KeyOfRequest(0));
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), "ab");
}

TEST_F(ObjectClientPiecesTest, KeepsTheUploadWhoseCompletionFails) {
  multipart_.SetFinishAnswer(ErrorAnswer(500, "ServerInternalError"));
  std::string url;
  EXPECT_TRUE(Send(url, "one ", false));
  EXPECT_FALSE(Send(url, "two ", true));
  const std::string line = "[%s]upload piece failed, url[%s], task id[%s].[%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("url[" + KeyOfRequest(0) + "], task id[" + multipart_.TaskId(1) + "]."));
  EXPECT_TRUE(IsRegistered(KeyOfRequest(0)));
  // The failed call changed nothing: its piece is sent again, and then it is there once.
  multipart_.SetFinishAnswer({});
  EXPECT_TRUE(Send(url, "two ", true));
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), "one two ");
  EXPECT_FALSE(IsRegistered(KeyOfRequest(0)));
}

TEST_F(ObjectClientPiecesTest, SendsUnderANameOfTheCaller) {
  std::string url = name_;
  EXPECT_TRUE(SendNamed(url, "one ", false, true));
  EXPECT_EQ(url, "/pool/" + name_);
  EXPECT_EQ(server_.Requests()[0].target, "/pool/" + name_ + "?bestnode");
  EXPECT_TRUE(SendNamed(url, "two ", false, false));
  EXPECT_TRUE(SendNamed(url, "end", true, false));
  EXPECT_EQ(url, "/pool/" + name_);
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), "one two end");
  // Each call traces the key twice: when it is known and when the piece is recorded.
  EXPECT_EQ(log_->Count(kKeyTrace, logging::kTrace), 6u);
  EXPECT_THAT(log_->Text(kKeyTrace), HasSubstr("UploadFileByPiecesAndFileName][" + name_ + "]."));
  EXPECT_FALSE(IsRegistered(name_));
}

TEST_F(ObjectClientPiecesTest, SendsANamedObjectOfOnePieceInOneRequest) {
  std::string url = name_;
  EXPECT_TRUE(SendNamed(url, "all of it", true, true));
  EXPECT_EQ(url, "/pool/" + name_);
  ASSERT_THAT(Sequence(), ElementsAre("GET?bestnode", "PUT"));
  ExpectRequest(server_.Requests()[1], {.method = "PUT",
                                        .target = "/pool/" + name_,
                                        .host = server_.Address(),
                                        .content_type = kBinaryType,
                                        .body = "all of it",
                                        .content_md5 = true});
  EXPECT_EQ(log_->Count(kKeyTrace, logging::kTrace), 1u);
}

TEST_F(ObjectClientPiecesTest, LimitsANamedObjectOfOnePiece) {
  const std::string large(33554433, 'x');
  std::string url = name_;
  EXPECT_FALSE(SendNamed(url, large, true, true));
  EXPECT_EQ(log_->Count("[%s]upload file failed, size[%d] exceed.[%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{2, 0, "file size exceed 32M."}));
  EXPECT_EQ(url, name_);
  EXPECT_TRUE(client_.UploadFileByPiecesAndFileName(url, large.data(), 33554432, true, true));
}

TEST_F(ObjectClientPiecesTest, SaysWhatFailedOfANamedObjectOfOnePiece) {
  server_.Handle([this](const ScriptedRequest& request) {
    return request.target.ends_with("?bestnode") ? BestNodeAnswer(server_.Address()) : ErrorAnswer(400, "KeyTooLong");
  });
  std::string url = name_;
  EXPECT_FALSE(SendNamed(url, "x", true, true));
  const std::string upload = "[%s]upload file failed, object key[%s] upload failed.[%s(%d)]";
  EXPECT_EQ(log_->Count(upload, logging::kError), 1u);
  EXPECT_THAT(log_->Text(upload), HasSubstr("object key[" + name_ + "] upload failed."));
  server_.Handle([](const ScriptedRequest&) { return ErrorAnswer(404, "NoSuchBucket"); });
  EXPECT_FALSE(SendNamed(url, "x", true, true));
  EXPECT_EQ(log_->Count("[%s]upload file failed, object key[%s] get best node failed.[%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(url, name_);
}

TEST_F(ObjectClientPiecesTest, NeedsAName) {
  std::string url;
  EXPECT_FALSE(SendNamed(url, "x", false, true));
  EXPECT_FALSE(SendNamed(url, "x", true, true));
  EXPECT_FALSE(SendNamed(url, "x", false, false));
  EXPECT_EQ(log_->Count("[%s]out_url is empty![%s(%d)]", logging::kError), 3u);
  EXPECT_EQ(ErrorOf(client_), (LastError{2, 0, "out_url is empty."}));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(ObjectClientPiecesTest, RefusesASecondUploadUnderOneName) {
  std::string url = name_;
  EXPECT_TRUE(SendNamed(url, "one", false, true));
  std::string again = name_;
  EXPECT_FALSE(SendNamed(again, "other", false, true));
  EXPECT_EQ(ErrorOf(client_), (LastError{15, 0, "another upload of object[" + name_ + "] is not finished."}));
  EXPECT_EQ(server_.Requests().size(), 3u) << "nothing was sent for it";
  const std::string line = "[%s]upload piece failed, add task failed, url[%s].[%s(%d)]";
  EXPECT_EQ(log_->Count(line, logging::kError), 1u);
  EXPECT_THAT(log_->Text(line), HasSubstr("url[" + name_ + "]."));
  EXPECT_TRUE(SendNamed(url, "two", true, false)) << "the first goes on";
  EXPECT_EQ(multipart_.Content(multipart_.TaskId(1)), "onetwo");
}

TEST_F(ObjectClientPiecesTest, SaysThatAnUploadWasForgottenMeanwhile) {
  std::string url = name_;
  EXPECT_TRUE(SendNamed(url, "one", false, true));
  multipart_.SetPartHook([this](int) {
    CPartUploadRegistry::Instance().RemoveTask(RegistryKey(name_));
    return ScriptedAnswer{};
  });
  EXPECT_FALSE(SendNamed(url, "two", true, false));
  EXPECT_EQ(log_->Count("[%s]upload piece failed, add piece failed, url[%s].[%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(ErrorOf(client_), (LastError{15, 0, "the upload of object[" + name_ + "] has ended meanwhile."}));
}

TEST_F(ObjectClientPiecesTest, SaysThatThePiecesWereForgottenMeanwhile) {
  std::string url = name_;
  EXPECT_TRUE(SendNamed(url, "one", false, true));
  const auto forgetting = std::make_shared<CForgettingSink>(RegistryKey(name_));
  const std::shared_ptr<logging::ISink> before = logging::SetSink(forgetting);
  EXPECT_FALSE(SendNamed(url, "two", true, false));
  logging::SetSink(before);
  EXPECT_EQ(forgetting->Count("[%s]upload piece failed, get all pieces failed, url[%s].[%s(%d)]"), 1u);
  EXPECT_FALSE(server_.Requests().back().target.ends_with("upload_id=" + multipart_.TaskId(1))) << "not completed";
}

// ---- pieces of other sizes than the first

TEST_F(ObjectClientPiecesTest, CutsAndGathersPiecesOfOtherSizes) {
  const std::string bytes = Tests::RandomBytes(10 * kPart);
  const std::vector<std::size_t> sizes = {kPart, kPart, 10, kPart - 5, 0, 3 * kPart + 7, 1, 2 * kPart + 3};
  std::string url;
  std::size_t sent = 0;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    EXPECT_TRUE(Send(url, bytes.substr(sent, sizes[i]), i == sizes.size() - 1)) << i;
    sent += sizes[i];
  }
  EXPECT_TRUE(multipart_.Content(multipart_.TaskId(1)) == bytes.substr(0, sent));
  EXPECT_THAT(PartSizes(), ElementsAre(kPart, kPart, kPart, kPart, kPart, kPart, kPart, kPart, 16));
  EXPECT_FALSE(IsRegistered(KeyOfRequest(0)));
}

TEST_F(ObjectClientPiecesTest, CutsALargerLastPiece) {
  const std::string bytes = Tests::RandomBytes(3 * kPart);
  std::string url;
  EXPECT_TRUE(Send(url, bytes.substr(0, kPart), false));
  EXPECT_TRUE(Send(url, bytes.substr(kPart), true));
  EXPECT_TRUE(multipart_.Content(multipart_.TaskId(1)) == bytes);
  EXPECT_THAT(PartSizes(), ElementsAre(kPart, kPart, kPart));
}

TEST_F(ObjectClientPiecesTest, RefusesToCutIntoPartsBelow64KiB) {
  for (const std::size_t part : {std::size_t{6}, std::size_t{kPart - 1}}) {
    const std::string first = Tests::RandomBytes(part);
    std::string url;
    EXPECT_TRUE(Send(url, first, false));
    EXPECT_FALSE(Send(url, first + "x", false));
    EXPECT_FALSE(Send(url, first.substr(1), false));
    EXPECT_FALSE(Send(url, first + "x", true));
    const std::string size = std::to_string(part + 1) + "] bytes after a first one of [" + std::to_string(part);
    EXPECT_EQ(
        ErrorOf(client_),
        (LastError{15, 0, "piece of [" + size + "]: pieces of other sizes need a first one of at least 65536 bytes."}));
    // The upload is as it was before, and goes on with pieces that fit.
    EXPECT_TRUE(Send(url, first, false));
    EXPECT_TRUE(Send(url, "end", true));
    EXPECT_TRUE(multipart_.Object(url) == first + first + "end");
  }
}

TEST_F(ObjectClientPiecesTest, TakesEmptyPieces) {
  std::string url;
  EXPECT_TRUE(Send(url, "abc", false));
  EXPECT_TRUE(Send(url, "", false));
  EXPECT_TRUE(client_.UploadFileByPieces(url, nullptr, 0, false));
  EXPECT_TRUE(Send(url, "def", false));
  EXPECT_TRUE(Send(url, "", true)) << "the end is told apart from the last bytes";
  EXPECT_EQ(multipart_.Object(url), "abcdef");
  EXPECT_THAT(PartSizes(), ElementsAre(3, 3));

  // When bytes wait to be sent, an empty last piece sends them.
  const std::string bytes = Tests::RandomBytes(kPart + 5);
  std::string gathered;
  EXPECT_TRUE(Send(gathered, bytes.substr(0, kPart), false));
  EXPECT_TRUE(Send(gathered, bytes.substr(kPart), false));
  EXPECT_TRUE(Send(gathered, "", true));
  EXPECT_TRUE(multipart_.Object(gathered) == bytes);
}

TEST_F(ObjectClientPiecesTest, LeavesAnEmptyFirstPieceToTheServer) {
  std::string url;
  EXPECT_FALSE(Send(url, "", false));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "UploadPartObject rsp status code[400]."}));
  EXPECT_EQ(url, "");
}

TEST_F(ObjectClientPiecesTest, NeedsDataForASize) {
  std::string url;
  EXPECT_FALSE(client_.UploadFileByPieces(url, nullptr, 1, false));
  EXPECT_FALSE(client_.UploadFileByPieces(url, nullptr, 1, true));
  url = name_;
  EXPECT_FALSE(client_.UploadFileByPiecesAndFileName(url, nullptr, 1, true, true));
  EXPECT_EQ(ErrorOf(client_), (LastError{2, 0, "no data."}));
  EXPECT_TRUE(server_.Requests().empty());
}

// ---- pieces that are sent again

TEST_F(ObjectClientPiecesTest, SendsAPieceOfManyPartsAgain) {
  const std::string bytes = Tests::RandomBytes(6 * kPart);
  std::string url;
  EXPECT_TRUE(Send(url, bytes.substr(0, kPart), false));
  EXPECT_TRUE(Send(url, bytes.substr(kPart, 100), false));
  // The second of three parts fails.
  multipart_.SetPartHook(
      [](int number) { return number == 3 ? ErrorAnswer(500, "ServerInternalError") : ScriptedAnswer{}; });
  EXPECT_FALSE(Send(url, bytes.substr(kPart + 100, 3 * kPart), false));
  EXPECT_EQ(ErrorOf(client_).code, 5);
  multipart_.SetPartHook(nullptr);
  EXPECT_TRUE(Send(url, bytes.substr(kPart + 100, 3 * kPart), false));
  EXPECT_TRUE(Send(url, bytes.substr(4 * kPart + 100), true));
  EXPECT_TRUE(multipart_.Object(url) == bytes);
}

TEST_F(ObjectClientPiecesTest, SendsALastPieceAgainWithTheBytesThatWaited) {
  const std::string bytes = Tests::RandomBytes(3 * kPart);
  std::string url;
  EXPECT_TRUE(Send(url, bytes.substr(0, kPart), false));
  EXPECT_TRUE(Send(url, bytes.substr(kPart, 100), false));
  multipart_.SetFinishAnswer(ErrorAnswer(500, "ServerInternalError"));
  EXPECT_FALSE(Send(url, bytes.substr(kPart + 100), true));
  EXPECT_FALSE(Send(url, bytes.substr(kPart + 100), true));
  EXPECT_EQ(ErrorOf(client_), (LastError{5, 0, "FinishPartTask rsp status code[500]."}));
  multipart_.SetFinishAnswer({});
  EXPECT_TRUE(Send(url, bytes.substr(kPart + 100), true));
  EXPECT_TRUE(multipart_.Object(url) == bytes);
}

TEST_F(ObjectClientPiecesTest, SendsAnotherLastPieceInsteadOfAFailedOne) {
  std::string url;
  EXPECT_TRUE(Send(url, "one-", false));
  EXPECT_TRUE(Send(url, "two-", false));
  multipart_.SetFinishAnswer(ErrorAnswer(500, "ServerInternalError"));
  EXPECT_FALSE(Send(url, "end", true));
  multipart_.SetFinishAnswer({});
  EXPECT_TRUE(Send(url, "", true));
  EXPECT_EQ(multipart_.Object(url), "one-two-");
}

TEST_F(ObjectClientPiecesTest, RegistersNothingWhenTheOnlyPieceCannotBeCompleted) {
  multipart_.SetFinishAnswer(ErrorAnswer(500, "ServerInternalError"));
  std::string url;
  EXPECT_FALSE(SendAlone(url, "all of it", true));
  EXPECT_EQ(url, "");
  EXPECT_FALSE(IsRegistered(KeyOfRequest(0))) << "the caller does not know its key";
}

TEST_F(ObjectClientPiecesTest, BelievesACompletionOnlyWhenTheObjectHasItsSize) {
  std::string url = name_;
  EXPECT_TRUE(SendNamed(url, "one", false, true));
  multipart_.SetMetadataAnswer({.headers = {{"Object-Size", "5"}}});
  EXPECT_FALSE(SendNamed(url, "two", true, false));
  EXPECT_EQ(ErrorOf(client_), (LastError{14, 0, "object size[5] instead of [6]."}));
  EXPECT_TRUE(IsRegistered(name_));
  CPartUploadRegistry::Instance().RemoveTask(RegistryKey(name_));
}

// ---- equal names

TEST_F(ObjectClientPiecesTest, KeepsEqualNamesInTwoPoolsApart) {
  SStorageServerConfig config = Config();
  config.pool_name = "other";
  CObjectClient other(config);
  std::string url = name_;
  std::string other_url = name_;
  EXPECT_TRUE(SendNamed(url, "one ", false, true));
  EXPECT_TRUE(other.UploadFileByPiecesAndFileName(other_url, "eins ", 5, false, true));
  EXPECT_EQ(other_url, "/other/" + name_);
  EXPECT_TRUE(SendNamed(url, "two ", false, false));
  EXPECT_TRUE(other.UploadFileByPiecesAndFileName(other_url, "zwei ", 5, false, false));
  EXPECT_TRUE(SendNamed(url, "end", true, false));
  EXPECT_TRUE(other.UploadFileByPiecesAndFileName(other_url, "Ende", 4, true, false));
  EXPECT_EQ(multipart_.Object(url), "one two end");
  EXPECT_EQ(multipart_.Object(other_url), "eins zwei Ende");
}

TEST_F(ObjectClientPiecesTest, KeepsEqualNamesOnTwoServersApart) {
  Tests::ScriptedServer second;
  CMultipartServer second_multipart;
  second.Handle([&](const ScriptedRequest& request) { return second_multipart.Answer(request, second.Address()); });
  SStorageServerConfig config = Config();
  config.upload_port = config.download_port = second.Port();
  CObjectClient other(config);
  std::string url = name_;
  std::string other_url = name_;
  EXPECT_TRUE(SendNamed(url, "one", false, true));
  EXPECT_TRUE(other.UploadFileByPiecesAndFileName(other_url, "eins", 4, false, true));
  EXPECT_TRUE(SendNamed(url, "two", true, false));
  EXPECT_TRUE(other.UploadFileByPiecesAndFileName(other_url, "zwei", 4, true, false));
  EXPECT_EQ(multipart_.Object(url), "onetwo");
  EXPECT_EQ(second_multipart.Object(other_url), "einszwei");
}

TEST_F(ObjectClientPiecesTest, GoesOnFromAnotherClientOfTheSamePool) {
  std::string url = name_;
  EXPECT_TRUE(SendNamed(url, "one", false, true));
  CObjectClient other(Config());
  EXPECT_TRUE(other.UploadFileByPiecesAndFileName(url, "two", 3, true, false));
  EXPECT_EQ(multipart_.Object(url), "onetwo");
}

TEST_F(ObjectClientPiecesTest, RefusesAPieceWhileAnotherIsOnItsWay) {
  std::string url = name_;
  EXPECT_TRUE(SendNamed(url, "one", false, true));
  std::string inner_url = url;
  bool inner = true;
  LastError error;
  multipart_.SetPartHook([&](int) {
    inner = SendNamed(inner_url, "xxx", false, false);
    error = ErrorOf(client_);
    return ScriptedAnswer{};
  });
  EXPECT_TRUE(SendNamed(url, "two", false, false));
  EXPECT_FALSE(inner);
  EXPECT_EQ(error, (LastError{15, 0, "another piece of object[" + name_ + "] is on its way."}));
  multipart_.SetPartHook(nullptr);
  EXPECT_TRUE(SendNamed(url, "end", true, false));
  EXPECT_EQ(multipart_.Object(url), "onetwoend");
}

TEST_F(ObjectClientPiecesTest, FailsWithoutItsState) {
  Strip(client_);
  std::string url;
  EXPECT_FALSE(Send(url, "x", false));
  EXPECT_FALSE(SendAlone(url, "x", true));
  EXPECT_EQ(log_->Count("[%s]Init failed, server_config is nullptr.[%s(%d)]", logging::kError), 2u);
  EXPECT_FALSE(Send(url, "x", true));
  url = name_;
  EXPECT_FALSE(SendNamed(url, "x", true, true));
  EXPECT_EQ(log_->Count("[%s]upload file failed, ptr_conf_ is null.[%s(%d)]", logging::kError), 2u);
  EXPECT_FALSE(SendNamed(url, "x", false, true));
}

TEST_F(ObjectClientPiecesTest, KeepsUploadsOfManyThreadsApart) {
  constexpr int kThreads = 8;
  constexpr int kPieces = 10;
  std::vector<std::thread> threads;
  std::vector<std::string> urls(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      std::string& url = urls[static_cast<std::size_t>(i)];
      for (int piece = 0; piece < kPieces; ++piece) {
        EXPECT_TRUE(
            Send(url, std::string(1000, static_cast<char>('a' + i)) + std::to_string(piece), piece == kPieces - 1));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::string seen;
  for (int task = 1; task <= kThreads; ++task) {
    const std::string content = multipart_.Content(multipart_.TaskId(task));
    ASSERT_FALSE(content.empty());
    const char letter = content[0];
    seen += letter;
    std::string expected;
    for (int piece = 0; piece < kPieces; ++piece) {
      expected += std::string(1000, letter) + std::to_string(piece);
    }
    EXPECT_TRUE(content == expected);
  }
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, "abcdefgh");
}

}  // namespace
}  // namespace Tansy::CloudStorage
