#include "MemoryHost.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <utility>

#include "KivPlatform/FactoryInterface.h"
#include "TansyCloudStorage/CloudStorage.h"
#include "db_layer/DbLayer.h"
#include "fakes/FailingAllocation.h"
#include "fakes/TempFolder.h"
#include "logging/Logging.h"
#include "support/Ports.h"
#include "support/S3Sign.h"

namespace Tansy::Tests {

namespace details {
namespace {

constexpr std::chrono::seconds kPatience{10};
constexpr const char* kForm = "multipart/form-data";

// All stored bytes, by the location text that the catalogue keeps.
class CStore {
 public:
  static CStore& Instance() {
    static auto* const store = new CStore;
    return *store;
  }

  void Write(std::string& location, const char* data, std::size_t size, std::size_t offset, const char* prefix) {
    const std::lock_guard lock(mutex_);
    const std::string name = location.substr(location.find(';') + 1);
    location = name.empty() ? prefix + std::to_string(1000000 + ++last_) + ".d" : name;
    std::string& bytes = bytes_[location];
    bytes.resize(std::max(bytes.size(), offset + size));
    bytes.replace(offset, size, data, size);
  }

  bool Read(char*& data, std::uint32_t& size, std::size_t offset, const std::string& location) {
    const std::lock_guard lock(mutex_);
    const auto found = bytes_.find(location.substr(location.find(';') + 1));
    if (found == bytes_.end() || offset > found->second.size()) {
      return false;
    }
    const std::size_t left = found->second.size() - offset;
    size = static_cast<std::uint32_t>(size == 0 ? left : std::min<std::size_t>(size, left));
    data = static_cast<char*>(std::malloc(size + std::size_t{1}));
    std::memcpy(data, found->second.data() + offset, size);
    return true;
  }

  void Remove(const std::string& location) {
    const std::lock_guard lock(mutex_);
    std::erase_if(bytes_, [&](const auto& entry) { return location.ends_with(entry.first.substr(4)); });
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::string> bytes_;
  int last_ = 0;
};

int Save(std::string& location, const char* data, std::uint32_t size, int flag) {
  const CUnharmedThread unharmed;
  CStore::Instance().Write(location, data, size, 0, flag == 0 ? "/pic?id=" : "fs01");
  return 0;
}

int StreamSave(const char* data, std::uint32_t size, std::uint32_t offset, std::string& location) {
  const CUnharmedThread unharmed;
  CStore::Instance().Write(location, data, size, offset, "fs01");
  return 0;
}

int ReadRange(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location) {
  const CUnharmedThread unharmed;
  return CStore::Instance().Read(data, size, offset, location) ? 0 : 1;
}

int Read(char*& data, std::uint32_t& size, const std::string& location, int) {
  return ReadRange(data, size, 0, location);
}

int Remove(const std::string& location) {
  const CUnharmedThread unharmed;
  CStore::Instance().Remove(location);
  return 0;
}

struct Factory : KivPlatform::IFactoryInterface,
                 KivPlatform::IDatabaseParam,
                 KivPlatform::ILocalConfig,
                 std::enable_shared_from_this<Factory> {
  explicit Factory(std::string path) : database(std::move(path)) {}
  std::shared_ptr<KivPlatform::IDatabaseParam> GetDatabaseParam() override { return shared_from_this(); }
  std::shared_ptr<KivPlatform::IConfigManager> GetConfigManager() override { return nullptr; }
  std::shared_ptr<KivPlatform::ILocalConfig> GetLocalConfig() override { return shared_from_this(); }
  int GetDatabaseType() override { return KivPlatform::kDatabaseSqlite; }
  std::string GetDatabaseHost() override { return {}; }
  int GetDatabasePort() override { return 0; }
  std::string GetDatabaseUser() override { return {}; }
  std::string GetDatabasePassword() override { return {}; }
  std::string GetDatabaseName() override { return database; }

  const std::string database;
};

using Database = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;

Database OpenDatabase(const std::string& path) {
  sqlite3* database = nullptr;
  sqlite3_open(path.c_str(), &database);
  sqlite3_busy_timeout(database, 10000);
  return {database, sqlite3_close};
}

void MakeSchema(const std::string& path) {
  std::string script = "ATTACH '" + path + "' AS platform;";
  std::set<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(TANSY_SCHEMA)) {
    files.insert(entry.path());
  }
  for (const std::filesystem::path& path_of_file : files) {
    std::ifstream file(path_of_file);
    script.append(std::istreambuf_iterator<char>(file), {});
  }
  script += "INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('fs01', 'memory/');";
  const Database database = OpenDatabase(":memory:");
  if (sqlite3_exec(database.get(), script.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw std::runtime_error(sqlite3_errmsg(database.get()));
  }
}

}  // namespace
}  // namespace details

CMemoryHost& CMemoryHost::Instance() {
  static auto* const host = new CMemoryHost;
  return *host;
}

CMemoryHost::CMemoryHost() {
  static const CTempFolder folder;
  std::filesystem::current_path(folder.GetPath());  // first parts are written below it
  database_ = folder.Path("catalogue.db");
  details::MakeSchema(database_);
  db_layer::SetSqliteFullDurability(false);
  logging::SetSink(nullptr);
  const auto ports = system_tests::FreePorts(3);
  object_port_ = ports.at(0);
  picture_port_ = ports.at(1);
  s3_port_ = ports.at(2);
  const system_tests::Keys keys;
  CloudStorage::StorageServerConfig config;
  config.upload_port = config.download_port = object_port_;
  config.ip = "127.0.0.1";
  config.ak = keys.access_key;
  config.sk = keys.secret_key;
  config.save_object = details::Save;
  config.read_object = details::Read;
  config.stream_save = details::StreamSave;
  config.read_range = details::ReadRange;
  config.remove_object = details::Remove;
  if (CloudStorage::InitObjectServer(config, std::make_shared<details::Factory>(database_)) != 0) {
    throw std::runtime_error("the object server does not start");
  }
  config.upload_port = config.download_port = picture_port_;
  if (CloudStorage::InitPicServer(config) != 0) {
    throw std::runtime_error("the picture server does not start");
  }
  CloudStorage::S3ServerConfig s3;
  static_cast<CloudStorage::StorageServerConfig&>(s3) = config;
  s3.upload_port = s3.download_port = s3_port_;
  if (CloudStorage::InitS3Server(s3) != 0) {
    throw std::runtime_error("the S3 server does not start");
  }
}

system_tests::Reply CMemoryHost::Call(std::uint16_t port, const system_tests::Request& request) const {
  const auto connection = system_tests::CConnection::Open(port);
  return connection == nullptr ? system_tests::Reply{} : Finish(*connection, port, request);
}

system_tests::Request CMemoryHost::Signed(const system_tests::Request& request, std::uint16_t port) const {
  if (port != s3_port_) {
    return system_tests::Signed(request);
  }
  const bool is_chunked = std::any_of(request.headers.begin(), request.headers.end(), [](const auto& header) {
    return header.first == "x-amz-decoded-content-length";
  });
  return system_tests::S3Signed(request, port,
                                {is_chunked ? "STREAMING-UNSIGNED-PAYLOAD-TRAILER" : "UNSIGNED-PAYLOAD", 0});
}

system_tests::Reply CMemoryHost::Finish(system_tests::CConnection& connection, std::uint16_t port,
                                        const system_tests::Request& request) const {
  system_tests::Request last = Signed(request, port);
  last.headers.emplace_back("Connection", "close");
  for (auto& [name, value] : last.headers) {
    if (value == details::kForm) {
      value += "; boundary=" + kFormBoundary;  // not part of what is signed
    }
  }
  connection.Send(system_tests::Serialize(last, port));
  system_tests::Reply reply = connection.Receive(details::kPatience, request.method == "HEAD");
  // What the server does after its answer belongs to the request too.
  if (!connection.IsClosedByServer(details::kPatience) && reply.status == 0) {
    reply.status = -1;
  }
  return reply;
}

std::unique_ptr<system_tests::CConnection> CMemoryHost::Prepare(std::uint16_t port) const {
  auto connection = system_tests::CConnection::Open(port);
  if (connection == nullptr || !connection->Send(system_tests::Serialize(Signed({"GET", "/", {}, ""}, port), port)) ||
      connection->Receive(details::kPatience).status == 0) {
    return nullptr;
  }
  return connection;
}

int CMemoryHost::CountRows(const std::string& table, const std::string& condition) const {
  const details::Database database = details::OpenDatabase(database_);
  const std::string sql = "SELECT count(*) FROM " + table + " WHERE " + condition;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(database.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    throw std::runtime_error(sqlite3_errmsg(database.get()));
  }
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> owner(statement, sqlite3_finalize);
  return sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int(statement, 0) : -1;
}

}  // namespace Tansy::Tests
