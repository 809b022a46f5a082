// An object store in memory, and where its catalogue is: catalogue.db of the folder that the program starts in. The
// file of the tables' script is named by SCHEMA_FILE.
#ifndef TANSY_EXAMPLES_MEMORY_STORE_H
#define TANSY_EXAMPLES_MEMORY_STORE_H

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "KivPlatform/FactoryInterface.h"
#include "TansyCloudStorage/CloudStorage.h"

namespace memory_store {

using Lock = std::lock_guard<std::mutex>;

inline std::mutex g_mutex;                          // the server calls from several threads
inline std::map<std::string, std::string> g_store;  // what a write leaves behind "pool_name:bucket;", to bytes

inline std::string& Slot(std::string& location) {
  static int next = 0;
  const std::string name = location.substr(location.find(';') + 1);
  location = name.empty() ? "memory-" + std::to_string(++next) : name;  // the catalogue keeps it for later calls
  return g_store[location];
}

inline int SaveObject(std::string& location, const char* data, std::uint32_t size, int) {
  const Lock lock(g_mutex);
  Slot(location).assign(data, size);
  return 0;
}

inline int StreamSave(const char* data, std::uint32_t size, std::uint32_t offset, std::string& location) {
  const Lock lock(g_mutex);
  std::string& bytes = Slot(location);
  bytes.resize(std::max<std::size_t>(bytes.size(), std::size_t{offset} + size));
  bytes.replace(offset, size, data, size);
  return 0;
}

inline int ReadRange(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location) {
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

inline int ReadObject(char*& data, std::uint32_t& size, const std::string& location, int) {
  return ReadRange(data, size, 0, location);
}

inline int RemoveObject(const std::string& location) {
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
inline bool MakeSchema() {
  std::ifstream file(SCHEMA_FILE);
  const std::string script =
      "ATTACH 'catalogue.db' AS platform;" + std::string(std::istreambuf_iterator<char>(file), {});
  sqlite3* database = nullptr;
  const bool made = file.is_open() && sqlite3_open(":memory:", &database) == SQLITE_OK &&
                    sqlite3_exec(database, script.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(database);
  return made;
}

// The record of an object or picture server on this port.
inline Tansy::CloudStorage::StorageServerConfig ServerConfig(const char* port, const char* access_key,
                                                             const char* secret_key) {
  Tansy::CloudStorage::StorageServerConfig config;
  config.upload_port = config.download_port = static_cast<std::uint32_t>(std::atoi(port));
  config.ip = "127.0.0.1";
  config.ak = access_key;
  config.sk = secret_key;
  config.save_object = SaveObject;
  config.read_object = ReadObject;
  config.stream_save = StreamSave;
  config.read_range = ReadRange;
  config.remove_object = RemoveObject;
  return config;
}

inline Tansy::CloudStorage::BucketInfo Bucket() {
  Tansy::CloudStorage::BucketInfo bucket;
  bucket.name = "memory";
  bucket.flag = 1;
  return bucket;
}

}  // namespace memory_store

#endif  // TANSY_EXAMPLES_MEMORY_STORE_H
