// A picture server with a fake HTTP library in front of it and fake storage callbacks behind it.
#ifndef TANSY_TESTS_PIC_SERVER_PICTURE_SERVER_FIXTURE_H
#define TANSY_TESTS_PIC_SERVER_PICTURE_SERVER_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "TansyCloudStorage/StorageConfig.h"
#include "TansyNet/HttpServer.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/FakeHttpServer.h"
#include "fakes/ManualClock.h"

namespace Tansy::CloudStorage {

// What the storage callbacks were asked and what they are to answer. Set before a request, read after its answer.
struct FakePictureStore {
  int saves = 0;
  std::string saved_bytes;
  std::string location_before;  // what the save callback found in its argument
  int save_flag = -1;
  int save_result = 0;
  std::string url = "/pic?id=7";

  int reads = 0;
  std::string read_location;
  std::uint32_t size_before = 99;
  int read_flag = -1;
  int read_result = 0;
  bool deliver_null = false;
  std::string picture;

  std::vector<std::string> removed;
};

class PictureServerTest : public ::testing::Test {
 protected:
  static constexpr const char* kVersionPath = "/Quorvane/Version";
  static constexpr const char* kNodePath = "/Quorvane/BestNode";
  static constexpr const char* kWritePath = "/Quorvane/Picture/Write";
  static constexpr const char* kPoolsPath = "/Quorvane/PoolList";

  void SetUp() override;
  void TearDown() override;

  // Upload and download port 9700, HTTPS 9743, WAN 19700 and 19743, address 192.168.1.10, ak "access", sk "secret".
  static StorageServerConfig_V1 MakeConfig();
  // Starts the server; the result of InitPicServer.
  int StartServer(const StorageServerConfig_V1& config = MakeConfig());

  static TansyNet::HttpServerRecv Request(const std::string& method, const std::string& path,
                                          const std::string& query = {});
  // Adds a Date and an Authorization header as a client does; what is changed afterwards is not signed.
  static TansyNet::HttpServerRecv Signed(TansyNet::HttpServerRecv request);
  // "quorvane access:" and the signature of `text`.
  static std::string AuthorizationFor(const std::string& text);
  // An upload form around `picture`, signed.
  // The fields of a good upload; they view the arguments.
  static std::vector<TansyNet::FormPart> FormOf(std::string_view picture, std::string_view length);
  static TansyNet::HttpServerRecv Upload(const std::vector<TansyNet::FormPart>& parts);
  static TansyNet::HttpServerRecv Upload(std::string_view picture, const std::string& length);

  Tests::FakeAnswer Ask(const TansyNet::HttpServerRecv& request);
  static Tests::CFakeHttpServer& Http() { return Tests::CFakeHttpServer::Instance(); }

  // Expects the error body of `code` and its status, content type and date.
  static void ExpectError(const Tests::FakeAnswer& answer, int code, int status);
  static void ExpectJson(const Tests::FakeAnswer& answer, const std::string& body);
  // Expects exactly one line of this format and level since the last Clear, from a function of this name.
  void ExpectLog(const std::string& format, int level, const std::string& function) const;

  static FakePictureStore store;
  static std::atomic<int> removals;  // counted after store.removed has grown, which may be after the answer

  Tests::CLogCapture log_;
  Tests::CManualClock clock_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_TESTS_PIC_SERVER_PICTURE_SERVER_FIXTURE_H
