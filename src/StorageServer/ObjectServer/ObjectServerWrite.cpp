// Storing one object: a body that arrived whole, or one that streamed in.
#include <chrono>

#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// Bodies beyond this arrive in pieces.
constexpr std::uint32_t kWholeBodyBytes = 0xA00000;
// Patience with a storage that is slow to take the last pieces: so many rounds for each MiB of the body.
constexpr std::int32_t kRoundsPerMiB = 5;
constexpr std::chrono::milliseconds kRound{200};

}  // namespace
}  // namespace details

int CObjectServer::HandleUploadObject(std::int32_t session_id, const HttpServerRecv& request) {
  const ConfigPointer config = conf_.Load();
  const details::Caller caller = OBJECT_SERVER_CALLER;
  const bool streamed = request.content_length > details::kWholeBodyBytes;
  Target target;
  if (const int error = OpenRequest(target, request, *config, Opening::kStore, caller); error != 0) {
    if (streamed) {  // nobody will ask for what came in before the refusal
      details::CBigFileStreamMgr::Instance().RemoveStream(static_cast<std::uint32_t>(session_id));
    }
    return AnswerError(session_id, error);
  }
  ObjectInfo object;
  object.bucket_name = target.bucket;
  object.name = target.key;
  if (const int error =
          streamed ? ReceiveStream(object, session_id, request, caller) : StoreWhole(object, request, *config, caller);
      error != 0) {
    return AnswerError(session_id, error);
  }
  object.update_time = TansyBase::TimeUtil::TimeT2StrUTCDatetime(TansyBase::TimeUtil::Now());
  if (!CObjectStorageManager::Instance().AddObject(object)) {
    return AnswerError(session_id, kServerInternalError);
  }
  return AnswerXml(session_id, {});
}

// Waits until every byte is with the storage. A round that an arriving piece cuts short does not count.
int CObjectServer::ReceiveStream(ObjectInfo& object, std::int32_t session_id, const HttpServerRecv& request,
                                 const details::Caller& caller) {
  auto& streams = details::CBigFileStreamMgr::Instance();
  const auto stream_id = static_cast<std::uint32_t>(session_id);
  const std::uint32_t total = request.content_length;
  const std::int32_t limit = static_cast<std::int32_t>(total >> 20) * details::kRoundsPerMiB;
  for (std::int32_t round = 0;;) {
    ObjectInfo stream;
    if (!streams.GetStreamInfo(stream, stream_id)) {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]get stream info failed[%d].[%s(%d)]", session_id);
      return kServerInternalError;
    }
    if (stream.size >= total) {
      object.size = total;
      object.url = stream.url;
      streams.RemoveStream(stream_id);
      CLOUD_LOG_FOR(caller, logging::kTrace, "[%s]recv object finished, session id[%d], size[%d:%d], url[%s].[%s(%d)]",
                    session_id, total, static_cast<std::uint32_t>(stream.size), object.url.c_str());
      return 0;
    }
    if (round > limit) {
      // The record stays: only the storing of its bytes says what became of them.
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]recv msg failed[%d:%d], session id:%d.[%s(%d)]", round, limit,
                    session_id);
      return kServerInternalError;
    }
    if (!streams.WaitForChange(stream_id, stream.size, details::kRound)) {
      ++round;
    }
  }
}

int CObjectServer::StoreWhole(ObjectInfo& object, const HttpServerRecv& request, const Config& config,
                              const details::Caller& caller) {
  object.url = details::LocationText(object.bucket_name);
  const std::string_view body = BodyOf(request);
  if (const int result = details::SaveObject(config, object.url, body); result != details::kStorageOk) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]upload failed[%s].[%s(%d)]", object.name.c_str());
    return details::WriteError(result);
  }
  object.size = body.size();
  return 0;
}

}  // namespace Tansy::CloudStorage
