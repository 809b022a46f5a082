// The object storage server: listeners, request intake, routing, and one handler for each request of the protocol.
//
// The bodies stand in files named after their theme: ObjectServer.cpp (lifecycle), ObjectServerDispatch.cpp (intake and
// routing), ObjectServerAuth.cpp, ObjectServerWrite.cpp, ObjectServerMultipart.cpp, ObjectServerRead.cpp,
// ObjectServerBuckets.cpp; the error table is ObjectServerErrors.h.
//
// Threads: Init is called by the host before anything else, and from one thread at a time when it is called again with
// other settings; every other member may be called from any thread.
// Handlers run in parallel on the threads of the message loop that both servers share. Errors: nothing throws; the
// protocol's error codes are those of ObjectServerErrors.h.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "Singleton.h"
#include "StorageServer/ConfigSnapshot.h"
#include "StorageServer/ObjectServer/ObjectRequest.h"
#include "StorageServer/ObjectServer/ObjectServerErrors.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ServerListeners.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/Catalogue.h"
#include "TansyCloudStorage/StorageConfig.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

namespace details {
class CReadLease;
}

// A byte range of an object; `end` is exclusive, 0 means to the end of the object.
struct ByteRange {
  std::uint32_t begin = 0;
  std::uint32_t end = 0;
};

// Address texts of the machine's adapters, loopback and tunnels left out.
struct AdapterAddresses {
  std::set<std::string> ipv4;
  std::set<std::string> ipv6;
};

class CObjectServer : private TansyBase::CNoncopyable {
 public:
  static CObjectServer& Instance();

  // Loads the catalogue and opens the listeners; the second form opens HTTPS listeners too. Returns 0, the HTTP
  // library's error (what is open stays open), or -1 when upload and download port differ (both HTTP listeners are open
  // all the same).
  int Init(const StorageServerConfig& config);
  int Init(const StorageServerConfig_V1& config);
  // Stops or starts the listeners; calls are serialised. Returns 0 or the first error of the HTTP library; the same
  // call can then be repeated and goes on where it failed.
  int SetObjectServerEnable(bool enable);
  // Breaks off the downloads that run on threads of their own, when the listeners are stopped, and waits until these
  // threads have left the host's callbacks. It does nothing while the listeners should be open.
  void EndDownloadsIfDisabled();

  // Update addresses. The next request sees the new ones; requests under way keep those they started with.
  void UpdateLocalServerIp(const std::string& ip);
  void UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t port);
  void UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields);

  // Sets the size of the chunks of downloads; see TansyCloudStorage/ObjectServer.h.
  void SetDownloadChunk(std::uint32_t bytes);

  // Look-ups for a host that serves downloads itself; see TansyCloudStorage/ObjectServer.h.
  bool GetInternalURLByObjectUrl(std::string& internal_url, const std::string& object_url);
  int CheckObjectRequestValid(std::string& internal_url, std::string& url, std::string& method, std::string& query,
                              std::map<std::string, std::string>& headers);

  // Receives every request and every piece of a streamed body on the HTTP library's threads; queues it or refuses it.
  static void RecvMsgCallBack(std::int32_t handle, TansyNet::HttpServerRecv& msg);
  // Routes a request to its handler, which answers it. The result is the result of sending that answer.
  int HandleObjectMsg(std::int32_t handle, const TansyNet::HttpServerRecv& msg);
  // Answers with the error body of `code`.
  int AnswerError(std::int32_t session_id, int code);

  // Splits "/bucket/key", "/bucket" or "/" into its two parts, which are not percent-decoded. Returns false when the
  // path has another shape.
  static bool ParseUrl(std::string& bucket, std::string& key, const std::string& path);
  // Returns 0, or the error code for a range that makes no sense.
  static int ParseRangeHeader(const TansyNet::HttpServerRecv& request, ByteRange& range);
  // Returns 0 when the request is signed, by a token in the query or else by its Authorization header; -1 otherwise.
  int CheckAuth(const TansyNet::HttpServerRecv& request) const;
  // Returns 0 when the query holds a valid token, -1 otherwise.
  int CheckUrlAuth(const TansyNet::HttpServerRecv& request) const;
  // Gives the machine's own addresses. Returns false when the system does not say.
  static bool GetAdapterInfo(AdapterAddresses& addresses);

 private:
  friend class CSingleton<CObjectServer>;
  // Longer answers are sent in chunks on a thread of their own.
  static constexpr std::uint32_t kLargestDownloadChunk = 0xA00000;
  using HttpServerRecv = TansyNet::HttpServerRecv;
  using HttpResponse = TansyNet::HttpResponse;
  using Config = StorageServerConfig_V1;
  using ConfigPointer = CConfigSnapshot<Config>::Pointer;
  struct Operations;
  struct Route;
  struct Routes;

  struct Opening;

  CObjectServer() = default;
  ~CObjectServer() = default;

  // Lifecycle.
  static int StartHttp(details::Listener& listener, const char* address, const Config& config);
  static int StartHttps(details::Listener& listener, const char* address, const Config& config);
  int StartListeners(const Config& config, const details::Caller& caller);
  int StartHttpsListeners(const Config& config, const details::Caller& caller);
  int StopListeners(const details::Caller& caller);

  // Intake and answers.
  static bool EndRefusedStream(std::int32_t handle);
  void TakeMsg(std::int32_t handle, HttpServerRecv& msg);
  // Says what to do with a request once one of its pieces has been taken.
  enum class Next { kNothing, kHandle };
  Next TakeBodyPiece(std::int32_t handle, HttpServerRecv& msg);
  Next TakeFirstPiece(std::int32_t handle, HttpServerRecv& msg);
  static void StorePiece(std::int32_t handle, HttpServerRecv& msg);
  static void DropBody(HttpServerRecv& msg);
  int HandleRequest(std::int32_t handle, const HttpServerRecv& msg);
  static const Route* FindRoute(const ObjectRequest& request);
  int SendObjectMsgRsp(std::int32_t session_id, const HttpResponse& response, const char* data, std::size_t size);
  int SendObjectMsgRsp(std::int32_t session_id, const HttpResponse& response, const std::string& body);
  int AnswerUnsupported(std::int32_t handle, int level, const details::Caller& caller);
  int AnswerXml(std::int32_t session_id, const std::string& body);

  // Makes the checks of an opening, in its order, on a request whose path is parsed already. Returns 0 or the error
  // code to answer; failures are logged for `request.caller`.
  static int Open(ObjectRequest& request, const Opening& opening);
  static int Open(ObjectRequest& request, const Route& route);
  static int Check(ObjectRequest& request, const Opening& opening);
  // Makes the checks of a download.
  // Fixed: docs/compatibility.md, "The order of checks".
  static int OpenToRead(ObjectRequest& request);
  // Whether the Date of a signed header has to lie in the window of SignatureDate.h.
  enum class DateRule { kInWindow, kAny };
  static int CheckAuth(const HttpServerRecv& request, const Config& config, DateRule date_rule);
  static int CheckUrlAuth(const HttpServerRecv& request, const Config& config);

  // Handlers, in the order of the routing table. Each gets a request that has passed the opening of its route, answers
  // it (except where its body says otherwise) and returns the result of the sending.
  // Fixed: docs/compatibility.md, "Misspelt names".
  int HandleGetOneObiectMetadata(std::int32_t session_id, const ObjectRequest& request);
  int HandleCreateBucket(std::int32_t session_id, const ObjectRequest& request);
  int HandleGetBucketProperty(std::int32_t session_id, const ObjectRequest& request);
  int HandleListBuckets(std::int32_t session_id, const ObjectRequest& request);
  int HandleGetBestNode(std::int32_t session_id, const ObjectRequest& request);
  int HandleUploadObject(std::int32_t session_id, const ObjectRequest& request);
  int HandleMultiUploadTaskCreate(std::int32_t session_id, const ObjectRequest& request);
  int HandleUploadPartObject(std::int32_t session_id, const ObjectRequest& request);
  // Fixed: docs/compatibility.md, "Misspelt names".
  int HandleFinishMutiUploadTask(std::int32_t session_id, const ObjectRequest& request);
  int HandleGetAllObjectTask(std::int32_t session_id, const ObjectRequest& request);
  int HandleDownloadObject(std::int32_t session_id, const ObjectRequest& request);
  int HandleRemoveObjectFile(std::int32_t session_id, const ObjectRequest& request);
  int HandleRemoveObject(std::int32_t session_id, const ObjectRequest& request);

  // Parts of HandleUploadObject. They return 0 or the error code to answer; `object` gets its url and size.
  static int ReceiveStream(ObjectInfo& object, std::int32_t session_id, const ObjectRequest& request);
  static int StoreWhole(ObjectInfo& object, const ObjectRequest& request);
  // Answers an upload once its row is there, or has failed.
  void AnswerUpload(std::int32_t session_id, bool added) noexcept;

  // Parts of HandleDownloadObject.
  std::optional<int> SendObject(std::int32_t session_id, const ObjectRequest& request, const ObjectInfo& object,
                                ByteRange range);
  std::optional<int> StartBigFileSend(std::int32_t session_id, const ObjectInfo& object, const ByteRange& range,
                                      std::uint32_t length);
  // Runs on a thread of its own. Returns false when the answer could not be sent to its end.
  bool HandleBigFileSend(std::uint32_t chunk_count, std::uint32_t chunk_size, std::int32_t session_id,
                         const ObjectInfo& object, const ByteRange& range, std::uint32_t total_length,
                         details::CReadLease& lease);

  CConfigSnapshot<Config> conf_;

  // Guarded by enable_mutex_ after Init.
  details::Listener http_listener_;
  details::Listener http_v6_listener_;
  details::Listener https_listener_;
  details::Listener https_v6_listener_;
  bool started_ = true;  // the listeners should be open
  std::mutex enable_mutex_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_H
