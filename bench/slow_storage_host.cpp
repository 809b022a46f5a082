// A host whose storage is slow: what bench/upload_memory.sh sends its uploads to.
//
// usage: slow_storage_host DATABASE_FILE OBJECT_PORT MILLISECONDS_PER_WRITE
//
// Serves the object protocol with the keys in TANSY_ACCESS_KEY and TANSY_SECRET_KEY until its standard input ends. Each
// write callback sleeps and forgets the bytes, so that the memory of the process is the module's and the HTTP
// library's alone.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <limits>
#include <string>
#include <thread>

#include "DatabaseUrl.h"
#include "Factory.h"
#include "Schema.h"
#include "TansyCloudStorage/CloudStorage.h"

namespace {

using Tansy::CloudStorage::StorageServerConfig;

std::chrono::milliseconds write_time{0};

int SaveObject(std::string& location, const char* /*data*/, std::uint32_t /*size*/, int /*flag*/) {
  std::this_thread::sleep_for(write_time);
  location = "forgotten";
  return 0;
}

int StreamSave(const char* /*data*/, std::uint32_t /*size*/, std::uint32_t /*offset*/, std::string& location) {
  std::this_thread::sleep_for(write_time);
  location = "forgotten";
  return 0;
}

int ReadObject(char*& /*data*/, std::uint32_t& /*size*/, const std::string& /*location*/, int /*flag*/) {
  return 1;
}

int ReadRange(char*& /*data*/, std::uint32_t& /*size*/, std::uint32_t /*offset*/, const std::string& /*location*/) {
  return 1;
}

int RemoveObject(const std::string& /*location*/) {
  return 0;
}

std::string FromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

StorageServerConfig MakeConfig(std::uint32_t port) {
  StorageServerConfig config;
  config.ip = "127.0.0.1";
  config.upload_port = config.download_port = port;
  config.ak = FromEnvironment("TANSY_ACCESS_KEY");
  config.sk = FromEnvironment("TANSY_SECRET_KEY");
  config.save_object = &SaveObject;
  config.read_object = &ReadObject;
  config.stream_save = &StreamSave;
  config.read_range = &ReadRange;
  config.remove_object = &RemoveObject;
  return config;
}

int Serve(const std::string& database, std::uint32_t port) {
  Tansy::Host::PrepareSqliteSchema(database, Tansy::Host::SqliteSchemaScripts(), {});
  if (Tansy::CloudStorage::InitObjectServer(MakeConfig(port),
                                            Tansy::Host::MakeFactory(Tansy::Host::SqliteParam(database))) != 0) {
    std::cerr << "slow_storage_host: port " << port << " cannot be opened\n";
    return 1;
  }
  // The picture server's start runs the loop that serves objects too; port 0 opens no listener for it.
  if (Tansy::CloudStorage::InitPicServer(MakeConfig(0)) != 0) {
    std::cerr << "slow_storage_host: the message loop cannot be started\n";
    return 1;
  }
  std::cout << "ready" << std::endl;
  std::cin.ignore(std::numeric_limits<std::streamsize>::max());
  return 0;
}

}  // namespace

int main(int count, char** values) {
  if (count != 4) {
    std::cerr << "usage: slow_storage_host DATABASE_FILE OBJECT_PORT MILLISECONDS_PER_WRITE\n";
    return 2;
  }
  try {
    write_time = std::chrono::milliseconds(std::stoul(values[3]));
    return Serve(values[1], static_cast<std::uint32_t>(std::stoul(values[2])));
  } catch (const std::exception& error) {
    std::cerr << "slow_storage_host: " << error.what() << "\n";
    return 1;
  }
}
