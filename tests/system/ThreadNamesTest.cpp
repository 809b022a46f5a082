// Tests what an operator sees in `top -H`.
#include <filesystem>
#include <map>

#include "support/TansydTest.h"

namespace system_tests {
namespace {

class ThreadNames : public TansydTest {
 protected:
  // How many threads of the server bear each name.
  std::map<std::string, int> Count() const {
    std::map<std::string, int> names;
    const std::filesystem::path folder = "/proc/" + std::to_string(server_.GetPid()) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(folder)) {
      std::ifstream file(thread.path() / "comm");
      std::string name;
      std::getline(file, name);
      ++names[name];
    }
    return names;
  }
};

// ThreadSanitizer runs a thread of its own in every program.
#if defined(__SANITIZE_THREAD__)
constexpr int kForeignThreads = 1;
#else
constexpr int kForeignThreads = 0;
#endif

// A thread without a name of its own has the name of the program.
TEST_F(ThreadNames, TellWhatEachThreadOfTheServerDoes) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  const auto names = Count();
  for (const char* name : {"tansyd", "tansy-worker", "tansy-io", "tansy-sweep", "tansy-log"}) {
    EXPECT_TRUE(names.contains(name)) << name;
  }
  EXPECT_EQ(names.at("tansyd"), 1 + kForeignThreads) << "the one that started the others";
}

}  // namespace
}  // namespace system_tests
