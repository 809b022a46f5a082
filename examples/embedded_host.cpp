// A program with an object store of its own: bytes in memory, the catalogue in catalogue.db of the folder it starts in.
// usage: embedded_host PORT PICTURE_PORT ACCESS_KEY SECRET_KEY; ends when its standard input does.
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "KivPlatform/FactoryInterface.h"
#include "TansyCloudStorage/CloudStorage.h"
#include "logging/StandardSink.h"

namespace cloud = Tansy::CloudStorage;
using Lock = std::lock_guard<std::mutex>;

namespace {

std::mutex g_mutex;                          // the server calls from several threads
std::map<std::string, std::string> g_store;  // what a write leaves behind "pool_name:bucket;", to bytes

std::string& Slot(std::string& location) {
  static int next = 0;
  const std::string name = location.substr(location.find(';') + 1);
  location = name.empty() ? "memory-" + std::to_string(++next) : name;  // the catalogue keeps it for later calls
  return g_store[location];
}

int SaveObject(std::string& location, const char* data, std::uint32_t size, int) {
  const Lock lock(g_mutex);
  Slot(location).assign(data, size);
  return 0;
}

int StreamSave(const char* data, std::uint32_t size, std::uint32_t offset, std::string& location) {
  const Lock lock(g_mutex);
  std::string& bytes = Slot(location);
  bytes.resize(std::max<std::size_t>(bytes.size(), std::size_t{offset} + size));
  bytes.replace(offset, size, data, size);
  return 0;
}

int ReadRange(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location) {
  const Lock lock(g_mutex);
  const auto found = g_store.find(location.substr(location.find(';') + 1));
  if (found == g_store.end() || offset > found->second.size()) {
    return 1;
  }
  size = static_cast<std::uint32_t>(std::min<std::size_t>(size, found->second.size() - offset));
  data = static_cast<char*>(std::malloc(size + 1));  // the server frees it
  std::memcpy(data, found->second.data() + offset, size);
  return 0;
}

int ReadObject(char*& data, std::uint32_t& size, const std::string& location, int) {
  return ReadRange(data, size, 0, location);
}

int RemoveObject(const std::string& location) {
  const Lock lock(g_mutex);
  g_store.erase(location);
  return 0;
}

// Says where the catalogue's database is.
struct Host : KivPlatform::IFactoryInterface,
              KivPlatform::IDatabaseParam,
              KivPlatform::ILocalConfig,
              std::enable_shared_from_this<Host> {
  std::shared_ptr<KivPlatform::IDatabaseParam> GetDatabaseParam() override { return shared_from_this(); }
  std::shared_ptr<KivPlatform::IConfigManager> GetConfigManager() override { return nullptr; }
  std::shared_ptr<KivPlatform::ILocalConfig> GetLocalConfig() override { return shared_from_this(); }
  int GetDatabaseType() override { return KivPlatform::kDatabaseSqlite; }
  std::string GetDatabaseHost() override { return {}; }
  int GetDatabasePort() override { return 0; }
  std::string GetDatabaseUser() override { return {}; }
  std::string GetDatabasePassword() override { return {}; }
  std::string GetDatabaseName() override { return "catalogue.db"; }
};

// Makes the tables from the script that is installed with the module.
bool MakeSchema() {
  std::ifstream file(SCHEMA_FILE);
  const std::string script =
      "ATTACH 'catalogue.db' AS platform;" + std::string(std::istreambuf_iterator<char>(file), {});
  sqlite3* database = nullptr;
  const bool made = file.is_open() && sqlite3_open(":memory:", &database) == SQLITE_OK &&
                    sqlite3_exec(database, script.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(database);
  return made;
}

// The module's errors go to standard error, without the secret key: lines about refused signatures hold it.
bool StartLog(const char* secret_key) {
  std::string error;
  const auto sink = logging::CStandardSink::Create({}, error);
  if (!sink) {
    std::cerr << error << "\n";
    return false;
  }
  sink->AddSecret(secret_key);
  logging::SetSink(sink);
  logging::SetLowestLevel(logging::kError);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || !MakeSchema()) {
    std::cerr << "usage: embedded_host PORT PICTURE_PORT ACCESS_KEY SECRET_KEY, in a folder without catalogue.db\n";
    return 2;
  }
  if (!StartLog(argv[4])) {
    return 1;
  }
  cloud::StorageServerConfig objects;
  objects.upload_port = objects.download_port = static_cast<std::uint32_t>(std::atoi(argv[1]));
  objects.ip = "127.0.0.1";
  objects.ak = argv[3];
  objects.sk = argv[4];
  objects.save_object = SaveObject;
  objects.read_object = ReadObject;
  objects.stream_save = StreamSave;
  objects.read_range = ReadRange;
  objects.remove_object = RemoveObject;
  cloud::StorageServerConfig pictures = objects;
  pictures.upload_port = pictures.download_port = static_cast<std::uint32_t>(std::atoi(argv[2]));
  cloud::BucketInfo bucket;
  bucket.name = "memory";
  bucket.flag = 1;
  if (cloud::InitObjectServer(objects, std::make_shared<Host>()) != 0 || cloud::InitPicServer(pictures) != 0 ||
      !cloud::AddBucket(bucket)) {
    return 1;  // the module's log has said why
  }
  std::cout << "ready" << std::endl;
  std::cin.ignore(std::numeric_limits<std::streamsize>::max());
  cloud::SetObjectServerEnable(false);
  cloud::UninitPicServer();
  logging::SetSink(nullptr);
  return 0;
}
