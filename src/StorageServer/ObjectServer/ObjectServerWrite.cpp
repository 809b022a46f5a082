// Stores one object, whose body arrived as a whole or in pieces.
#include <chrono>
#include <exception>
#include <memory>
#include <utility>

#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/ObjectServerTasks.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// Larger bodies arrive in pieces.
constexpr std::uint32_t kWholeBodyBytes = 0xA00000;
// The handler waits for this number of rounds per MiB of the body, because the storage may be slow to take the last
// pieces.
constexpr std::int32_t kRoundsPerMiB = 5;
constexpr std::chrono::milliseconds kRound{200};

// Removes an upload's record, if it has one, at the end of a block.
class CStreamRemoval : private TansyBase::CNoncopyable {
 public:
  explicit CStreamRemoval(std::int32_t session_id) : stream_id_(static_cast<std::uint32_t>(session_id)) {}
  ~CStreamRemoval() { CBigFileStreamMgr::Instance().RemoveStream(stream_id_); }

 private:
  const std::uint32_t stream_id_;
};

}  // namespace
}  // namespace details

int CObjectServer::HandleUploadObject(std::int32_t session_id, const ObjectRequest& request) {
  const bool streamed = request.msg.content_length > details::kWholeBodyBytes;
  ObjectInfo object;
  object.bucket_name = request.bucket;
  object.name = request.key;
  if (const int error = streamed ? ReceiveStream(object, session_id, request) : StoreWhole(object, request);
      error != 0) {
    return AnswerError(session_id, error);
  }
  // Until the row is there, only this record says that the bytes belong to an upload.
  auto removal = std::make_shared<const details::CStreamRemoval>(session_id);
  object.update_time = TansyBase::TimeUtil::TimeT2StrUTCDatetime(TansyBase::TimeUtil::Now());
  // While the database commits, this thread goes on with other requests, whose rows make up the next commit.
  CObjectStorageManager::Instance().AddObject(
      object, [this, session_id, removal = std::move(removal)](bool added) { AnswerUpload(session_id, added); });
  return 0;
}

void CObjectServer::AnswerUpload(std::int32_t session_id, bool added) noexcept {
  try {
    added ? AnswerXml(session_id, {}) : AnswerError(session_id, kServerInternalError);
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]answer failed[%s], handle = %d[%s(%d)]", error.what(), session_id);
    details::EndRequest(session_id);
  }
}

// Waits until the storage has every byte. A round that ends early because a piece arrived does not count.
int CObjectServer::ReceiveStream(ObjectInfo& object, std::int32_t session_id, const ObjectRequest& request) {
  auto& streams = details::CBigFileStreamMgr::Instance();
  const auto stream_id = static_cast<std::uint32_t>(session_id);
  const std::uint32_t total = request.msg.content_length;
  const std::int32_t limit = static_cast<std::int32_t>(total >> 20) * details::kRoundsPerMiB;
  for (std::int32_t round = 0;;) {
    ObjectInfo stream;
    if (!streams.GetStreamInfo(stream, stream_id)) {
      CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]get stream info failed[%d].[%s(%d)]", session_id);
      return kServerInternalError;
    }
    if (stream.size >= total) {
      object.size = total;
      object.url = stream.url;
      CLOUD_LOG_FOR(request.caller, logging::kTrace,
                    "[%s]recv object finished, session id[%d], size[%d:%d], url[%s].[%s(%d)]", session_id, total,
                    static_cast<std::uint32_t>(stream.size), object.url.c_str());
      return 0;
    }
    if (round > limit) {
      // The record stays, because the outcome is known only once its bytes have been stored.
      CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]recv msg failed[%d:%d], session id:%d.[%s(%d)]", round, limit,
                    session_id);
      return kServerInternalError;
    }
    if (!streams.WaitForChange(stream_id, stream.size, details::kRound)) {
      ++round;
    }
  }
}

int CObjectServer::StoreWhole(ObjectInfo& object, const ObjectRequest& request) {
  object.url = details::LocationText(object.bucket_name);
  const std::string_view body = request.Body();
  if (const int result = details::SaveObject(request.config, object.url, body); result != details::kStorageOk) {
    CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]upload failed[%s].[%s(%d)]", object.name.c_str());
    return details::WriteError(result);
  }
  object.size = body.size();
  return 0;
}

}  // namespace Tansy::CloudStorage
