// A Windows program that was built without the module: it loads the DLL while it runs, serves from memory, and stops.
// The names of the entry points are those of the compiler that built the DLL; docs/windows.md says how to list them.
// usage: loading_host DLL PORT PICTURE_PORT ACCESS_KEY SECRET_KEY; ends when its standard input does.
#include <windows.h>

#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

#include "memory_store.h"

namespace cloud = Tansy::CloudStorage;

namespace {

struct Module {
  int (*init_object_server)(const cloud::StorageServerConfig&, const std::shared_ptr<KivPlatform::IFactoryInterface>&);
  int (*init_pic_server)(const cloud::StorageServerConfig&);
  bool (*add_bucket)(cloud::BucketInfo&);
  int (*set_object_server_enable)(bool);
  int (*uninit_pic_server)();
};

template <typename Function>
bool Find(HMODULE library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
  if (function == nullptr) {
    std::cerr << "the library has no " << name << "\n";
  }
  return function != nullptr;
}

// The library is never freed: its threads live as long as the process.
bool Load(const char* path, Module& module) {
  // The DLLs that it needs lie beside it, not beside this program.
  const std::wstring file = std::filesystem::absolute(std::filesystem::u8path(path)).wstring();
  const HMODULE library = LoadLibraryExW(file.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (library == nullptr) {
    std::cerr << path << " cannot be loaded: error " << GetLastError() << "\n";
    return false;
  }
  return Find(library,
              "_ZN5Tansy12CloudStorage16InitObjectServerERKNS0_19StorageServerConfigE"
              "RKSt10shared_ptrIN11KivPlatform17IFactoryInterfaceEE",
              module.init_object_server) &&
         Find(library, "_ZN5Tansy12CloudStorage13InitPicServerERKNS0_19StorageServerConfigE", module.init_pic_server) &&
         Find(library, "_ZN5Tansy12CloudStorage9AddBucketERNS0_10BucketInfoE", module.add_bucket) &&
         Find(library, "_ZN5Tansy12CloudStorage21SetObjectServerEnableEb", module.set_object_server_enable) &&
         Find(library, "_ZN5Tansy12CloudStorage15UninitPicServerEv", module.uninit_pic_server);
}

}  // namespace

int main(int argc, char** argv) {
  Module module = {};
  if (argc != 6 || !Load(argv[1], module) || !memory_store::MakeSchema()) {
    std::cerr << "usage: loading_host DLL PORT PICTURE_PORT ACCESS_KEY SECRET_KEY, in a folder without catalogue.db\n";
    return 2;
  }
  cloud::BucketInfo bucket = memory_store::Bucket();
  const cloud::StorageServerConfig objects = memory_store::ServerConfig(argv[2], argv[4], argv[5]);
  const cloud::StorageServerConfig pictures = memory_store::ServerConfig(argv[3], argv[4], argv[5]);
  if (module.init_object_server(objects, std::make_shared<memory_store::Host>()) != 0 ||
      module.init_pic_server(pictures) != 0 || !module.add_bucket(bucket)) {
    return 1;  // the module's log has said why
  }
  std::cout << "ready" << std::endl;
  std::cin.ignore(std::numeric_limits<std::streamsize>::max());
  module.set_object_server_enable(false);
  module.uninit_pic_server();
  std::cout << "stopped" << std::endl;
  return 0;
}
