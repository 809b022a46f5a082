#include "StorageServer/PicServer/PictureServerErrors.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TansyNet/HttpServer.h"
#include "fakes/ManualClock.h"

namespace Tansy::CloudStorage {
namespace {

std::string Hex(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

struct Row {
  int code;
  int status;
  std::string message;  // the bytes on the wire, in hexadecimal digits
};

const std::vector<Row> kRows = {
    {-50001, 400, "bde2cef6cafdbeddb4edcef32c48545450d0add2e9b4e6d4dacecacce2"},
    {-50002, 500, "cff2d4c6b4e6b4a2c9eac7ebd7cad4b4b3f6b4ed"},
    {-50003, 400, "cae4c8ebb5c4b2cecafdb4edcef3"},
    {-50004, 500, "b7fecef1c6f7c4dab2bfd2ecb3a3"},
    {-50007, 500, "b3acb9fdd7eeb4f3bdd3c8ebcfded6c6"},
    {-58001, 403, "d3c3bba7cedec8a8b6c1d0b4b8c3d7cad4b4"},
    {-58002, 403, "b7c3cecab1bbbedcbef8a3acd5aad2aad1e9d6a4b2bbcda8b9fd"},
    {-58003, 401, "d5cbbac5d2ecb3a3"},
    {-58005, 400, "b4e6b4a2546f6b656eb4edcef3"},
    {-58006, 403, "c7ebc7f3b5c4cab1bce4b4c1d3ebb7fecef1c6f7cab1bce4b4c1c6abb2eeb3acb9fde3d0d6b5"},
    {-58007, 500, "d0e8d2aad6d8d0c2c9eac7ebd7eed3c5bddab5e3a3a8546f6b656eb3accab1b5c8a3a9"},
    {-58008, 400, "cafdbeddb4f3d0a1d3eb436f6e74656e742d4c656e677468b2bbb6d4d3a6"},
    {-58009, 500, "48545450b6ceb2e9d1afd2ecb3a3"},
    {-58010, 500, "4e6f7420656e6f75676820667265652073706163652e"},
    {-58011, 500, "506f6f6c204e616d65206973204e6f742045786973742e"},
    {-58100, 500, "bcafc8bac8ddc1bfb2bbd7e3"},
    {-58102, 404, "b8c3b4e6b4a2d7cad4b4b3d8b2bbb4e6d4da"},
};

TEST(PictureServerErrors, EveryRowByteForByte) {
  const Tests::CManualClock clock;
  for (const Row& row : kRows) {
    TansyNet::HttpResponse response;
    std::string body;
    BuildPicErrorRsp(response, body, row.code);
    EXPECT_EQ(response.status, row.status) << row.code;
    EXPECT_EQ(Hex(body),
              Hex("{\"ErrorCode\": " + std::to_string(row.code) + ", \"Message\": \"") + row.message + Hex("\"}"))
        << row.code;
    EXPECT_EQ(response.content_type, "text/json; charset=utf-8");
    EXPECT_EQ(response.headers, (TansyNet::Headers{{"Date", "Tue,  3 Nov 2026 08:05:09 GMT"}}));
    EXPECT_EQ(response.cache_control, "no-cache");
  }
}

TEST(PictureServerErrors, TheCodesOfTheProtocol) {
  const std::vector<int> codes = {kPicHttpProtocol,   kPicStorageResource, kPicBadParameter,   kPicServerInternal,
                                  kPicTooManyClients, kPicNoRight,         kPicAccessDenied,   kPicAccount,
                                  kPicToken,          kPicTimeSkewed,      kPicNodeExpired,    kPicSizeMismatch,
                                  kPicSegmentQuery,   kPicNoFreeSpace,     kPicNoSuchPoolName, kPicClusterFull,
                                  kPicNoSuchPool};
  ASSERT_EQ(codes.size(), kRows.size());
  for (std::size_t i = 0; i < codes.size(); ++i) {
    EXPECT_EQ(codes[i], kRows[i].code);
  }
}

TEST(PictureServerErrors, ACodeWithoutARowKeepsTheStatusAndHasNoMessage) {
  for (const int code : {-50005, -50006, -58004, -1, 0, 1}) {
    TansyNet::HttpResponse response;
    response.status = 418;
    std::string body = "left over";
    BuildPicErrorRsp(response, body, code);
    EXPECT_EQ(response.status, 418);
    EXPECT_EQ(body, "{\"ErrorCode\": " + std::to_string(code) + ", \"Message\": \"\"}");
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
