// A tansyd with one bucket, and the tansy of this build beside it.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_COMMAND_LINE_FIXTURE_H
#define TANSY_TESTS_SYSTEM_SUPPORT_COMMAND_LINE_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {

class CommandLineFixture : public TansydTest {
 protected:
  CommandLineFixture();
  void SetUp() override;

  // Runs tansy with these words in the test's work folder. The environment tells it about the server.
  Invocation Tansy(const std::vector<std::string>& arguments) const;
  Ended Run(const std::vector<std::string>& arguments, std::string_view input = {}) const;
  // Does the same, expects success without a word on standard error, and gives the standard output.
  std::string Do(const std::vector<std::string>& arguments, std::string_view input = {}) const;
  // The exit code and all of standard error: "3 tansy: /photos/x: ...".
  static std::string Failure(const Ended& ended);

  std::string WorkPath(const std::string& name) const { return temp_.Path("work/" + name); }
  void Write(const std::string& name, const std::string& content) const { temp_.Write("work/" + name, content); }
  std::string Read(const std::string& name) const { return temp_.Read("work/" + name); }
  // Names in the work folder, sorted, hidden ones too.
  std::vector<std::string> Files() const;
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(server_.GetObjectPort()); }

  Launch launch_;  // of the server
};

// The text without its line end.
std::string Line(const std::string& text);
std::vector<std::string> Lines(const std::string& text);

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_COMMAND_LINE_FIXTURE_H
