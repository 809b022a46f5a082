// The exported functions that concern both servers.
#include "Boundary.h"
#include "StorageServer/ObjectServer/CleanExpiredTaskThread.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PartUploads.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/ServerMsgLoop.h"
#include "StorageServer/SignatureDate.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "TansyCloudStorage/PictureServer.h"
#include "TansyCloudStorage/ServerLoad.h"

namespace Tansy::CloudStorage {

int UninitPicServer() {
  return AtBoundary("UninitPicServer", -1, [] {
    const int result = CPictureServer::Instance().SetPicServerEnable(false);
    CServerMsgLoop::Instance().Stop(false);
    CObjectServer::Instance().EndDownloadsIfDisabled();
    return result;
  });
}

bool GetServerLoad(ServerLoad& load) {
  return AtBoundary("GetServerLoad", false, [&] {
    load.tasks = CServerMsgLoop::Instance().GetWorkTaskCount();
    load.most_tasks = CServerMsgLoop::kMaxWorkTasks;
    const auto loop = CServerMsgLoop::Instance().GetLoad();
    load.waiting_tasks = loop.waiting;
    load.computing_threads = loop.computing;
    load.blocked_threads = loop.blocked;
    load.sweeps = CCleanExpiredTaskThread::Instance().Sweeps();
    load.swept_uploads = CCleanExpiredTaskThread::Instance().SweptTasks() + CPartUploadSweep::Instance().SweptUploads();
    CObjectStorageManager::Instance().Count(load);
    return true;
  });
}

bool GetBucketUsage(std::vector<BucketUsage>& usage) {
  return AtBoundary("GetBucketUsage", false, [&] {
    CObjectStorageManager::Instance().Count(usage);
    return true;
  });
}

int SetSignatureDateWindow(std::uint32_t minutes) {
  SetDateWindow(minutes);
  return 0;
}

int UpdateLocalServerIp(const std::string& ip) {
  return AtBoundary("UpdateLocalServerIp", 0, [&] {
    CPictureServer::Instance().UpdateLocalServerIp(ip);
    CObjectServer::Instance().UpdateLocalServerIp(ip);
    return 0;
  });
}

int UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t picture_port, std::uint32_t object_port) {
  return AtBoundary("UpdateWanServerInfo", 0, [&] {
    CPictureServer::Instance().UpdateWanServerInfo(enable, wan_ip, picture_port);
    CObjectServer::Instance().UpdateWanServerInfo(enable, wan_ip, object_port);
    return 0;
  });
}

int UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields) {
  return AtBoundary("UpdateWanServerInfoV1", 0, [&] {
    CPictureServer::Instance().UpdateWanServerInfoV1(fields);
    CObjectServer::Instance().UpdateWanServerInfoV1(fields);
    return 0;
  });
}

}  // namespace Tansy::CloudStorage
