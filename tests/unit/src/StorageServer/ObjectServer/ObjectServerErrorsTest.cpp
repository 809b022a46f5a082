#include "StorageServer/ObjectServer/ObjectServerErrors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "StorageServer/ServerComm.h"
#include "TansyNet/HttpServer.h"
#include "fakes/ManualClock.h"

namespace Tansy::Tests {
namespace {

struct ErrorCase {
  int code;
  int status;
  const char* name;
  const char* message;
};

constexpr ErrorCase kCases[] = {
    {-1, 403, "AccessDenied", "AccessDenied"},
    {-2, 403, "AccessIDProblem", "access id error"},
    {-3, 400, "BadDigest", "BadDigest"},
    {-4, 403, "BucketAccessDenied", "BucketAccessDenied"},
    {-7, 409, "BucketAlreadyExists", "BucketAlreadyExists"},
    {-9, 400, "IncompleteBoby", "IncompleteBoby"},
    {-10, 400, "InvalidBucketName", "InvalidBucketName"},
    {-11, 400, "KeyTooLong", "KeyTooLong"},
    {-12, 404, "NoSuchBucket", "NoSuchBucket"},
    {-13, 404, "NoSuchKey", "NoSuchKey"},
    {-14, 403, "RequestTimeTooSkewed", "RequestTimeTooSkewed"},
    {-15, 400, "InvalidPartID", "InvalidPartID"},
    {-16, 500, "ServerInternalError", "ServerInternalError"},
    {-17, 400, "InvalidXmlContent", "InvalidXmlContent"},
    {-18, 400, "InvalidHttpContent", "InvalidHttpContent"},
    {-19, 400, "URLNotSupport", "URLNotSupport"},
    {-20, 500, "NotEnoughSpace", "NotEnoughSpace"},
    {-21, 503, "ServiceUnavailable", "the database cannot be asked"},
    {-22, 421, "UploadElsewhere", "another node holds this upload"},
};

class CObjectErrorRow : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(CObjectErrorRow, HasItsStatusAndBody) {
  const ErrorCase& expected = GetParam();
  TansyNet::HttpResponse response;
  std::string body = "left from before";
  CloudStorage::BuildErrorRsp(response, body, expected.code);
  EXPECT_EQ(response.status, expected.status);
  EXPECT_EQ(body, std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?><Error><Code>") + expected.name +
                      "</Code><Message>" + expected.message + "</Message></Error>");
  EXPECT_EQ(response.content_type, "application/xml; charset=utf-8");
  EXPECT_EQ(response.cache_control, "no-cache");
}

INSTANTIATE_TEST_SUITE_P(Table, CObjectErrorRow, ::testing::ValuesIn(kCases),
                         [](const auto& row) { return std::string(row.param.name); });

// The protocol's page shows the same table, row for row.
TEST(CObjectErrors, ThePageShowsThemAll) {
  std::ifstream page(std::string(TANSY_DOCS) + "/protocol.md");
  std::vector<std::string> shown;
  bool in_table = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("| Code | status | Message |")) {
      in_table = true;
      std::getline(page, line);  // the line below the heads
    } else if (in_table && line.starts_with("| ")) {
      shown.push_back(line);
    } else {
      in_table = false;
    }
  }
  std::vector<std::string> expected;
  for (const ErrorCase& row : kCases) {
    expected.push_back(std::string("| ") + row.name + " | " + std::to_string(row.status) + " | " + row.message + " |");
  }
  EXPECT_EQ(shown, expected);
}

TEST(CObjectErrors, CodesWithoutARowAreEmptySuccesses) {
  for (const int code : {-5, -6, -8, -23, -1000, 0, 1, 3}) {
    TansyNet::HttpResponse response;
    std::string body;
    CloudStorage::BuildErrorRsp(response, body, code);
    EXPECT_EQ(response.status, 200) << code;
    EXPECT_THAT(body, ::testing::AnyOf(
                          "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Error><Code/><Message/></Error>",
                          "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Error><Code></Code><Message></Message></Error>"))
        << code;
    EXPECT_EQ(response.content_type, "application/xml; charset=utf-8");
  }
}

TEST(CObjectErrors, TheDateIsPaddedWithABlank) {
  const CManualClock clock;
  TansyNet::HttpResponse response;
  CloudStorage::SetRspHeaders(response, CloudStorage::kBytesContentType);
  EXPECT_EQ(response.content_type, "application/octet-stream; charset=utf-8");
  EXPECT_EQ(response.headers.at("Date"), "Tue,  3 Nov 2026 08:05:09 GMT");
}

}  // namespace
}  // namespace Tansy::Tests
