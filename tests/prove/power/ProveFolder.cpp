#include "ProveFolder.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "Settings.h"
#include "fakes/TempFolder.h"

namespace prove {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMemory = "/dev/shm";
constexpr std::uintmax_t kEnoughMemory = std::uintmax_t{1} << 30;

fs::path Parent() {
  std::error_code error;
  const fs::space_info space = fs::space(kMemory, error);
  return !error && space.available >= kEnoughMemory ? fs::path(kMemory) : fs::temp_directory_path();
}

}  // namespace

CProveFolder::CProveFolder() {
  std::string pattern = (Parent() / "tansy-prove-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("no folder can be made: " + pattern);
  }
  path_ = pattern;
}

CProveFolder::~CProveFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

system_tests::Launch PlainLaunch() {
  system_tests::Launch launch;
  launch.program = Settings::Get().tansyd;
  return launch;
}

system_tests::Launch WatchedLaunch(const std::string& root) {
  system_tests::Launch launch = PlainLaunch();
  launch.environment["LD_PRELOAD"] = TANSY_FILE_CALLS;
  launch.environment["TANSY_CALLS_ROOT"] = root;
  // The address sanitizer wants to be in front of every other library.
  const char* before = ::getenv("ASAN_OPTIONS");
  launch.environment["ASAN_OPTIONS"] =
      (before == nullptr ? "" : std::string(before) + ":") + "verify_asan_link_order=0";
  return launch;
}

std::string KeepFile(const std::string& path, const std::string& name) {
  const fs::path kept = fs::current_path() / name;
  fs::copy_file(path, kept, fs::copy_options::overwrite_existing);
  return kept.string();
}

std::map<std::string, std::string> FilesOf(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const auto& item : fs::recursive_directory_iterator(folder)) {
    if (item.is_regular_file()) {
      files[fs::relative(item.path(), folder).string()] = Tansy::Tests::ReadFile(item.path().string());
    }
  }
  return files;
}

}  // namespace prove
