// Entity tags of objects that another protocol stored: each is computed once, when it is first asked for, and kept.
#include <algorithm>
#include <exception>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerBigSend.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/S3Server/S3Digest.h"
#include "StorageServer/S3Server/S3Server.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using CloudStorage::details::CReadLease;
using CloudStorage::details::HostBuffer;
using CloudStorage::details::LocationText;

// Of objects up to this length, the tag is computed on the thread that reads the object.
constexpr std::uint32_t kQuickETagBytes = 0x100000;
constexpr std::uint32_t kPieceBytes = 0x400000;
constexpr std::uint32_t kMemoryPatienceMs = 20000;

}  // namespace

std::string Md5OfBytes(const S3ServerConfig& config, const ObjectInfo& object) {
  const std::shared_ptr<CReadLease> lease = CReadLease::Begin(LocationText(object.bucket_name, object.url));
  TansyNet::CMemoryShare memory;
  const auto size = static_cast<std::uint32_t>(object.size);
  if (!lease || !memory.ResizeWithin(std::min(size, kPieceBytes), kMemoryPatienceMs)) {
    return {};
  }
  CDigest digest(EDigest::kMd5);
  for (std::uint32_t done = 0; done < size; done += std::min(kPieceBytes, size - done)) {
    const std::uint32_t wanted = std::min(kPieceBytes, size - done);
    HostBuffer piece;
    if (lease->Read(config, piece, wanted, done) != 0 || !piece.data || piece.size != wanted) {
      return {};
    }
    digest.Add({piece.data.get(), wanted});
  }
  return ToHex(digest.Finish());
}

namespace {

// Computes the entity tag of an object and keeps it. Whoever reads the object next finds out why it cannot be read.
void ComputeETag(FoundObject& object, const S3ServerConfig& config) {
  std::string etag = Md5OfBytes(config, object.info);
  if (etag.empty()) {
    return;
  }
  object.attributes.etag = std::move(etag);
  // The catalogue compares the url, so that this is never taken for the tag of bytes that came meanwhile.
  CObjectStorageManager::Instance().FillInAttributes(object.info, ToText(object.attributes));
}

}  // namespace

bool CS3Server::FillInETag(FoundObject& object, const Request& request) {
  if (object.info.size <= kQuickETagBytes) {
    ComputeETag(object, request.config);
    return true;
  }
  if (request.is_second_look) {
    return true;  // it could not be computed, or the object is another one by now
  }
  const auto work = [object, handle = request.handle, id = request.id, msg = request.msg]() mutable {
    try {
      const auto config = Instance().conf_.Load();
      ComputeETag(object, *config);
      Request again(handle, msg, *config);
      again.id = id;
      again.is_second_look = true;
      GetObject(again);
    } catch (const std::exception& error) {
      CLOUD_LOG(logging::kError, "[%s]read failed[%s], url[%s].[%s(%d)]", error.what(), msg.url.c_str());
      Instance().EndRequest(handle, EError::kInternalError);
    }
  };
  if (!CloudStorage::details::CBigFileSendThreads::Instance().Run(work)) {
    AnswerFailure(request, EError::kSlowDown);
  }
  return false;
}

}  // namespace Tansy::CloudStorage::S3
