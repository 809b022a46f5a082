#ifndef TANSY_SRC_STORAGE_CLIENT_OBJECT_MULTIPART_UPLOAD_H
#define TANSY_SRC_STORAGE_CLIENT_OBJECT_MULTIPART_UPLOAD_H

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "StorageClient/ObjectImpl.h"
#include "StorageClient/PartUploadRegistry.h"
#include "TansyBase/FileUtil.h"
#include "TansyBase/MessageLoop.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage {

class CObjectProtoClient;

// Uploads one large file in parts: the calling thread reads, and four threads send. About six parts are in memory at a
// time, however slow the server is. An object of this class serves one upload.
class CObjectMultipartUpload : private TansyBase::CNoncopyable {
 public:
  // `path` is for messages; `local_path` is the same path in the local code page, for log lines.
  CObjectMultipartUpload(const std::shared_ptr<ObjectImpl>& conf, const std::shared_ptr<CObjectProtoClient>& client,
                         const std::string& path, const std::string& local_path, const std::string& key,
                         const std::string& node);

  // Sends the next `size` bytes of the file and completes the object. Returns false when anything failed for good; the
  // server then forgets the upload when it expires.
  bool Run(TansyBase::CLocalFile& file, std::uint32_t size);

 private:
  // Returns true when all parts are uploaded.
  bool SendParts(TansyBase::CLocalFile& file, std::uint32_t size);
  bool ReadPart(TansyBase::CLocalFile& file, char* buffer, std::uint32_t size);
  // Waits until the pool has room. Returns false when a part has failed in the meantime.
  bool WaitForRoom();
  bool WaitForAllParts();
  void ReportPercent(std::int32_t percent);

  const std::shared_ptr<ObjectImpl> conf_;
  const std::shared_ptr<CObjectProtoClient> client_;
  const std::string path_;
  const std::string local_path_;
  const std::string key_;
  const std::string node_;

  std::string upload_id_;
  TansyBase::CMessageLoopDyThreadPool pool_;  // made for this upload and gone with it
  std::list<SPartInfo> parts_;
  std::int32_t seen_finished_ = 0;  // parts known to be finished when the last wait ended
  std::int32_t reported_percent_ = 0;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_OBJECT_MULTIPART_UPLOAD_H
