// Uploads and downloads of pictures.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "PictureServerFixture.h"

namespace Tansy::CloudStorage {
namespace {

class PictureServerPictures : public PictureServerTest {
 protected:
  void SetUp() override {
    PictureServerTest::SetUp();
    StartServer();
  }

  static std::string Bytes() {
    std::string bytes;
    for (int i = 0; i < 1000; ++i) {
      bytes += static_cast<char>(i);
    }
    return bytes;
  }

  void ExpectEmptyForm(const TansyNet::HttpServerRecv& request, int length, int size) {
    log_->Clear();
    ExpectError(Ask(request), -50001, 400);
    const std::string format =
        "[%s]HandleUploadPicture, parse picture failed, picture empty. pic_length=%d, pic.size=%d[%s(%d)]";
    ExpectLog(format, logging::kError, "CPictureServer::HandleUploadPicture");
    EXPECT_NE(
        log_->Text(format).find("pic_length=" + std::to_string(length) + ", pic.size=" + std::to_string(size) + "["),
        std::string::npos);
    EXPECT_EQ(store.saves, 0);
  }
};

TEST_F(PictureServerPictures, AnUploadReachesTheHostAndItsAddressTheClient) {
  store.url = "/pic?id=7&key=\"quoted\"";
  ExpectJson(Ask(Upload(Bytes(), "1000")), "{\"PictureUrl\":\"/pic?id=7&key=\\\"quoted\\\"\"}");
  EXPECT_EQ(store.saves, 1);
  EXPECT_EQ(store.saved_bytes, Bytes());
  EXPECT_EQ(store.location_before, "");
  EXPECT_EQ(store.save_flag, 0);
}

TEST_F(PictureServerPictures, APictureOfOneByteIsEnough) {
  ExpectJson(Ask(Upload("x", "1")), "{\"PictureUrl\":\"/pic?id=7\"}");
}

TEST_F(PictureServerPictures, OtherPartsAndTheOrderOfPartsDoNotMatter) {
  auto parts = FormOf("abc", "3");
  std::swap(parts[0], parts[2]);
  parts.push_back({"Token", "", "", "t"});
  parts.push_back({"", "", "", ""});
  EXPECT_EQ(Ask(Upload(parts)).response.status, 200);
  EXPECT_EQ(store.saved_bytes, "abc");
}

TEST_F(PictureServerPictures, OfRepeatedPartsTheLastCounts) {
  auto parts = FormOf("abc", "3");
  parts.push_back({"Picture", "", "", "later"});
  parts.push_back({"PictureLength", "", "", "5"});
  EXPECT_EQ(Ask(Upload(parts)).response.status, 200);
  EXPECT_EQ(store.saved_bytes, "later");
}

TEST_F(PictureServerPictures, ALengthThatIsNotThePicturesIsRefused) {
  ExpectEmptyForm(Upload("abc", "2"), 2, 3);
  ExpectEmptyForm(Upload("abc", "4"), 4, 3);
  ExpectEmptyForm(Upload("abc", "0"), 0, 3);
  ExpectEmptyForm(Upload("abc", "-3"), -3, 3);
  ExpectEmptyForm(Upload("abc", "many"), 0, 3);
  ExpectEmptyForm(Upload("abc", ""), 0, 3);
  ExpectEmptyForm(Upload("abc", "4294967299"), 2147483647, 3);       // 3 beyond 32 bits
  ExpectEmptyForm(Upload("abc", std::string(64, '0') + "3"), 0, 3);  // longer than any number is
  EXPECT_EQ(Ask(Upload("abc", std::string(63, '0') + "3")).response.status, 200);
}

TEST_F(PictureServerPictures, AMissingPartIsRefused) {
  ExpectEmptyForm(Upload("", "0"), 0, 0);
  ExpectEmptyForm(Upload("", "3"), 3, 0);
  auto no_picture = FormOf("abc", "3");
  no_picture.pop_back();
  ExpectEmptyForm(Upload(no_picture), 3, 0);
  auto no_length = FormOf("abc", "3");
  no_length.erase(no_length.begin() + 1);
  ExpectEmptyForm(Upload(no_length), 0, 3);
  ExpectEmptyForm(Upload(std::vector<TansyNet::FormPart>()), 0, 0);
  auto other_case = FormOf("abc", "3");
  other_case[2].name = "picture";
  ExpectEmptyForm(Upload(other_case), 3, 0);
}

TEST_F(PictureServerPictures, AnUnsignedUploadIsRefusedBeforeItsFormIsLookedAt) {
  auto request = Upload("abc", "2");
  request.headers.erase("Authorization");
  ExpectError(Ask(request), -58002, 403);
  ExpectLog("[%s]HandleUploadPicture, check auth failed[%s(%d)]", logging::kError,
            "CPictureServer::HandleUploadPicture");
  EXPECT_EQ(store.saves, 0);
}

TEST_F(PictureServerPictures, WithoutAnUploadCallbackNothingCanBeStored) {
  StorageServerConfig_V1 config = MakeConfig();
  config.save_object = nullptr;
  StartServer(config);
  ExpectError(Ask(Upload("abc", "3")), -50004, 500);
  ExpectLog("[%s]HandleUploadPicture, upload func null.[%s(%d)]", logging::kError,
            "CPictureServer::HandleUploadPicture");
  log_->Clear();
  ExpectError(Ask(Upload("abc", "2")), -50001, 400);  // the form comes first
}

TEST_F(PictureServerPictures, AFailingUploadCallbackIsToldToTheClient) {
  for (const int result : {1, 3, -5}) {
    log_->Clear();
    store.save_result = result;
    ExpectError(Ask(Upload("abc", "3")), -50002, 500);
    const std::string format = "[%s]HandleUploadPicture, upload failed[%d].[%s(%d)]";
    ExpectLog(format, logging::kError, "CPictureServer::HandleUploadPicture");
    EXPECT_NE(log_->Text(format).find("failed[" + std::to_string(result) + "]"), std::string::npos);
  }
}

// A picture whose address reached no client is never asked for, so it is removed.
TEST_F(PictureServerPictures, APictureWhoseAnswerCannotBeSentIsRemovedAgain) {
  store.url = "/pic?id=pc01-lost";
  Http().FailSends(1004);
  EXPECT_EQ(Ask(Upload("abc", "3")).attempts, 1);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (removals == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  ASSERT_EQ(removals, 1);
  EXPECT_EQ(store.saves, 1);
  EXPECT_EQ(store.removed, std::vector<std::string>{"/pic?id=pc01-lost"});
  Http().FailSends(0);
  EXPECT_EQ(Ask(Upload("abc", "3")).response.status, 200);
  EXPECT_EQ(store.removed.size(), 1u) << "one whose answer was sent stays";
}

TEST_F(PictureServerPictures, ADownloadAnswersWithTheHostsBytes) {
  store.picture = Bytes();
  const auto answer = Ask(Signed(Request("GET", "/pic", "id=7&x=%20+")));
  EXPECT_EQ(answer.attempts, 1);
  EXPECT_EQ(answer.response.status, 200);
  EXPECT_EQ(answer.response.content_type, "image/jpeg");
  EXPECT_EQ(answer.body, Bytes());
  EXPECT_EQ(store.reads, 1);
  EXPECT_EQ(store.read_location, "/pic?id=7&x=%20+");  // as it was sent
  EXPECT_EQ(store.size_before, 0u);
  EXPECT_EQ(store.read_flag, 0);
}

TEST_F(PictureServerPictures, TheQuestionMarkIsThereWithoutAQueryToo) {
  EXPECT_EQ(Ask(Signed(Request("GET", "/pic"))).response.status, 200);
  EXPECT_EQ(store.read_location, "/pic?");
}

TEST_F(PictureServerPictures, AnEmptyPictureAndAMissingBufferAreEmptyBodies) {
  const auto empty = Ask(Signed(Request("GET", "/pic", "id=7")));
  EXPECT_EQ(empty.response.status, 200);
  EXPECT_EQ(empty.body, "");
  store.deliver_null = true;
  store.picture = "five5";  // the size says five, the buffer is none
  const auto missing = Ask(Signed(Request("GET", "/pic", "id=7")));
  EXPECT_EQ(missing.response.status, 200);
  EXPECT_EQ(missing.body, "");
}

TEST_F(PictureServerPictures, WithoutADownloadCallbackThereIsNothingToRead) {
  StorageServerConfig_V1 config = MakeConfig();
  config.read_object = nullptr;
  StartServer(config);
  ExpectError(Ask(Signed(Request("GET", "/pic", "id=7"))), -50004, 500);
  ExpectLog("[%s]HandleDownloadPicture, download func null.[%s(%d)]", logging::kError,
            "CPictureServer::HandleDownloadPicture");
}

// A buffer that a failed read leaves behind belongs to the host. This host has freed it already.
TEST_F(PictureServerPictures, AFailingDownloadCallbackIsToldAndKeepsItsBuffer) {
  StorageServerConfig_V1 config = MakeConfig();
  config.read_object = [](char*& data, std::uint32_t&, const std::string&, int) {
    static char not_from_malloc = 'x';
    data = &not_from_malloc;
    return 4;
  };
  StartServer(config);
  ExpectError(Ask(Signed(Request("GET", "/pic", "id=7"))), -50002, 500);
  const std::string format = "[%s]HandleDownloadPicture, download failed[%d].[%s(%d)]";
  ExpectLog(format, logging::kError, "CPictureServer::HandleDownloadPicture");
  EXPECT_NE(log_->Text(format).find("failed[4]"), std::string::npos);
}

TEST_F(PictureServerPictures, EitherSignatureIsEnoughForADownload) {
  store.picture = "bytes";
  // Header only.
  EXPECT_EQ(Ask(Signed(Request("GET", "/pic", "id=7"))).body, "bytes");
  EXPECT_EQ(log_->Count("[%s]HandleDownloadPicture, check auth failed[%s(%d)]"), 0u);
  // Query only: the failing header check is logged and forgiven.
  const std::string query = "id=7&AccessKeyId=access&Expires=1793693109&Signature=3CS9CdKKeW5f41yx5ZJck2TTwGs%3D";
  EXPECT_EQ(Ask(Request("GET", "/pic", query)).body, "bytes");
  EXPECT_EQ(store.read_location, "/pic?" + query);
  ExpectLog("[%s]HandleDownloadPicture, check auth failed[%s(%d)]", logging::kError,
            "CPictureServer::HandleDownloadPicture");
  // Neither: the code is that of the query's check.
  log_->Clear();
  auto wrong = Request("GET", "/pic", "id=7&AccessKeyId=other&Signature=x");
  ExpectError(Ask(wrong), -58003, 401);
  ExpectLog("[%s]HandleDownloadPicture, check auth failed[%s(%d)]", logging::kError,
            "CPictureServer::HandleDownloadPicture");
  ExpectLog("[%s]HandleDownloadPicture, check url auth failed[%s(%d)]", logging::kError,
            "CPictureServer::HandleDownloadPicture");
  EXPECT_EQ(store.reads, 2);
}

}  // namespace
}  // namespace Tansy::CloudStorage
