#include "StorageClient/PartUploadTask.h"

#include <utility>

#include "StorageClient/ClientState.h"
#include "StorageClient/ObjectProtoClient.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr int kAttempts = 3;

}  // namespace
}  // namespace details

CPartUploadTask::CPartUploadTask(const PartRecord& record, std::unique_ptr<char[]> buffer,
                                 const std::shared_ptr<CObjectProtoClient>& client, const std::string& key,
                                 const std::string& node)
    : record_(record), buffer_(std::move(buffer)), client_(client), key_(key), node_(node) {}

void CPartUploadTask::Exec() {
  // The thread that waits for this part must be told the result, whatever happens.
  const bool uploaded = RunGuarded(&client_->LastError(), [this] { return Upload(); });
  record_.status = uploaded ? kPartUploaded : kPartFailed;
  record_.done = true;
  CPartUploadRegistry::Instance().FinishPart(record_);
}

bool CPartUploadTask::Upload() const {
  for (int attempt = 0; attempt < details::kAttempts; ++attempt) {
    if (client_->UploadPartObject(key_, node_, record_.part_number, record_.upload_id, record_.data, record_.size)) {
      return true;
    }
  }
  return false;
}

}  // namespace Tansy::CloudStorage
