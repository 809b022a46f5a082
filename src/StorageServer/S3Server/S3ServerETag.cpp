// Entity tags of objects that another protocol stored: each is computed once, when it is first asked for, and kept.
//
// The requests that ask wait in CTagWaiters meanwhile and not on a thread, and are handled again afterwards.
#include <algorithm>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/S3Server/S3Digest.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3TagWaiters.h"
#include "StorageServer/S3Server/S3Threads.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyBase/MessageLoop.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using CloudStorage::details::CReadLease;
using CloudStorage::details::HostBuffer;
using CloudStorage::details::LocationText;

// Tags of longer objects are computed on threads of their own, piece by piece.
constexpr std::uint32_t kQuickBytes = 0x100000;
constexpr std::uint32_t kPieceBytes = 0x400000;
constexpr std::uint32_t kMemoryPatienceMs = 20000;

// How much of an object is in memory at a time while its digest is computed.
std::uint32_t PieceBytesOf(const ObjectInfo& object) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(object.size, kPieceBytes));
}

// Reads all bytes of an object. `goes_on` is asked between two pieces; null: it does. Returns "" when it says no, and
// when the bytes cannot be read.
std::string ReadMd5(const S3ServerConfig& config, const ObjectInfo& object, const std::function<bool()>& goes_on) {
  const auto size = static_cast<std::uint32_t>(object.size);
  const std::shared_ptr<CReadLease> lease = CReadLease::Begin(LocationText(object.bucket_name, object.url), size, 0);
  if (!lease) {
    return {};
  }
  CDigest digest(EDigest::kMd5);
  for (std::uint32_t done = 0; done < size; done += std::min(kPieceBytes, size - done)) {
    const std::uint32_t wanted = std::min(kPieceBytes, size - done);
    HostBuffer piece;
    const bool is_stopped = done > 0 && goes_on && !goes_on();
    if (is_stopped || lease->Read(config, piece, wanted, done) != 0 || !piece.data || piece.size != wanted) {
      return {};
    }
    digest.Add({piece.data.get(), wanted});
  }
  return ToHex(digest.Finish());
}

// Handles a request once more, after the entity tag that it asked for was computed, or could not be.
class CLookAgain : public TansyBase::CTask {
 public:
  CLookAgain(CTagWaiters::Waiter waiter, std::shared_ptr<const ComputedTag> waited_for)
      : waiter_(std::move(waiter)), waited_for_(std::move(waited_for)) {}
  ~CLookAgain() override {
    if (!executed_) {
      CS3Server::Instance().EndRequest(waiter_.handle, EError::kSlowDown);
    }
  }
  void Exec() override {
    executed_ = true;
    try {
      CS3Server::Instance().LookAgain(waiter_.handle, waiter_.id, waiter_.msg, waited_for_);
    } catch (const std::exception& error) {
      CLOUD_LOG(logging::kError, "[%s]read failed[%s], url[%s].[%s(%d)]", error.what(), waiter_.msg.url.c_str());
      CS3Server::Instance().EndRequest(waiter_.handle, CS3Server::ErrorOf(error));
    }
  }

 private:
  CTagWaiters::Waiter waiter_;
  const std::shared_ptr<const ComputedTag> waited_for_;
  bool executed_ = false;
};

// The computation of one tag. Whatever becomes of it, those who wait are seen to when it ends.
class CTagJob : private TansyBase::CNoncopyable {
 public:
  CTagJob(FoundObject object, std::string location)
      : object_(std::move(object)),
        location_(std::move(location)),
        tag_(std::make_shared<ComputedTag>(ComputedTag{object_.info.url, {}})) {}
  ~CTagJob() {
    for (CTagWaiters::Waiter& waiter : CTagWaiters::Instance().Take(location_)) {
      See(std::move(waiter));
    }
  }

  bool IsQuick() const { return object_.info.size <= kQuickBytes; }

  // Returns false when there is no room in memory now.
  bool TryNow(const S3ServerConfig& config) {
    TansyNet::CMemoryShare memory;
    const bool has_room = memory.Resize(PieceBytesOf(object_.info));
    if (has_room) {
      Compute(config);
    }
    return has_room;
  }
  void Run(const S3ServerConfig& config) {
    TansyNet::CMemoryShare memory;
    if (memory.ResizeWithin(PieceBytesOf(object_.info), kMemoryPatienceMs)) {
      Compute(config);
    }
  }

 private:
  // Whoever reads the object next finds out why it cannot be read.
  void Compute(const S3ServerConfig& config) {
    tag_->etag = ReadMd5(config, object_.info, [this] {
      is_given_up_ = !CTagWaiters::Instance().IsWanted(location_);
      return !is_given_up_;
    });
    if (!tag_->etag.empty()) {
      object_.attributes.etag = tag_->etag;
      // The catalogue compares the url, so that this is never taken for the tag of bytes that came meanwhile.
      CObjectStorageManager::Instance().FillInAttributes(object_.info, ToText(object_.attributes));
    }
  }

  // A request that came when the others had gone begins anew. What cannot be posted is answered by its own end.
  void See(CTagWaiters::Waiter waiter) const noexcept {
    const std::int32_t handle = waiter.handle;
    if (is_given_up_ && !TansyNet::CHttpServer::IsRequestOpen(handle)) {
      return;
    }
    auto* const again = new (std::nothrow) CLookAgain(std::move(waiter), is_given_up_ ? nullptr : tag_);
    if (again != nullptr) {
      CServerMsgLoop::Instance().PostTask(again);
    } else {
      CS3Server::Instance().EndRequest(handle, EError::kSlowDown);
    }
  }

  FoundObject object_;
  const std::string location_;
  const std::shared_ptr<ComputedTag> tag_;
  bool is_given_up_ = false;
};

void RunApart(const std::shared_ptr<CTagJob>& job) {
  // When the threads refuse it, its end sees to those who wait.
  CTagThreads::Instance().Run([job] { job->Run(*CS3Server::Instance().Config()); });
}

// Short objects have their turn among the other requests.
class CQuickTag : public TansyBase::CTask {
 public:
  explicit CQuickTag(std::shared_ptr<CTagJob> job) : job_(std::move(job)) {}
  void Exec() override {
    if (!job_->TryNow(*CS3Server::Instance().Config())) {
      RunApart(job_);
    }
  }

 private:
  const std::shared_ptr<CTagJob> job_;
};

// A job that cannot be started, for want of memory, sees to those who wait at its end.
void Start(std::shared_ptr<CTagJob> job) noexcept {
  try {
    if (job->IsQuick()) {
      CServerMsgLoop::Instance().PostTask(new CQuickTag(std::move(job)));
    } else {
      RunApart(job);
    }
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]no entity tag[%s].[%s(%d)]", error.what());
  }
}

}  // namespace

std::string Md5OfBytes(const S3ServerConfig& config, const ObjectInfo& object) {
  TansyNet::CMemoryShare memory;
  return memory.ResizeWithin(PieceBytesOf(object), kMemoryPatienceMs) ? ReadMd5(config, object, {}) : std::string();
}

// This runs on threads that serve all clients, so it neither reads nor writes.
bool CS3Server::FillInETag(FoundObject& object, const Request& request) {
  if (request.waited_for && request.waited_for->url == object.info.url) {
    object.attributes.etag = request.waited_for->etag;  // it may be one that could not be kept
    return true;
  }
  std::string location = LocationText(request.bucket, object.info.url);
  if (!CTagWaiters::Instance().Add(location, {request.handle, request.id, request.msg})) {
    return false;
  }
  std::shared_ptr<CTagJob> job;
  try {
    job = std::make_shared<CTagJob>(object, location);
  } catch (...) {
    CTagWaiters::Instance().Take(location);
    throw;
  }
  Start(std::move(job));
  return false;
}

void CS3Server::LookAgain(std::int32_t handle, const std::string& id, TansyNet::HttpServerRecv& msg,
                          std::shared_ptr<const ComputedTag> waited_for) {
  const auto config = conf_.Load();
  Request again(handle, msg, *config);
  again.id = id;
  again.waited_for = std::move(waited_for);
  GetObject(again);
}

}  // namespace Tansy::CloudStorage::S3
