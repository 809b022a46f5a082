#ifndef TANSY_TESTS_DB_LAYER_TEMPORARY_FOLDER_H
#define TANSY_TESTS_DB_LAYER_TEMPORARY_FOLDER_H

#include <filesystem>
#include <random>
#include <string>
#include <system_error>

namespace db_layer {

// A fresh folder that goes with its owner.
class CTemporaryFolder {
 public:
  CTemporaryFolder() {
    std::random_device random;
    do {
      path_ = std::filesystem::temp_directory_path() / ("tansy-db-layer-" + std::to_string(random()));
    } while (!std::filesystem::create_directory(path_));
  }
  ~CTemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  CTemporaryFolder(const CTemporaryFolder&) = delete;
  CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

  std::filesystem::path Path() const { return path_; }
  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace db_layer

#endif  // TANSY_TESTS_DB_LAYER_TEMPORARY_FOLDER_H
