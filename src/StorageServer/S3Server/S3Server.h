// The S3 server: listeners, request intake, routing, and one handler for each operation that it has.
//
// It serves the objects of the catalogue that the object server loads, through the same storage callbacks. The bodies
// stand in files named after their theme: S3Server.cpp (lifecycle), S3ServerDispatch.cpp (intake, routing, answers),
// S3ServerBuckets.cpp, S3ServerWrite.cpp, S3ServerRead.cpp, S3ServerETag.cpp, S3ServerList.cpp, S3ServerMultipart.cpp
// (uploads in parts), S3ServerCopy.cpp, S3ServerAbsent.cpp, S3ServerForm.cpp, S3ServerRefusal.cpp; the error table is
// S3Errors.h.
//
// Threads: any. Handlers run in parallel on the threads of the message loop that all servers share. Errors: nothing
// throws; failures are answered.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Singleton.h"
#include "StorageServer/ConfigSnapshot.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PartUploads.h"
#include "StorageServer/S3Server/S3Attributes.h"
#include "StorageServer/S3Server/S3ChecksumNames.h"
#include "StorageServer/S3Server/S3Conditions.h"
#include "StorageServer/S3Server/S3CopySource.h"
#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Parts.h"
#include "StorageServer/S3Server/S3Request.h"
#include "StorageServer/S3Server/S3Uploads.h"
#include "StorageServer/ServerListeners.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/Catalogue.h"
#include "TansyCloudStorage/S3Server.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

class CSlowAnswer;

// An object as a request found it.
struct FoundObject {
  ObjectInfo info;
  Attributes attributes;
  std::time_t modified = 0;

  // Gives the entity tag, without quotes. That of an object whose digest is not known yet is none: it has a dash in it,
  // which tells clients so.
  std::string ETag() const;
  // Gives what listings showed for these bytes before their digest was known.
  std::string StandInTag() const;
  // Gives both, because a client may name what it found in a listing by the one or the other.
  VersionTags Tags() const { return {ETag(), StandInTag()}; }
};

// Gives what listings show for bytes whose digest is not known.
std::string StandInTagOf(std::string_view url, std::uint64_t size, std::string_view update_time);

// A body that is stored, and that no row names yet.
struct StoredBody {
  std::string url;  // as the host left it
  std::uint64_t size = 0;
  std::string md5;  // lower-case digits
  std::optional<Checksum> checksum;
};

// Everything belongs to the one who has the key.
inline constexpr const char* kOwner = "admin";

class CS3Server : private TansyBase::CNoncopyable {
 public:
  static CS3Server& Instance();

  int Init(const S3ServerConfig& config);
  int SetEnable(bool enable);
  void SetPagePort(std::uint16_t port) {
    conf_.Update([port](S3ServerConfig& config) { config.page_port = port; });
  }

  // Receives every request and every piece of a streamed body on the HTTP library's threads; queues it or refuses it.
  static void RecvMsgCallBack(std::int32_t handle, TansyNet::HttpServerRecv& msg);
  // Gives the document with which a request is refused that the HTTP library hands on to nobody. `status` is the
  // library's; a body that is too long is an EntityTooLarge, whose status is another one.
  static TansyNet::Refusal MakeRefusal(int status, const TansyNet::HttpServerRecv& msg);
  // Routes a request to its handler, which answers it.
  void Handle(std::int32_t handle, TansyNet::HttpServerRecv& msg);
  // Stores a piece of an upload. After a failure the request is answered and further pieces are ignored.
  void StorePiece(std::int32_t handle, TansyNet::HttpServerRecv& msg);
  // Goes on with a read that waited for an entity tag.
  void LookAgain(std::int32_t handle, const std::string& id, TansyNet::HttpServerRecv& msg,
                 std::shared_ptr<const ComputedTag> waited_for);
  CConfigSnapshot<S3ServerConfig>::Pointer Config() const { return conf_.Load(); }
  // Ends a request that will not be handled.
  void EndRequest(std::int32_t handle, EError error) noexcept;
  // Gives the error that an exception stands for.
  static EError ErrorOf(const std::exception& error);

 private:
  friend class CSingleton<CS3Server>;
  struct Operations;
  struct Route;
  struct Routes;

  CS3Server() = default;
  ~CS3Server() = default;

  int StartListeners(const S3ServerConfig& config);
  int StopListeners();

  // Intake.
  void TakeMsg(std::int32_t handle, TansyNet::HttpServerRecv& msg);
  void TakePiece(std::int32_t handle, TansyNet::HttpServerRecv& msg);
  bool TakeFirstPiece(std::int32_t handle, TansyNet::HttpServerRecv& msg);
  static Failure FindRoute(const Route*& route, const Request& request);

  // Handlers, in the order of the routing table.
  static void ListBuckets(const Request& request);
  static void CreateBucket(const Request& request);
  static void HeadBucket(const Request& request);
  static void DeleteBucket(const Request& request);
  static void GetBucketLocation(const Request& request);
  static void ListObjects(const Request& request);
  static void ListObjectsV2(const Request& request);
  static void ListObjectVersions(const Request& request);
  static void DeleteObjects(const Request& request);
  static void PutObject(const Request& request);
  static void GetObject(const Request& request);
  static void GetObjectAttributes(const Request& request);
  static void DeleteObject(const Request& request);
  static void PostObject(const Request& request);
  static void CopyObject(const Request& request);
  static void CreateMultipartUpload(const Request& request);
  static void UploadPart(const Request& request);
  static void ListParts(const Request& request);
  static void ListMultipartUploads(const Request& request);
  static void CompleteMultipartUpload(const Request& request);
  static void AbortMultipartUpload(const Request& request);
  static void GetAcl(const Request& request);
  static void PutAcl(const Request& request);
  static void GetAbsent(const Request& request);
  static void DeleteAbsent(const Request& request);

  // Parts of the handlers.
  // Answers the question of a browser whether a page may send a request.
  static void AnswerPreflight(const Request& request);
  static bool IsForm(const Request& request);
  // Says what is missing when the bucket's object that a request is about is not there.
  static Failure ExpectTarget(const Request& request);
  // Takes a body that came with its request, and compares it with the digests in these headers. It lives as long as
  // the request's message.
  static Failure ReadBody(std::string_view& body, const Request& request, const LowerHeaders& headers);
  // Says whether a body that is put is a part of an upload.
  static bool IsPart(const Request& request);
  static Failure CheckUpload(const Request& request) {
    return IsPart(request) ? CheckPart(request) : CheckPut(request);
  }
  static Failure CheckPut(const Request& request);
  static Failure CheckPart(const Request& request);
  static Failure StoreBytes(TansyNet::HttpServerRecv& msg, std::int32_t handle, Upload& upload,
                            const std::string& bucket);
  static Failure ReceiveWhole(StoredBody& body, const Request& request);
  static Failure ReceiveStream(StoredBody& body, Upload& upload, const Request& request);
  // Writes the row of stored bytes. When nothing is wrong so far, the answer follows once the row is committed; until
  // then it keeps `upload`.
  static Failure AddObject(const StoredBody& body, const Request& request, std::shared_ptr<const void> upload);
  static void AnswerPut(const Recipient& to, const std::string& bucket, const std::string& etag,
                        CObjectStorageManager::EAdded result) noexcept;
  static Failure AddPart(const StoredBody& body, const Request& request);
  static void AnswerPart(const Request& request, const StoredBody& body);
  static Failure FindUpload(PartUpload& upload, const Request& request);
  static Failure TryToComplete(CompletedUpload& completed, CObjectStorageManager::EAdded& added,
                               const std::vector<PartToComplete>& list, const Request& request);
  static bool AnswerRepeated(const Request& request, const std::vector<PartToComplete>& list);
  static bool RunApart(const Request& request, void (*handler)(const Request&));
  static void CopyNow(const Request& request);
  static Failure FindSource(FoundObject& source, const Request& request);
  static Failure CopyBytes(StoredBody& body, FoundObject& source, const Request& request,
                           std::optional<EDigest> checksum, CSlowAnswer& answer);
  static Failure CopyToPart(StoredBody& body, const Request& request, CSlowAnswer& answer);
  static Failure CopyToObject(StoredBody& body, std::string& time, const Request& request, CSlowAnswer& answer);
  static Failure ReplaceAttributes(StoredBody& body, std::string& time, EMetadata metadata, const Request& request);
  static Failure FindObject(FoundObject& object, const Request& request);
  static Failure FindObject(FoundObject& object, const std::string& bucket, const std::string& key);
  // Sees that the entity tag of an object that has none is computed and kept. Returns false when the request waits for
  // that and is handled again afterwards; true when it has waited for the tag of these bytes already.
  static bool FillInETag(FoundObject& object, const Request& request);
  static void SendHead(const Request& request);
  static void SendBody(const Request& request);
  static Failure ReadAskedRange(AskedRange& range, const FoundObject& object, const Request& request);
  static Failure ReadAskedPart(AskedRange& range, const FoundObject& object, const Request& request);
  // Finds what a read has to send. Returns false when the request is answered, or will be by another thread.
  static bool FindToSend(FoundObject& object, AskedRange& range, const Request& request);
  static bool Send(const Request& request, const FoundObject& object, const AskedRange& range);
  static bool SendInChunks(const Request& request, const FoundObject& object, const TansyNet::HttpResponse& response,
                           std::uint32_t begin, std::uint32_t length);

  CConfigSnapshot<S3ServerConfig> conf_;

  std::mutex enable_mutex_;
  // Guarded by enable_mutex_.
  CloudStorage::details::Listener http_;
  CloudStorage::details::Listener http_v6_;
  CloudStorage::details::Listener https_;
  CloudStorage::details::Listener https_v6_;
  bool started_ = false;  // the listeners should be open
};

// Asks the conditions of a write when it takes place; empty when it has none.
CObjectStorageManager::MayAdd ConditionsOf(const LowerHeaders& headers);
// Adds an object and waits until it is committed.
CObjectStorageManager::EAdded AddAndWait(const ObjectInfo& object, const Attributes& attributes,
                                         const CObjectStorageManager::MayAdd& may_add);
// Gives the time as rows have it.
std::string NowText();
// Reads all bytes of an object. Returns "" when they cannot be read.
std::string Md5OfBytes(const S3ServerConfig& config, const ObjectInfo& object);
// Gives the failure that a storage callback's result stands for.
Failure StorageFailure(int result);

// Answers of any handler.
void AnswerFailure(const Recipient& to, const Failure& failure);
void AnswerXml(const Recipient& to, const std::string& xml, const TansyNet::Headers& headers = {});
void LogFailure(const Recipient& to, const Failure& failure);
// Answers without a body.
void AnswerEmpty(const Recipient& to, std::int32_t status, const TansyNet::Headers& headers = {});
// Gives an answer what every answer has. The content type is empty.
TansyNet::HttpResponse MakeResponse(const Recipient& to, std::int32_t status);
TansyNet::HttpResponse MakeXmlResponse(const Recipient& to, std::int32_t status);
// Writes the time of a row as listings show it.
std::string ListedTime(const std::string& update_time);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_H
