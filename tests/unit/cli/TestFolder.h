#ifndef TANSY_TESTS_CLI_TEST_FOLDER_H
#define TANSY_TESTS_CLI_TEST_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace Tansy::Tests {

// A folder for one test, removed with everything in it.
class CTestFolder {
 public:
  CTestFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tansy-cli-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("no temporary folder");
    }
    path_ = pattern;
  }
  ~CTestFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  CTestFolder(const CTestFolder&) = delete;
  CTestFolder& operator=(const CTestFolder&) = delete;

  std::string Path(const std::string& name = "") const {
    return name.empty() ? path_.string() : (path_ / name).string();
  }

  std::string MakeFile(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories((path_ / name).parent_path());
    std::ofstream(path_ / name, std::ios::binary) << content;
    return Path(name);
  }

  static std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  std::size_t Count() const {
    const auto entries = std::filesystem::directory_iterator(path_);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

 private:
  std::filesystem::path path_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_CLI_TEST_FOLDER_H
