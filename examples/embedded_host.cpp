// A program with an object store of its own: bytes in memory, the catalogue in catalogue.db of the folder it starts in.
// usage: embedded_host PORT PICTURE_PORT ACCESS_KEY SECRET_KEY; ends when its standard input does.
#include <iostream>
#include <limits>
#include <memory>
#include <string>

#include "TansyCloudStorage/CloudStorage.h"
#include "logging/StandardSink.h"
#include "memory_store.h"

namespace cloud = Tansy::CloudStorage;

namespace {

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
  if (argc != 5 || !memory_store::MakeSchema()) {
    std::cerr << "usage: embedded_host PORT PICTURE_PORT ACCESS_KEY SECRET_KEY, in a folder without catalogue.db\n";
    return 2;
  }
  if (!StartLog(argv[4])) {
    return 1;
  }
  cloud::BucketInfo bucket = memory_store::Bucket();
  const cloud::StorageServerConfig objects = memory_store::ServerConfig(argv[1], argv[3], argv[4]);
  const cloud::StorageServerConfig pictures = memory_store::ServerConfig(argv[2], argv[3], argv[4]);
  if (cloud::InitObjectServer(objects, std::make_shared<memory_store::Host>()) != 0 ||
      cloud::InitPicServer(pictures) != 0 || !cloud::AddBucket(bucket)) {
    return 1;  // the module's log has said why
  }
  std::cout << "ready" << std::endl;
  std::cin.ignore(std::numeric_limits<std::streamsize>::max());
  cloud::SetObjectServerEnable(false);
  cloud::UninitPicServer();
  logging::SetSink(nullptr);
  return 0;
}
