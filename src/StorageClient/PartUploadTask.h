#ifndef TANSY_SRC_STORAGE_CLIENT_PART_UPLOAD_TASK_H
#define TANSY_SRC_STORAGE_CLIENT_PART_UPLOAD_TASK_H

#include <memory>
#include <string>

#include "StorageClient/PartUploadRegistry.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::CloudStorage {

class CObjectProtoClient;

// Sends one part, at most three times, and tells the registry the result.
class CPartUploadTask : public TansyBase::CTask {
 public:
  // `buffer` holds the part's bytes, `record.data` points to them.
  CPartUploadTask(const PartRecord& record, std::unique_ptr<char[]> buffer,
                  const std::shared_ptr<CObjectProtoClient>& client, const std::string& key, const std::string& node);

  void Exec() override;

 private:
  bool Upload() const;

  PartRecord record_;
  const std::unique_ptr<char[]> buffer_;
  const std::shared_ptr<CObjectProtoClient> client_;
  const std::string key_;
  const std::string node_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_PART_UPLOAD_TASK_H
