#include "support/CommandLineFixture.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace system_tests {

CommandLineFixture::CommandLineFixture() {
  std::filesystem::create_directories(temp_.Path("work"));
  std::filesystem::create_directories(temp_.Path("home"));
}

void CommandLineFixture::SetUp() {
  ASSERT_TRUE(server_.Start(launch_));
  ASSERT_EQ(Do({"mb", "photos"}), "made photos\n");
}

Invocation CommandLineFixture::Tansy(const std::vector<std::string>& arguments) const {
  const Keys keys;
  Invocation invocation;
  invocation.arguments = arguments;
  invocation.folder = temp_.Path("work");
  invocation.environment = {{"HOME", temp_.Path("home")},
                            {"TANSY_SERVER", Url()},
                            {"TANSY_ACCESS_KEY", keys.access_key},
                            {"TANSY_SECRET_KEY", keys.secret_key}};
  return invocation;
}

Ended CommandLineFixture::Run(const std::vector<std::string>& arguments, std::string_view input) const {
  return RunProgram(Tansy(arguments), input);
}

std::string CommandLineFixture::Do(const std::vector<std::string>& arguments, std::string_view input) const {
  const Ended ended = Run(arguments, input);
  EXPECT_EQ(Failure(ended), "0 ") << testing::PrintToString(arguments);
  return ended.out;
}

std::string CommandLineFixture::Failure(const Ended& ended) {
  return std::to_string(ended.code) + " " + ended.err;
}

std::vector<std::string> CommandLineFixture::Files() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(temp_.Path("work"))) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string Line(const std::string& text) {
  return text.ends_with("\n") ? text.substr(0, text.size() - 1) : text;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

}  // namespace system_tests
