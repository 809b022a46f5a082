// A scripted S3 door, and settings that lead to it.
#ifndef TANSY_TESTS_UNIT_CLI_S3_FAKE_DOOR_H
#define TANSY_TESTS_UNIT_CLI_S3_FAKE_DOOR_H

#include <gtest/gtest.h>

#include <string>

#include "Failure.h"
#include "Settings.h"
#include "TansyNet/HttpClient.h"
#include "fakes/ScriptedServer.h"

namespace Tansy::Cli {

class CS3FakeDoor : public testing::Test {
 protected:
  ~CS3FakeDoor() override { TansyNet::HttpClient::CloseIdleConnections(); }

  Settings SettingsOfDoor() const {
    Settings settings;
    settings.object_server = {false, "127.0.0.1", 1};
    settings.s3_server = {false, "127.0.0.1", server_.Port()};
    settings.access_key = "ak";
    settings.secret_key = "sk";
    return settings;
  }

  // Runs something that fails, and gives "CODE text".
  template <typename Work>
  static std::string FailureOf(const Work& work) {
    try {
      work();
    } catch (const CFailure& failure) {
      return std::to_string(failure.GetExitCode()) + " " + failure.what();
    }
    return "no failure";
  }

  Tests::ScriptedServer server_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_TESTS_UNIT_CLI_S3_FAKE_DOOR_H
