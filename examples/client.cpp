// Uploads a file, downloads it again and removes it. usage: client PORT BUCKET ACCESS_KEY SECRET_KEY FILE COPY
#include <cstdlib>
#include <iostream>
#include <string>

#include "TansyCloudStorage/ObjectClient.h"

int main(int argc, char** argv) {
  if (argc != 7) {
    std::cerr << "usage: client PORT BUCKET ACCESS_KEY SECRET_KEY FILE COPY\n";
    return 2;
  }
  Tansy::CloudStorage::SStorageServerConfig config;
  config.ip = "127.0.0.1";
  config.upload_port = config.download_port = static_cast<std::uint32_t>(std::atoi(argv[1]));
  config.pool_name = argv[2];
  config.ak = argv[3];
  config.sk = argv[4];
  Tansy::CloudStorage::CObjectClient client(config);
  std::string url;
  if (!client.Init() || !client.UploadFile(url, argv[5]) || !client.DownloadFile(url, argv[6]) ||
      !client.RemoveObjectFileByUrl(url)) {
    const Tansy::CloudStorage::SClientFailure failure = client.GetLastFailure();
    std::cerr << "client: " << failure.text << " (" << failure.request << " at " << failure.address << ")\n";
    return 1;
  }
  std::cout << url << "\n";
}
