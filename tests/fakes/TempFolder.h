#ifndef TANSY_TESTS_FAKES_TEMP_FOLDER_H
#define TANSY_TESTS_FAKES_TEMP_FOLDER_H

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace Tansy::Tests {

// All bytes of a file; "" when there is none.
inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A fresh folder below the system's folder for temporary files, removed with everything in it at the end.
class CTempFolder {
 public:
  CTempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tansy-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("no temporary folder can be made");
    }
    path_ = pattern;
  }
  ~CTempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  CTempFolder(const CTempFolder&) = delete;
  CTempFolder& operator=(const CTempFolder&) = delete;

  const std::string& GetPath() const { return path_; }
  std::string Path(const std::string& name) const { return path_ + "/" + name; }

  // Writes the file, in folders that are made when they are missing, and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(Path(name)).parent_path());
    std::ofstream(Path(name), std::ios::binary) << content;
    return Path(name);
  }
  std::string Read(const std::string& name) const { return ReadFile(Path(name)); }
  bool Exists(const std::string& name) const { return std::filesystem::exists(Path(name)); }
  // How many files and folders there are.
  std::size_t Count() const {
    const auto entries = std::filesystem::directory_iterator(path_);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

 private:
  std::string path_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_TEMP_FOLDER_H
