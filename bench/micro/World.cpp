#include "World.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Common/Signature.h"
#include "Schema.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ServerMsgLoop.h"
#include "db_layer/DbLayer.h"
#include "fakes/FakeHttpServer.h"
#include "fakes/TempFolder.h"
#include "logging/Logging.h"
#include "logging/StandardSink.h"

namespace TansyBench {
namespace {

using namespace Tansy::CloudStorage;

constexpr std::uint32_t kObjectBytes = 4096;
constexpr char kAccessKey[] = "bench";

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "micro: %s\n", what);
  std::exit(1);
}

int ReadBytes(char*& data, std::uint32_t& size, std::uint32_t /*offset*/, const std::string& /*location*/) {
  data = static_cast<char*>(std::malloc(size));
  std::memset(data, 'x', size);
  return 0;
}

// Owns what lives as long as the process.
class CWorld {
 public:
  CWorld() {
    OpenLog();
    db_layer::SetSqliteFullDurability(false);
    db_layer::DBParam param;
    param.type = db_layer::kSqlite;
    param.database = folder_.Path("catalogue.db");
    Tansy::Host::PrepareSqliteSchema(param.database, Tansy::Host::SqliteSchemaScripts(), {{"fs01", "disk/"}});
    if (!db_layer::Module_Register(param, "platform") || !CServerMsgLoop::Instance().Start(4, 4, 5)) {
      Die("the database or the message loop cannot be started");
    }
    OpenServer();
    Fill();
  }

  ~CWorld() {
    CServerMsgLoop::Instance().Stop(false);
    db_layer::Module_Unregister("platform");
    logging::SetSink(nullptr);
  }

 private:
  // The log of a tansyd, in a file that forgets.
  static void OpenLog() {
    std::string error;
    logging::SetSink(logging::CStandardSink::Create({.file_path = "/dev/null"}, error));
    logging::SetRepeatWindow(1000);
  }

  // The server takes the listeners of the fake library for open.
  static void OpenServer() {
    Tansy::Tests::CFakeHttpServer::Instance().OpenNothing(true);
    StorageServerConfig_V1 config;
    config.ip = "127.0.0.1";
    config.upload_port = config.download_port = 9700;
    config.ak = kAccessKey;
    config.sk = kSecretKey;
    config.read_range = &ReadBytes;
    if (CObjectServer::Instance().Init(config) != 0) {
      Die("the object server cannot be started");
    }
  }

  static void Fill() {
    CObjectStorageManager& catalogue = CObjectStorageManager::Instance();
    BucketInfo bucket;
    bucket.name = kBucket;
    bucket.flag = 1;
    bool good = catalogue.AddBucket(bucket);
    for (int number = 0; number < kObjects; ++number) {
      ObjectInfo object;
      object.name = ObjectName(number);
      object.bucket_name = kBucket;
      object.size = kObjectBytes;
      object.update_time = "2026-11-21 08:00:00";
      object.url = "fs01ab-cd-" + object.name + ".d";
      good = good && catalogue.AddObject(object);
    }
    if (!good) {
      Die("the catalogue cannot be filled");
    }
  }

  Tansy::Tests::CTempFolder folder_;
};

}  // namespace

void StartWorld() {
  static const CWorld world;
}

std::string ObjectName(int number) {
  char name[32];
  std::snprintf(name, sizeof name, "object-%07d.jpg", number);
  return name;
}

TansyNet::HttpServerRecv SignedGet(int number) {
  TansyNet::HttpServerRecv message;
  message.method = "GET";
  message.url = std::string("/") + kBucket + "/" + ObjectName(number);
  message.ip = "127.0.0.1";
  message.token = std::make_shared<const int>(0);
  const std::string date = "Sat, 21 Nov 2026 08:00:00 GMT";
  message.headers["Host"] = "127.0.0.1:9700";
  message.headers["Date"] = date;
  message.headers["Authorization"] =
      std::string("quorvane ") + kAccessKey + ":" + SignHmacSha1("GET\n\n\n" + date + "\n\n" + message.url, kSecretKey);
  return message;
}

}  // namespace TansyBench
