// A picture client and the scripted server that it talks to.
#ifndef TANSY_TESTS_PICTURE_CLIENT_FIXTURE_H
#define TANSY_TESTS_PICTURE_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "TansyCloudStorage/PictureClient.h"
#include "TansyCloudStorage/StorageConfig.h"
#include "TansyNet/HttpClient.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/ManualClock.h"
#include "fakes/ScriptedServer.h"

namespace Tansy::CloudStorage {

// The Authorization value of a request, worked out without the module's own helpers.
std::string ExpectedAuthorization(const std::string& method, const std::string& content_type, const std::string& date,
                                  const std::string& resource);

class CPictureClientFixture : public testing::Test {
 protected:
  static constexpr char kAk[] = "access";
  static constexpr char kSk[] = "secret";
  static constexpr char kDate[] = "Tue,  3 Nov 2026 08:05:09 GMT";

  explicit CPictureClientFixture(bool https = false, const std::string& address = "127.0.0.1");
  ~CPictureClientFixture() override;

  // A best-node answer that names a gateway.
  static Tests::ScriptedAnswer BestNodeAnswer(const std::string& address, const std::string& port);
  // The server names itself as the gateway and takes pictures.
  void ScriptUpload();

  Tests::CLogCapture log_;
  Tests::CManualClock clock_;
  Tests::ScriptedServer server_;
  SStorageServerConfig config_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_TESTS_PICTURE_CLIENT_FIXTURE_H
